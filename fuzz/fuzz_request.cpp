// The daemon from the bytes of a request to the bytes of its reply, in one process: the server's own reading and
// dispatch, its handlers, and a small tree of data on a file system in memory.
//
//   byte 0       what the sampler leaves: nothing, a sound file, a broken one, or the body of the first request
//   the rest     requests, one connection each, parted by the bytes "\xff|\xff"
//
// The sampler is not run: popen is replaced. Whatever else would start a process ends the target.
//
// Demanded: a reply is none at all where the daemon deliberately gives none, or a status line that the daemon has,
// with a body of the length that it says, or chunks with records inside, which end well or in an error text; an
// upload that was accepted is there, byte by byte; nothing outside of base/ changes, no temporary file stays, no
// descriptor leaks.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

// The daemon is one source with its main, so it is compiled here once more, under another name for that.
int kelpd_main(int argc, char** argv);
#define main kelpd_main
#include "server/kelpd.cpp"
#undef main

// A filter of system calls would hold for the target too.
void confine_process() {}
void confine_upload() {}

#include "fuzz/fuzz_file.h"
#include "fuzz/mutate.h"

namespace fs = std::filesystem;
using fuzz::demand;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Linked in the place of the calls that start processes.
extern "C" FILE* __wrap_popen(const char* line, const char* mode);
extern "C" int __wrap_pclose(FILE* fp);
extern "C" int __wrap_unexpected();
// And of the call that writes replies and access lines, for the latter.
extern "C" ssize_t __real_writev(int fd, const struct iovec* iov, int n);
extern "C" ssize_t __wrap_writev(int fd, const struct iovec* iov, int n);

constexpr std::string_view PART = "\xff|\xff";
constexpr size_t MAX_REQUESTS = 6;

static std::string sampled;                                     // what the sampler leaves
static bool changed = true;                                     // the tree is not what it was made as
static std::string home;                                        // the folder that holds the data directory
static std::vector<std::pair<std::string, std::string>> files;  // of the tree: path and bytes

static int nlogged = 0;

ssize_t __wrap_writev(int fd, const struct iovec* iov, int n) {
    if (fd != STDERR_FILENO) return __real_writev(fd, iov, n);
    ssize_t sum = 0;
    for (int i = 0; i < n; i++) sum += static_cast<ssize_t>(iov[i].iov_len);
    nlogged++;
    return sum;
}

FILE* __wrap_popen(const char* line, const char* mode) {
    demand(strcmp(mode, "r") == 0, "the sampler is started in another way");
    const char* const out = strrchr(line, '>');
    demand(out && strncmp(out, "> tmp/", 6) == 0, "the sampler writes elsewhere");
    demand(strncmp(line, "cvnsamp ", 8) == 0, "another program is started");
    // The shell sees nothing but the command, quoted names and the redirection.
    bool quoted = false;
    for (const char* p = line; p < out; p++) {
        if (*p == '\'') quoted = !quoted;
        demand(quoted || strchr("cvnsamp 0123456789'", *p), "the shell sees a character of a name");
    }
    demand(!quoted, "a quote of a name is not closed");
    if (!sampled.empty()) {
        std::ofstream file(out + 2, std::ios::binary);
        file << sampled;
    }
    return fopen("/dev/null", "r");
}
int __wrap_pclose(FILE* fp) { return fclose(fp); }
int __wrap_unexpected() {
    demand(false, "a process is started");
    return -1;
}

static std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

static void make_tree() {
    fs::remove_all("base");
    for (const auto& [path, bytes] : files) {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }
    changed = false;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string golden = FUZZ_GOLDEN_DIR;
    home = fuzz::scratch_dir();
    for (const char* name : {"types", "groups", "compressed"})
        files.emplace_back(std::string("base/db/s/t/") + name + ".cvn",
                           read_file(golden + "/" + name + ".cvn"));
    for (const char* name : {"meta.cvnx", "0.cvnx", "1.cvnx"})
        files.emplace_back(std::string("base/db/s/u/split.cvn/") + name,
                           read_file(golden + "/groups.split/" + name));
    files.emplace_back("base/db/s/u/groups.cvn", read_file(golden + "/groups.cvn"));
    files.emplace_back("base/db/s/u/damaged.cvn.mismatch", read_file(golden + "/groups.cvn").substr(0, 600));
    files.emplace_back("base/db/s/u/note.sql", "select 1");
    for (const auto& [path, bytes] : files) demand(!bytes.empty(), "a golden file is missing");
    fs::create_directories(home + "/data/tmp");
    std::ofstream(home + "/outside") << "untouched";
    demand(chdir((home + "/data").c_str()) == 0, "the data directory cannot be entered");
    signal(SIGPIPE, SIG_IGN);
    stderr = fopen("/dev/null", "w");  // the daemon's lines would drown the fuzzer's own
    atexit([] {
        std::error_code none;
        fs::current_path("/", none);
        fs::remove_all(home + "/data");
        fs::remove(home + "/outside");
    });
    return 0;
}

// Checking replies.

static std::string_view take_line(std::string_view* rest) {
    const size_t end = rest->find("\r\n");
    if (end == std::string_view::npos) return {};
    const std::string_view line = rest->substr(0, end);
    rest->remove_prefix(end + 2);
    return line;
}

// Takes the chunks of a body apart. True when it came to its end; false when it was cut, which an error text in the
// place of a chunk and a socket that is full do.
static bool take_chunks(std::string_view rest, std::string* body) {
    for (;;) {
        if (rest.empty()) return false;
        if (rest.starts_with("4") || rest.starts_with("5"))
            if (rest.substr(3, 1) == " " && rest.substr(1, 2).find_first_not_of("0123456789") == rest.npos)
                return false;
        const size_t size = strtoull(std::string(rest.substr(0, 16)).c_str(), nullptr, 16);
        const std::string_view line = take_line(&rest);
        if (line.data() == nullptr) return false;  // cut
        if (size == 0) {
            demand(line == "0" && rest == "\r\n", "something after the last chunk");
            return true;
        }
        demand(line.find("; chunk") != line.npos, "a chunk of another form");
        if (rest.size() < size + 2) return false;
        body->append(rest.substr(0, size));
        demand(rest.substr(size, 2) == "\r\n", "a chunk without its end");
        rest.remove_prefix(size + 2);
    }
}

// Records, each with whole pages, then the end record.
static void check_records(std::string_view body, bool ended) {
    while (!body.empty()) {
        payloadhdr_t head;
        demand(body.size() >= sizeof(head), "a record without its head");
        memcpy(&head, body.data(), sizeof(head));
        body.remove_prefix(sizeof(head));
        demand(head.magic == PAYLOAD_MAGIC && head.nbyte >= 0, "a record of another form");
        if (head.nbyte == 0 && (body.empty() || !ended)) {
            // A count of rows and a row group of no columns also look so; only the last one is the end.
            if (body.empty()) return;
            continue;
        }
        int64_t left = head.nbyte;
        while (left > 0 && !body.empty()) {
            cvn_page_t page;
            demand(body.size() >= CVN_PAGE_HEADSZ && left >= CVN_PAGE_HEADSZ, "a page without its head");
            memcpy(static_cast<void*>(&page), body.data(), CVN_PAGE_HEADSZ);
            demand(page.magic == CVN_PAGE_MAGIC && page.zbyte >= 0, "a page of another form");
            const int64_t n = CVN_PAGE_HEADSZ + int64_t{page.zbyte};
            demand(n <= left && n <= static_cast<int64_t>(body.size()), "a page larger than its record");
            left -= n;
            body.remove_prefix(static_cast<size_t>(n));
        }
        demand(left == 0 || !ended, "a record that is cut in a stream that ends well");
    }
    demand(!ended, "a stream without its end record");
}

// Returns the status code; 0 for no reply.
static int check_reply(std::string_view reply, std::string_view method) {
    if (reply.empty()) return 0;
    demand(reply.starts_with("HTTP/1.1 "), "a reply without a status line");
    std::string_view rest = reply;
    const std::string_view status = take_line(&rest).substr(9);
    static constexpr std::string_view KNOWN[] = {"200 OK", "400 Bad Request", "404 Not Found",
                                                 "500 Internal Server Error"};
    demand(std::any_of(std::begin(KNOWN), std::end(KNOWN), [&](auto k) { return status.starts_with(k); }),
           "an unknown status");
    const int code = atoi(std::string(status.substr(0, 3)).c_str());
    int64_t length = -1;
    bool chunked = false;
    for (std::string_view line = take_line(&rest); !line.empty(); line = take_line(&rest)) {
        demand(line.find(':') != line.npos, "a head line without a colon");
        demand(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c < 0x7f; }),
               "a head line with other characters");
        if (line.starts_with("Content-length: ")) length = atoll(std::string(line.substr(16)).c_str());
        chunked = chunked || line == "Transfer-encoding: chunked";
    }
    demand(!chunked || length == -1, "a body of two lengths");
    if (chunked) {
        std::string body;
        const bool ended = take_chunks(rest, &body);
        demand(method == "POST" && code == 200, "a stream where none is due");
        check_records(body, ended);
    } else if (length >= 0) {
        // What does not fit into the socket is lost; more than is said there never is.
        demand(static_cast<int64_t>(rest.size()) <= length, "a body longer than it says");
        demand(static_cast<int64_t>(rest.size()) == length || rest.size() > 65536,
               "a body shorter than it says");
    }
    return code;
}

static void check_tree() {
    demand(read_file(home + "/outside") == "untouched", "a file outside of the data directory changed");
    for (const char* dir : {"..", ".", "tmp"}) {
        DIR* d = opendir(dir);
        demand(d != nullptr, "a directory is gone");
        while (const dirent* e = readdir(d)) {
            const std::string_view name = e->d_name;
            if (name == "." || name == "..") continue;
            const bool known = strcmp(dir, "tmp") == 0 ? false
                               : strcmp(dir, ".") == 0 ? name == "base" || name == "tmp"
                                                       : name == "data" || name == "outside" || name == "d";
            demand(known, "a file that nobody asked for");
        }
        closedir(d);
    }
    std::error_code ignored;  // a tree may be gone altogether
    for (const auto& entry : fs::recursive_directory_iterator("base", ignored))
        if (entry.is_regular_file(ignored))
            demand(!entry.path().filename().string().ends_with(".tmp") ||
                       entry.path().string().find(".tmp.") == 0,
                   "a temporary file stays");
}

static void exchange(std::string_view bytes) {
    int fd[2];
    demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fd) == 0, "no socket");
    demand(bytes.empty() || write(fd[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
           "a request larger than a socket");
    demand(shutdown(fd[1], SHUT_WR) == 0, "a socket that cannot be shut");
    nlogged = 0;
    const char* const err = do_work(fd[0]);
    demand(nlogged <= 1 && (nlogged == 1 || err), "a request without its access line");
    demand(shutdown(fd[0], SHUT_WR) == 0, "a connection was closed by its handler");
    std::string reply;
    char buf[65536];
    for (ssize_t n; (n = read(fd[1], buf, sizeof(buf))) > 0;) reply.append(buf, static_cast<size_t>(n));
    close(fd[0]);
    close(fd[1]);
    const std::string_view method = bytes.substr(0, bytes.find(' '));
    const int code = check_reply(reply, method);
    if (method != "PUT" && method != "DELETE") return;
    changed = true;
    if (method == "PUT" && code == 200) {
        const std::string line(bytes.substr(0, bytes.find_first_of("\r\n")));
        const size_t at = line.find(' ') + 1;
        tblpath_t* t = nullptr;
        demand(tblpath_parse(&t, line.substr(at, line.find(' ', at) - at).c_str()) == nullptr && t->partition,
               "an upload to no file succeeds");
        char* const path = tblpath_join(t);
        const std::string stored = read_file(path);
        demand(bytes.find(stored) != bytes.npos, "an upload is not what was sent");
        free(path);
        tblpath_free(t);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 60000) return 0;
    if (changed) make_tree();
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] & 3) {
        case 0: sampled.clear(); break;
        case 1: sampled = files[1].second; break;
        case 2: sampled = files[1].second.substr(0, files[1].second.size() / 2); break;
        default: sampled = rest.substr(std::min(rest.find("CVN1IX86"), rest.size()));
    }
    verbose = (data[0] & 4) ? 2 : 0;
    const int lowest = dup(0);
    for (size_t i = 0; i < MAX_REQUESTS; i++) {
        const size_t end = rest.find(PART);
        exchange(rest.substr(0, end));
        if (end == rest.npos) break;
        rest.remove_prefix(end + PART.size());
    }
    close(lowest);
    const int again = dup(0);
    demand(again == lowest, "a descriptor leaks");
    close(again);
    if (changed || (data[0] & 3) != 0) check_tree();
    return 0;
}

// Mutations: mostly of one request, of the file in it where there is one, with the length put right.
size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    fuzz::dice_t dice{seed};
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t head = input.find("CVN1IX86");
    const size_t blank = input.rfind("\r\n\r\n", head);
    if (head == input.npos || blank == input.npos || blank + 4 != head || dice.roll(3) == 0)
        return LLVMFuzzerMutate(data, size, max_size);
    const size_t end = std::min(input.find(PART, head), size);
    const std::vector<uint8_t> file =
        fuzz::mutate_file(data + head, end - head, max_size - (size - (end - head)), &dice);
    std::string out(input.substr(0, head));
    const size_t length = out.rfind("Content-Length: ");
    if (length != out.npos) {
        const size_t stop = out.find('\r', length);
        out.replace(length + 16, stop - length - 16, std::to_string(file.size()));
    }
    out.append(reinterpret_cast<const char*>(file.data()), file.size());
    out.append(input.substr(end));
    if (out.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
    std::copy(out.begin(), out.end(), data);
    return out.size();
}
