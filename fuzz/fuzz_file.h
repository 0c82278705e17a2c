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

namespace fuzz {

// Ends the program when a promise was broken; `bad` says which.
inline void demand_null(const char* bad) {
    if (!bad) return;
    fprintf(stderr, "BROKEN PROMISE: %s\n", bad);
    abort();
}

class memory_file_t {
 public:
    memory_file_t(const uint8_t* data, size_t size) : fd_(memfd_create("input", MFD_CLOEXEC)) {
        if (fd_ < 0 || write(fd_, data, size) != static_cast<ssize_t>(size)) abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    memory_file_t(const memory_file_t&) = delete;
    memory_file_t& operator=(const memory_file_t&) = delete;
    ~memory_file_t() { close(fd_); }
    const char* path() const { return path_.c_str(); }

 private:
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
