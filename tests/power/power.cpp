// What the power may cost. Sequences of uploads, replacements and removals are sent to the daemon while its
// system calls are traced; after each call that changes or flushes something, every state is made that the
// disk may be found in when the power fails then (see disk.h), and the daemon, on each of them, must list old
// files or new ones, whole, all that was acknowledged, and nothing else.
//
// What may be found of a path:  before its first upload           nothing
//                               while an upload is under way      what was there, or the new file
//                               once it was answered with 200     the new file alone
//                               from the begin of a removal on    what was there, or nothing
//                               a refused or broken upload        what was there
// A removal is not flushed: until something flushes its directory what was removed may be back, whole.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>

#include "colvane/colvane.h"
#include "fault/scene.h"
#include "fault/tracer.h"
#include "power/disk.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace scene;

namespace power {
namespace {

constexpr int ABSENT = -2;
constexpr int MAX_OPERATION = 3;
constexpr size_t MAX_REPORT = 5;

struct options_t {
    std::string kelpd, cvn, work;
    int noperation = 2;
    unsigned share = 1;                      // of the sequences of full length every `share`-th is run
    unsigned nstart = 200;                   // states that a daemon of their own is started on
    bool no_dirs = false, no_files = false;  // flushes that do nothing
    bool want_loss = false;
    bool verbose = false;
};

ino_t inode_of(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) fail("cannot look at " + path);
    return st.st_ino;
}

// The operations.

enum kind_t : uint8_t { PUT, PUT_DAMAGED, PUT_BROKEN, PUT_STALLED, REMOVE, RESTART };

struct operation_t {
    const char* name;
    kind_t kind;
    const char* path;    // below base/
    bool alone = false;  // too large to be combined with others than itself
};

constexpr operation_t OPERATION[] = {
    {"upload of a file", PUT, "d/s/e/p.cvn"},
    {"upload into the same directory", PUT, "d/s/e/q.cvn"},
    {"upload into the directory beside", PUT, "d/s/f/p.cvn"},
    {"upload into another database", PUT, "x/y/z/p.cvn"},
    {"upload of a file that is no data", PUT, "d/s/e/n.sql"},
    {"damaged upload", PUT_DAMAGED, "d/s/e/p.cvn"},
    {"damaged upload into another database", PUT_DAMAGED, "x/y/z/r.cvn"},
    {"upload that breaks off", PUT_BROKEN, "x/y/z/r.cvn"},
    {"upload that stands still", PUT_STALLED, "x/y/z/t.cvn"},
    {"removal of a file", REMOVE, "d/s/e/p.cvn"},
    {"removal of an entity", REMOVE, "d/s/e"},
    {"removal of a database", REMOVE, "d"},
    {"removal of the other schema", REMOVE, "x/y"},
    {"removal of all", REMOVE, ""},
    {"kill and start", RESTART, ""},
    {"upload in pieces", PUT, "d/s/e/big.cvn", true},
};
constexpr int NOPERATION = std::size(OPERATION);

// A data file whose rows tell version and size.
std::string data_file(const std::string& dir, int version, int nrow) {
    const std::string path = dir + "/made.cvn";
    cvn_t* w = nullptr;
    if (cvn_create(&w, path.c_str()) != 0 || cvn_create_column(w, "id", CVN_TYP_INT32, false, false) != 0 ||
        cvn_create_column(w, "note", CVN_TYP_CSTR, false, false) != 0)
        fail("cannot make a data file");
    const bool null[2] = {};
    for (int r = 0; r < nrow; r++) {
        cvn_datum_t d[2] = {};
        d[0].i = version * 1000000 + r * 7919 % 100003;
        const std::string text =
            "version " + std::to_string(version) + " row " + std::to_string(r * 7919 % 1000);
        d[1].t = text.c_str();
        if (cvn_append(w, 2, d, null) != 0) fail("cannot write a data file");
    }
    if (cvn_close(w) != 0) fail("cannot close a data file");
    const std::string bytes = read_file(path);
    fs::remove(path);
    return bytes;
}

// Connections.

std::string put_head(const std::string& path, size_t len) {
    return "PUT /v1/" + path + " HTTP/1.1\r\nContent-Length: " + std::to_string(len) + "\r\n\r\n";
}

// One that nothing listens on, below those that other tests choose from.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (int port = 2048 + 2 * (getpid() % 4000); port < 32000; port += 2) {
        sockaddr_in at = {};
        at.sin_family = AF_INET;
        at.sin_port = htons(static_cast<uint16_t>(port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0) continue;
        close(fd);
        return port;
    }
    fail("no free port");
}

// The daemon, not traced, on states.

class server_t {
 public:
    server_t(const options_t& options, std::string dir, int port)
        : kelpd_(options.kelpd), dir_(std::move(dir)), port_(port) {
        fs::create_directories(dir_);
        write_file(dir_ + "/kelpd.conf", "port = " + std::to_string(port_) + "\n");
    }
    server_t(const server_t&) = delete;
    server_t& operator=(const server_t&) = delete;
    ~server_t() { stop(); }

    // Puts a state in the place of the one before. Its log is nobody's business.
    void lay(const state_t& state, const contents_t& contents) const {
        fs::remove_all(dir_ + "/base");
        fs::remove_all(dir_ + "/tmp");
        for (const auto& [path, content] : state) {
            if (content == DIRECTORY)
                fs::create_directory(dir_ + "/" + path);
            else
                write_file(dir_ + "/" + path, contents.bytes(content));
        }
    }
    void start() {
        const pid_t launcher = fork();
        if (launcher == 0) {
            const int null = open("/dev/null", O_RDWR);
            for (int fd = 0; fd < 3; fd++) dup2(null, fd);
            for (int fd = 3; fd < 256; fd++) close(fd);
            execl(kelpd_.c_str(), kelpd_.c_str(), "-D", dir_.c_str(), nullptr);
            _exit(126);
        }
        int status = 0;
        if (waitpid(launcher, &status, 0) != launcher || status != 0)
            fail("the daemon does not start on a state");
        // The daemon is this process's child now, found by where it stands.
        pid_ = 0;
        for (const auto& task : fs::directory_iterator("/proc/self/task")) {
            std::ifstream in(task.path() / "children");
            for (pid_t pid; in >> pid;) {
                std::error_code gone;
                if (fs::read_symlink("/proc/" + std::to_string(pid) + "/cwd", gone) == dir_) pid_ = pid;
            }
        }
        if (pid_ == 0) fail("the daemon ended at once");
        for (int wait = 0; wait < 60000; wait++) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) fail("the daemon ended before it listened");
            try {
                if (!ask("GET /none HTTP/1.1\r\n\r\n").empty()) return;
            } catch (const std::runtime_error&) {
                usleep(1000);
            }
        }
        fail("the daemon does not listen");
    }
    void stop() {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) (void)waitpid(pid_, nullptr, 0);
        pid_ = 0;
        std::error_code none;
        fs::remove_all(dir_ + "/log", none);
    }
    bool runs() const { return pid_ > 0; }
    std::string get(const std::string& url) const {
        const std::string reply = ask("GET " + url + " HTTP/1.1\r\n\r\n");
        const size_t at = reply.find("\r\n\r\n");
        if (reply.rfind("HTTP/1.1 200 OK\r\n", 0) != 0 || at == std::string::npos)
            fail("GET " + url + ": " + reply.substr(0, reply.find('\r')));
        return reply.substr(at + 4);
    }
    const std::string& dir() const { return dir_; }

 private:
    std::string ask(const std::string& request) const {
        const client_t client(port_);
        client.send(request);
        return client.receive();
    }
    const std::string kelpd_, dir_;
    const int port_;
    pid_t pid_ = 0;
};

// What is in double quotes after each `before`.
std::vector<std::string> quoted(const std::string& text, const std::string& before) {
    std::vector<std::string> all;
    for (size_t at = 0; (at = text.find(before + "\"", at)) != std::string::npos;) {
        at += before.size() + 1;
        const size_t end = text.find('"', at);
        all.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return all;
}

// What the daemon shows of a state.
struct shown_t {
    std::string fault;                // what is wrong with it whatever was asked for, or ""
    std::map<std::string, int> file;  // contents by path
    std::set<std::string> directory;
    bool operator==(const shown_t&) const = default;
};

class checker_t {
 public:
    checker_t(const options_t& options, contents_t* contents, int port)
        : contents_(contents), server_(options, options.work + "/state", port), nstart_(options.nstart) {}

    // How a content is listed, without its name; learned from a healthy tree.
    void learn(int content) {
        server_.stop();
        server_.lay({{"base", DIRECTORY},
                     {"base/a", DIRECTORY},
                     {"base/a/b", DIRECTORY},
                     {"base/a/b/c", DIRECTORY},
                     {"base/a/b/c/h.cvn", content}},
                    *contents_);
        server_.start();
        const std::string text = server_.get("/v1/a/b/c");
        if (text.find("\"h.cvn\", ") == std::string::npos) fail("a healthy file is not listed");
        listed_[content] =
            text.substr(text.find("\"h.cvn\", ") + 9, text.find('}') - text.find("\"h.cvn\", ") - 9);
    }

    const shown_t& look(const state_t& state) {
        std::string key;
        for (const auto& [path, content] : state) key += path + '\0' + std::to_string(content) + '\0';
        const auto it = seen_.find(key);
        if (it != seen_.end()) return it->second;
        const size_t n = seen_.size();
        server_.lay(state, *contents_);
        // Some are found by a daemon of their own; the others by one that runs, which looks nothing up
        // beforehand. What every start makes, it has made.
        bool fresh = nstarted_ < nstart_ && n % stride_ == 0;
        if (fresh) {
            nstarted_++;
            if (nstarted_ % (nstart_ / 4 + 1) == 0)
                stride_ *= 4;  // dense at first, then over all of a long run
            server_.stop();
        } else {
            for (const char* dir : {"/base", "/tmp"}) fs::create_directory(server_.dir() + dir);
        }
        if (!server_.runs()) server_.start();
        return seen_[key] = ask();
    }
    size_t nseen() const { return seen_.size(); }
    size_t nstarted() const { return nstarted_; }

 private:
    shown_t ask() {
        shown_t shown;
        try {
            for (const std::string& d : quoted(server_.get("/v1"), "")) {
                shown.directory.insert(d);
                for (const std::string& s : quoted(server_.get("/v1/" + d), "")) {
                    shown.directory.insert(d + "/" + s);
                    for (const std::string& e : quoted(server_.get("/v1/" + d + "/" + s), ""))
                        ask_entity(&shown, d + "/" + s + "/" + e);
                }
            }
        } catch (const std::runtime_error& e) {
            shown.fault = e.what();
        }
        return shown;
    }
    void ask_entity(shown_t* shown, const std::string& path) {
        shown->directory.insert(path);
        const std::string text = server_.get("/v1/" + path);
        std::set<std::string> listed;
        for (const std::string& name : quoted(text, "{\"name\": ")) {
            listed.insert(name);
            const int content = contents_->number(read_file(server_.dir() + "/base/" + path + "/" + name));
            shown->file[path + "/" + name] = content;
            const auto it = listed_.find(content);
            if (it == listed_.end())
                shown->fault = "listed, though torn: " + path + "/" + name;
            else if (text.find("{\"name\": \"" + name + "\", " + it->second + "}") == std::string::npos)
                shown->fault = "listed with other figures: " + path + "/" + name;
        }
        for (const auto& entry : fs::directory_iterator(server_.dir() + "/base/" + path)) {
            const std::string name = entry.path().filename();
            if (name.ends_with(".tmp") || listed.contains(name)) continue;
            if (name.ends_with(".cvn")) shown->fault = "there, but not listed: " + path + "/" + name;
            shown->file[path + "/" + name] = contents_->number(read_file(entry.path()));
        }
    }

    contents_t* contents_;
    server_t server_;
    std::map<int, std::string> listed_;
    std::unordered_map<std::string, shown_t> seen_;
    size_t nstart_, nstarted_ = 0, stride_ = 1;
};

// A trace.

struct event_t {
    enum kind_t : uint8_t { BEGIN, REPLY, MADE, MADE_DIRECTORY, RENAMED, REMOVED, WROTE, CUT, FLUSHED } kind;
    int operation = -1;  // of BEGIN and REPLY: its place in the sequence
    bool good = false;   // of REPLY
    std::string path, to, bytes;
    ino_t ino = 0;
    int64_t offset = 0;
};

std::string words(const event_t& e) {
    static const char* const name[] = {"begin",  "reply", "create", "mkdir", "rename",
                                       "remove", "write", "cut",    "flush"};
    std::string text = name[e.kind];
    if (e.kind == event_t::BEGIN || e.kind == event_t::REPLY) text += " " + std::to_string(e.operation + 1);
    if (e.kind == event_t::REPLY) text += e.good ? " 200" : " refused";
    if (!e.path.empty()) text += " " + e.path;
    if (!e.to.empty()) text += " to " + e.to;
    return text;
}

// Uploads in progress carry the second in their names; for the same states in each run it is always the same.
std::string steady(std::string path) {
    if (!path.ends_with(".tmp")) return path;
    const size_t end = path.size() - 4;
    size_t begin = end;
    while (begin > 0 && isdigit(static_cast<unsigned char>(path[begin - 1]))) begin--;
    return begin < end ? path.replace(begin, end - begin, "1700000000") : path;
}

class recorder_t {
 public:
    recorder_t(const options_t& options, int port)
        : options_(options), dir_(options.work + "/trace"), port_(port) {}

    // Runs the operations on the tree `initial` and returns what happened.
    std::vector<event_t> record(const std::vector<int>& sequence,
                                const std::map<std::string, std::string>& initial,
                                const std::vector<std::string>& body, disk_t* disk) {
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        write_file(dir_ + "/kelpd.conf", "port = " + std::to_string(port_) + "\n");
        disk->add_directory("", inode_of(dir_));
        known_ = {};
        for (const auto& [path, bytes] : initial) {
            const std::string full = dir_ + "/" + path;
            if (path.ends_with("/")) {
                const std::string name = path.substr(0, path.size() - 1);
                fs::create_directory(full);
                disk->add_directory(name, inode_of(full));
            } else {
                write_file(full, bytes);
                disk->add(path, bytes, inode_of(full));
            }
            known_.insert(inode_of(full));
        }
        known_.insert(inode_of(dir_));
        events_.clear();
        start();
        std::vector<std::unique_ptr<client_t>> stalled;
        for (size_t i = 0; i < sequence.size(); i++) {
            const operation_t& operation = OPERATION[sequence[i]];
            add({.kind = event_t::BEGIN, .operation = static_cast<int>(i)});
            if (operation.kind == RESTART) {
                end();
                stalled.clear();
                start();
                continue;
            }
            auto client = std::make_unique<client_t>(port_);
            const std::string path = operation.path;
            switch (operation.kind) {
                case PUT: client->send(put_head(path, body[i].size()) + body[i]); break;
                case PUT_DAMAGED: client->send(put_head(path, body[i].size()) + damaged(body[i])); break;
                case PUT_BROKEN:
                case PUT_STALLED:
                    client->send(put_head(path, body[i].size()) + body[i].substr(0, 100));
                    break;
                default: client->send("DELETE /v1" + (path.empty() ? "" : "/" + path) + " HTTP/1.1\r\n\r\n");
            }
            if (operation.kind == PUT_STALLED) {
                stalled.push_back(std::move(client));
                // It waits for more once its file is there; where none can be made it is answered.
                for (int wait = 0; wait < 60000; wait++) {
                    if (nreading_ >= static_cast<int>(stalled.size()) ||
                        tracer_->left().size() == stalled.size())
                        break;
                    usleep(1000);
                }
                continue;
            }
            client->end();
            (void)client->receive();
            if (!tracer_->await_left(1 + stalled.size())) fail("a request does not end");
        }
        for (const auto& client : stalled) client->end();
        if (!tracer_->await_left(1)) fail("a request does not end");
        end();
        if (!failure_.empty()) fail(failure_);
        return std::move(events_);
    }

 private:
    static std::string damaged(std::string body) {
        body[body.size() - 1] ^= 1;
        return body;
    }
    void add(event_t event) {
        const std::lock_guard lock(mutex_);
        if (event.kind == event_t::BEGIN) operation_ = event.operation;
        events_.push_back(std::move(event));
    }
    void start() {
        listening_ = false;
        nreading_ = 0;
        replied_.clear();
        opened_.clear();
        waits_.clear();
        tracer_ = std::make_unique<tracer::tracer_t>(
            tracer::program_t{.argv = {options_.kelpd, "-D", dir_},
                              .env = {"ASAN_OPTIONS=detect_leaks=0"},
                              .in = null_,
                              .out = null_,
                              .err = null_},
            tracer::hooks_t{
                .enter = [this](tracer::call_t* c) { return guard([&] { return enter(c); }); },
                .leave = [this](const tracer::call_t& c) { guard([&] { return leave(c), true; }); }});
        for (int wait = 0; !listening_; wait++) {
            if (wait > 60000) fail("the daemon does not listen");
            usleep(500);
        }
        if (!tracer_->await_left(1)) fail("the daemon does not let go of its terminal");
    }
    void end() {
        tracer_.reset();
        // The daemon left its launcher, and is this process's child.
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
    bool guard(const std::function<bool()>& f) {
        try {
            return f();
        } catch (const std::exception& e) {
            if (failure_.empty()) failure_ = e.what();
            return true;
        }
    }
    // The path below the data directory of what a call names, when it is part of what a state holds.
    bool inside(std::string* ret, pid_t pid, int dirfd, uint64_t address) const {
        const std::string path = tracer::absolute(pid, dirfd, tracer::read_text(pid, address));
        if (path.rfind(dir_ + "/", 0) != 0) return false;
        *ret = steady(path.substr(dir_.size() + 1));
        while (ret->ends_with("/")) ret->pop_back();
        return ret->rfind("base", 0) == 0 || ret->rfind("tmp", 0) == 0;
    }
    ino_t known(pid_t pid, uint64_t fd) const {
        struct stat st;
        const std::string path =
            "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(static_cast<int>(fd));
        if (stat(path.c_str(), &st) != 0 || !known_.contains(st.st_ino)) return 0;
        return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) ? st.st_ino : 0;
    }
    static bool is_socket(const tracer::call_t& c) {
        return tracer::descriptor(c.pid, static_cast<int>(c.arg[0])).rfind("socket:", 0) == 0;
    }
    bool enter(tracer::call_t* c) {
        switch (c->nr) {
            case SYS_write:
            case SYS_writev:
                // The first bytes of a reply leave: from here on the client may have heard.
                if (is_socket(*c) && replied_.insert(c->pid).second) {
                    std::string head(15, '\0');
                    if (c->nr == SYS_write) {
                        head = tracer::read_memory(c->pid, c->arg[1],
                                                   std::min<uint64_t>(c->arg[2], head.size()));
                        add({.kind = event_t::REPLY,
                             .operation = operation_,
                             .good = head == "HTTP/1.1 200 OK"});
                    }
                }
                break;
            case SYS_read:
                nreading_ += c->parent != 0 && is_socket(*c) && replied_.count(c->pid) == 0 &&
                             opened_.count(c->pid) != 0 && waits_.insert(c->pid).second;
                break;
            case SYS_fsync:
            case SYS_fdatasync: {
                const ino_t ino = known(c->pid, c->arg[0]);
                struct stat st = {};
                if (ino)
                    (void)stat(
                        ("/proc/" + std::to_string(c->pid) + "/fd/" + std::to_string(c->arg[0])).c_str(),
                        &st);
                if (ino && (S_ISDIR(st.st_mode) ? options_.no_dirs : options_.no_files)) {
                    c->changed = true;
                    return false;
                }
                break;
            }
            default: break;
        }
        return true;
    }
    void leave(const tracer::call_t& c) {
        if (c.changed || c.result < 0) return;
        std::string path, to;
        switch (c.nr) {
            case SYS_open: opened(c, AT_FDCWD, c.arg[0], static_cast<int>(c.arg[1])); break;
            case SYS_creat: opened(c, AT_FDCWD, c.arg[0], O_CREAT | O_TRUNC); break;
            case SYS_openat:
                opened(c, static_cast<int>(c.arg[0]), c.arg[1], static_cast<int>(c.arg[2]));
                break;
            case SYS_openat2: refuse(c, static_cast<int>(c.arg[0]), c.arg[1]); break;
            case SYS_mkdir: made(c, AT_FDCWD, c.arg[0]); break;
            case SYS_mkdirat: made(c, static_cast<int>(c.arg[0]), c.arg[1]); break;
            case SYS_rename: renamed(c, AT_FDCWD, c.arg[0], AT_FDCWD, c.arg[1]); break;
            case SYS_renameat:
            case SYS_renameat2:
                if (c.nr == SYS_renameat2 && c.arg[4] != 0) fail("a rename with flags");
                renamed(c, static_cast<int>(c.arg[0]), c.arg[1], static_cast<int>(c.arg[2]), c.arg[3]);
                break;
            case SYS_unlink:
            case SYS_rmdir: removed(c, AT_FDCWD, c.arg[0]); break;
            case SYS_unlinkat: removed(c, static_cast<int>(c.arg[0]), c.arg[1]); break;
            case SYS_write:
                wrote(c, tracer::read_memory(c.pid, c.arg[1], static_cast<size_t>(c.result)), position(c));
                break;
            case SYS_pwrite64:
                wrote(c, tracer::read_memory(c.pid, c.arg[1], static_cast<size_t>(c.result)),
                      static_cast<int64_t>(c.arg[3]));
                break;
            case SYS_writev: wrote(c, gathered(c), position(c)); break;
            case SYS_ftruncate:
                if (const ino_t ino = known(c.pid, c.arg[0]))
                    add({.kind = event_t::CUT, .ino = ino, .offset = static_cast<int64_t>(c.arg[1])});
                break;
            case SYS_fsync:
            case SYS_fdatasync:
                if (const ino_t ino = known(c.pid, c.arg[0])) {
                    const std::string name = tracer::descriptor(c.pid, static_cast<int>(c.arg[0]));
                    add({.kind = event_t::FLUSHED,
                         .path = name.size() > dir_.size() ? name.substr(dir_.size() + 1) : ".",
                         .ino = ino});
                }
                break;
            case SYS_listen: listening_ = true; break;
            // What changes files in ways that are not modelled must not be missed.
            case SYS_fallocate:
            case SYS_pwritev:
            case SYS_pwritev2:
            case SYS_sync_file_range:
            case SYS_syncfs:
            case SYS_sendfile:
            case SYS_splice:
            case SYS_copy_file_range:
                if (known(c.pid, c.arg[c.nr == SYS_splice || c.nr == SYS_copy_file_range ? 2 : 0]))
                    fail("the trace holds a call that is not modelled: " + std::to_string(c.nr));
                break;
            case SYS_truncate:
            case SYS_link: refuse(c, AT_FDCWD, c.arg[0]); break;
            case SYS_symlink: refuse(c, AT_FDCWD, c.arg[1]); break;
            case SYS_linkat: refuse(c, static_cast<int>(c.arg[2]), c.arg[3]); break;
            case SYS_symlinkat: refuse(c, static_cast<int>(c.arg[1]), c.arg[2]); break;
            default: break;
        }
    }
    void refuse(const tracer::call_t& c, int dirfd, uint64_t address) const {
        std::string path;
        if (inside(&path, c.pid, dirfd, address))
            fail("the trace holds a call that is not modelled: " + std::to_string(c.nr) + " " + path);
    }
    void opened(const tracer::call_t& c, int dirfd, uint64_t address, int flags) {
        if ((flags & O_TMPFILE) == O_TMPFILE) return refuse(c, dirfd, address);
        std::string path;
        if ((flags & (O_CREAT | O_TRUNC)) == 0 || !inside(&path, c.pid, dirfd, address)) return;
        opened_.insert(c.pid);
        const ino_t ino = inode_of("/proc/" + std::to_string(c.pid) + "/fd/" + std::to_string(c.result));
        if (known_.insert(ino).second)
            add({.kind = event_t::MADE, .path = path, .ino = ino});
        else if (flags & O_TRUNC)
            add({.kind = event_t::CUT, .ino = ino});
    }
    void made(const tracer::call_t& c, int dirfd, uint64_t address) {
        std::string path;
        if (!inside(&path, c.pid, dirfd, address)) return;
        const ino_t ino = inode_of(dir_ + "/" + path);
        known_.insert(ino);
        add({.kind = event_t::MADE_DIRECTORY, .path = path, .ino = ino});
    }
    void renamed(const tracer::call_t& c, int fromfd, uint64_t from, int tofd, uint64_t to) {
        std::string path, target;
        const bool in = inside(&path, c.pid, fromfd, from);
        if (in != inside(&target, c.pid, tofd, to)) fail("a rename across the edge of the tree");
        if (in) add({.kind = event_t::RENAMED, .path = path, .to = target});
    }
    void removed(const tracer::call_t& c, int dirfd, uint64_t address) {
        std::string path;
        if (!inside(&path, c.pid, dirfd, address)) return;
        add({.kind = event_t::REMOVED, .path = path});
        forget_gone();
    }
    // The number of a file that is gone for good may be given to another.
    void forget_gone() {
        std::set<ino_t> there = {inode_of(dir_)};
        for (const auto& entry : fs::recursive_directory_iterator(dir_)) {
            struct stat st;
            if (lstat(entry.path().c_str(), &st) == 0) there.insert(st.st_ino);
        }
        std::erase_if(known_, [&](ino_t ino) { return !there.contains(ino); });
    }
    int64_t position(const tracer::call_t& c) const {
        std::ifstream in("/proc/" + std::to_string(c.pid) + "/fdinfo/" + std::to_string(c.arg[0]));
        std::string word;
        int64_t pos = 0;
        in >> word >> pos;
        return pos - c.result;
    }
    static std::string gathered(const tracer::call_t& c) {
        std::string all;
        const std::string iov = tracer::read_memory(c.pid, c.arg[1], c.arg[2] * sizeof(iovec));
        for (size_t i = 0; i < c.arg[2]; i++) {
            iovec v;
            memcpy(&v, iov.data() + i * sizeof(v), sizeof(v));
            all += tracer::read_memory(c.pid, reinterpret_cast<uint64_t>(v.iov_base), v.iov_len);
        }
        all.resize(static_cast<size_t>(c.result));
        return all;
    }
    void wrote(const tracer::call_t& c, std::string bytes, int64_t offset) {
        const ino_t ino = known(c.pid, c.arg[0]);
        if (ino && !bytes.empty())
            add({.kind = event_t::WROTE, .bytes = std::move(bytes), .ino = ino, .offset = offset});
    }

    const options_t& options_;
    const std::string dir_;
    const int port_;
    const int null_ = open("/dev/null", O_RDWR | O_CLOEXEC);
    std::mutex mutex_;
    std::vector<event_t> events_;
    std::set<ino_t> known_;
    std::set<pid_t> replied_, opened_, waits_;
    std::atomic<int> operation_ = -1;
    std::atomic<bool> listening_ = false;
    std::atomic<int> nreading_ = 0;
    std::string failure_;
    std::unique_ptr<tracer::tracer_t> tracer_;
};

// The judgement.

class judge_t {
 public:
    judge_t(const options_t& options, contents_t* contents, checker_t* checker)
        : options_(options), contents_(contents), checker_(checker) {}

    void run(recorder_t* recorder, const std::vector<int>& sequence, bool filled) {
        std::vector<std::string> body;
        for (size_t i = 0; i < sequence.size(); i++) {
            const operation_t& op = OPERATION[sequence[i]];
            body.push_back(op.alone ? big[i] : std::string(op.path).ends_with(".sql") ? text[i] : data[i]);
        }
        std::map<std::string, std::string> initial;
        allowed_.clear();
        directory_.clear();
        if (filled) {
            for (const char* dir : {"base/", "base/d/", "base/d/s/", "base/d/s/e/", "base/d/s/f/", "tmp/"})
                initial[dir] = "";
            for (const char* file : {"d/s/e/p.cvn", "d/s/e/q.cvn", "d/s/f/p.cvn", "d/s/e/n.sql"}) {
                const std::string& bytes = std::string(file).ends_with(".sql") ? old_text : old_data;
                initial["base/"s + file] = bytes;
                allowed_[file] = {contents_->number(bytes)};
                add_directories(file);
            }
        }
        disk_t disk(contents_);
        const std::vector<event_t> events = recorder->record(sequence, initial, body, &disk);
        nsequence++;
        // What comes before the last operation was judged with the shorter sequence.
        size_t last = 0;
        for (size_t k = 0; k < events.size(); k++)
            if (events[k].kind == event_t::BEGIN && sequence.size() > 1) last = k;
        for (size_t k = 0; k < events.size(); k++) {
            apply(events[k], sequence, body, &disk);
            if (k < last || events[k].kind == event_t::BEGIN) continue;
            nmoment++;
            disk.each_state([&](const state_t& state) {
                nstate++;
                const std::string why = judge(checker_->look(state));
                if (!why.empty()) report(why, sequence, filled, events, k, state);
            });
        }
        ncall += events.size();
    }

    std::string old_data, old_text;
    std::vector<std::string> data, text, big;  // by the place in the sequence
    size_t nsequence = 0, ncall = 0, nmoment = 0, nstate = 0, nloss = 0;

 private:
    void add_directories(const std::string& file) {
        for (size_t at = 0; (at = file.find('/', at)) != std::string::npos; at++)
            directory_.insert(file.substr(0, at));
    }
    void apply(const event_t& e, const std::vector<int>& sequence, const std::vector<std::string>& body,
               disk_t* disk) {
        switch (e.kind) {
            case event_t::BEGIN: {
                const operation_t& op = OPERATION[sequence[static_cast<size_t>(e.operation)]];
                const std::string path = op.path;
                if (op.kind == REMOVE) {
                    for (auto& [file, contents] : allowed_)
                        if (path.empty() || file == path || file.rfind(path + "/", 0) == 0)
                            contents.insert(ABSENT);
                } else if (op.kind != RESTART) {
                    add_directories(path);
                    auto& contents = allowed_[path];
                    if (contents.empty()) contents.insert(ABSENT);
                    if (op.kind == PUT)
                        contents.insert(contents_->number(body[static_cast<size_t>(e.operation)]));
                }
                break;
            }
            case event_t::REPLY: {
                const operation_t& op = OPERATION[sequence[static_cast<size_t>(e.operation)]];
                if (op.kind == PUT && e.good)
                    allowed_[op.path] = {contents_->number(body[static_cast<size_t>(e.operation)])};
                break;
            }
            case event_t::MADE: disk->made(e.path, false, e.ino); break;
            case event_t::MADE_DIRECTORY: disk->made(e.path, true, e.ino); break;
            case event_t::RENAMED: disk->renamed(e.path, e.to); break;
            case event_t::REMOVED: disk->removed(e.path); break;
            case event_t::WROTE: disk->wrote(e.ino, e.offset, e.bytes); break;
            case event_t::CUT: disk->cut(e.ino, e.offset); break;
            case event_t::FLUSHED: disk->flushed(e.ino); break;
        }
    }
    std::string judge(const shown_t& shown) const {
        if (!shown.fault.empty()) return shown.fault;
        for (const auto& [path, content] : shown.file) {
            const auto it = allowed_.find(path);
            if (it == allowed_.end()) return "shown, though never uploaded: " + path;
            if (!it->second.contains(content)) return "shown with a content that it must not have: " + path;
        }
        for (const auto& [path, contents] : allowed_)
            if (!contents.contains(ABSENT) && !shown.file.contains(path))
                return "acknowledged, and lost: " + path;
        for (const std::string& path : shown.directory)
            if (!directory_.contains(path)) return "listed, though nothing was put there: " + path;
        return "";
    }
    void report(const std::string& why, const std::vector<int>& sequence, bool filled,
                const std::vector<event_t>& events, size_t k, const state_t& state) {
        if (++nloss > MAX_REPORT && !options_.verbose) return;
        if (options_.want_loss && !options_.verbose) return;
        printf("LOSS: %s\n  on a tree that was %s:", why.c_str(), filled ? "filled" : "empty");
        for (const int op : sequence) printf(" [%s %s]", OPERATION[op].name, OPERATION[op].path);
        printf("\n  the power fails after:");
        for (size_t i = 0; i <= k; i++) printf("%s %s", i ? ";" : "", words(events[i]).c_str());
        printf("\n  found:");
        for (const auto& [path, content] : state)
            printf(" %s%s", path.c_str(),
                   content == DIRECTORY ? "/" : ("=" + std::to_string(content)).c_str());
        printf("\n");
    }

    const options_t& options_;
    contents_t* contents_;
    checker_t* checker_;
    std::map<std::string, std::set<int>> allowed_;
    std::set<std::string> directory_;
};

int run(const options_t& options) {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) fail("prctl");
    contents_t contents;
    const int port = free_port();
    checker_t checker(options, &contents, port);
    recorder_t recorder(options, port + 1);
    judge_t judge(options, &contents, &checker);
    judge.old_data = data_file(options.work, 9, 40);
    judge.old_text = "select 'old';\n";
    for (int i = 0; i < MAX_OPERATION; i++) {
        // About one, four and ten blocks of 512 bytes: below and above one of 4,096.
        constexpr int NROW[MAX_OPERATION] = {5, 300, 900};
        judge.data.push_back(data_file(options.work, i + 1, NROW[i]));
        judge.text.push_back("select " + std::to_string(i) + ";\n");
        judge.big.push_back(data_file(options.work, i + 11, 60000 + 1000 * i));
    }
    const std::string healthy = options.work + "/healthy.cvn";
    for (const auto& lst : {std::vector<std::string>{judge.old_data}, judge.data, judge.big}) {
        for (const std::string& bytes : lst) {
            write_file(healthy, bytes);
            if (!options.cvn.empty() &&
                system((options.cvn + " verify " + healthy + " > /dev/null").c_str()) != 0)
                fail("an upload is not healthy itself");
            checker.learn(contents.number(bytes));
        }
    }
    const auto begin = std::chrono::steady_clock::now();
    unsigned counter = 0;
    std::vector<int> sequence;
    const std::function<void()> extend = [&] {
        for (int op = 0; op < NOPERATION; op++) {
            const bool large = !sequence.empty() && OPERATION[sequence[0]].alone;
            if (sequence.empty() ? false : large != OPERATION[op].alone) continue;
            if (large && sequence.size() > 1) continue;
            sequence.push_back(op);
            const bool full = static_cast<int>(sequence.size()) == options.noperation;
            for (const bool filled : {false, true})
                if (!full || counter++ % options.share == 0) judge.run(&recorder, sequence, filled);
            if (!full) extend();
            sequence.pop_back();
        }
    };
    extend();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    printf(
        "%zu sequences of up to %d operations, %zu calls, %zu moments, %zu states found then, %zu of them "
        "distinct;\n"
        "a daemon of its own started on %zu; %zu losses; %.0f s\n",
        judge.nsequence, options.noperation, judge.ncall, judge.nmoment, judge.nstate, checker.nseen(),
        checker.nstarted(), judge.nloss, took.count());
    if (options.want_loss) {
        if (judge.nloss == 0) printf("FAILED: no loss was found, though flushes did nothing\n");
        return judge.nloss > 0 ? 0 : 1;
    }
    return judge.nloss == 0 ? 0 : 1;
}

constexpr char HELP[] =
    "Usage: power --kelpd PROGRAM [--cvn PROGRAM] [options]\n"
    "\n"
    "Traces the daemon through all sequences of up to N operations, and looks at every state in which the "
    "disk may\n"
    "be found when the power fails.\n"
    "\n"
    "  --operations N      the longest sequences, 1 to 3 (default 2)\n"
    "  --share M           of the longest only every M-th (default 1)\n"
    "  --start N           states that a daemon of their own is started on (default 200)\n"
    "  --work DIR          where to work (default below /dev/shm or /tmp)\n"
    "  --no-directories    flushing a directory does nothing; expects losses\n"
    "  --no-files          flushing a file does nothing; expects losses\n"
    "  --verbose           print every loss\n";

int main_(int argc, char** argv) {
    options_t options;
    const option lst[] = {{"kelpd", 1, nullptr, 'k'},
                          {"cvn", 1, nullptr, 'c'},
                          {"operations", 1, nullptr, 'o'},
                          {"share", 1, nullptr, 's'},
                          {"start", 1, nullptr, 'n'},
                          {"work", 1, nullptr, 'w'},
                          {"no-directories", 0, nullptr, 'D'},
                          {"no-files", 0, nullptr, 'F'},
                          {"verbose", 0, nullptr, 'v'},
                          {"help", 0, nullptr, 'h'},
                          {}};
    for (int c; (c = getopt_long(argc, argv, "h", lst, nullptr)) != -1;) {
        switch (c) {
            case 'k': options.kelpd = optarg; break;
            case 'c': options.cvn = optarg; break;
            case 'o': options.noperation = atoi(optarg); break;
            case 's': options.share = static_cast<unsigned>(atoi(optarg)); break;
            case 'n': options.nstart = static_cast<unsigned>(atoi(optarg)); break;
            case 'w': options.work = optarg; break;
            case 'D': options.no_dirs = options.want_loss = true; break;
            case 'F': options.no_files = options.want_loss = true; break;
            case 'v': options.verbose = true; break;
            case 'h': fputs(HELP, stdout); return 0;
            default: fputs(HELP, stderr); return 2;
        }
    }
    if (options.kelpd.empty() || optind != argc || options.noperation < 1 ||
        options.noperation > MAX_OPERATION || options.share < 1) {
        fputs(HELP, stderr);
        return 2;
    }
    options.kelpd = fs::absolute(options.kelpd);
    return in_work_folder(&options.work, "kelpd-power", [&] { return run(options); });
}

}  // namespace
}  // namespace power

int main(int argc, char** argv) { return power::main_(argc, argv); }
