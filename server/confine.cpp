// Paths are given to Landlock and system calls to seccomp by their raw calls: the kernel's headers of the machine
// that builds may be older than the kernel that runs, so what these lack is defined here.
#include "server/confine.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <iterator>

#include "common/verbose.h"

// A sanitizer reads /proc, writes its reports where it was told to and runs a symbolizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool CONFINES = false;
#elif defined(__has_feature)  // clang
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool CONFINES = false;
#else
constexpr bool CONFINES = true;
#endif
#else
constexpr bool CONFINES = true;
#endif

// Landlock.

constexpr long NR_LANDLOCK_CREATE = 444, NR_LANDLOCK_ADD = 445, NR_LANDLOCK_RESTRICT = 446;  // everywhere
constexpr uint32_t LANDLOCK_VERSION = 1, LANDLOCK_BENEATH = 1;

constexpr uint64_t FS_EXECUTE = 1, FS_WRITE_FILE = 2, FS_READ_FILE = 4, FS_READ_DIR = 8, FS_REMOVE_DIR = 16,
                   FS_REMOVE_FILE = 32, FS_MAKE_DIR = 128, FS_MAKE_REG = 256, FS_ALL_1 = 0x1FFF,
                   FS_REFER = 0x2000, FS_TRUNCATE = 0x4000, FS_IOCTL_DEV = 0x8000;
constexpr uint64_t FS_OF_A_FILE = FS_EXECUTE | FS_WRITE_FILE | FS_READ_FILE | FS_TRUNCATE | FS_IOCTL_DEV;
constexpr uint64_t FS_PROGRAMS = FS_EXECUTE | FS_READ_FILE | FS_READ_DIR;
constexpr uint64_t FS_DATA = FS_READ_FILE | FS_WRITE_FILE | FS_TRUNCATE | FS_READ_DIR | FS_REMOVE_DIR |
                             FS_REMOVE_FILE | FS_MAKE_DIR | FS_MAKE_REG;
constexpr uint64_t SCOPE_ABSTRACT_SOCKET = 1, SCOPE_SIGNAL = 2;

namespace {
// What a set of rules is about, as the kernel takes it:
//   0  8  fs      what is refused unless a rule allows it
//   8  8  net     the same for ports; nothing here
//  16  8  scoped  what does not reach out of the process and its children
struct ruleset_t {
    uint64_t fs;
    uint64_t net;
    uint64_t scoped;
};
static_assert(sizeof(ruleset_t) == 24);

// A rule:
//   0  8  allowed  FS_ bits
//   8  4  fd       the directory with all below it, or the file
struct __attribute__((packed)) beneath_t {
    uint64_t allowed;
    int32_t fd;
};
static_assert(sizeof(beneath_t) == 12 && offsetof(beneath_t, fd) == 8);

struct confined_t {
    int ruleset;
    uint64_t handled;  // the FS_ bits that this kernel knows
};
}  // namespace

static void allow_fd(const confined_t* c, int fd, uint64_t allowed) {
    struct stat st;
    if (fstat(fd, &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) allowed &= FS_OF_A_FILE;
    const beneath_t rule = {.allowed = allowed & c->handled, .fd = fd};
    (void)syscall(NR_LANDLOCK_ADD, c->ruleset, LANDLOCK_BENEATH, &rule, 0);  // refused: stays closed
}

// Allows what `path`, links followed, leads to; what is not there needs no rule.
static void allow(const confined_t* c, const char* path, uint64_t allowed) {
    const int fd = open(path, O_PATH | O_CLOEXEC);
    if (fd == -1) return;
    allow_fd(c, fd, allowed);
    close(fd);
}

// Allows the directories of a list with ':' between them; an empty one is the working directory. `program`, unless
// null, is a file in them which may be a link to one elsewhere.
static void allow_list(const confined_t* c, const char* list, uint64_t allowed, const char* program) {
    for (const char* p = list; p;) {
        const char* end = strchrnul(p, ':');
        char* path = strndup(p, static_cast<size_t>(end - p));
        if (path) allow(c, *path ? path : ".", allowed);
        char* file = nullptr;
        if (path && program && asprintf(&file, "%s/%s", *path ? path : ".", program) >= 0) {
            allow(c, file, allowed);
            free(file);
        }
        free(path);
        p = *end ? end + 1 : nullptr;
    }
}

// Databases, schemas and entities that are links, to another disk for instance, are served like others: what they
// lead to now is allowed. `nlevel` levels below the directory `dirfd` are looked through; takes `dirfd` over.
static void allow_links(const confined_t* c, int dirfd, int nlevel) {
    DIR* d = fdopendir(dirfd);
    if (!d) {
        close(dirfd);
        return;
    }
    while (const struct dirent* entry = readdir(d)) {
        if (entry->d_name[0] == '.' || (entry->d_type != DT_DIR && entry->d_type != DT_LNK)) continue;
        if (entry->d_type == DT_DIR && nlevel == 1) continue;
        const int fd = openat(dirfd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
        if (fd == -1) continue;
        if (entry->d_type == DT_LNK) allow_fd(c, fd, FS_DATA);
        if (nlevel > 1)
            allow_links(c, fd, nlevel - 1);
        else
            close(fd);
    }
    closedir(d);
}

// Whether the directory `fd` is one of those above the working directory, or it itself.
static bool is_above(int fd) {
    struct stat st, at, up;
    if (fstat(fd, &st) != 0) return true;
    int dir = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool met = dir == -1;
    for (bool root = false; !met && !root;) {
        const int above = openat(dir, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        met = fstat(dir, &at) != 0 || (at.st_dev == st.st_dev && at.st_ino == st.st_ino);
        root = above == -1 || fstat(above, &up) != 0 || (at.st_dev == up.st_dev && at.st_ino == up.st_ino);
        close(dir);
        dir = above;
    }
    if (dir != -1) close(dir);
    return met;
}

// The sampler may be a script whose interpreter was installed elsewhere and has its library beside its programs: what
// stands beside a directory of the search path is allowed with it. Not the data, nor anybody's temporary files.
static void allow_siblings(const confined_t* c, const char* list) {
    const int shared = open("/tmp", O_PATH | O_CLOEXEC);
    struct stat tmp = {}, st;
    if (shared != -1) {
        (void)fstat(shared, &tmp);
        close(shared);
    }
    for (const char* p = list; p;) {
        const char* end = strchrnul(p, ':');
        char* path = nullptr;
        const bool named = *p == '/' && asprintf(&path, "%.*s/..", static_cast<int>(end - p), p) >= 0;
        const int fd = named ? open(path, O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
        if (fd != -1) {
            const bool is_tmp = fstat(fd, &st) != 0 || (st.st_dev == tmp.st_dev && st.st_ino == tmp.st_ino);
            if (!is_tmp && !is_above(fd)) allow_fd(c, fd, FS_PROGRAMS);
            close(fd);
        }
        if (named) free(path);
        p = *end ? end + 1 : nullptr;
    }
}

static void allow_all(const confined_t* c) {
    allow(c, ".", FS_DATA);
    allow(c, "base", FS_DATA);
    allow(c, "tmp", FS_DATA);
    const int base = open("base", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (base != -1) allow_links(c, base, 3);
    const char* tmpdir = getenv("TMPDIR");
    allow(c, tmpdir && *tmpdir ? tmpdir : "/tmp", FS_DATA);  // where the sampler writes first
    allow(c, "/dev/null", FS_READ_FILE | FS_WRITE_FILE | FS_TRUNCATE);
    for (const char* path : {"/dev/zero", "/dev/urandom", "/dev/random"}) allow(c, path, FS_READ_FILE);

    // The shell looks for the sampler when it runs it, and may find another one than there is now, a script
    // perhaps; so it is the search path that is allowed.
    const char* path = getenv("PATH");
    allow_list(c, path ? path : "/usr/local/bin:/usr/bin:/bin", FS_PROGRAMS, "cvnsamp");
    allow_siblings(c, path);
    allow(c, "/bin/sh", FS_EXECUTE | FS_READ_FILE);
    allow_list(c, "/lib:/lib32:/lib64:/usr/lib:/usr/lib32:/usr/lib64:/usr/libexec:/usr/local/lib",
               FS_PROGRAMS, nullptr);
    const char* libraries = getenv("LD_LIBRARY_PATH");
    if (libraries && *libraries) allow_list(c, libraries, FS_PROGRAMS, nullptr);
    for (const char* file : {"/etc/ld.so.cache", "/etc/ld.so.preload", "/etc/localtime", "/etc/locale.alias",
                             "/usr/share/locale", "/usr/share/zoneinfo", "/usr/local/share", "/usr/share"})
        allow(c, file, FS_READ_FILE | FS_READ_DIR);
}

// Returns the kernel's version of Landlock, or -1 with errno when nothing was confined.
static int confine_files() {
    const long abi = syscall(NR_LANDLOCK_CREATE, nullptr, 0, LANDLOCK_VERSION);
    if (abi < 1) return -1;
    confined_t c = {.ruleset = -1, .handled = FS_ALL_1};
    if (abi >= 2) c.handled |= FS_REFER;
    if (abi >= 3) c.handled |= FS_TRUNCATE;
    if (abi >= 5) c.handled |= FS_IOCTL_DEV;
    const ruleset_t attr = {.fs = c.handled, .net = 0, .scoped = SCOPE_ABSTRACT_SOCKET | SCOPE_SIGNAL};
    const size_t known = abi >= 6 ? sizeof(attr) : abi >= 4 ? offsetof(ruleset_t, scoped) : sizeof(attr.fs);
    c.ruleset = static_cast<int>(syscall(NR_LANDLOCK_CREATE, &attr, known, 0));
    if (c.ruleset == -1) return -1;
    allow_all(&c);
    const long done = syscall(NR_LANDLOCK_RESTRICT, c.ruleset, 0);
    const int saved = errno;
    close(c.ruleset);
    errno = saved;
    return done == 0 ? static_cast<int>(abi) : -1;
}

// seccomp. A kernel since Linux 5.11 knows beforehand which calls a filter allows whatever their arguments are;
// then these cost nothing.

#if defined(__x86_64__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t ARCHITECTURE = AUDIT_ARCH_AARCH64;
#else
constexpr uint32_t ARCHITECTURE = 0;  // no filter
#endif

// What storing an upload takes, once its head was read, and what the C library adds to that.
constexpr uint32_t UPLOAD_CALLS[] = {
    SYS_read,
    SYS_write,
    SYS_writev,
    SYS_pread64,
    SYS_lseek,
    SYS_openat,
    SYS_close,
    SYS_fstat,
    SYS_newfstatat,
    SYS_statx,
    SYS_fcntl,
    SYS_fdatasync,
    SYS_fsync,
    SYS_fadvise64,
    SYS_mkdirat,
    SYS_unlinkat,
    SYS_renameat,
    SYS_renameat2,
    SYS_umask,
    SYS_mmap,
    SYS_munmap,
    SYS_mremap,
    SYS_mprotect,
    SYS_madvise,
    SYS_brk,
    SYS_shutdown,
    SYS_setsockopt,
    SYS_sendto,
    SYS_getpid,
    SYS_gettid,
    SYS_tgkill,
    SYS_rt_sigaction,
    SYS_rt_sigprocmask,
    SYS_rt_sigreturn,
    SYS_futex,
    SYS_getrandom,
    SYS_clock_gettime,
    SYS_gettimeofday,
    SYS_exit,
    SYS_exit_group,
    SYS_restart_syscall,
#if defined(__x86_64__)
    SYS_open,
    SYS_stat,
    SYS_lstat,
    SYS_mkdir,
    SYS_unlink,
    SYS_rename,
    SYS_time,
#endif
};

// What serving any request, a shell, and a program that it runs take beyond that.
constexpr uint32_t SERVING_CALLS[] = {
    // Files.
    SYS_readv,
    SYS_pwrite64,
    SYS_preadv,
    SYS_pwritev,
    SYS_sendfile,
    SYS_splice,
    SYS_copy_file_range,
    SYS_fallocate,
    SYS_ftruncate,
    SYS_truncate,
    SYS_flock,
    SYS_sync_file_range,
    SYS_dup,
    SYS_dup3,
    SYS_ioctl,
    SYS_statfs,
    SYS_fstatfs,
    SYS_faccessat,
    SYS_faccessat2,
    SYS_openat2,
    SYS_close_range,
    SYS_readlinkat,
    SYS_getdents64,
    SYS_getcwd,
    SYS_chdir,
    SYS_fchdir,
    SYS_linkat,
    SYS_symlinkat,
    SYS_mknodat,
    SYS_fchmod,
    SYS_fchmodat,
    452 /* fchmodat2 */,
    SYS_utimensat,
    SYS_pipe2,
    // Memory.
    SYS_mincore,
    SYS_msync,
    SYS_membarrier,
    // Processes. clone has a rule of its own; clone3 cannot be judged, and the C library does without it.
    SYS_execve,
    SYS_execveat,
    SYS_wait4,
    SYS_waitid,
    SYS_kill,
    SYS_tkill,
    SYS_getppid,
    SYS_getpgid,
    SYS_setpgid,
    SYS_getsid,
    SYS_setsid,
    SYS_getuid,
    SYS_geteuid,
    SYS_getgid,
    SYS_getegid,
    SYS_getgroups,
    SYS_getresuid,
    SYS_getresgid,
    SYS_set_tid_address,
    SYS_set_robust_list,
    SYS_get_robust_list,
    SYS_rseq,
    SYS_prctl,
    SYS_prlimit64,
    SYS_getrlimit,
    SYS_setrlimit,
    SYS_getrusage,
    SYS_getpriority,
    SYS_setpriority,
    SYS_ioprio_get,
    SYS_ioprio_set,
    SYS_sched_yield,
    SYS_sched_getaffinity,
    SYS_sched_setaffinity,
    SYS_sched_getparam,
    SYS_sched_getscheduler,
    SYS_getcpu,
    SYS_capget,
    SYS_uname,
    SYS_sysinfo,
    SYS_times,
    SYS_seccomp,
    // Signals, time, waiting.
    SYS_rt_sigpending,
    SYS_rt_sigsuspend,
    SYS_rt_sigtimedwait,
    SYS_sigaltstack,
    SYS_setitimer,
    SYS_getitimer,
    SYS_timer_create,
    SYS_timer_settime,
    SYS_timer_gettime,
    SYS_timer_delete,
    SYS_nanosleep,
    SYS_clock_nanosleep,
    SYS_clock_getres,
    SYS_pselect6,
    SYS_ppoll,
    SYS_epoll_create1,
    SYS_epoll_ctl,
    SYS_epoll_pwait,
    SYS_eventfd2,
    SYS_futex_waitv,
    // Connections that are there.
    SYS_accept,
    SYS_accept4,
    SYS_recvfrom,
    SYS_recvmsg,
    SYS_sendmsg,
    SYS_getsockopt,
    SYS_getsockname,
    SYS_getpeername,
    SYS_socketpair,
#if defined(__x86_64__)
    SYS_arch_prctl,
    SYS_fork,
    SYS_vfork,
    SYS_creat,
    SYS_access,
    SYS_readlink,
    SYS_getdents,
    SYS_link,
    SYS_symlink,
    SYS_rmdir,
    SYS_chmod,
    SYS_mknod,
    SYS_pipe,
    SYS_dup2,
    SYS_getpgrp,
    SYS_pause,
    SYS_alarm,
    SYS_select,
    SYS_poll,
    SYS_epoll_create,
    SYS_epoll_wait,
#endif
};

constexpr size_t FILTER_MAX = 8 + std::size(UPLOAD_CALLS) + std::size(SERVING_CALLS) + 6;
static_assert(FILTER_MAX < 255, "jumps over the list have 8 bits");

constexpr uint32_t CLONE_NEW_ALL =
    CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

// Installs a filter: the calls of `list` are allowed, and with `serving` those of SERVING_CALLS and clone.
static bool filter_calls(bool serving) {
    if (ARCHITECTURE == 0) {
        errno = ENOSYS;
        return false;
    }
    struct sock_filter code[FILTER_MAX];
    size_t n = 0;
    const size_t ncall = std::size(UPLOAD_CALLS) + (serving ? std::size(SERVING_CALLS) : 0);
    // The list, from its first entry on, ends with the refusal; after it stands the permission.
    const auto load = [&](size_t offset) {
        code[n++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
    };
    const auto jump = [&](uint16_t test, uint32_t value, size_t if_true, size_t if_false) {
        code[n++] = BPF_JUMP(static_cast<uint16_t>(BPF_JMP | test | BPF_K), value,
                             static_cast<uint8_t>(if_true), static_cast<uint8_t>(if_false));
    };
    const auto give = [&](uint32_t what) { code[n++] = BPF_STMT(BPF_RET | BPF_K, what); };
    const uint32_t refuse = SECCOMP_RET_ERRNO | ENOSYS;
    load(offsetof(struct seccomp_data, arch));
    jump(BPF_JEQ, ARCHITECTURE, 1, 0);
    give(refuse);
    load(offsetof(struct seccomp_data, nr));
    if (serving) {
        jump(BPF_JEQ, SYS_clone, 0, 4);
        load(offsetof(struct seccomp_data, args));  // the lower half: the flags have 32 bits
        jump(BPF_JSET, CLONE_NEW_ALL, 0, 1);
        give(refuse);
        give(SECCOMP_RET_ALLOW);
    }
    for (size_t i = 0; i < ncall; i++) {
        const uint32_t nr =
            i < std::size(UPLOAD_CALLS) ? UPLOAD_CALLS[i] : SERVING_CALLS[i - std::size(UPLOAD_CALLS)];
        jump(BPF_JEQ, nr, ncall - i, 0);
    }
    give(refuse);
    give(SECCOMP_RET_ALLOW);
    const struct sock_fprog program = {.len = static_cast<unsigned short>(n), .filter = code};
    return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

void confine_process() {
    if (!CONFINES) {
        if (verbose) fprintf(stderr, "not confined: built with sanitizers\n");
        return;
    }
    // Both want it said that no program which is started may do more than this process.
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        if (verbose) fprintf(stderr, "not confined: %s\n", strerror(errno));
        return;
    }
    const char* preload = getenv("LD_PRELOAD");
    if (preload && *preload) {
        if (verbose) fprintf(stderr, "files not confined: LD_PRELOAD is set\n");
    } else {
        const int abi = confine_files();
        if (verbose && abi == -1) fprintf(stderr, "files not confined: %s\n", strerror(errno));
        if (verbose && abi != -1) fprintf(stderr, "files confined: Landlock %d\n", abi);
    }
    const bool filtered = filter_calls(true);
    if (verbose && !filtered) fprintf(stderr, "system calls not confined: %s\n", strerror(errno));
    if (verbose && filtered) fprintf(stderr, "system calls confined: seccomp\n");
}

void confine_upload() {
    if (CONFINES) (void)filter_calls(false);  // the filter of the process holds in any case
}
