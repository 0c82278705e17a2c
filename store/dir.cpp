// Existence, creation and listing of directories.
#include "store/dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

bool dir_exists(const char* path) {
    // As opendir opens it, without the buffer that it makes ready for reading.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) return false;
    close(fd);
    return true;
}

bool dir_create(const char* path, int mode) { return mkdir(path, static_cast<mode_t>(mode)) != -1; }

static const char* dir_list_err(const char* err, DIR* d, dir_item_t* list) {
    if (d) closedir(d);
    dir_free(list);
    return err;
}

const char* dir_list(dir_item_t** ret_list, const char* path) {
    *ret_list = nullptr;
    dir_item_t* list = nullptr;
    dir_item_t** tail = &list;
    DIR* d = opendir(path);
    if (!d) return dir_list_err("404 Not Found", d, list);
    for (;;) {
        errno = 0;
        const struct dirent* entry = readdir(d);
        // Part of a listing would pass for all of it.
        if (!entry && errno != 0) return dir_list_err("500 Internal Server Error", d, list);
        if (!entry) break;
        dir_item_t* item = static_cast<dir_item_t*>(calloc(1, sizeof(*item)));
        if (!item) return dir_list_err("500 Internal Server Error - out of memory", d, list);
        *tail = item;
        tail = &item->next;
        item->name = strdup(entry->d_name);
        if (!item->name) return dir_list_err("500 Internal Server Error - out of memory", d, list);
    }
    closedir(d);
    *ret_list = list;
    return nullptr;
}

void dir_free(dir_item_t* lst) {
    while (lst) {
        dir_item_t* next = lst->next;
        free(lst->name);
        free(lst);
        lst = next;
    }
}
