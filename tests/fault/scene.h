// What the programs that trace have in common: files, one connection, a folder to work in.
#ifndef KELPD_TESTS_FAULT_SCENE_H
#define KELPD_TESTS_FAULT_SCENE_H

#include <functional>
#include <string>

namespace scene {

// Throws, and so ends the program with "FAILED: " and the text.
[[noreturn]] void fail(const std::string& what);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// A connection to the daemon on this host. Fails when there is none.
class client_t {
 public:
    explicit client_t(int port);
    client_t(const client_t&) = delete;
    client_t& operator=(const client_t&) = delete;
    ~client_t();
    void send(const std::string& bytes) const;  // up to the first failure: the reply says why
    void end() const;                           // nothing more is sent
    std::string receive() const;                // all up to the end, or for two minutes

 private:
    int fd_;
};

// Makes a folder in `*work`, or in memory when that is empty, stores its path there, and removes it when `run` is
// done. Returns what that returns, or 1 when it fails, which is printed.
int in_work_folder(std::string* work, const char* name, const std::function<int()>& run);

}  // namespace scene

#endif
