"""Faults: clients that vanish, processes that are killed, disks that are full, descriptors and memory that run out.

Whatever happens, a name holds its old file or the complete new one, at most a temporary file is left that listings
hide, and the daemon keeps neither descriptors nor children.
"""
import os
import random
import resource
import signal
import struct
import subprocess
import time
import unittest

import cvnfile
import kelpd_proc
from kelpd_proc import BoundedCase, Daemon, SANITIZED, stat_of, until
from wirecase import (OK, SILENCE, STREAM, WireCase, delete, error, get, json_reply, mask_date, post, put,
                      small_file, stream)

ENTITY = "/v1/d/s/e"
FAILED = "500 Internal Server Error"
REFUSED = "400 Bad Request"
NO_MEMORY = "500 Internal Server Error - out of memory"


def long_file(rcvbuf):
    """A file whose stream is more than the sockets to a client with this receive buffer hold."""
    return cvnfile.build([cvnfile.Column(b"a", cvnfile.BYTEA)],
                         [[[os.urandom(1 << 20)]] for _ in range(-(-kelpd_proc.held_by_sockets(rcvbuf) >> 20) + 12)])


class FaultCase(WireCase):
    def setUp(self):
        super().setUp()
        self.old = small_file(first=1, nrow=20)
        self.new = small_file(first=500, nrow=900, ngroup=2)
        self.kelpd.store("d/s/e/p.cvn", self.old.data)

    def temporary(self):
        return [name for name in self.kelpd.tree() if name.endswith(".tmp")]

    def begin_upload(self, sent, whole=None, name="p.cvn"):
        """Sends the head and the first `sent` bytes of an upload and waits for its temporary file."""
        data = (whole or self.new).data
        s = self.kelpd.connect()
        self.addCleanup(s.close)
        s.sendall(put(f"{ENTITY}/{name}", data[:sent], length=len(data)))
        until(self.temporary, "the temporary file")
        return s, self.kelpd.await_child(s)

    def assert_old(self):
        """The old file is there, alone in what readers see."""
        self.assertEqual(self.old.data, self.kelpd.load("d/s/e/p.cvn"))
        self.check_ok(get(ENTITY), json_reply("[ " + self.old.json("p.cvn") + "]\n"))
        self.check_ok(post(ENTITY, '{"column":["id"]}'), stream(self.old.record(0, b"id")))

    def assert_old_or_new(self):
        """The file is one of the two, sound in every byte. Returns whether it is the new one."""
        data = self.kelpd.load("d/s/e/p.cvn")
        self.assertIn(data, (self.old.data, self.new.data))
        whole = cvnfile.read(data)
        self.check_ok(get(ENTITY), json_reply("[ " + whole.json("p.cvn") + "]\n"))
        return data == self.new.data


class VanishingClients(FaultCase):
    def test_an_upload_reset_at_any_moment_leaves_the_old_file(self):
        size = len(self.new.data)
        for sent in (0, 1, 1000, 8192, 10000, size // 2, size - 1):
            with self.subTest(sent=sent):
                s, _ = self.begin_upload(sent)
                kelpd_proc.reset(s)
                self.assert_log(f"PUT {ENTITY}/p.cvn -> {REFUSED}")
                self.kelpd.await_idle()
                self.assertEqual([], self.temporary())
                self.assert_old()

    def test_a_scan_abandoned_in_the_middle_ends_its_child(self):
        whole = long_file(rcvbuf=8192)
        self.kelpd.store("d/s/big/p.cvn", whole.data)
        for size in (1, 1000, 100000):
            with self.kelpd.connect(rcvbuf=8192) as s:
                s.sendall(post("/v1/d/s/big", '{"column":["a"]}'))
                while size > 0:
                    part = s.recv(min(size, 4096))
                    self.assertTrue(part, "the reply ended early")
                    size -= len(part)
                kelpd_proc.reset(s)
            self.assert_log(f"POST /v1/d/s/big -> {REFUSED}")

    def test_a_listing_abandoned_in_the_middle_is_no_error(self):
        # A list of columns that the sockets do not hold: more than 150 bytes for each.
        ncol = kelpd_proc.held_by_sockets(4096) // 150 + 10000
        footer = b"".join((struct.pack("<2i2q2iq", 1, ncol, 0, 0, 136 * ncol, 112 * ncol, 0),
                           *(struct.pack("<127sxi4x", b"%0127d" % k, cvnfile.INT32) for k in range(ncol)),
                           bytes(112 * ncol)))
        self.kelpd.store("d/s/wide/p.cvn", cvnfile.HEAD_MAGIC + footer + struct.pack("<qi", len(footer), 0)
                         + cvnfile.TAIL_MAGIC)
        with self.kelpd.connect(rcvbuf=4096) as s:
            s.sendall(get("/v1/d/s/wide/p.cvn"))
            child = self.kelpd.await_child(s)
            self.assertEqual(b"HTTP/1.1 2", s.recv(10))

            def is_waiting():
                state = stat_of(child)
                self.assertTrue(state and state.state != "Z", "the sockets have taken the whole reply")
                return state.state == "S"

            # Asleep after the beginning of its reply, it has more to send than it can.
            until(is_waiting, "the child to wait for its client")
            kelpd_proc.reset(s)
        self.assert_log("GET /v1/d/s/wide/p.cvn -> 200 OK")

    def test_a_query_reset_before_its_body_is_refused(self):
        with self.kelpd.connect() as s:
            s.sendall(post(ENTITY, "{", length=2))
            self.kelpd.await_child(s)
            kelpd_proc.reset(s)
        self.assert_log(f"POST {ENTITY} -> {REFUSED}")

    def test_a_hundred_clients_that_vanish_at_once_leave_nothing(self):
        sockets = []
        for k in range(100):
            s = self.kelpd.connect()
            self.addCleanup(s.close)
            data = self.new.data
            s.sendall(put(f"{ENTITY}/p{k}.cvn", data[: len(data) * k // 100], length=len(data)))
            sockets.append(s)
        until(lambda: len(self.temporary()) == 100, "a hundred uploads")
        for s in sockets:
            kelpd_proc.reset(s)
        lines = self.kelpd.await_log(100).splitlines()
        self.assertEqual(sorted(f"PUT {ENTITY}/p{k}.cvn -> {REFUSED}" for k in range(100)), sorted(lines))
        self.kelpd.await_idle()
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn")
        self.assert_old()


class KilledChildren(FaultCase):
    def test_a_child_killed_inside_an_upload_leaves_the_old_file_and_one_hidden_temporary(self):
        size = len(self.new.data)
        for sent in (0, 1, 500, 8000, 10200, 12000, size // 2, size - 100, size - 1):
            with self.subTest(sent=sent):
                s, child = self.begin_upload(sent)
                os.kill(child, signal.SIGKILL)
                self.assertEqual(SILENCE, kelpd_proc.receive(s))
                self.kelpd.await_idle()
                self.assertEqual(1, len(self.temporary()))
                self.assert_old()
                os.unlink(self.kelpd.path("base", self.temporary()[0]))

    def test_a_child_killed_around_the_end_of_an_upload_leaves_one_of_the_two_files(self):
        chance = random.Random(9)
        usual = 0.0
        for _ in range(5):
            s, _ = self.begin_upload(len(self.new.data) - 1)
            began = time.monotonic()
            s.sendall(self.new.data[-1:])
            self.assert_reply(OK, kelpd_proc.receive(s))
            usual = max(usual, time.monotonic() - began)
            self.assert_log(f"PUT {ENTITY}/p.cvn -> 200 OK")
        for _ in range(80):
            self.kelpd.store("d/s/e/p.cvn", self.old.data)
            s, child = self.begin_upload(len(self.new.data) - 1)
            s.sendall(self.new.data[-1:])
            # From at once to well after the usual reply: the signal falls before, into and after the rename.
            time.sleep(chance.random() * 1.5 * usual)
            try:
                os.kill(child, signal.SIGKILL)
            except ProcessLookupError:
                pass
            raw = kelpd_proc.receive(s)
            s.close()
            self.kelpd.await_idle()
            self.assertIn(mask_date(self, raw, self.since), (SILENCE, OK))
            logged = self.kelpd.take_log()
            self.assertIn(logged, ("", f"PUT {ENTITY}/p.cvn -> 200 OK\n"))
            left = self.temporary()
            is_new = self.assert_old_or_new()
            self.assertLessEqual(len(left), 0 if is_new else 1)
            if raw or logged:
                self.assertTrue(is_new, "answered before the file was in place")
            for name in left:
                os.unlink(self.kelpd.path("base", name))

    def test_a_name_can_be_uploaded_again_after_a_killed_upload(self):
        s, child = self.begin_upload(5000)
        os.kill(child, signal.SIGKILL)
        kelpd_proc.receive(s)
        self.check_ok(put(f"{ENTITY}/p.cvn", self.new.data))
        self.assertEqual(self.new.data, self.kelpd.load("d/s/e/p.cvn"))
        self.check_ok(get(ENTITY), json_reply("[ " + self.new.json("p.cvn") + "]\n"))

    def test_a_child_killed_inside_a_scan_leaves_a_stream_without_an_end(self):
        whole = long_file(rcvbuf=8192)
        self.kelpd.store("d/s/big/p.cvn", whole.data)
        with self.kelpd.connect(rcvbuf=8192) as s:
            s.sendall(post("/v1/d/s/big", '{"column":["a"]}'))
            child = self.kelpd.await_child(s)
            raw = s.recv(100)
            os.kill(child, signal.SIGKILL)
            raw += kelpd_proc.receive(s)
        got = mask_date(self, raw, self.since)
        full = stream(*(whole.record(k, b"a") for k in range(len(whole.groups))))
        self.assertLess(len(got), len(full))
        self.assertTrue(full.startswith(got))
        with self.assertRaises(cvnfile.Unsound):
            cvnfile.read_stream(got[len(STREAM) :])
        self.check_ok(get("/v1"), json_reply('["d"]'))


class KilledDaemon(BoundedCase):
    def setUp(self):
        self.kelpd = Daemon()
        self.addCleanup(self.kelpd.stop)
        self.kelpd.start()
        self.old, self.new = small_file(first=1), small_file(first=500, nrow=900, ngroup=2)
        self.kelpd.store("d/s/e/p.cvn", self.old.data)

    def begin_upload(self, sent):
        s = self.kelpd.connect()
        self.addCleanup(s.close)
        s.sendall(put(f"{ENTITY}/p.cvn", self.new.data[:sent], length=len(self.new.data)))
        until(lambda: any(name.endswith(".tmp") for name in self.kelpd.tree()), "the temporary file")
        return s, self.kelpd.await_child(s)

    def test_an_upload_outlives_its_daemon(self):
        s, child = self.begin_upload(1000)
        os.kill(self.kelpd.pid, signal.SIGKILL)
        self.assertEqual(-signal.SIGKILL, self.kelpd.await_end())
        self.assertEqual(self.old.data, self.kelpd.load("d/s/e/p.cvn"))
        s.sendall(self.new.data[1000:])
        self.assertEqual(OK, mask_date(self, kelpd_proc.receive(s), 0))
        self.assertEqual(self.new.data, self.kelpd.load("d/s/e/p.cvn"))
        self.assertEqual(["d/", "d/s/", "d/s/e/", "d/s/e/p.cvn"], self.kelpd.tree())
        self.assertEqual(f"PUT {ENTITY}/p.cvn -> 200 OK\n", self.kelpd.log())

    def test_after_all_were_killed_a_new_daemon_serves_the_old_file(self):
        for sent in (0, 1, 9000, len(self.new.data) - 1):
            with self.subTest(sent=sent):
                self.begin_upload(sent)
                self.kelpd.restart()
                self.assertEqual(self.old.data, self.kelpd.load("d/s/e/p.cvn"))
                left = [name for name in self.kelpd.tree() if name.endswith(".tmp")]
                self.assertEqual(1, len(left))
                self.assertEqual(json_reply("[ " + self.old.json("p.cvn") + "]\n"),
                                 mask_date(self, self.kelpd.ask(get(ENTITY)), 0))
                os.unlink(self.kelpd.path("base", left[0]))
        self.assertEqual(OK, mask_date(self, self.kelpd.ask(put(f"{ENTITY}/p.cvn", self.new.data)), 0))
        self.assertEqual(self.new.data, self.kelpd.load("d/s/e/p.cvn"))


def mount(test, point, options):
    """A small memory file system at `point`, or a skipped test where that is not allowed."""
    if os.geteuid() != 0:
        test.skipTest("needs root to mount a file system")
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "none", point], capture_output=True, text=True,
                          timeout=kelpd_proc.WAIT)
    if done.returncode:
        test.skipTest(f"cannot mount a file system here: {done.stderr.strip()}")


class FullDisk(FaultCase):
    SIZE = 256 << 10

    def setUp(self):
        WireCase.setUp(self)
        self.old = small_file(first=1, nrow=20)

    def mount(self, name="base", options=f"size={SIZE},mode=0700"):
        mount(self, self.kelpd.path(name), options)
        self.addCleanup(subprocess.run, ["umount", self.kelpd.path(name)], check=True, timeout=kelpd_proc.WAIT)

    def fill(self, left):
        """Fills base/ until `left` bytes, a multiple of a page, are free."""
        free = os.statvfs(self.kelpd.path("base"))
        self.kelpd.store("d/s/ballast/b", bytes(free.f_bavail * free.f_frsize - left - 4096 * 4))
        free = os.statvfs(self.kelpd.path("base"))
        self.kelpd.store("d/s/ballast/c", bytes(free.f_bavail * free.f_frsize - left))
        free = os.statvfs(self.kelpd.path("base"))
        self.assertEqual(left, free.f_bavail * free.f_frsize)

    def test_an_upload_that_does_not_fit_fails_and_leaves_the_old_file(self):
        self.mount()
        self.kelpd.store("d/s/e/p.cvn", self.old.data)
        big = cvnfile.build([cvnfile.Column(b"a", cvnfile.BYTEA)], [[[os.urandom(2 * self.SIZE)]]])
        self.check_status(put(f"{ENTITY}/p.cvn", big.data), FAILED)
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn")
        self.assert_old()
        self.check_ok(put(f"{ENTITY}/q.cvn", self.old.data))

    def test_an_upload_that_fails_only_when_it_is_flushed_leaves_the_old_file(self):
        self.mount()
        self.kelpd.store("d/s/e/p.bin", b"old")
        os.makedirs(self.kelpd.path("base/d/s/ballast"))
        self.fill(4096)
        # Smaller than any buffer on the way: nothing is written before the file is closed.
        self.check_status(put(f"{ENTITY}/p.bin", b"x" * 4097), FAILED)
        self.assertEqual(b"old", self.kelpd.load("d/s/e/p.bin"))
        self.assertEqual([], self.temporary())
        self.check_ok(put(f"{ENTITY}/p.bin", b"x" * 4096))

    def test_a_full_disk_is_read_and_emptied_as_ever(self):
        self.mount()
        self.kelpd.store("d/s/e/p.cvn", self.old.data)
        os.makedirs(self.kelpd.path("base/d/s/ballast"))
        self.fill(0)
        self.check_status(put(f"{ENTITY}/p.cvn", self.old.data), FAILED)
        self.assertEqual([], self.temporary())
        self.assert_old()
        self.check_ok(delete("/v1/d/s/ballast"))
        self.check_ok(put(f"{ENTITY}/p.cvn", self.old.data))

    def test_a_disk_without_room_for_names_fails_the_upload(self):
        self.mount(options="size=1m,nr_inodes=6,mode=0700")
        self.kelpd.store("d/s/e/p.cvn", self.old.data)
        self.kelpd.store("last", b"")
        self.check_status(put(f"{ENTITY}/p.cvn", self.old.data), FAILED)
        self.check_status(put("/v1/x/y/z/p.cvn", self.old.data), FAILED)
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p.cvn", "last")
        self.assert_old_listing()

    def assert_old_listing(self):
        self.check_ok(get(ENTITY), json_reply("[ " + self.old.json("p.cvn") + "]\n"))

    def test_an_upload_above_the_file_size_limit_fails(self):
        kelpd = Daemon()
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.store("d/s/e/p", b"old")
        kelpd.limit(resource.RLIMIT_FSIZE, 65536)
        self.assert_reply(error(FAILED), kelpd.ask(put(f"{ENTITY}/p", bytes(65537))))
        self.assertEqual(b"old", kelpd.load("d/s/e/p"))
        self.assertEqual(["d/", "d/s/", "d/s/e/", "d/s/e/p"], kelpd.tree())
        self.assert_reply(OK, kelpd.ask(put(f"{ENTITY}/p", bytes(65536))))
        self.assertEqual(bytes(65536), kelpd.load("d/s/e/p"))
        self.assertEqual(f"PUT {ENTITY}/p -> {FAILED}\nPUT {ENTITY}/p -> 200 OK\n", kelpd.take_log())

    def test_an_upload_that_cannot_be_written_fails_without_waiting_for_its_rest(self):
        kelpd = Daemon()
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.store("d/s/e/p", b"old")
        kelpd.limit(resource.RLIMIT_FSIZE, 65536)
        with kelpd.connect() as s:
            # Far less than the length: the answer must come from inside the copying, and no later than one piece of
            # 256 KiB after the byte that could not be written.
            kelpd_proc.send(s, put(f"{ENTITY}/p", bytes(65536 + (256 << 10) + 8192), length=8 << 20))
            self.assert_reply(error(FAILED), kelpd_proc.receive(s))
        self.assertEqual(f"PUT {ENTITY}/p -> {FAILED}\n", kelpd.await_log(1))
        self.assertEqual(b"old", kelpd.load("d/s/e/p"))
        self.assertEqual(["d/", "d/s/", "d/s/e/", "d/s/e/p"], kelpd.tree())


class DaemonLimits(BoundedCase):
    """What ends the daemon itself."""

    def start(self, **options):
        kelpd = Daemon(**options)
        self.addCleanup(kelpd.stop)
        return kelpd.start()

    def test_running_out_of_descriptors_ends_the_daemon_with_its_message(self):
        kelpd = self.start()
        data = small_file().data
        with kelpd.connect() as s:
            s.sendall(put(f"{ENTITY}/p.cvn", data[:100], length=len(data)))
            until(lambda: any(name.endswith(".tmp") for name in kelpd.tree()), "the temporary file")
            kelpd.await_accept()
            kelpd.limit(resource.RLIMIT_NOFILE, kelpd.free_descriptor())
            # The daemon has set a descriptor aside for this one; the next has none.
            kelpd.ask(get("/v1"))
            self.assertEqual(1, kelpd.await_end())
            # A connection under way is not disturbed.
            s.sendall(data[100:])
            self.assertEqual(OK, mask_date(self, kelpd_proc.receive(s), 0))
        self.assertEqual(data, kelpd.load("d/s/e/p.cvn"))
        lines = kelpd.log().splitlines()
        self.assertEqual(1, lines.count("ERROR: accept() failed - Too many open files"), lines)
        self.assertEqual(f"PUT {ENTITY}/p.cvn -> 200 OK", lines[-1])

    def test_running_out_of_descriptors_ends_the_foreground_process(self):
        kelpd = self.start(nofork=True)
        kelpd.limit(resource.RLIMIT_NOFILE, max(kelpd_proc.descriptors(kelpd.pid)) + 2)
        self.assertTrue(kelpd.ask(b"x\n\n") == SILENCE and not kelpd.has_ended())
        kelpd.await_accept()
        kelpd.limit(resource.RLIMIT_NOFILE, max(kelpd_proc.descriptors(kelpd.pid)) + 1)
        kelpd.ask(b"x\n\n")
        self.assertEqual(1, kelpd.await_end())
        self.assertTrue(kelpd.terminal().endswith("ERROR: accept() failed - Too many open files\n"), kelpd.terminal())

    def test_running_out_of_processes_ends_the_daemon_with_its_message(self):
        kelpd = self.start(user=65534 if os.geteuid() == 0 else None)
        kelpd.limit(resource.RLIMIT_NPROC, 0)
        self.assertEqual(SILENCE, kelpd.ask(get("/v1")))
        self.assertEqual(1, kelpd.await_end())
        self.assertEqual("ERROR: fork() failed - Resource temporarily unavailable\n", kelpd.log())

    def test_a_daemon_ended_by_a_signal_leaves_no_child(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            kelpd = self.start()
            kelpd.ask(get("/v1"))
            os.kill(kelpd.pid, number)
            self.assertEqual(-number, kelpd.await_end())
            self.assertEqual("GET /v1 -> 200 OK\n", kelpd.log())


class ChildLimits(FaultCase):
    """What one child lacks is told to its client; the next child is well again."""

    def ask_limited(self, raw, what, limit):
        """Sends a request to a child under a resource limit, given by a function of its process id."""
        with self.kelpd.connect() as s:
            s.sendall(raw[:4])
            child = self.kelpd.await_child(s)
            self.kelpd.limit(what, limit(child), child)
            s.sendall(raw[4:])
            return kelpd_proc.receive(s)

    def check_without_descriptors(self, raw, status, *lines):
        self.assert_reply(error(status), self.ask_limited(raw, resource.RLIMIT_NOFILE, self.kelpd.free_descriptor))
        self.assert_log(*lines, f"{self._words(raw)} -> {status}")
        self.assert_old()

    def test_a_listing_without_descriptors_is_not_found(self):
        self.check_without_descriptors(get("/v1"), "404 Not Found")
        self.check_without_descriptors(get(ENTITY), "404 Not Found")

    def test_a_file_without_descriptors_is_an_error(self):
        self.check_without_descriptors(get(f"{ENTITY}/p.cvn"), FAILED)

    def test_a_query_without_descriptors_is_not_found(self):
        self.check_without_descriptors(post(ENTITY), "404 Not Found")
        self.check_without_descriptors(post(ENTITY, '{"command":["meta"]}'), "404 Not Found")

    def test_an_upload_without_descriptors_fails(self):
        self.check_without_descriptors(put(f"{ENTITY}/p.cvn", self.new.data), FAILED)

    def test_a_removal_without_descriptors_fails(self):
        self.check_without_descriptors(delete("/v1/d"), FAILED, "Error rm -rf base/d: Too many open files")

    @staticmethod
    def no_memory(pid):
        return int(kelpd_proc.status_field(pid, "VmSize").split()[0]) * 1024 + 65536

    def check_without_memory(self, raw, status):
        """The reply is the error `status`, with nothing in front of it."""
        got = mask_date(self, self.ask_limited(raw, resource.RLIMIT_AS, self.no_memory), self.since)
        self.assertEqual(got, error(status))
        self.assert_log(f"{self._words(raw)} -> {status}")

    @unittest.skipIf(SANITIZED, "a sanitizer needs the address space")
    def test_a_listing_without_memory_is_an_error(self):
        os.makedirs(self.kelpd.path("base/d/many"))
        for k in range(2000):
            os.mkdir(self.kelpd.path(f"base/d/many/{k:04d}" + "x" * 200))
        self.check_without_memory(get("/v1/d/many"), NO_MEMORY)
        self.assert_old()

    @unittest.skipIf(SANITIZED, "a sanitizer needs the address space")
    def test_a_query_without_memory_is_an_error(self):
        body = '{"column":[' + ",".join('""' for _ in range(10900)) + "]}"
        self.check_without_memory(post(ENTITY, body), NO_MEMORY)
        self.assert_old()

    @unittest.skipIf(SANITIZED, "a sanitizer needs the address space")
    def test_a_page_without_memory_is_refused(self):
        whole = cvnfile.build([cvnfile.Column(b"a", cvnfile.BYTEA)], [[[os.urandom(4 << 20)]]])
        self.kelpd.store("d/s/big/p.cvn", whole.data)
        self.check_without_memory(post("/v1/d/s/big", '{"column":["a"]}'), REFUSED)
        self.check_ok(post("/v1/d/s/big", '{"column":["a"]}'), stream(whole.record(0, b"a")))


if __name__ == "__main__":
    unittest.main()
