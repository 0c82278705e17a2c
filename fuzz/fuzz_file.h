// Inputs as files: the library opens paths, so an input is put into a file in memory and given by its
// descriptor's name.
#ifndef KELPD_FUZZ_FUZZ_FILE_H
#define KELPD_FUZZ_FUZZ_FILE_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace fuzz {

// Ends the program when a promise was broken.
inline void demand(bool good, const char* promise) {
    if (good) return;
    fprintf(stderr, "BROKEN PROMISE: %s\n", promise);
    abort();
}

// The same for what is null when all is well; `bad` says what was broken.
inline void demand_null(const char* bad) {
    if (!bad) return;
    fprintf(stderr, "BROKEN PROMISE: %s\n", bad);
    abort();
}

// A file that holds an input for as long as it lives. Its descriptor is used again: making a file in memory and
// closing it takes longer than most targets do.
class memory_file_t {
 public:
    memory_file_t(const uint8_t* data, size_t size) : fd_(get()) {
        if (pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size) ||
            ftruncate(fd_, static_cast<off_t>(size)) != 0)
            abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    memory_file_t(const memory_file_t&) = delete;
    memory_file_t& operator=(const memory_file_t&) = delete;
    ~memory_file_t() { idle().push_back(fd_); }
    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] const char* path() const { return path_.c_str(); }

 private:
    static std::vector<int>& idle() {
        static std::vector<int> fds;
        return fds;
    }
    static int get() {
        if (idle().empty()) {
            const int fd = memfd_create("input", MFD_CLOEXEC);
            if (fd < 0) abort();
            return fd;
        }
        const int fd = idle().back();
        idle().pop_back();
        return fd;
    }
    int fd_;
    std::string path_;
};

// A folder for what a target writes, made once for the process and removed when it ends.
inline const std::string& scratch_dir() {
    struct holder_t {
        std::string path =
            access("/dev/shm", W_OK) == 0 ? "/dev/shm/colvane-fuzz-XXXXXX" : "/tmp/colvane-fuzz-XXXXXX";
        holder_t() {
            if (!mkdtemp(path.data())) abort();
        }
        ~holder_t() { rmdir(path.c_str()); }
    };
    static const holder_t holder;
    return holder.path;
}

}  // namespace fuzz
#endif
