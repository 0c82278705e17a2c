"""Starts and stops the daemon under test, and talks to it in raw bytes.

Each Daemon has a temporary data directory of its own and a free port. The environment variable KELPD names the program.
A daemon that forks into the background leaves its launcher, so this process declares itself the reaper of
orphans: the daemon becomes its child, is found by that, and its exit status can be read. Everything is stopped by
process id. Every wait is bounded by WAIT seconds, which only a broken daemon ever reaches, and every test of a
BoundedCase by some more, so that nothing hangs without saying where.
"""
import collections
import ctypes
import glob
import os
import platform
import random
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest

_PR_SET_CHILD_SUBREAPER = 36


def program():
    path = os.environ.get("KELPD", "")
    if not os.access(path, os.X_OK):
        raise RuntimeError("set KELPD to the daemon to test")
    return os.path.abspath(path)


def _is_sanitized():
    try:
        with open(program(), "rb") as f:
            data = f.read()
    except RuntimeError:
        return False
    return b"__asan_init" in data or b"__ubsan_handle" in data


SANITIZED = _is_sanitized()
WAIT = 180.0 if SANITIZED else 60.0


def until(condition, what, wait=None):
    """Calls `condition` until it returns something true, and returns that."""
    end = time.monotonic() + (wait or WAIT)
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.005)


class BoundedCase(unittest.TestCase):
    """A test that fails, with the place where it stood, when it has not ended after `limit` seconds.

    The waits below have bounds of their own; this one is for what has none, such as opening a pipe without a peer, or
    a loop whose end never comes. It rings again every minute, should the first ring be lost in a handler of errors.
    """

    limit = 3 * WAIT

    def run(self, result=None):
        def ring(*_):
            raise AssertionError(f"the test has not ended after {self.limit:.0f} seconds")

        before = signal.signal(signal.SIGALRM, ring)
        signal.setitimer(signal.ITIMER_REAL, self.limit, 60)
        try:
            return super().run(result)
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
            signal.signal(signal.SIGALRM, before)


def free_port(low=10240, high=32000):
    """A port that nothing listens on, outside the range that the kernel hands out to clients."""
    for _ in range(200):
        port = random.randrange(low, high)
        with socket.socket() as s:
            try:
                s.bind(("", port))
                return port
            except OSError:
                pass
    raise RuntimeError("no free port")


# /proc.

Stat = collections.namedtuple("Stat", "pid comm state ppid pgrp sid")


def stat_of(pid):
    """The state of a process, or None when it is gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            text = f.read()
    except OSError:
        return None
    head, _, tail = text.rpartition(")")
    fields = tail.split()
    return Stat(pid, head.partition("(")[2], fields[0], int(fields[1]), int(fields[2]), int(fields[3]))


def all_processes():
    return [s for s in (stat_of(int(name)) for name in os.listdir("/proc") if name.isdigit()) if s]


def children_of(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as f:
            return [int(word) for word in f.read().split()]
    except OSError:
        return [s.pid for s in all_processes() if s.ppid == pid]


def status_field(pid, name):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            key, _, value = line.partition(":")
            if key == name:
                return value.strip()
    raise KeyError(name)


def descriptors(pid):
    """What each open descriptor of a process refers to."""
    found = {}
    for name in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(name)] = os.readlink(f"/proc/{pid}/fd/{name}")
        except OSError:
            pass
    return found


def is_mapped(pid, begin, end):
    """For each page from `begin` to `end`, whether the process has it in its page table."""
    page = resource.getpagesize()
    first = begin // page
    with open(f"/proc/{pid}/pagemap", "rb") as f:
        f.seek(first * 8)
        data = f.read(((end + page - 1) // page - first) * 8)
    return [entry >> 63 == 1 for (entry,) in struct.iter_unpack("=Q", data)]


def sections(path):
    """The sections of a 64-bit program: (address, size) by name."""
    with open(path, "rb") as f:
        data = f.read()
    at, = struct.unpack_from("=Q", data, 40)
    size, count, names = struct.unpack_from("=HHH", data, 58)
    header = [struct.unpack_from("=IIQQQQ", data, at + k * size) for k in range(count)]
    text = header[names][4]
    return {data[text + h[0] : data.index(b"\0", text + h[0])].decode(): (h[3], h[5]) for h in header}


def _listening_once(pid):
    """What `listening` says, by one reading of the kernel's table, as a dictionary by inode."""
    try:
        inodes = {m[1] for m in (re.match(r"socket:\[(\d+)\]", t) for t in descriptors(pid).values()) if m}
    except OSError:
        return {}
    if not inodes:
        return {}
    found = {}
    with open("/proc/net/tcp") as f:
        next(f)
        for line in f:
            field = line.split()
            if field[3] != "0A":  # those that listen come first
                break
            if field[9] in inodes:
                address, port = field[1].split(":")
                found[field[9]] = struct.pack("=I", int(address, 16)), int(port, 16)
    return found


def listening(pid):
    """The (address, port) pairs on which a process listens, the address as four bytes.

    The kernel gives the table a page at a time: while other sockets come and go, one may be in it twice or be left out.
    So it is read until two readings say the same.
    """
    last = _listening_once(pid)
    while (found := _listening_once(pid)) != last:
        last = found
    return list(found.values())


def _sockets(pid):
    """The sockets that a process has open, none when it is gone."""
    try:
        return [name for name in descriptors(pid).values() if name.startswith("socket:")]
    except OSError:
        return []


# One end of a TCP connection: its socket's inode, 0 before it is accepted, the bytes that its peer has not confirmed
# yet, and those that have come and were not read.
End = collections.namedtuple("End", "inode unsent unread")


def _diagnose(local, remote, flags, states):
    """Asks the kernel's socket diagnostics about TCP sockets of IPv4; yields the descriptions of those it names."""
    ends = struct.pack(">HH4s12x4s12x", local[1], remote[1], *(socket.inet_aton(end[0]) for end in (local, remote)))
    request = struct.pack("=BBBxI", socket.AF_INET, socket.IPPROTO_TCP, 0, states) + ends + struct.pack(
        "=I8s", 0, b"\xff" * 8)
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 4) as s:
        s.settimeout(WAIT)
        s.send(struct.pack("=IHHII", 16 + len(request), 20, 1 | flags, 1, 0) + request)
        while True:
            data = s.recv(1 << 16)
            while data:
                size, kind = struct.unpack_from("=IH", data)
                if kind in (2, 3):  # there is none, or no more
                    return
                yield data[16:size]
                if not flags:
                    return
                data = data[(size + 3) // 4 * 4 :]


def _end(local, remote):
    """The end at `local` of the connection with `remote`, both (address, port), or None.

    Asked for by its name, since the list of all sockets is long and slow to read while many connections linger, and a
    child gives up a request whose head is not there in five seconds.
    """
    for found in _diagnose(local, remote, 0, 0xFFFFFFFF):
        unread, unsent, _, inode = struct.unpack_from("=4I", found, 56)
        return End(inode, unsent, unread)
    return None


def _server_inode(s):
    """The inode of the accepted socket at the other end of the connected socket `s`."""
    ends = s.getpeername(), s.getsockname()

    def find():
        end = _end(*ends)
        return end and end.inode
    return until(find, "the daemon to accept the connection")


def await_taken(s, or_answered=False):
    """Waits until the other end of the connected socket `s` has been accepted and all that was sent to it was read; with
    `or_answered` an answer, which may be the end, is enough."""
    here, there = s.getsockname(), s.getpeername()

    def is_taken():
        if or_answered and select.select([s], (), (), 0)[0]:
            return True
        mine, other = _end(here, there), _end(there, here)
        return mine and other and mine.unsent == 0 and other.inode != 0 and other.unread == 0
    until(is_taken, "the daemon to read what was sent")


def await_stalled(s):
    """Waits until the other end of the connected socket `s` cannot send on, since `s` is not read: its kernel then asks,
    by a timer of its own, whether there is room again."""
    until(lambda: timer(s) is not None and timer(s)[0] == 4, "the sockets to be full")


def socket_options(pid, s, options):
    """The values of integer socket options of the accepted socket, in the process `pid`, at the other end of `s`."""
    wanted = f"socket:[{_server_inode(s)}]"
    number = next(n for n, name in descriptors(pid).items() if name == wanted)
    pidfd = os.pidfd_open(pid)
    try:
        copy = ctypes.CDLL(None, use_errno=True).syscall(438, pidfd, number, 0)  # pidfd_getfd
        if copy == -1:
            raise OSError(ctypes.get_errno(), "cannot have the daemon's socket")
    finally:
        os.close(pidfd)
    with socket.socket(fileno=copy) as accepted:
        return [accepted.getsockopt(*option) for option in options]


def timer(s):
    """The timer of the accepted socket at the other end of `s`: its kind, 2 when it asks an idle peer and 4 one without room, and the seconds
    until it rings."""
    for found in _diagnose(s.getpeername(), s.getsockname(), 0, 0xFFFFFFFF):
        kind, milliseconds = found[2], struct.unpack_from("=I", found, 52)[0]
        return kind, milliseconds / 1000
    return None


def closes_on_exec(pid):
    """Whether the process's only socket is closed when it runs a program."""
    number, = (n for n, name in descriptors(pid).items() if name.startswith("socket:"))
    with open(f"/proc/{pid}/fdinfo/{number}", encoding="ascii") as f:
        return int(re.search(r"flags:\s*(\d+)", f.read())[1], 8) & os.O_CLOEXEC != 0


def backlog(port):
    """The backlog of the IPv4 socket listening on `port`, asked from the kernel's socket diagnostics."""
    for found in _diagnose(("0.0.0.0", 0), ("0.0.0.0", 0), 0x300, 1 << 10):
        if struct.unpack_from(">H", found, 4)[0] == port:
            return struct.unpack_from("=I", found, 60)[0]
    return None


# Sockets.


def held_by_sockets(rcvbuf):
    """Bytes that are surely more than the two sockets of a connection hold while a client with this receive buffer
    does not read: the sender's buffer grows up to the system's limit, and the kernel doubles what a receiver asks for.
    """
    with open("/proc/sys/net/ipv4/tcp_wmem") as f:
        return int(f.read().split()[2]) + 2 * rcvbuf + 1


def connect(port, rcvbuf=None, source=None):
    s = socket.socket()
    s.settimeout(WAIT)
    if rcvbuf:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
    if source:
        s.bind((source, 0))
    s.connect(("127.0.0.1", port))
    s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return s


def send(s, data):
    """Sends all of it, or as much as the peer takes before it closes."""
    try:
        s.sendall(data)
    except (BrokenPipeError, ConnectionResetError):
        pass


def receive(s):
    """Everything up to the peer's close, which may be a reset: that is what a close with bytes unread turns into."""
    parts, end = [], time.monotonic() + 2 * WAIT
    while True:
        if time.monotonic() > end:
            raise AssertionError(f"the reply has no end: {sum(map(len, parts))} bytes so far")
        try:
            part = s.recv(1 << 16)
        except ConnectionResetError:
            part = b""
        if not part:
            return b"".join(parts)
        parts.append(part)


def reset(s):
    """Closes at once with a reset instead of an orderly end."""
    s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    s.close()


# Failing system calls.

# The arguments that must have the given values, by their position, for a system call `name` to fail with `error`.
Fault = collections.namedtuple("Fault", "name error arguments", defaults=({},))

# Numbers of x86-64. A library may reach one function by either of two calls, so both may have to be named.
_SYSTEM_CALLS = {
    "read": 0, "lstat": 6, "rt_sigaction": 13, "select": 23, "socket": 41, "accept": 43, "listen": 50,
    "setsockopt": 54, "clone": 56, "rmdir": 84, "unlink": 87, "setsid": 112, "newfstatat": 262, "pselect6": 270}
_PR_SET_SECCOMP, _SECCOMP_MODE_FILTER = 22, 2
_PR_SET_NO_NEW_PRIVS = 38


def _filter_of(faults):
    """A filter program of the kernel that makes the system calls of `faults` fail and lets all others through."""
    load, equal, give = 0x20, 0x15, 0x06
    allowed, failed = 0x7FFF0000, 0x00050000
    code = []
    for fault in faults:
        wanted = [(0, _SYSTEM_CALLS[fault.name])]
        wanted += [(16 + 8 * position, value) for position, value in fault.arguments.items()]
        left = 2 * len(wanted)  # instructions up to the end of this fault's part, skipped when something differs
        for offset, value in wanted:
            left -= 2
            code += [(load, 0, 0, offset), (equal, 0, left + 1, value)]
        code.append((give, 0, 0, failed | fault.error))
    code.append((give, 0, 0, allowed))
    return b"".join(struct.pack("=HBBI", *instruction) for instruction in code)


class _Program(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("code", ctypes.c_void_p)]


def _fail_calls(code):
    """Puts the filter on this process and all that it will start. No privilege is needed, but none can be gained."""
    libc = ctypes.CDLL(None, use_errno=True)
    buffer = ctypes.create_string_buffer(code, len(code))
    loaded = _Program(len(code) // 8, ctypes.addressof(buffer))
    if libc.prctl(_PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or \
            libc.prctl(_PR_SET_SECCOMP, _SECCOMP_MODE_FILTER, ctypes.byref(loaded), 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "cannot filter system calls")


class Daemon:
    """One daemon and its data directory.

    options   command-line options besides -D
    nofork    start it with -n, in the foreground
    conf      text of kelpd.conf with "{port}" standing for the port, or bytes; None is "port = {port}\\n"
    env       variables added to the environment
    user      number of the user to run as; the data directory then belongs to it
    ignore    signals that the daemon inherits as ignored
    fail      system calls that fail, each a Fault, from the first instruction of the program on; on other machines
              than x86-64 the test is skipped
    umask     the umask that it inherits, instead of this process's
    session   start it in a session of its own
    prepare   called with the data directory before the start
    """

    def __init__(self, *options, nofork=False, conf=None, env=None, user=None, ignore=(), prepare=None,
                 port_value=None, fail=(), umask=-1, session=True):
        if fail and platform.machine() != "x86_64":
            raise unittest.SkipTest("system calls are made to fail on x86-64 only")
        self.options = options + (("-n",) if nofork else ())
        self.nofork = nofork
        self.conf = conf
        self.port_value = port_value or str
        self.user = user
        self.ignore = ignore
        self.fail = _filter_of(fail) if fail else None
        self.umask = umask
        self.session = session
        self.scratch = tempfile.mkdtemp(prefix="kelpd-wire-")
        self.dir = os.path.join(self.scratch, "data")
        os.mkdir(self.dir)
        self.reports = os.path.join(self.scratch, "reports")
        os.mkdir(self.reports)
        sanitizer = f"log_path={self.reports}/r:detect_leaks=0:abort_on_error=0:print_stacktrace=1"
        self.env = {**os.environ, "ASAN_OPTIONS": sanitizer, "UBSAN_OPTIONS": sanitizer, "LC_ALL": "C",
                    **(env or {})}
        self.terminal_path = os.path.join(self.scratch, "terminal")
        self.pid = None
        self.port = None
        self.exit_status = None
        self._launcher = None
        self._taken = 0
        self.program = program()
        if user is not None:
            # The other user may not be able to reach the build directory.
            self.program = shutil.copy(self.program, self.scratch)
            for path in (self.scratch, self.dir, self.reports):
                os.chown(path, user, user)
        if prepare:
            prepare(self.dir)

    def path(self, *names):
        return os.path.join(self.dir, *names)

    @property
    def url(self):
        return f"kelp://127.0.0.1:{self.port}"

    # Starting.

    def start(self):
        """Starts it and waits until it listens; on another port when somebody took the first one meanwhile."""
        try:
            for _ in range(10):
                self.port = free_port()
                self.write_conf()
                self.launch()
                if self._await_listening():
                    self._taken = len(self.log())
                    return self
                if "ERROR: bind() failed - Address already in use\n" not in self.terminal() + self.log():
                    break
                shutil.rmtree(self.path("log"), ignore_errors=True)
            raise AssertionError(
                f"the daemon does not start: {self.exit_status}\n{self.terminal()}\n{self.log()}\n{self._reports()}")
        except BaseException:
            self.cleanup()
            raise

    def write_conf(self):
        conf = self.conf if self.conf is not None else "port = {port}\n"
        if isinstance(conf, str):
            conf = conf.replace("{port}", self.port_value(self.port)).encode()
        with open(self.path("kelpd.conf"), "wb") as f:
            f.write(conf)

    def launch(self):
        """Runs the program. In daemon mode waits for the launcher's end; the daemon is then a child of this process."""
        if ctypes.CDLL(None).prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
            raise RuntimeError("cannot become the reaper of orphans")
        before = set(children_of(os.getpid()))
        self.exit_status = None

        def prepare():
            # Whoever runs the tests may ignore some of them, as nohup and background jobs do.
            for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGCHLD):
                signal.signal(number, signal.SIG_DFL)
            for number in self.ignore:
                signal.signal(number, signal.SIG_IGN)
            if self.fail:
                _fail_calls(self.fail)

        with open(self.terminal_path, "wb") as terminal:
            launcher = subprocess.Popen(
                [self.program, *self.options, "-D", self.dir], stdin=subprocess.DEVNULL, stdout=terminal,
                stderr=terminal, env=self.env, start_new_session=self.session, user=self.user, group=self.user,
                extra_groups=None if self.user is None else [], umask=self.umask, preexec_fn=prepare)
        if self.nofork:
            self._launcher, self.pid = launcher, launcher.pid
            return
        status = launcher.wait(WAIT)
        if status != 0:
            self.exit_status = status
            return
        # Other orphans may come at the same time, left by a daemon that was stopped before: they have another session.
        found = [s.pid for s in map(stat_of, children_of(os.getpid()))
                 if s and s.pid not in before and s.sid in (s.pid, launcher.pid)]
        if len(found) != 1:
            raise AssertionError(f"the launcher left {len(found)} processes")
        self.pid = found[0]

    def _await_listening(self):
        if self.pid is None:
            return False
        # It listens before its start is over, and has other files open until then.
        until(lambda: self.has_ended() or listening(self.pid) and self._is_accepting(), "the daemon to listen")
        if self.exit_status is not None:
            return False
        self.port = listening(self.pid)[0][1]
        return True

    def _is_accepting(self):
        process = stat_of(self.pid)
        return len(_sockets(self.pid)) == 1 and process and process.state == "S"

    # Watching.

    def has_ended(self):
        """True when the process has ended; its status is then in `exit_status`, a signal as its negative number."""
        if self.pid is None or self.exit_status is not None:
            return True
        if self._launcher:
            self.exit_status = self._launcher.poll()
        else:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.exit_status = os.waitstatus_to_exitcode(status)
        return self.exit_status is not None

    def await_end(self):
        until(self.has_ended, "the daemon to end")
        return self.exit_status

    def terminal(self):
        """What the terminal that started it has seen."""
        try:
            with open(self.terminal_path, encoding="latin-1", newline="") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def log_files(self):
        return sorted(glob.glob(self.path("log", "kelpd-*.log")))

    def log(self):
        """All diagnostics so far: the log files in their order, or the terminal with -n."""
        if self.nofork:
            return self.terminal()
        text = ""
        for name in self.log_files():
            with open(name, encoding="latin-1", newline="") as f:
                text += f.read()
        return text

    def take_log(self):
        """The diagnostics since the last call."""
        text = self.log()
        new, self._taken = text[self._taken :], len(text)
        return new

    def await_log(self, nline):
        """Waits for as many lines as given since the last take, then takes what is there."""
        until(lambda: self.log().count("\n", self._taken) >= nline or self.has_ended(), f"{nline} log lines")
        return self.take_log()

    def await_idle(self):
        """Waits until no connection child is left, not even as a zombie."""
        until(lambda: not children_of(self.pid), "the connection children to end")

    def end_children(self):
        """Ends the connection children, so that what one test broke does not fail the next."""
        for pid in children_of(self.pid):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.await_idle()

    def await_accept(self):
        """Waits until the daemon sleeps in accept(), the connections so far closed on its side."""
        until(self._is_accepting, "the daemon to wait for a connection")

    def await_child(self, s):
        """The process that serves the connection `s`, once it has closed its copy of the listening socket.

        Not for a connection whose reply fits the socket buffers: its child may have ended before it was seen.
        """
        socket_name = f"socket:[{_server_inode(s)}]"

        def find():
            return [pid for pid in children_of(self.pid) if socket_name in _sockets(pid) and len(_sockets(pid)) == 1]
        return until(find, "a connection child")[0]

    def limit(self, what, soft, pid=None):
        """Lowers a resource limit of the running daemon, or of a child of it."""
        if self.user is None:
            resource.prlimit(pid or self.pid, what, (soft, soft))
            return
        # Root without all its capabilities may do this to its own processes only, so the other user does it.
        helper = os.fork()
        if helper == 0:
            try:
                os.setgroups([])
                os.setgid(self.user)
                os.setuid(self.user)
                resource.prlimit(pid or self.pid, what, (soft, soft))
                os._exit(0)
            finally:
                os._exit(1)

        def ended():
            found, status = os.waitpid(helper, os.WNOHANG)
            return found and (os.waitstatus_to_exitcode(status),)
        if until(ended, "the limit to be set") != (0,):
            raise RuntimeError("cannot set the limit")

    def free_descriptor(self, pid=None):
        """The lowest descriptor number that the daemon, or a child of it, does not use."""
        used = descriptors(pid or self.pid)
        return next(number for number in range(len(used) + 1) if number not in used)

    # Talking.

    def connect(self, **options):
        return connect(self.port, **options)

    def ask(self, raw, half_close=False):
        """Sends `raw` on a new connection and returns the whole reply, b"" when the daemon ends meanwhile."""
        try:
            s = self.connect()
        except ConnectionResetError:  # the daemon was faster than the end of connect()
            return b""
        with s:
            send(s, raw)
            if half_close:
                try:
                    s.shutdown(socket.SHUT_WR)
                except OSError:
                    pass
            return receive(s)

    # The data directory.

    def clear(self):
        """Empties base/ and tmp/ without asking the daemon."""
        for name in ("base", "tmp"):
            shutil.rmtree(self.path(name), ignore_errors=True)
            os.mkdir(self.path(name), 0o700)
            if self.user is not None:
                os.chown(self.path(name), self.user, self.user)

    def store(self, name, data):
        """Puts a file into base/ without asking the daemon. The bytes go into place under their own name."""
        path = self.path("base", name)
        os.makedirs(os.path.dirname(path), 0o700, exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)

    def load(self, name):
        with open(self.path("base", name), "rb") as f:
            return f.read()

    def tree(self, top="base"):
        """Every path below a directory, sorted, directories with a slash at their end."""
        found = []
        for folder, folders, files in os.walk(self.path(top)):
            inside = os.path.relpath(folder, self.path(top))
            found += [os.path.normpath(os.path.join(inside, name)) + "/" for name in folders]
            found += [os.path.normpath(os.path.join(inside, name)) for name in files]
        return sorted(found)

    # Ending.

    def _reports(self):
        text = ""
        for name in sorted(os.listdir(self.reports)):
            with open(os.path.join(self.reports, name), encoding="latin-1") as f:
                text += f.read()
        return text

    def sanitizer_reports(self):
        """What a sanitizer found, or ""."""
        text = self._reports()
        for name, output in (("the log", self.log()), ("the terminal", self.terminal())):
            if re.search(r"runtime error:|Sanitizer", output):
                text += f"in {name}:\n{output}"
        return text

    def kill(self):
        """Ends the daemon and the connection children it left, and reaps them."""
        if self.pid is None:
            return
        if not self.has_ended():
            os.kill(self.pid, signal.SIGKILL)
            self.await_end()
        until(self._reap_orphans, "the orphans to end")

    def _reap_orphans(self):
        left = [s for s in map(stat_of, children_of(os.getpid())) if s and s.sid == self.pid and s.pid != self.pid]
        for orphan in left:
            try:
                os.kill(orphan.pid, signal.SIGKILL)
                os.waitpid(orphan.pid, os.WNOHANG)
            except (ProcessLookupError, ChildProcessError):
                pass
        return not left

    def cleanup(self):
        try:
            self.kill()
        finally:
            shutil.rmtree(self.scratch, ignore_errors=True)

    def stop(self):
        """Ends it and removes its directories. Raises when a sanitizer reported something."""
        if not os.path.exists(self.scratch):
            return
        try:
            self.kill()
            reports = self.sanitizer_reports()
        finally:
            self.cleanup()
        if reports:
            raise AssertionError(reports)

    def restart(self):
        """Starts the program again on the same directory after the daemon ended."""
        self.kill()
        self.pid = self._launcher = None
        log = self.log()
        self.launch()
        if not self._await_listening():
            raise AssertionError(f"the daemon does not start again\n{self.terminal()}\n{self.log()}")
        self._taken = len(self.log())
        return log
