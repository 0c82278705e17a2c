"""DELETE: what each depth removes, what survives, and how failures are told."""
import errno
import os
import subprocess
import unittest

import cvnfile
import kelpd_proc
from kelpd_proc import Daemon, Fault
from wirecase import OK, WireCase, delete, error, get, json_reply, post, put, small_file, stream

FAILED = "500 Internal Server Error"
BAD_URL = "400 Bad Request - invalid url"


class Depths(WireCase):
    def setUp(self):
        super().setUp()
        for name in ("d/s/e/p.cvn", "d/s/e/q", "d/s/f/p", "d/t/e/p", "c/s/e/p"):
            self.kelpd.store(name, b"content")
        self.all = set(self.kelpd.tree())

    def check_removes(self, url, *gone):
        """The URL removes these paths and everything below them, and nothing else."""
        self.check_ok(delete(url))
        below = {path for path in self.all if any(path == name or path.startswith(name + "/") for name in gone)}
        self.assertTrue(below or not gone)
        self.assert_tree(*(self.all - below))

    def test_a_file_is_removed(self):
        self.check_removes("/v1/d/s/e/p.cvn", "d/s/e/p.cvn")

    def test_an_entity_is_removed_with_its_files(self):
        self.check_removes("/v1/d/s/e", "d/s/e")

    def test_an_entity_may_end_in_a_slash(self):
        self.check_removes("/v1/d/s/e/", "d/s/e")

    def test_a_schema_is_removed_with_its_entities(self):
        self.check_removes("/v1/d/s", "d/s")

    def test_a_database_is_removed_with_its_schemas(self):
        self.check_removes("/v1/d", "d")

    def test_names_are_decoded(self):
        self.check_removes("/v1/d%2Fs/e", "d/s/e")

    def test_the_last_file_leaves_its_entity_behind(self):
        self.check_removes("/v1/c/s/e/p", "c/s/e/p")
        self.check_ok(get("/v1/c/s/e"), json_reply("[]\n"))

    def test_a_missing_name_counts_as_removed(self):
        for url in ("/v1/x", "/v1/x/y", "/v1/x/y/z", "/v1/d/s/e/none", "/v1/d/s/none/p"):
            with self.subTest(url=url):
                self.check_removes(url)

    def test_removing_twice_is_no_error(self):
        self.check_removes("/v1/d/s", "d/s")
        self.check_ok(delete("/v1/d/s"))

    def test_a_file_in_a_directorys_place_is_removed(self):
        self.kelpd.store("file", b"")
        self.check_ok(delete("/v1/file"))
        self.assert_tree(*self.all)

    def test_hidden_and_temporary_files_go_with_their_entity(self):
        for name in (".hidden", "p.1700000000.tmp", ".dir/deeper/file"):
            self.kelpd.store("d/s/e/" + name, b"")
        self.check_removes("/v1/d/s/e", "d/s/e")

    def test_every_url_failure_is_told_as_an_invalid_url(self):
        for url in ("/v2/d", "/", "", "x", "/v1/d/..", "/v1//d", "/v1/d/s/e/p/q", "/v1/d/s/e/p/", "/v1/.",
                    "/v1/d/s/e/%2e%2e", "/v1/d%2f.."):
            with self.subTest(url=url):
                self.check_status(delete(url), BAD_URL)
        self.assert_tree(*self.all)

    def test_nothing_outside_the_tree_is_removed(self):
        for url in ("/v1/..", "/v1/%2e%2e/tmp", "/v1/..%2ftmp", "/v1/../kelpd.conf"):
            self.check_status(delete(url), BAD_URL)
        self.assertEqual({"kelpd.conf", "base", "tmp", "log"}, set(os.listdir(self.kelpd.dir)))


class Links(WireCase):
    def test_a_link_is_removed_and_its_target_is_not(self):
        self.kelpd.store("d/s/e/p", b"kept")
        os.symlink("d", self.kelpd.path("base/link"))
        self.check_ok(delete("/v1/link"))
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p")

    def test_a_link_inside_a_tree_is_not_followed(self):
        self.kelpd.store("kept/s/e/p", b"kept")
        os.makedirs(self.kelpd.path("base/d/s"))
        os.symlink("../../kept", self.kelpd.path("base/d/s/out"))
        os.symlink("nowhere", self.kelpd.path("base/d/s/broken"))
        self.check_ok(delete("/v1/d"))
        self.assert_tree("kept/", "kept/s/", "kept/s/e/", "kept/s/e/p")

    def test_a_tree_deeper_than_the_walk_has_descriptors_is_removed(self):
        path = "d/s/e"
        for k in range(150):
            path += f"/{k}"
        os.makedirs(self.kelpd.path("base", path))
        self.check_ok(delete("/v1/d"))
        self.assert_tree()

    def test_an_entity_of_thousands_of_files_is_removed(self):
        for k in range(1200):
            self.kelpd.store(f"d/s/e/p{k}", b"")
        self.check_ok(delete("/v1/d/s/e"))
        self.assert_tree("d/", "d/s/")


class Failures(WireCase):
    def test_a_name_below_a_file_cannot_be_removed(self):
        self.kelpd.store("d", b"a file")
        self.check(delete("/v1/d/s"), error(FAILED), "Error unlink base/d/s: Not a directory",
                   f"DELETE /v1/d/s -> {FAILED}")
        self.assert_tree("d")

    def test_a_name_too_long_for_the_file_system_fails(self):
        name = "x" * 256
        self.check(delete("/v1/" + name), error(FAILED), f"Error rm -rf base/{name}: File name too long",
                   f"DELETE /v1/{name} -> {FAILED}")

    @unittest.skipUnless(os.geteuid() == 0, "needs root to mount a file system")
    def test_what_cannot_be_removed_stays_and_fails_the_request(self):
        self.kelpd.store("d/s/e/p", b"content")
        point = self.kelpd.path("base/d/s/busy")
        os.mkdir(point)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", point], capture_output=True).returncode:
            self.skipTest("cannot mount a file system here")
        try:
            self.check(delete("/v1/d"), error(FAILED),
                       "ERROR while remove(base/d/s/busy): Device or resource busy",
                       "Error rm -rf base/d: Device or resource busy", f"DELETE /v1/d -> {FAILED}")
        finally:
            subprocess.run(["umount", point], check=True)
        self.assertIn("d/s/busy/", self.kelpd.tree())
        self.check_ok(delete("/v1/d"))
        self.assert_tree()


# What a removal meets when somebody else removes the same names at the same time.


class FilesGone(WireCase):
    daemon_arguments = {"fail": [Fault("unlink", errno.ENOENT)]}

    def test_files_that_are_gone_when_they_are_removed_count_as_removed(self):
        self.kelpd.store("d/s/e/p", b"")
        self.kelpd.store("file", b"")
        for url in ("/v1/file", "/v1/d/s/e/p", "/v1/d"):
            self.check_ok(delete(url))
        self.assert_tree("d/", "d/s/", "d/s/e/", "d/s/e/p", "file")  # none was removed in truth


class DirectoriesGone(WireCase):
    daemon_arguments = {"fail": [Fault("rmdir", errno.ENOENT)]}

    def test_a_walk_goes_on_after_a_directory_that_is_gone_when_it_is_removed(self):
        folders = [f"d/{schema}/{entity}" for schema in "st" for entity in "efg"]
        for folder in folders:
            self.kelpd.store(f"{folder}/p", b"")
        self.check_ok(delete("/v1/d"))
        self.assert_tree("d/", "d/s/", "d/t/", *(f"{folder}/" for folder in folders))


# The walk asks with one of these calls what it has come to; neither is how an open file is asked about.
_WALK_FAILS = [Fault("newfstatat", errno.ENOTDIR, {3: 0x100}),  # AT_SYMLINK_NOFOLLOW
               Fault("lstat", errno.ENOTDIR)]


class NoDirectory(WireCase):
    daemon_arguments = {"fail": _WALK_FAILS}

    def test_what_the_walk_finds_to_be_no_directory_is_unlinked(self):
        self.kelpd.store("file", b"")
        self.check_ok(delete("/v1/file"))
        self.assert_tree()

    def test_a_directory_that_the_walk_finds_to_be_none_cannot_be_unlinked(self):
        self.kelpd.store("d/p", b"")
        self.check(delete("/v1/d"), error(FAILED), "Error unlink base/d: Is a directory",
                   f"DELETE /v1/d -> {FAILED}")
        self.assert_tree("d/", "d/p")


class NoDirectoryAndGone(WireCase):
    daemon_arguments = {"fail": [*_WALK_FAILS, Fault("unlink", errno.ENOENT)]}

    def test_what_is_gone_when_it_is_unlinked_counts_as_removed(self):
        self.kelpd.store("file", b"")
        self.check_ok(delete("/v1/file"))
        self.assert_tree("file")


class Unprivileged(unittest.TestCase):
    """A daemon that may not remove everything. Run by root, the test starts it as another user."""

    def start(self):
        """A daemon that holds the file d/s/e/p and owns every directory above it."""
        user = 65534 if os.geteuid() == 0 else None
        kelpd = Daemon(user=user)
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.clear()
        kelpd.store("d/s/e/p", b"content")
        if user is not None:
            for folder, _, _ in os.walk(kelpd.path("base")):
                os.chown(folder, user, user)
        return kelpd

    def check_denied(self, folder, kept, left):
        """Removing `folder`, which may not be written to, fails at its entry `kept` and leaves the tree `left`."""
        kelpd = self.start()
        os.chmod(kelpd.path(f"base/{folder}"), 0o500)
        try:
            raw = kelpd.ask(delete(f"/v1/{folder}"))
            self.assertTrue(raw.endswith(b"\r\n\r\n500 Internal Server Error"), raw)
            self.assertEqual(f"ERROR while remove(base/{kept}): Permission denied\n"
                             f"Error rm -rf base/{folder}: Permission denied\n"
                             f"DELETE /v1/{folder} -> {FAILED}\n", kelpd.take_log())
            self.assertEqual(left, kelpd.tree())
        finally:
            os.chmod(kelpd.path(f"base/{folder}"), 0o700)
        return kelpd

    def test_what_was_removed_before_a_failure_stays_removed(self):
        self.check_denied("d", "d/s", ["d/", "d/s/"])

    def test_a_directory_without_permission_fails_the_request(self):
        kelpd = self.check_denied("d/s/e", "d/s/e/p", ["d/", "d/s/", "d/s/e/", "d/s/e/p"])
        self.assertEqual(b"content", kelpd.load("d/s/e/p"))


class Root(unittest.TestCase):
    def test_removing_the_root_lasts_until_the_daemon_starts_again(self):
        kelpd = Daemon()
        self.addCleanup(kelpd.stop)
        kelpd.start()
        kelpd.ask(put("/v1/d/s/e/p", b"x"))
        self.assertTrue(kelpd.ask(delete("/v1")).startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertFalse(os.path.exists(kelpd.path("base")))
        self.assertTrue(kelpd.ask(put("/v1/d/s/e/p", b"x")).startswith(b"HTTP/1.1 500 Internal Server Error\r\n"))
        self.assertTrue(kelpd.ask(get("/v1")).startswith(b"HTTP/1.1 404 Not Found\r\n"))
        self.assertFalse(os.path.exists(kelpd.path("base")))
        self.assertTrue(kelpd.ask(delete("/v1/")).startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertEqual("PUT /v1/d/s/e/p -> 200 OK\nDELETE /v1 -> 200 OK\nPUT /v1/d/s/e/p -> " + FAILED
                         + "\nGET /v1 -> 404 Not Found\nDELETE /v1/ -> 200 OK\n", kelpd.take_log())
        kelpd.restart()
        self.assertTrue(kelpd.ask(put("/v1/d/s/e/p", b"x")).startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertEqual(b"x", kelpd.load("d/s/e/p"))


class UnderAScan(WireCase):
    def test_a_file_removed_while_it_is_streamed_reaches_the_client_whole(self):
        column, ngroup = cvnfile.Column(b"a", cvnfile.BYTEA), (kelpd_proc.held_by_sockets(8192) >> 20) + 20
        whole = cvnfile.build([column], [[[os.urandom(1 << 20)]] for _ in range(ngroup)])
        self.kelpd.store("d/s/e/p.cvn", whole.data)
        with self.kelpd.connect(rcvbuf=8192) as s:
            s.sendall(post("/v1/d/s/e", '{"column":["a"]}'))
            raw = s.recv(100, 0)
            self.check_ok(delete("/v1/d"))
            self.assert_tree()
            raw += kelpd_proc.receive(s)
        self.assert_reply(stream(*(whole.record(k, b"a") for k in range(ngroup))), raw)
        self.assert_log("POST /v1/d/s/e -> 200 OK")


class Verbose(WireCase):
    options = ("-v",)

    def test_the_path_is_logged(self):
        self.kelpd.store("d/s/e/p", small_file().data)
        self.check(delete("/v1/d/s"), OK, "DELETE /v1/d/s HTTP/1.1", "  do_delete: base/d/s",
                   "DELETE /v1/d/s -> 200 OK")
        self.check(delete("/v2"), error(BAD_URL), "DELETE /v2 HTTP/1.1", f"DELETE /v2 -> {BAD_URL}")


if __name__ == "__main__":
    unittest.main()
