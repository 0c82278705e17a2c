#include "fault/wrap.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

struct state_t {
    wrap::kind_t kind = wrap::NONE;
    wrap::mode_t mode = wrap::FAIL;
    int countdown = 0;
    int error = 0;
    bool fired = false;
    int64_t live = 0;
    int64_t peak = 0;
    std::vector<std::pair<int64_t, int64_t>> hints;
} state;

// Whether this call is the one that fails.
bool hit(wrap::kind_t kind) {
    if (state.kind != kind || state.countdown == 0 || --state.countdown > 0) return false;
    state.fired = true;
    if (state.mode != wrap::SHORT) errno = state.error;
    return true;
}

void* counted(void* ptr) {
    if (ptr) state.live += static_cast<int64_t>(malloc_usable_size(ptr));
    if (state.live > state.peak) state.peak = state.live;
    return ptr;
}

void uncount(void* ptr) {
    if (ptr) state.live -= static_cast<int64_t>(malloc_usable_size(ptr));
}

}  // namespace

namespace wrap {

void fail_nth(kind_t kind, int n, int error, mode_t mode) {
    state.kind = kind;
    state.mode = mode;
    state.countdown = n;
    state.error = error;
    state.fired = false;
}

bool disarm() {
    state.kind = NONE;
    return state.fired;
}

int64_t live() { return state.live; }
int64_t peak() { return state.peak; }
void reset_peak() { state.peak = state.live; }
std::vector<std::pair<int64_t, int64_t>> take_hints() { return std::exchange(state.hints, {}); }

}  // namespace wrap

// The names that the linker's --wrap gives to the wrapper and to what it stands for.
extern "C" {
void* __real_malloc(size_t nb);
void* __real_calloc(size_t n, size_t nb);
void* __real_realloc(void* ptr, size_t nb);
int __real_posix_memalign(void** ret, size_t align, size_t nb);
void* __real_aligned_alloc(size_t align, size_t nb);
char* __real_strdup(const char* s);
void __real_free(void* ptr);
FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(FILE* fp);
size_t __real_fwrite(const void* ptr, size_t nb, size_t n, FILE* fp);
ssize_t __real_pread(int fd, void* buf, size_t nb, off_t offset);
int __real_open(const char* path, int flags, ...);
int __real_posix_fadvise(int fd, off_t offset, off_t len, int advice);

void* __wrap_malloc(size_t nb);
void* __wrap_calloc(size_t n, size_t nb);
void* __wrap_realloc(void* ptr, size_t nb);
int __wrap_posix_memalign(void** ret, size_t align, size_t nb);
void* __wrap_aligned_alloc(size_t align, size_t nb);
char* __wrap_strdup(const char* s);
void __wrap_free(void* ptr);
FILE* __wrap_fopen(const char* path, const char* mode);
int __wrap_fclose(FILE* fp);
size_t __wrap_fwrite(const void* ptr, size_t nb, size_t n, FILE* fp);
ssize_t __wrap_pread(int fd, void* buf, size_t nb, off_t offset);
int __wrap_open(const char* path, int flags, ...);
int __wrap_posix_fadvise(int fd, off_t offset, off_t len, int advice);

void* __wrap_malloc(size_t nb) { return hit(wrap::ALLOC) ? nullptr : counted(__real_malloc(nb)); }

void* __wrap_calloc(size_t n, size_t nb) {
    return hit(wrap::ALLOC) ? nullptr : counted(__real_calloc(n, nb));
}

void* __wrap_realloc(void* ptr, size_t nb) {
    if (hit(wrap::ALLOC)) return nullptr;
    uncount(ptr);
    void* bigger = __real_realloc(ptr, nb);
    return counted(bigger ? bigger : ptr) == ptr && !bigger ? nullptr : bigger;
}

int __wrap_posix_memalign(void** ret, size_t align, size_t nb) {
    if (hit(wrap::ALLOC)) return ENOMEM;
    const int code = __real_posix_memalign(ret, align, nb);
    if (code == 0) counted(*ret);
    return code;
}

void* __wrap_aligned_alloc(size_t align, size_t nb) {
    return hit(wrap::ALLOC) ? nullptr : counted(__real_aligned_alloc(align, nb));
}

char* __wrap_strdup(const char* s) {
    return hit(wrap::ALLOC) ? nullptr : static_cast<char*>(counted(__real_strdup(s)));
}

void __wrap_free(void* ptr) {
    uncount(ptr);
    __real_free(ptr);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    return hit(wrap::FOPEN) ? nullptr : __real_fopen(path, mode);
}

int __wrap_fclose(FILE* fp) {
    const int code = __real_fclose(fp);
    return hit(wrap::FCLOSE) ? EOF : code;
}

size_t __wrap_fwrite(const void* ptr, size_t nb, size_t n, FILE* fp) {
    return hit(wrap::FWRITE) ? 0 : __real_fwrite(ptr, nb, n, fp);
}

ssize_t __wrap_pread(int fd, void* buf, size_t nb, off_t offset) {
    if (!hit(wrap::PREAD)) return __real_pread(fd, buf, nb, offset);
    // A short read is one at the end of the file: nothing comes.
    return state.mode == wrap::SHORT ? 0 : -1;
}

int __wrap_open(const char* path, int flags, ...) {
    if (hit(wrap::OPEN)) return -1;
    va_list args;
    va_start(args, flags);
    const int mode = va_arg(args, int);  // read only when flags create a file; harmless otherwise
    va_end(args);
    return __real_open(path, flags, mode);
}

int __wrap_posix_fadvise(int fd, off_t offset, off_t len, int advice) {
    if (advice == POSIX_FADV_WILLNEED) state.hints.emplace_back(offset, len);
    return __real_posix_fadvise(fd, offset, len, advice);
}
}
