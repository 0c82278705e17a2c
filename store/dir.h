// Operations on directories. Several processes list and remove the same trees at once; an entry that vanishes
// under a removal counts as removed.
#ifndef KELPD_STORE_DIR_H
#define KELPD_STORE_DIR_H

// One directory entry of a listing.
struct dir_item_t {
    char* name;        // owned; null only in a list that is being torn down
    dir_item_t* next;  // null at the end; owned
};

// Returns true when the directory can be opened: false for a missing path, another kind of file, no
// permission.
[[nodiscard]] bool dir_exists(const char* path);

// Makes one directory, no parents. Returns false on any failure, an existing path included.
[[nodiscard]] bool dir_create(const char* path, int mode);

// Lists all entries in the order in which the file system gives them, "." and ".." and hidden names included.
//
// ret_list  owned by the caller, release with dir_free(). Cleared on entry, set only on success.
//
// Returns null, "404 Not Found" when the directory cannot be opened for whatever reason,
// "500 Internal Server Error" when it cannot be read to its end, or
// "500 Internal Server Error - out of memory". Prints nothing.
[[nodiscard]] const char* dir_list(dir_item_t** ret_list, const char* path);

// Releases a list; null is accepted.
void dir_free(dir_item_t* lst);

// Removes a file, or a directory with all below it; symbolic links are removed, never followed. A missing
// path counts as removed. Returns null or "error while rm -rf"; each failure is printed to standard error,
// and what was not yet removed stays.
[[nodiscard]] const char* dir_rmrf(const char* path);

#endif
