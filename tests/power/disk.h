// A file system as it may be found after the power fails. Directories and files are replayed from a trace of
// calls; what no flush has ordered yet may have reached the disk or not, each piece for itself:
//
//   directory  each name has, independent of all other names, any of the values that it had since the
//              directory was last flushed. A rename is two such changes: its halves may arrive without each
//              other.
//   file       its bytes as last flushed, or as written since, cut or torn at 512 and at 4,096 bytes: any
//              prefix, any prefix with zeros up to the size, any beginning of zeros, any single hole, the
//              size without data.
//
// Flushing a file does not make its name durable, and flushing a directory does nothing for those above it.
#ifndef KELPD_TESTS_POWER_DISK_H
#define KELPD_TESTS_POWER_DISK_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace power {

// All contents that ever occurred, each once. Numbers count from 0, which is the empty file.
class contents_t {
 public:
    contents_t() { (void)number(""); }
    int number(const std::string& bytes);
    const std::string& bytes(int number) const { return bytes_[static_cast<size_t>(number)]; }

 private:
    std::vector<std::string> bytes_;
    std::unordered_multimap<uint64_t, int> by_hash_;
};

// What lies below the data directory: its directories with DIRECTORY, its files with the number of their
// content.
constexpr int DIRECTORY = -1;
using state_t = std::map<std::string, int>;

class disk_t {
 public:
    explicit disk_t(contents_t* contents);

    // Something durable that is there before the trace begins; its directory is.
    void add(const std::string& path, const std::string& bytes, ino_t ino);
    void add_directory(const std::string& path, ino_t ino);

    // The trace. Paths are relative to the data directory; what a call is about must be known.
    void made(const std::string& path, bool directory, ino_t ino);
    void renamed(const std::string& from, const std::string& to);
    void removed(const std::string& path);
    void wrote(ino_t ino, int64_t offset, const std::string& bytes);
    void cut(ino_t ino, int64_t size);
    void flushed(ino_t ino);

    bool has(const std::string& path) const { return find(path) >= 0; }
    bool knows(ino_t ino) const { return node_of_.contains(ino); }

    // Calls `use` with each state that the disk may be found in; the same one may come more than once.
    void each_state(const std::function<void(const state_t&)>& use);

 private:
    struct node_t {
        bool directory = false;
        std::map<std::string, std::vector<int>>
            names;                     // nodes or -1; the first is durable, the last the present
        std::string flushed, present;  // of a file
        bool dirty = false;
        std::vector<int> found;  // contents it may be found with, as of the last call about it
    };
    int find(const std::string& path) const;
    std::pair<int, std::string> parent(const std::string& path) const;
    int create(bool directory, ino_t ino);
    void set(const std::string& path, int node);
    int node(ino_t ino) const;
    const std::vector<int>& found(node_t* file);

    contents_t* contents_;
    std::vector<node_t> node_;
    std::unordered_map<ino_t, int> node_of_;
};

}  // namespace power
#endif
