#!/usr/bin/env python3
"""Runs commands that must not be able to harm anything: programs with a fault in them, deletion code included.

Reads a job as JSON from standard input and prints one JSON line per step that ran; stops at the first that fails.

    work     the one directory that is shown of what lies below /tmp; like all else it is only read
    steps    [{name, argv, cwd, env, timeout}, ...]; they share one /tmp, which is empty at first
    address  bytes of address space a process may have, 0 for no bound (the address sanitizer reserves terabytes)

What a step starts lives in name spaces of its own: mounts (everything read-only but a small memory file system at /tmp
and /dev/shm), processes (whatever is left after a step is killed with the step), network (a loopback that nobody else
has), System V and POSIX queues. It runs as nobody without any capability, and can get none back. Bounds: memory of all
its processes together where the kernel has cgroups, address space, file size, processes, descriptors, time.
"""

import ctypes
import errno
import fcntl
import json
import os
import resource
import signal
import socket
import struct
import sys
import time

CLONE_NEWNS, CLONE_NEWIPC, CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET = \
    0x20000, 0x8000000, 0x10000000, 0x20000000, 0x40000000
MS_NOSUID, MS_NODEV, MS_BIND, MS_REC, MS_PRIVATE = 2, 4, 4096, 16384, 1 << 18
SYS_MOUNT_SETATTR, AT_FDCWD, AT_RECURSIVE, MOUNT_ATTR_RDONLY = 442, -100, 0x8000, 1
PR_SET_PDEATHSIG, PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS = 1, 24, 38
NOBODY = 65534
TMP_SIZE = "2g"
MEMORY = 6 << 30      # of all processes together, /tmp included
FILE_SIZE = 1 << 30
NPROC = 3000
TAIL = 3000           # bytes of a step's output that are reported

libc = ctypes.CDLL(None, use_errno=True)


def call(name, *args):
    converted = [arg.encode() if isinstance(arg, str) else arg for arg in args]
    if getattr(libc, name)(*converted) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{name}{args}: {os.strerror(number)}")


def set_read_only(path, flags, read_only):
    attributes = struct.pack("QQQQ", *(read_only and (MOUNT_ATTR_RDONLY, 0) or (0, MOUNT_ATTR_RDONLY)), 0, 0)
    if libc.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, path.encode(), flags, attributes, len(attributes)) != 0:
        raise OSError(ctypes.get_errno(), f"mount_setattr {path}")


def shut_the_door(work):
    """The mounts and the loopback of the name spaces that this process is in."""
    call("mount", None, "/", None, MS_REC | MS_PRIVATE, None)
    shown = os.open(work, os.O_PATH | os.O_DIRECTORY)
    call("mount", "tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, f"size={TMP_SIZE},mode=1777")
    if os.path.commonpath([work, "/tmp"]) == "/tmp":
        os.makedirs(work)
        call("mount", f"/proc/self/fd/{shown}", work, None, MS_BIND, None)
    os.close(shown)
    call("mount", "tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, f"size={TMP_SIZE},mode=1777")
    call("mount", "proc", "/proc", "proc", MS_NOSUID | MS_NODEV, None)
    set_read_only("/", AT_RECURSIVE, True)
    for path in ("/tmp", "/dev/shm", "/proc"):
        set_read_only(path, 0, False)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sh14x", b"lo", 1)  # IFF_UP
        fcntl.ioctl(any_socket, 0x8914, request)    # SIOCSIFFLAGS


def become_nobody(is_root):
    if is_root:
        for capability in range(64):
            libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)
        os.setgroups([])
        os.setresgid(NOBODY, NOBODY, NOBODY)
        os.setresuid(NOBODY, NOBODY, NOBODY)
    else:
        # The one user of this name space is whoever runs the script, without the capabilities that came with it.
        header = struct.pack("Ii", 0x20080522, 0)
        call("capset", header, bytes(24))
    call("prctl", PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0)


def run_step(step, address, is_root):
    begin = time.monotonic()
    output = os.open("/tmp/.output", os.O_RDWR | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
    pid = os.fork()
    if pid == 0:
        try:
            os.setsid()
            # Neither what Python ignores nor what a shell has its background jobs ignore.
            for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
                if signal.getsignal(number) is not None:
                    signal.signal(number, signal.SIG_DFL)
            null = os.open("/dev/null", os.O_RDONLY)
            os.dup2(null, 0)
            os.dup2(output, 1)
            os.dup2(output, 2)
            if address:
                resource.setrlimit(resource.RLIMIT_AS, (address, address))
            resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
            resource.setrlimit(resource.RLIMIT_NPROC, (NPROC, NPROC))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_NOFILE, (8192, 8192))
            resource.setrlimit(resource.RLIMIT_CPU, (step["timeout"], step["timeout"] + 5))
            become_nobody(is_root)
            os.chdir(step["cwd"])
            os.execve(step["argv"][0], step["argv"], step["env"])
        except BaseException as error:  # pylint: disable=broad-except
            os.write(2, f"cage: {error}\n".encode())
        os._exit(126)
    status, pause = None, 0.002
    while status is None and time.monotonic() - begin < step["timeout"]:
        while True:
            try:
                ended, how = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                break
            if ended == 0:
                break
            if ended == pid:
                status = os.waitstatus_to_exitcode(how)
        if status is None:
            time.sleep(pause)
            pause = min(0.05, pause * 1.3)
    # What the step left: this is the first process of its name space, so the signal reaches nobody else.
    while True:
        try:
            os.kill(-1, signal.SIGKILL)
        except ProcessLookupError:
            pass
        try:
            os.waitpid(-1, 0)
        except ChildProcessError:
            break
    size = os.lseek(output, 0, os.SEEK_END)
    tail = os.pread(output, TAIL, max(0, size - TAIL)).decode("utf-8", "replace")
    os.close(output)
    return {"name": step["name"], "status": status, "seconds": round(time.monotonic() - begin, 3), "tail": tail}


def run_all(job, is_root):
    shut_the_door(job["work"])
    for step in job["steps"]:
        result = run_step(step, job["address"], is_root)
        print(json.dumps(result), flush=True)
        if result["status"] != 0:
            return


def join_memory_group():
    """A group of the version 1 hierarchy that bounds the memory of all of it; none where there is no such hierarchy."""
    group = f"/sys/fs/cgroup/memory/kelpd-mutate-{os.getpid()}"
    try:
        os.mkdir(group)
        with open(f"{group}/memory.limit_in_bytes", "w", encoding="ascii") as file:
            file.write(str(MEMORY))
        with open(f"{group}/cgroup.procs", "w", encoding="ascii") as file:
            file.write(str(os.getpid()))
    except OSError:
        return None
    return group


def leave_memory_group(group):
    if group:
        try:
            with open("/sys/fs/cgroup/memory/cgroup.procs", "w", encoding="ascii") as file:
                file.write(str(os.getpid()))
            os.rmdir(group)
        except OSError:
            pass


def main():
    job = json.load(sys.stdin)
    is_root = os.geteuid() == 0
    spaces = CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWNET
    uid, gid = os.geteuid(), os.getegid()
    group = join_memory_group() if is_root else None
    try:
        call("unshare", spaces if is_root else spaces | CLONE_NEWUSER)
        if not is_root:
            for name, text in (("setgroups", "deny"), ("uid_map", f"{uid} {uid} 1"), ("gid_map", f"{gid} {gid} 1")):
                with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                    file.write(text)
        parent = os.getpid()
        pid = os.fork()
        if pid == 0:
            status = 1
            try:
                call("prctl", PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
                if is_root or os.getppid() in (0, parent):
                    run_all(job, is_root)
                    status = 0
            except BaseException as error:  # pylint: disable=broad-except
                print(f"cage: {error}", file=sys.stderr, flush=True)
            os._exit(status)
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    except OSError as error:
        if error.errno in (errno.EPERM, errno.ENOSYS, errno.EINVAL):
            print(f"cage: this system does not let {error.filename or 'name spaces'} be made: {error}",
                  file=sys.stderr)
            return 3
        raise
    finally:
        leave_memory_group(group)


if __name__ == "__main__":
    sys.exit(main())
