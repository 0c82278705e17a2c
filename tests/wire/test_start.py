"""Start-up and life of the daemon process: command line, configuration, directories, daemonising, logs, the loop."""
import ctypes
import datetime
import errno
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import time
import unittest

import kelpd_proc
import wirecase
from kelpd_proc import BoundedCase, Daemon, Fault, WAIT, free_port, listening, program, status_field, until
from wirecase import OK, SILENCE, STREAM, WireCase, error, get, json_reply, post, put, request, small_file, stream

LOGNAME = re.compile(r"log/kelpd-(\d{4})-(\d\d)-(\d\d)_(\d\d)(\d\d)(\d\d)\.log")


def run(*arguments, name="kelpd", cwd=None):
    """Runs the program until it ends. Returns its exit status and what it printed on standard error."""
    env = {**os.environ, "LC_ALL": "C", "ASAN_OPTIONS": "detect_leaks=0"}
    done = subprocess.run([name, *arguments], executable=program(), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=WAIT, env=env, cwd=cwd)
    if done.stdout:
        raise AssertionError(f"standard output: {done.stdout!r}")
    return done.returncode, done.stderr.decode("latin-1")


class CommandLine(BoundedCase):
    USAGE = (
        "Usage: kelpd [-hn] -D datadir\n\n"
        "\t-h: print this message\n"
        "\t-n: do not fork (for debug sessions only)\n"
        "\t-v: verbose mode\n\n"
        "\tbuild %s on %s\n\n")

    def assert_usage(self, prefix, status, *arguments):
        got_status, text = run(*arguments)
        build = re.search(r"\tbuild (\S+) on (\S[^\n]*)\n\n\Z", text)
        self.assertTrue(build, text)
        self.assertEqual(prefix + self.USAGE % (build[1], build[2]), text)
        self.assertEqual(status, got_status)

    def test_help_is_printed_and_is_no_error(self):
        self.assert_usage("", 0, "-h")

    def test_help_wins_over_options_after_it(self):
        self.assert_usage("", 0, "-h", "-x")

    def test_the_usage_names_the_program_as_it_was_called(self):
        _, text = run("-h", name="some/other name")
        self.assertTrue(text.startswith("Usage: some/other name [-hn] -D datadir\n\n"), text)

    def test_an_unknown_option_is_illegal(self):
        self.assert_usage("kelpd: invalid option -- 'x'\nIllegal option\n", 1, "-x")

    def test_an_unknown_option_before_help_is_illegal(self):
        self.assert_usage("kelpd: invalid option -- 'x'\nIllegal option\n", 1, "-xh")

    def test_a_directory_option_without_its_argument_is_illegal(self):
        self.assert_usage("kelpd: option requires an argument -- 'D'\nIllegal option\n", 1, "-D")

    def test_the_directory_is_required(self):
        self.assert_usage("ERROR: -D datadir is missing\n", 1)
        self.assert_usage("ERROR: -D datadir is missing\n", 1, "-n", "-v")

    def test_extra_arguments_are_refused(self):
        self.assert_usage("ERROR: extra arguments\n", 1, "-D", "/nonexistent", "stray")

    def test_a_missing_directory_is_reported_before_extra_arguments(self):
        self.assert_usage("ERROR: -D datadir is missing\n", 1, "stray")

    def test_a_directory_that_cannot_be_entered_ends_the_start(self):
        self.assertEqual((1, "ERROR: cannot chdir to '/nonexistent/x' - No such file or directory\n"),
                         run("-D", "/nonexistent/x"))
        self.assertEqual((1, "ERROR: cannot chdir to '/dev/null' - Not a directory\n"), run("-D", "/dev/null"))

    def test_the_last_directory_given_wins(self):
        self.assertEqual((1, "ERROR: cannot chdir to '/nonexistent/b' - No such file or directory\n"),
                         run("-D", "/nonexistent/a", "-D", "/nonexistent/b"))


class Refused(BoundedCase):
    """Starts that end before anything listens."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kelpd-wire-")
        self.addCleanup(folder.cleanup)
        self.dir = folder.name

    def write(self, conf):
        with open(os.path.join(self.dir, "kelpd.conf"), "wb") as f:
            f.write(conf)

    def assert_refused(self, conf, text, made=()):
        self.write(conf)
        for options in ((), ("-n",)):
            self.assertEqual((1, text), run(*options, "-D", self.dir))
        self.assertEqual(sorted(["kelpd.conf", *made]), sorted(os.listdir(self.dir)))

    def assert_bad_port(self, conf, line=1):
        self.assert_refused(conf, f"ERROR: invalid value in config file for key port on line {line}\n")

    def test_a_missing_configuration_is_fatal(self):
        self.assertEqual((1, f"ERROR: cannot load {self.dir}/kelpd.conf - No such file or directory\n"),
                         run("-D", self.dir))
        self.assertEqual([], os.listdir(self.dir))

    def test_the_message_names_the_directory_as_it_was_given(self):
        self.assertEqual((1, "ERROR: cannot load ./kelpd.conf - No such file or directory\n"),
                         run("-D", ".", cwd=self.dir))

    def test_a_configuration_that_is_a_directory_is_fatal(self):
        os.mkdir(os.path.join(self.dir, "kelpd.conf"))
        status, text = run("-D", self.dir)
        self.assertEqual(1, status)
        self.assertRegex(text, rf"\AERROR: cannot load {re.escape(self.dir)}/kelpd\.conf - [A-Z][a-z ]+\n\Z")

    def test_a_nul_byte_before_the_last_line_feed_is_fatal(self):
        text = f"ERROR: cannot load {self.dir}/kelpd.conf - Invalid argument\n"
        self.assert_refused(b"\0port = 8080\n", text)

    def test_port_zero_is_invalid(self):
        self.assert_bad_port(b"port=0\n")

    def test_a_negative_port_is_invalid(self):
        self.assert_bad_port(b"port=-1\n")

    def test_a_port_that_is_no_number_is_invalid(self):
        self.assert_bad_port(b"port=abc\n")

    def test_an_empty_port_is_invalid(self):
        self.assert_bad_port(b"port=\n")

    def test_a_port_beyond_64_bits_is_invalid(self):
        self.assert_bad_port(b"port=99999999999999999999\n")

    def test_a_port_whose_low_32_bits_are_zero_is_invalid(self):
        self.assert_bad_port(b"port=4294967296\n")

    def test_a_port_whose_low_32_bits_are_negative_is_invalid(self):
        self.assert_bad_port(b"port=2147483648\n")

    def test_every_port_entry_is_checked(self):
        self.assert_bad_port(b"port=8080\nport=0\nport=8081\n", line=2)
        self.assert_bad_port(b"port=0\nport=8081\n", line=1)

    def test_comments_and_empty_lines_count_as_lines(self):
        self.assert_bad_port(b"# one\n\n \t! three\r\n\t#port=80\nport : 0\n", line=5)

    def test_the_line_of_a_continued_value_is_the_one_where_it_began(self):
        self.assert_bad_port(b"\nport = \\\n\\\n x\n", line=2)

    def test_a_value_still_continued_at_the_end_keeps_its_escapes(self):
        self.assert_bad_port(b"port=\\x31234\\")

    def test_a_comment_inside_a_continued_value_is_empty_text(self):
        self.assert_bad_port(b"port=\\\n# 8080\n")

    def test_a_hexadecimal_escape_of_one_digit_swallows_a_third_character(self):
        self.assert_bad_port(b"port=\\x4z8080\n")  # byte 4, then 8080: no number

    def test_a_binary_port_is_invalid(self):
        self.assert_bad_port(b"port=0b11111010000000\n")  # 0, with text after it

    def test_messages_before_a_bad_port_stay(self):
        self.write(b"=5\nno separator\nport=0\n")
        self.assertEqual(
            (1, "WARNING: conf file invalid line 1 ... ignored.WARNING: conf file invalid line 2 ... ignored."
                "ERROR: invalid value in config file for key port on line 3\n"), run("-n", "-D", self.dir))

    def test_base_that_is_a_file_ends_the_start(self):
        with open(os.path.join(self.dir, "base"), "w"):
            pass
        self.assert_refused(b"port=8080\n", "cannot create dir ./base\n", made=["base"])

    def test_tmp_that_is_a_file_ends_the_start(self):
        with open(os.path.join(self.dir, "tmp"), "w"):
            pass
        self.assert_refused(b"port=8080\n", "cannot create dir ./tmp\n", made=["base", "tmp"])


class Configuration(BoundedCase):
    """Starts that succeed; what the configuration said shows in the port and on the terminal."""

    def start(self, conf=None, **options):
        kelpd = Daemon(conf=conf, **options)
        self.addCleanup(kelpd.stop)
        self.asked = None
        kelpd.start()
        with open(kelpd.path("kelpd.conf"), "rb") as f:
            self.assertEqual(json_reply("[]"), wirecase.mask_date(self, kelpd.ask(get("/v1")), time.time() - WAIT),
                             f.read())
        return kelpd

    def warnings(self, kelpd):
        """What the terminal saw before the name of the log."""
        text = kelpd.terminal()
        found = re.search(rf"logfile name {LOGNAME.pattern}\n\Z", text)
        self.assertTrue(found, text)
        return text[: found.start()]

    def assert_port(self, conf, value=str, low=10240, high=32000):
        """The daemon listens on the very port whose number `value` turned into the text at {port}."""
        for _ in range(10):
            port = free_port(low, high)
            kelpd = Daemon(conf=conf.replace("{port}", value(port)).encode())
            self.addCleanup(kelpd.cleanup)
            kelpd.port = port
            kelpd.write_conf()
            kelpd.launch()
            until(lambda: kelpd.has_ended() or listening(kelpd.pid), "the daemon to listen")
            if kelpd.has_ended() and "Address already in use" in kelpd.log():
                continue
            self.assertFalse(kelpd.has_ended(), kelpd.terminal() + kelpd.log())
            self.assertEqual([(bytes(4), port)], listening(kelpd.pid))
            self.assertEqual("", self.warnings(kelpd))
            return
        self.fail("no free port")

    def test_a_decimal_port_is_used(self):
        self.assert_port("port={port}\n")

    def test_blanks_around_key_and_value_do_not_count(self):
        self.assert_port("\t port \t:\t {port} \t\r\n")

    def test_a_file_without_a_last_line_feed_is_read_whole(self):
        self.assert_port("port = {port}")

    def test_a_hexadecimal_port_is_used(self):
        self.assert_port("port=0x{port}\n", "{:X}".format)

    def test_an_octal_port_is_used(self):
        self.assert_port("port=0{port}\n", "{:o}".format)

    def test_text_after_the_number_is_ignored(self):
        self.assert_port("port={port}abc\n")
        self.assert_port("port={port} # no comment at the end of a line\n")

    def test_a_port_above_65535_is_taken_modulo_65536(self):
        self.assert_port("port={port}\n", lambda port: str(port + 65536))

    def test_a_port_above_32_bits_is_cut_to_them(self):
        self.assert_port("port={port}\n", lambda port: str(port + (1 << 32)))

    def test_the_last_of_several_ports_wins(self):
        self.assert_port("port=1\nport=2\nport={port}\n")

    def test_the_value_may_hold_further_separators(self):
        self.assert_port("port={port}:=x\n")

    def test_a_value_continues_after_a_backslash(self):
        self.assert_port("port={port}\n", lambda port: f"{str(port)[:2]}\\\n \t{str(port)[2:]}")

    def test_a_continuation_line_is_not_cut_at_a_separator(self):
        self.assert_port("port={port}\n", lambda port: f"{port}\\\nport=5")

    def test_a_value_continues_over_several_lines(self):
        self.assert_port("port=\\\n\\\n{port}\\\n\n")

    def test_a_comment_ends_a_continued_value(self):
        self.assert_port("port={port}\\\n# a comment\n# another\n")

    def test_escapes_are_decoded_when_the_value_is_complete(self):
        self.assert_port("port={port}\n", lambda port: f"\\x{ord(str(port)[0]):02x}{str(port)[1:]}")
        self.assert_port("port={port}\n", lambda port: f"\\{ord(str(port)[0]):03o}{str(port)[1:]}")
        self.assert_port("port=\\t\\n\\r{port}\n")
        self.assert_port("port={port}\n",
                         lambda port: f"{str(port)[:2]}\\x3\\\n{ord(str(port)[2]) & 15:x}{str(port)[3:]}")

    def test_an_octal_escape_of_two_digits_swallows_a_third_character(self):
        self.assert_port("port={port}\n", lambda port: f"\\{ord(str(port)[0]):o}q{str(port)[1:]}")

    def test_a_hexadecimal_escape_of_one_digit_swallows_two_characters(self):
        self.assert_port("port=\\x9z{port}\n")  # a tab, and the z gone

    def test_blanks_and_a_sign_may_begin_the_number_of_an_escape(self):
        """The sign counts towards the number's width and blanks do not; either way three characters are gone."""
        self.assert_port("port={port}\n", lambda port: f"\\ 62{str(port)[1:]}", low=28000, high=29000)
        self.assert_port("port={port}\n", lambda port: f"\\+62{str(port)[1:]}", low=20000, high=30000)
        # The number is 3 and the second digit of the port, and that digit is left over as another.
        self.assert_port("port={port}\n", lambda port: f"\\x 3{str(port)[1:]}", low=22000, high=23000)
        self.assert_port("port=\\x+9{port}\n")  # a tab

    def test_an_escaped_ordinary_character_is_itself(self):
        self.assert_port("port=\\{port}\n", low=8000, high=9999)

    def test_without_a_port_entry_the_kernel_chooses(self):
        kelpd = self.start(b"# nothing\n")
        self.assertEqual("", self.warnings(kelpd))

    def test_daemons_without_a_port_entry_get_a_port_each(self):
        both = [Daemon(conf=b"") for _ in range(2)]
        for kelpd in both:
            self.addCleanup(kelpd.stop)
            kelpd.start()
        self.assertNotEqual(both[0].port, both[1].port)
        for k, kelpd in enumerate(both):
            kelpd.await_accept()
            self.assertEqual("", kelpd.log(), "a line before the first request")
            kelpd.store(f"d{k}/s/e/p", b"")
            self.assertTrue(kelpd.ask(get("/v1")).endswith(b'\r\n\r\n["d%d"]' % k))

    def test_an_empty_configuration_is_accepted(self):
        kelpd = self.start(b"")
        self.assertEqual("", self.warnings(kelpd))

    def test_an_unknown_key_is_reported_and_ignored(self):
        kelpd = self.start(b"#\nPort=0\n\n a b : c=d\nport \t2=0\n")
        self.assertEqual(
            "WARNING: unknown key (Port) in config file on line 2 ... ignored.\n"
            "WARNING: unknown key (a b) in config file on line 4 ... ignored.\n"
            "WARNING: unknown key (port \t2) in config file on line 5 ... ignored.\n", self.warnings(kelpd))

    def test_other_white_space_than_blanks_and_tabs_belongs_to_a_key(self):
        kelpd = self.start(b"\vport=1\nport\f=1\n")
        self.assertEqual("WARNING: unknown key (\vport) in config file on line 1 ... ignored.\n"
                         "WARNING: unknown key (port\f) in config file on line 2 ... ignored.\n", self.warnings(kelpd))

    def test_a_key_ends_at_the_first_separator(self):
        kelpd = self.start(b"a:b=c\nd=e:f\n")
        self.assertEqual("WARNING: unknown key (a) in config file on line 1 ... ignored.\n"
                         "WARNING: unknown key (d) in config file on line 2 ... ignored.\n", self.warnings(kelpd))

    def test_lines_without_key_or_separator_are_reported_without_a_line_end(self):
        kelpd = self.start("=5\nport={port}\nnonsense\n : x\n")
        self.assertEqual("WARNING: conf file invalid line 1 ... ignored.WARNING: conf file invalid line 3 ... ignored."
                         "WARNING: conf file invalid line 4 ... ignored.", self.warnings(kelpd))


class DataDirectory(BoundedCase):
    def start(self, **options):
        kelpd = Daemon(**options)
        self.addCleanup(kelpd.stop)
        return kelpd.start()

    def mode(self, kelpd, *names):
        return stat.S_IMODE(os.stat(kelpd.path(*names)).st_mode)

    def test_base_and_tmp_are_made_for_the_owner_only(self):
        kelpd = self.start()
        self.assertEqual(0o700, self.mode(kelpd, "base"))
        self.assertEqual(0o700, self.mode(kelpd, "tmp"))
        self.assertEqual({"kelpd.conf", "base", "tmp", "log"}, set(os.listdir(kelpd.dir)))

    def test_existing_directories_are_left_as_they_are(self):
        def prepare(folder):
            for name in ("base", "tmp", "log"):
                os.mkdir(os.path.join(folder, name))
                os.chmod(os.path.join(folder, name), 0o750)
            with open(os.path.join(folder, "base", "kept"), "w"):
                pass
        kelpd = self.start(prepare=prepare)
        self.assertEqual([0o750] * 3, [self.mode(kelpd, name) for name in ("base", "tmp", "log")])
        self.assertEqual(["kept"], kelpd.tree())

    def test_base_may_be_a_link_to_a_directory(self):
        def prepare(folder):
            os.mkdir(os.path.join(folder, "elsewhere"))
            os.symlink("elsewhere", os.path.join(folder, "base"))
        kelpd = self.start(prepare=prepare)
        os.mkdir(kelpd.path("elsewhere", "db"))
        self.assertTrue(kelpd.ask(get("/v1")).endswith(b'\r\n\r\n["db"]'))


class Daemonised(WireCase):
    """The process that remains after the start."""

    def ignored(self, pid):
        mask = int(status_field(pid, "SigIgn"), 16)
        return {number for number in (signal.SIGCHLD, signal.SIGPIPE, signal.SIGHUP, signal.SIGTERM)
                if mask >> number - 1 & 1}

    def test_the_launcher_ends_well_and_names_the_log_on_the_terminal(self):
        text = self.kelpd.terminal()
        found = re.fullmatch(rf"logfile name ({LOGNAME.pattern})\n", text)
        self.assertTrue(found, text)
        self.assertTrue(os.path.exists(self.kelpd.path(found[1])))

    def test_the_log_is_named_after_the_local_time_of_the_start(self):
        after = time.time()
        before = os.stat(self.kelpd.path("kelpd.conf")).st_mtime
        names = [os.path.relpath(name, self.kelpd.dir) for name in self.kelpd.log_files()]
        self.assertIn(len(names), (1, 2))
        for name in names:
            stamp = LOGNAME.fullmatch(name)
            self.assertTrue(stamp, name)
            opened = time.mktime((*map(int, stamp.groups()), 0, 0, -1))
            self.assertTrue(int(before) <= opened <= after, name)

    def test_the_daemon_leads_a_session_and_stays_in_its_directory(self):
        process = kelpd_proc.stat_of(self.kelpd.pid)
        self.assertEqual((self.kelpd.pid, self.kelpd.pid), (process.sid, process.pgrp))
        self.assertEqual(os.path.realpath(self.kelpd.dir), os.readlink(f"/proc/{self.kelpd.pid}/cwd"))

    def test_the_code_that_serves_is_mapped_before_the_first_child_and_private_so_that_forks_copy_it(self):
        segments = self.read_only_segments()
        section = kelpd_proc.sections(self.kelpd.program)
        if ".text_serving" not in section:  # linked without the layout: all of it is mapped
            for begin, end, anonymous in segments.values():
                self.assertGreater(anonymous, 0)
                self.assertEqual({True}, set(kelpd_proc.is_mapped(self.kelpd.pid, begin, end)))
            return
        # A program that can be anywhere counts its addresses from where its first segment was put.
        base = min(begin for begin, _, _ in segments.values()) if section[".text"][0] < 1 << 22 else 0
        for name, permissions in ((".text_serving", "r-xp"), (".rodata_serving", "r--p")):
            address, size = base + section[name][0], section[name][1]
            begin, end, anonymous = segments[permissions]
            self.assertTrue(begin <= address and address + size <= end, name)
            self.assertGreater(anonymous, 0, name)
            self.assertEqual({True}, set(kelpd_proc.is_mapped(self.kelpd.pid, address, address + size)), name)
        for name in (".text", ".rodata_rest"):
            address, size = base + section[name][0], section[name][1]
            whole = (address + 0xFFF & ~0xFFF, address + size & ~0xFFF)
            self.assertEqual({False}, set(kelpd_proc.is_mapped(self.kelpd.pid, *whole)), f"{name}: no request needs it")

    def read_only_segments(self):
        """(begin, end, kilobytes of its own) of the program's first mapping with each of these permissions."""
        found = {}
        with open(f"/proc/{self.kelpd.pid}/smaps", encoding="ascii") as f:
            for m in re.finditer(r"^(\w+)-(\w+) (r--p|r-xp) .*kelpd.*\n((?:[A-Z]\w+: .*\n)+)", f.read(), re.M):
                anonymous = int(re.search(r"^Anonymous: +(\d+) kB", m[4], re.M)[1])
                found.setdefault(m[3], (int(m[1], 16), int(m[2], 16), anonymous))
        self.assertEqual({"r--p", "r-xp"}, set(found), "constants and code in segments of their own")
        return found

    def test_the_umask_is_zero(self):
        self.assertEqual(0, int(status_field(self.kelpd.pid, "Umask"), 8))
        self.assertEqual(0o755, stat.S_IMODE(os.stat(self.kelpd.path("log")).st_mode))

    def test_the_log_is_not_for_everybody_to_read(self):
        for name in self.kelpd.log_files():
            self.assertEqual(0o640, stat.S_IMODE(os.stat(name).st_mode))

    def test_only_the_log_and_the_listening_socket_are_open(self):
        opened = sorted(kelpd_proc.descriptors(self.kelpd.pid).values())
        self.assertEqual(2, len(opened), opened)
        self.assertEqual(os.path.realpath(self.kelpd.log_files()[-1]), opened[0])
        self.assertRegex(opened[1], r"socket:\[\d+\]")
        with open(f"/proc/{self.kelpd.pid}/fdinfo/" + next(
                str(fd) for fd, name in kelpd_proc.descriptors(self.kelpd.pid).items() if name == opened[0])) as f:
            flags = int(re.search(r"flags:\s*(\d+)", f.read())[1], 8)
        self.assertTrue(flags & os.O_APPEND)

    def test_the_listening_socket_is_not_handed_to_programs(self):
        self.assertTrue(kelpd_proc.closes_on_exec(self.kelpd.pid))

    def test_a_peer_that_vanishes_is_noticed_after_ten_minutes(self):
        with self.kelpd.connect() as s:
            child = self.kelpd.await_child(s)
            options = kelpd_proc.socket_options(child, s, (
                (socket.SOL_SOCKET, socket.SO_KEEPALIVE), (socket.IPPROTO_TCP, socket.TCP_KEEPIDLE),
                (socket.IPPROTO_TCP, socket.TCP_KEEPINTVL), (socket.IPPROTO_TCP, socket.TCP_KEEPCNT)))
            on, idle, interval, count = options
            self.assertEqual((1, 600), (on, idle + interval * count))
            # The kernel's timer of that connection is the one that asks whether the peer is there, and it is set.
            kind, left = kelpd_proc.timer(s)
            self.assertEqual(2, kind)
            self.assertTrue(0 < left <= idle, left)
            s.sendall(get("/v1"))
            self.assert_reply(json_reply("[]"), kelpd_proc.receive(s))
        self.assert_log("GET /v1 -> 200 OK")

    def test_ended_children_and_lost_peers_are_ignored(self):
        self.assertEqual({signal.SIGCHLD, signal.SIGPIPE}, self.ignored(self.kelpd.pid))

    def test_it_listens_on_all_addresses_with_a_backlog_of_20(self):
        self.assertEqual([(bytes(4), self.kelpd.port)], listening(self.kelpd.pid))
        self.assertEqual(20, kelpd_proc.backlog(self.kelpd.port))

    def test_a_connection_child_has_no_listening_socket_and_waits_for_its_own_children(self):
        with self.kelpd.connect() as s:
            child = self.kelpd.await_child(s)
            until(lambda: self.ignored(child) == {signal.SIGPIPE}, "the child to restore SIGCHLD")
            self.assertEqual([], listening(child))
            process = kelpd_proc.stat_of(child)
            self.assertEqual((self.kelpd.pid, self.kelpd.pid), (process.ppid, process.sid))
            s.sendall(get("/v1"))
            self.assert_reply(json_reply("[]"), kelpd_proc.receive(s))
        self.assert_log("GET /v1 -> 200 OK")

    def test_a_slow_client_does_not_keep_others_waiting(self):
        with self.kelpd.connect() as slow:
            slow.sendall(b"GET /v1 HT")
            for _ in range(5):
                self.check_ok(get("/v1"), json_reply("[]"))
            slow.sendall(b"TP/1.1\r\n\r\n")
            self.assert_reply(json_reply("[]"), kelpd_proc.receive(slow))
        self.assert_log("GET /v1 -> 200 OK")

    def test_no_zombies_gather(self):
        for _ in range(50):
            self.kelpd.ask(get("/v1"))
        self.kelpd.await_idle()
        self.assertEqual([], [s for s in kelpd_proc.all_processes() if s.ppid == self.kelpd.pid])
        self.assert_log(*["GET /v1 -> 200 OK"] * 50)


class Logs(BoundedCase):
    def test_a_log_is_named_after_the_local_time_and_a_reply_dated_in_gmt(self):
        kelpd = Daemon(env={"TZ": "XYZ-5:30"})
        self.addCleanup(kelpd.stop)
        before = time.time()
        kelpd.start()
        for name in kelpd.log_files():
            stamp = [int(part) for part in LOGNAME.fullmatch(os.path.relpath(name, kelpd.dir)).groups()]
            zone = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
            opened = datetime.datetime(*stamp, tzinfo=zone).timestamp()
            self.assertTrue(int(before - 0.1) <= opened <= time.time(), name)
        since = time.time()
        self.assertEqual(json_reply("[]"), wirecase.mask_date(self, kelpd.ask(get("/v1")), since))

    def test_a_log_of_the_same_second_is_appended_to(self):
        names = []

        def prepare(folder):
            os.mkdir(os.path.join(folder, "log"))
            for second in range(120):
                stamp = time.strftime("%Y-%m-%d_%H%M%S", time.localtime(time.time() + second))
                names.append(os.path.join(folder, "log", f"kelpd-{stamp}.log"))
                with open(names[-1], "w", encoding="ascii") as f:
                    f.write("an earlier line\n")

        kelpd = Daemon(prepare=prepare)
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.ask(get("/v2"))
        self.assertEqual(sorted(names), kelpd.log_files())
        self.assertEqual("an earlier line\n" * 120 + "GET /v2 -> 400 Bad Request - invalid version\n",
                         "".join(sorted(kelpd.log().splitlines(True), reverse=True)))

    def test_a_log_that_cannot_be_opened_ends_the_daemon(self):
        kelpd = Daemon(conf=b"port=1\n")
        self.addCleanup(kelpd.cleanup)
        with open(kelpd.path("log"), "w"):
            pass
        kelpd.write_conf()
        kelpd.launch()
        self.assertEqual(1, kelpd.await_end())
        self.assertRegex(kelpd.terminal(), rf"\Alogfile name {LOGNAME.pattern}\nfopen: Not a directory\n\Z")

    def test_a_port_in_use_ends_the_daemon_with_a_message_in_its_log(self):
        with socket.socket() as taken:
            taken.bind(("", 0))
            taken.listen()
            kelpd = Daemon(conf=b"port=%d\n" % taken.getsockname()[1])
            self.addCleanup(kelpd.cleanup)
            kelpd.write_conf()
            kelpd.launch()
            self.assertEqual(1, kelpd.await_end())
            self.assertEqual("ERROR: bind() failed - Address already in use\n", kelpd.log())

    def test_a_port_in_use_ends_the_foreground_process_with_a_message_on_the_terminal(self):
        with socket.socket() as taken:
            taken.bind(("", 0))
            taken.listen()
            kelpd = Daemon(nofork=True, conf=b"port=%d\n" % taken.getsockname()[1])
            self.addCleanup(kelpd.cleanup)
            kelpd.write_conf()
            kelpd.launch()
            self.assertEqual(1, kelpd.await_end())
            self.assertEqual("ERROR: bind() failed - Address already in use\n", kelpd.terminal())
            self.assertEqual(["base", "kelpd.conf", "tmp"], sorted(os.listdir(kelpd.dir)))

    def test_a_port_is_free_again_at_once_after_the_daemon_ended(self):
        kelpd = Daemon()
        self.addCleanup(kelpd.stop)
        kelpd.start()
        port = kelpd.port
        with kelpd.connect() as idle:
            kelpd.await_child(idle)
            kelpd.restart()
            self.assertEqual(port, kelpd.port)
            self.assertTrue(kelpd.ask(get("/v1")).endswith(b"[]"))
            self.assertEqual(SILENCE, kelpd_proc.receive(idle))


class FailedStarts(BoundedCase):
    """Starts at which a call of the system fails."""

    def check_end(self, log, *faults, terminal="", **options):
        """The start ends with status 1; the log is `log` and the terminal's text matches `terminal`."""
        kelpd = Daemon(conf=b"", fail=faults, **options)
        self.addCleanup(kelpd.stop)
        kelpd.write_conf()
        kelpd.launch()
        self.assertEqual(1, kelpd.await_end())
        self.assertEqual(log, kelpd.log())
        self.assertRegex(kelpd.terminal(), rf"\A{terminal}\Z")

    def check_daemon_ends(self, log, *faults):
        self.check_end(log, *faults, terminal=rf"logfile name {LOGNAME.pattern}\n")

    def check_both_end(self, text, *faults):
        """The daemon ends with this message in its log, and the foreground process with it on the terminal."""
        self.check_daemon_ends(text, *faults)
        self.check_end(text, *faults, terminal=re.escape(text), nofork=True)

    def test_without_a_second_process_there_is_no_daemon(self):
        self.check_end("", Fault("clone", errno.EAGAIN), terminal=r"fork: Resource temporarily unavailable\n")

    def test_without_a_session_of_its_own_the_daemon_ends(self):
        self.check_daemon_ends("setsid: Operation not permitted\n", Fault("setsid", errno.EPERM))

    def test_signals_that_cannot_be_ignored_end_the_daemon(self):
        self.check_daemon_ends("signal(SIGCHLD, SIG_IGN): Invalid argument\n",
                               Fault("rt_sigaction", errno.EINVAL, {0: signal.SIGCHLD}))
        self.check_daemon_ends("signal(SIGPIPE, SIG_IGN: Invalid argument\n",
                               Fault("rt_sigaction", errno.EINVAL, {0: signal.SIGPIPE}))

    def test_without_a_socket_the_process_ends(self):
        self.check_both_end("ERROR: socket() failed - Too many open files\n", Fault("socket", errno.EMFILE))

    def test_a_socket_that_cannot_listen_ends_the_process(self):
        self.check_both_end("ERROR: listen() failed - Address already in use\n", Fault("listen", errno.EADDRINUSE))

    def test_an_interrupted_accept_ends_the_process(self):
        self.check_both_end("ERROR: accept() failed - Interrupted system call\n", Fault("accept", errno.EINTR))

    def test_socket_options_that_cannot_be_set_are_done_without(self):
        kelpd = Daemon(fail=[Fault("setsockopt", errno.ENOPROTOOPT)])
        self.addCleanup(kelpd.stop)
        kelpd.start()
        self.assertTrue(kelpd.ask(get("/v1")).endswith(b"\r\n\r\n[]"))
        self.assertEqual("GET /v1 -> 200 OK\n", kelpd.await_log(1))


@unittest.skipIf(kelpd_proc.SANITIZED, "a build with sanitizers is not confined")
class Confined(WireCase):
    """What the daemon may do. The directory for temporary files is one of its own, so that the next is outside."""

    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.mkdtemp(prefix="kelpd-wire-")
        cls.addClassCleanup(shutil.rmtree, cls.home)
        # Programs lie in a place of their own, since what stands beside them may be read.
        for name in ("scratch", "outside", "sampler/bin"):
            os.makedirs(os.path.join(cls.home, name))
        with open(os.path.join(cls.home, "sampler/bin", "cvnsamp"), "w", encoding="ascii") as f:
            f.write("#!/bin/sh\ncat \"$2\"\n")
        os.chmod(os.path.join(cls.home, "sampler/bin", "cvnsamp"), 0o755)
        cls.daemon_arguments = {"env": {"TMPDIR": os.path.join(cls.home, "scratch"), "LD_PRELOAD": "",
                                        "PATH": os.path.join(cls.home, "sampler/bin") + ":/usr/bin:/bin"}}
        super().setUpClass()

    def setUp(self):
        super().setUp()
        if ctypes.CDLL(None).syscall(444, None, 0, 1) < 1:
            self.skipTest("the kernel has no Landlock")

    def link(self, target, name):
        """Puts `target` outside the data directory, and a link to it at `name` inside base/. Returns the target."""
        outside = os.path.join(self.home, "outside", target)
        os.makedirs(os.path.dirname(self.kelpd.path("base", name)), 0o700, exist_ok=True)
        os.symlink(outside, self.kelpd.path("base", name))
        return outside

    def test_a_data_file_outside_is_like_one_that_cannot_be_read(self):
        outside = self.link("p.cvn", "d/s/e/p.cvn")
        with open(outside, "wb") as f:
            f.write(small_file().data)
        self.check_status(get("/v1/d/s/e/p.cvn"), "500 Internal Server Error")
        self.check_ok(get("/v1/d/s/e"), json_reply("[]\n"))
        self.check(post("/v1/d/s/e", '{"command":["sample","5"]}'), STREAM,
                   "cat: base/d/s/e/p.cvn: Permission denied", "POST /v1/d/s/e -> 200 OK")

    def test_a_directory_outside_is_like_one_that_cannot_be_read(self):
        outside = self.link("entity", "d/s/linked")
        os.makedirs(outside)
        with open(os.path.join(outside, "p.cvn"), "wb") as f:
            f.write(small_file().data)
        self.check_status(get("/v1/d/s/linked"), "404 Not Found")
        self.check_ok(get("/v1/d/s"), json_reply("[]"))
        self.check_status(post("/v1/d/s/linked", "{}"), "404 Not Found")
        self.check_status(put("/v1/d/s/linked/new", b"x"), "500 Internal Server Error")
        self.assertEqual(["p.cvn"], os.listdir(outside))

    def test_the_sampler_is_run_as_ever(self):
        data = small_file()
        self.kelpd.store("d/s/e/p.cvn", data.data)
        self.check_ok(post("/v1/d/s/e", '{"command":["sample","5"]}'),
                      stream(*(data.record(k, *(c.name for c in data.columns)) for k in range(len(data.groups)))))

    def test_system_calls_are_filtered_and_more_of_them_in_an_upload(self):
        self.assertEqual("2", status_field(self.kelpd.pid, "Seccomp"))
        self.assertEqual("1", status_field(self.kelpd.pid, "NoNewPrivs"))
        before = int(status_field(self.kelpd.pid, "Seccomp_filters"))
        with self.kelpd.connect() as s:
            s.sendall(put("/v1/d/s/e/p", b"x", length=2))
            child = self.kelpd.await_child(s)
            until(lambda: int(status_field(child, "Seccomp_filters")) == before + 1, "the upload's filter")
            s.sendall(b"y")
            self.assert_reply(OK, kelpd_proc.receive(s))
        self.assert_log("PUT /v1/d/s/e/p -> 200 OK")

    def test_what_was_done_is_said_when_asked(self):
        for options, lines in (((), ""), (("-v",), "files confined: Landlock %d\nsystem calls confined: seccomp\n" %
                                          ctypes.CDLL(None).syscall(444, None, 0, 1))):
            for nofork in (False, True):
                kelpd = Daemon(*options, nofork=nofork, **self.daemon_arguments)
                self.addCleanup(kelpd.stop)
                kelpd.start()
                self.assertEqual(lines, kelpd.log())
                kelpd.stop()


class Unprivileged(BoundedCase):
    """A start that may not read everything. Run by root, the test starts it as another user."""

    def check_start_ends(self, name, text):
        kelpd = Daemon(conf=b"port=8080\n", user=65534 if os.geteuid() == 0 else None)
        self.addCleanup(kelpd.stop)
        kelpd.write_conf()
        if name == "base":
            os.mkdir(kelpd.path("base"))
        os.chmod(kelpd.path(name), 0)
        self.addCleanup(os.chmod, kelpd.path(name), 0o700)
        kelpd.launch()
        self.assertEqual(1, kelpd.await_end())
        self.assertEqual(text.format(kelpd.dir), kelpd.terminal())
        self.assertEqual({"kelpd.conf", name}, set(os.listdir(kelpd.dir)))

    def test_a_configuration_without_permission_is_fatal(self):
        self.check_start_ends("kelpd.conf", "ERROR: cannot load {}/kelpd.conf - Permission denied\n")

    def test_base_without_permission_ends_the_start(self):
        self.check_start_ends("base", "cannot create dir ./base\n")


class Inherited(BoundedCase):
    def test_the_foreground_process_keeps_its_umask_session_and_group(self):
        kelpd = Daemon(nofork=True, umask=0o027, session=False)
        self.addCleanup(kelpd.stop)
        kelpd.start()
        self.assertEqual(0o027, int(status_field(kelpd.pid, "Umask"), 8))
        process = kelpd_proc.stat_of(kelpd.pid)
        self.assertEqual((os.getsid(0), os.getpgid(0)), (process.sid, process.pgrp))


class Foreground(WireCase):
    """The -n mode: one process, one connection at a time, diagnostics on the terminal."""

    daemon_arguments = {"nofork": True}

    def test_the_listening_socket_is_not_handed_to_programs(self):
        self.assertTrue(kelpd_proc.closes_on_exec(self.kelpd.pid))

    def test_there_is_no_log_and_nothing_is_printed_at_the_start(self):
        self.assertEqual(["base", "kelpd.conf", "tmp"], sorted(os.listdir(self.kelpd.dir)))
        fresh = Daemon(nofork=True)
        self.addCleanup(fresh.stop)
        fresh.start()
        self.assertEqual("", fresh.terminal())

    def test_signals_keep_their_defaults(self):
        ignored = int(status_field(self.kelpd.pid, "SigIgn"), 16)
        self.assertEqual(0, ignored & (1 << signal.SIGCHLD - 1 | 1 << signal.SIGPIPE - 1))

    def test_a_good_request_is_logged_on_the_terminal(self):
        self.check(get("/v1"), json_reply("[]"), "GET /v1 -> 200 OK")

    def test_a_status_is_logged_and_printed(self):
        self.check(get("/v2"), error("400 Bad Request - invalid version"),
                   "GET /v2 -> 400 Bad Request - invalid version", "ERROR: 400 Bad Request - invalid version")

    def test_an_unreadable_request_is_printed_twice(self):
        self.check(b"GET\r\n\r\n", SILENCE, "htreq_parse failed: htreq_parse: invalid req line",
                   "ERROR: htreq_parse: invalid req line")
        self.check(b"GET", SILENCE, "htreq_readbuf failed: clnt closed without valid req",
                   "ERROR: clnt closed without valid req", half_close=True)

    def test_requests_are_served_one_at_a_time(self):
        with self.kelpd.connect() as first, self.kelpd.connect() as second:
            second.sendall(get("/v1/b"))
            first.sendall(get("/v1/a"))
            self.assert_reply(error("404 Not Found"), kelpd_proc.receive(first))
            self.assert_reply(error("404 Not Found"), kelpd_proc.receive(second))
        self.assert_log("GET /v1/a -> 404 Not Found", "ERROR: 404 Not Found",
                        "GET /v1/b -> 404 Not Found", "ERROR: 404 Not Found")

    def test_many_requests_leave_no_descriptor_open(self):
        wanted = wirecase.small_file()
        for _ in range(20):
            self.check_ok(wirecase.put("/v1/d/s/e/p.cvn", wanted.data))
            self.kelpd.ask(get("/v1/d/s/e"))
            self.kelpd.ask(get("/v1/d/s/e/p.cvn"))
            self.kelpd.ask(wirecase.post("/v1/d/s/e", '{"column":["id"]}'))
            self.kelpd.ask(wirecase.post("/v1/d/s/e", '{"column":["nosuch"]}'))
            self.kelpd.ask(wirecase.post("/v1/d/s/e", '{"command":["meta"]}'))
            self.kelpd.ask(wirecase.put("/v1/d/s/e/p.cvn", b"no data file"))
            self.kelpd.ask(wirecase.delete("/v1/d"))
            self.kelpd.take_log()


class LostPeerInForeground(BoundedCase):
    def test_a_peer_that_leaves_during_a_reply_ends_the_process(self):
        kelpd = Daemon(nofork=True)
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.store("d/s/e/p.cvn", cvn_counting(1 << 50))
        with kelpd.connect() as s:
            s.sendall(wirecase.post("/v1/d/s/e"))
            s.recv(1)
        self.assertEqual(-signal.SIGPIPE, kelpd.await_end())

    def test_a_peer_that_left_before_the_reply_ends_the_process_at_its_second_write(self):
        """The head of a reply is a write of its own: the first tells of the reset, one after it ends the process.

        Nothing follows a head that failed but the text of an error.
        """
        for url, ends in (("/v1", False), ("/v2", True)):
            kelpd = Daemon(nofork=True)
            self.addCleanup(kelpd.stop)
            kelpd.start()
            os.kill(kelpd.pid, signal.SIGSTOP)
            s = kelpd.connect()
            s.sendall(get(url))
            kelpd_proc.reset(s)
            os.kill(kelpd.pid, signal.SIGCONT)
            if ends:
                self.assertEqual(-signal.SIGPIPE, kelpd.await_end())
            else:
                self.assertEqual(json_reply("[]"), wirecase.mask_date(self, kelpd.ask(get(url)), 0))


def cvn_counting(nrow):
    """A file that states `nrow` rows and holds none: a count of them has no end before the client leaves."""
    return wirecase.cvnfile.build([wirecase.cvnfile.Column(b"a", 1)], [], nrow=nrow).data


class Verbose(WireCase):
    options = ("-v",)

    def test_the_request_line_is_logged_before_the_access_line(self):
        self.check(request("HEAD", "/x", proto="FOO/9"), error("404 Not Found"), "HEAD /x FOO/9",
                   "HEAD /x -> 404 Not Found")

    def test_the_request_line_is_logged_even_when_it_is_refused(self):
        self.check(b"GET /v1 HTTP/1.0\r\n\r\n", SILENCE, "GET /v1 HTTP/1.0",
                   "htreq_parse failed: htreq_parse: HTTP/1.0 not supported")

    def test_an_overlong_head_is_refused_before_its_first_line_is_logged(self):
        self.check(b"GET /v1\n" + b"x\n" * 99 + b"\n", SILENCE,
                   "htreq_parse failed: htreq_parse: too many lines in req")


if __name__ == "__main__":
    unittest.main()
