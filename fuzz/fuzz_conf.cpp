// Any bytes as a configuration file.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "server/conf.h"

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// The warnings would drown the fuzzer's own lines.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = memfd_create("conf", 0);
    if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size))) abort();
    conf_t* lst = reinterpret_cast<conf_t*>(1);
    const int err = conf_load(&lst, ("/proc/self/fd/" + std::to_string(fd)).c_str());
    close(fd);
    const bool has_nul = size > 0 && memchr(data, 0, size);
    if (has_nul ? err != EINVAL || lst : err != 0) abort();
    int lineno = 0;
    for (conf_t* p = lst; p; p = p->next) {
        if (p->lineno <= lineno || !*p->key || strpbrk(p->key, ":=\n")) abort();
        lineno = p->lineno;
        const conf_t* found = conf_get(lst, p->key);
        if (!found || strcmp(found->key, p->key) != 0 || found->lineno > p->lineno) abort();
    }
    conf_free(lst);
    return 0;
}
