#include "fault/scene.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;
using namespace scene;

void scene::fail(const std::string& what) { throw std::runtime_error(what); }

std::string scene::read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void scene::write_file(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool ok = fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    if (fd >= 0) close(fd);
    if (!ok) fail("cannot write " + path);
}

client_t::client_t(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit = {.tv_sec = 120, .tv_usec = 0};
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != 0) {
        const std::string why = strerror(errno);
        close(fd_);
        fail("cannot connect: " + why);
    }
}

client_t::~client_t() { close(fd_); }

void client_t::send(const std::string& bytes) const {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return;
        at += static_cast<size_t>(n);
    }
}

void client_t::end() const { (void)shutdown(fd_, SHUT_WR); }

std::string client_t::receive() const {
    std::string got;
    char buf[65536];
    for (ssize_t n; (n = read(fd_, buf, sizeof(buf))) > 0;) got.append(buf, static_cast<size_t>(n));
    return got;
}

int scene::in_work_folder(std::string* work, const char* name, const std::function<int()>& run) {
    if (work->empty()) *work = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string();
    *work += std::string("/") + name + "-XXXXXX";
    int code = 1;
    try {
        if (!mkdtemp(work->data())) fail("cannot make " + *work);
        code = run();
    } catch (const std::exception& e) {
        printf("FAILED: %s\n", e.what());
    }
    std::error_code none;
    fs::remove_all(*work, none);
    return code;
}
