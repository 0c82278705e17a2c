// Loaded before a program's libraries: one allocation, chosen by number, finds no memory. What is allocated
// before main is not counted: that is the loader's and the libraries' own business.
//
// The mapped file that FAULT_ALLOC names says which one, and hears whether it was reached.
#include "fault/alloc_shim.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

static alloc_fault_t* control;
static bool in_main;
static int (*real_main)(int, char**, char**);

extern "C" {
void* __libc_malloc(size_t n);
void* __libc_calloc(size_t n, size_t sz);
void* __libc_realloc(void* p, size_t n);
void* __libc_memalign(size_t alignment, size_t n);
void* __libc_valloc(size_t n);
int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(), void (*fini)(),
                      void (*rtld_fini)(), void* stack_end);
}

static bool due() {
    if (!in_main || !control || control->nth == 0) return false;
    if (control->not_pid != 0 && control->not_pid == static_cast<int>(syscall(SYS_getpid))) return false;
    if (__atomic_add_fetch(&control->count, 1, __ATOMIC_RELAXED) != control->nth) return false;
    control->fired = 1;
    errno = ENOMEM;
    return true;
}

static int start(int argc, char** argv, char** envp) {
    if (const char* path = getenv("FAULT_ALLOC")) {
        const int fd = open(path, O_RDWR | O_CLOEXEC);
        void* p = mmap(nullptr, sizeof(*control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p != MAP_FAILED) control = static_cast<alloc_fault_t*>(p);
        if (fd >= 0) close(fd);
    }
    // What is started from here on is counted by nobody.
    unsetenv("LD_PRELOAD");
    (void)syscall(SYS_getpriority, MARK_MAIN, 0);
    in_main = true;
    return real_main(argc, argv, envp);
}

extern "C" {
int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(), void (*fini)(),
                      void (*rtld_fini)(), void* stack_end) {
    real_main = main;
    const auto real = reinterpret_cast<decltype(&__libc_start_main)>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return real(start, argc, argv, init, fini, rtld_fini, stack_end);
}
void* malloc(size_t n) { return due() ? nullptr : __libc_malloc(n); }
void* calloc(size_t n, size_t sz) { return due() ? nullptr : __libc_calloc(n, sz); }
void* realloc(void* p, size_t n) { return due() ? nullptr : __libc_realloc(p, n); }
void* memalign(size_t alignment, size_t n) { return due() ? nullptr : __libc_memalign(alignment, n); }
void* aligned_alloc(size_t alignment, size_t n) { return due() ? nullptr : __libc_memalign(alignment, n); }
void* valloc(size_t n) { return due() ? nullptr : __libc_valloc(n); }
int posix_memalign(void** ret, size_t alignment, size_t n) {
    void* p = due() ? nullptr : __libc_memalign(alignment, n);
    if (!p) return ENOMEM;
    *ret = p;
    return 0;
}
}
