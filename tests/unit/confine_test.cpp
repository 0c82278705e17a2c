#include "server/confine.h"

#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "server_support.h"

namespace {
using namespace server_support;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// A data directory with a place outside it; TMPDIR is a third one. What is confined is a child of the test.
class Confine : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        if (SANITIZED) GTEST_SKIP() << "a build with sanitizers is not confined";
        fs::create_directories("data/base/d/s/e");
        fs::create_directories("data/tmp");
        fs::create_directories("scratch");
        fs::create_directories("outside/inside");
        write_file("outside/secret", "kept");
        write_file("data/base/d/s/e/f", "mine");
        fs::current_path("data");
        setenv("TMPDIR", fs::absolute("../scratch").c_str(), 1);
        unsetenv("LD_PRELOAD");
        verbose = 0;
    }
    void TearDown() override {
        verbose = 0;
        unsetenv("TMPDIR");
        DataDir::TearDown();
    }
    static bool has_landlock() { return syscall(444, nullptr, 0, 1) >= 1; }

    // What `use` returns in a child after `confine`, as the child's exit status; at most 250.
    static int in_child(void (*confine)(), const std::function<int()>& use) {
        const pid_t pid = fork();
        if (pid == 0) {
            confine();
            _exit(use());
        }
        int status = 0;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        return WIFEXITED(status) ? WEXITSTATUS(status) : 251;
    }
    static int errno_of(bool done) { return done ? 0 : errno; }
    static int open_errno(const char* path, int flags) {
        const int fd = open(path, flags, 0600);
        return errno_of(fd != -1);
    }
    static int run(const char* program) {
        const pid_t pid = vfork();
        if (pid == 0) {
            execl(program, program, "-c", ":", nullptr);
            _exit(100 + errno);
        }
        if (pid == -1) return 90;
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 91;
    }
    static std::string said(void (*confine)()) {
        int end[2];
        EXPECT_EQ(0, pipe(end));
        in_child([] {},
                 [&] {
                     dup2(end[1], 2);
                     verbose = 1;
                     confine();
                     return 0;
                 });
        close(end[1]);
        char text[1000];
        const ssize_t n = read(end[0], text, sizeof(text));
        close(end[0]);
        return {text, n > 0 ? static_cast<size_t>(n) : 0};
    }
};

TEST_F(Confine, FilesBelowTheDataDirectoryAreReadWrittenMadeAndRemoved) {
    EXPECT_EQ(0, in_child(confine_process, [] {
                  int bad = 0;
                  bad += open_errno("base/d/s/e/f", O_RDWR | O_TRUNC) != 0;
                  bad += open_errno("base/d/s/e/new", O_WRONLY | O_CREAT | O_TRUNC) != 0;
                  bad += rename("base/d/s/e/new", "base/d/s/e/newer") != 0;
                  bad += unlink("base/d/s/e/newer") != 0;
                  bad += mkdir("base/d/s/e/dir", 0700) != 0;
                  bad += rmdir("base/d/s/e/dir") != 0;
                  bad += open_errno("tmp/x", O_WRONLY | O_CREAT) != 0;
                  bad += open_errno("../scratch/x", O_WRONLY | O_CREAT) != 0;
                  bad += open_errno("/dev/null", O_RDWR) != 0;
                  return bad;
              }));
}
TEST_F(Confine, NothingElseCanBeOpenedNotEvenThroughALinkInsideIt) {
    if (!has_landlock()) GTEST_SKIP() << "the kernel has no Landlock";
    fs::create_symlink(fs::absolute("../outside/secret"), "base/d/s/e/link");
    const auto open_after = [](const char* path, int flags) {
        return in_child(confine_process, [=] { return open_errno(path, flags); });
    };
    EXPECT_EQ(EACCES, open_after("../outside/secret", O_RDONLY));
    EXPECT_EQ(EACCES, open_after("../outside/secret", O_WRONLY));
    EXPECT_EQ(EACCES, open_after("../outside", O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(EACCES, open_after("../outside/new", O_WRONLY | O_CREAT));
    EXPECT_EQ(EACCES, open_after("base/d/s/e/link", O_RDONLY));
    EXPECT_EQ(EACCES, open_after("/etc/passwd", O_RDONLY));
    EXPECT_EQ(EACCES, in_child(confine_process, [] { return errno_of(unlink("../outside/secret") == 0); }));
    EXPECT_EQ("kept", read_file("../outside/secret"));
    EXPECT_FALSE(fs::exists("../outside/new"));
}
TEST_F(Confine, WhatDirectoriesOfTheCatalogueLeadToAsLinksIsOpenAndALinkMadeLaterLeadsNowhere) {
    if (!has_landlock()) GTEST_SKIP() << "the kernel has no Landlock";
    for (const char* link : {"base/linked", "base/d/linked", "base/d/s/linked"}) {
        SCOPED_TRACE(link);
        fs::create_directory_symlink(fs::absolute("../outside"), link);
        const std::string file = link + "/secret"s, made = link + "/made"s;
        EXPECT_EQ(0, in_child(confine_process, [&] { return open_errno(file.c_str(), O_RDONLY); }));
        EXPECT_EQ(0, in_child(confine_process, [&] { return open_errno(made.c_str(), O_WRONLY | O_CREAT); }));
        fs::remove(link);
        EXPECT_EQ(EACCES, in_child(confine_process, [&] { return open_errno("../outside/made", O_RDONLY); }));
    }
    // Below the entity there are files, and a link there is one.
    fs::create_directory_symlink(fs::absolute("../outside"), "base/d/s/e/linked");
    EXPECT_EQ(EACCES,
              in_child(confine_process, [] { return open_errno("base/d/s/e/linked/secret", O_RDONLY); }));
}
TEST_F(Confine, BaseItselfMayBeALink) {
    fs::remove_all("base");
    fs::create_directory_symlink(fs::absolute("../outside"), "base");
    EXPECT_EQ(0, in_child(confine_process, [] { return open_errno("base/secret", O_RDWR); }));
}
TEST_F(Confine, LinksPipesAndSocketsCannotBeMade) {
    if (!has_landlock()) GTEST_SKIP() << "the kernel has no Landlock";
    EXPECT_EQ(EACCES, in_child(confine_process, [] { return errno_of(symlink("/", "base/all") == 0); }));
    EXPECT_EQ(EACCES, in_child(confine_process, [] { return errno_of(mkfifo("base/pipe", 0600) == 0); }));
    EXPECT_EQ(std::vector<std::string>({"base/d", "base/d/s", "base/d/s/e", "base/d/s/e/f"}), tree("base"));
}
TEST_F(Confine, TheShellRunsAndWhatWasUploadedDoesNot) {
    fs::copy_file("/bin/sh", "base/d/s/e/program");
    fs::permissions("base/d/s/e/program", fs::perms::owner_all);
    EXPECT_EQ(0, run("base/d/s/e/program"));
    EXPECT_EQ(0, in_child(confine_process, [] { return run("/bin/sh"); }));
    EXPECT_EQ(0, in_child(confine_process, [] { return WEXITSTATUS(system("ls base | cat > tmp/out")); }));
    EXPECT_EQ("d\n", read_file("tmp/out"));
    if (!has_landlock()) GTEST_SKIP() << "the kernel has no Landlock";
    EXPECT_EQ(100 + EACCES, in_child(confine_process, [] { return run("base/d/s/e/program"); }));
}
TEST_F(Confine, NoConnectionIsOpenedNoProcessTracedAndNoPrivilegeGained) {
    const auto call = [](const std::function<long()>& f) {
        return in_child(confine_process, [&] { return errno_of(f() != -1); });
    };
    EXPECT_EQ(ENOSYS, call([] { return socket(AF_INET, SOCK_STREAM, 0); }));
    EXPECT_EQ(ENOSYS, call([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }));
    EXPECT_EQ(ENOSYS, call([] { return syscall(SYS_unshare, 0); }));
    EXPECT_EQ(ENOSYS, call([] { return syscall(SYS_bpf, 0, nullptr, 0); }));
    EXPECT_EQ(ENOSYS, call([] { return syscall(SYS_clone, CLONE_NEWUSER, 0, 0, 0, 0); }));
    EXPECT_EQ(1, in_child(confine_process, [] { return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0); }));
}
TEST_F(Confine, AnUploadIsStoredWithoutBeingAbleToStartAProgram) {
    const std::string bytes = cvn_bytes({{"id", CVN_TYP_INT32}}, 100);
    const auto upload = [](const std::string& url, const std::string& body) {
        client_t client("PUT " + url + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\n\r\n" + body);
        const int failed = in_child([] {},
                                    [&] {
                                        htrequest_t* req = nullptr;
                                        htreply_t* reply = nullptr;
                                        if (htreq_create(&req, client.fd()) || htreply_create(&reply, req))
                                            return 2;
                                        confine_upload();
                                        const char* err = do_put(req, reply);
                                        if (err) htreply_error(reply, err);
                                        return err ? 1 : 0;
                                    });
        EXPECT_EQ(failed ? "HTTP/1.1 400 Bad Request" : "HTTP/1.1 200 OK",
                  client.finish().substr(0, failed ? 24 : 15));
        return failed;
    };
    EXPECT_EQ(0, upload("/v1/n/s/e/p.cvn", bytes));
    EXPECT_TRUE(bytes == read_file("base/n/s/e/p.cvn"));
    EXPECT_EQ(1, upload("/v1/n/s/e/q.cvn", "no data file"));
    EXPECT_EQ(0, upload("/v1/n/s/e/big", std::string(3 << 20, 'x')));
    EXPECT_EQ((std::vector<std::string>{"base/n/s/e/big", "base/n/s/e/p.cvn"}), tree("base/n/s/e"));
    EXPECT_EQ(ENOSYS, in_child(confine_upload, [] { return errno_of(fork() != -1); }));
    EXPECT_EQ(100 + ENOSYS, in_child(confine_upload, [] {
                  execl("/bin/sh", "sh", "-c", ":", nullptr);
                  return 100 + errno;
              }));
    EXPECT_EQ(ENOSYS,
              in_child(confine_upload, [] { return errno_of(socket(AF_INET, SOCK_STREAM, 0) != -1); }));
}
TEST_F(Confine, SaysWhatWasDoneWhenAsked) {
    const std::string text = said(confine_process);
    const std::string files = has_landlock() ? "files confined: Landlock " : "files not confined: ";
    EXPECT_TRUE(text.starts_with(files)) << text;
    EXPECT_TRUE(text.ends_with("\nsystem calls confined: seccomp\n")) << text;
    setenv("LD_PRELOAD", "none", 1);
    const std::string preloaded = said(confine_process);
    unsetenv("LD_PRELOAD");
    EXPECT_EQ("files not confined: LD_PRELOAD is set\nsystem calls confined: seccomp\n", preloaded);
}
}  // namespace
