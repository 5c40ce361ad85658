#!/usr/bin/env python3
"""Hostile requests against the real server: every one gets a clear status (and, from the
module, a result page that stays one script string), nothing lands outside the upload
directory, and the server goes on serving. Then a server killed mid-write and restarted, and
clients that try to fill the upload directory's filesystem (mounted for the test: needs root).

Each answer is logged as "hostile: <input> -> <status> <message>" on stderr.

The server binary comes from KESTRIN_SERVER (set by CTest) or the first argument."""

import hashlib
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import serverlib
from serverlib import (SUCCESS_PAGE, TEMP_PREFIX, Server, ServerTestCase, file_part, multipart,
                       page_message, read_response, request_head, sha256, wait_for)

MIB = 1024 * 1024


class HostileInputTest(ServerTestCase):
    flags = ("--idle-timeout", "2", "--max-body", "64M")

    def setUp(self):
        self.good_uploads = 0
        self.before = set(os.listdir(self.uploads))

    def send(self, body, boundary=b"b", head=None):
        """One request on a fresh connection; returns (status, response body)."""
        with self.server.connect() as connection:
            connection.sendall((head or request_head(b"/users", boundary, len(body))) + body)
            return read_response(connection)

    def check(self, label, answer, status, message, page=None):
        """The answer has the status, and is a result page posting message (by default a 200 or
        400 is one) or the host's plain text message."""
        got_status, body = answer
        page = got_status in (200, 400) if page is None else page
        posted = page_message(body) if page else body.decode(errors="replace")
        sys.stderr.write("hostile: %s -> %s %r\n" % (label, got_status, posted))
        with self.subTest(label):
            self.assertEqual(got_status, status, body[:300])
            if page:
                self.assertIsNotNone(posted, "not one script string: %r" % body[:300])
            self.assertEqual(posted, message)

    def assert_still_serving(self):
        """A good upload after a group: the server took no harm, and wrote only inside."""
        self.good_uploads += 1
        name = "good-%s-%d.bin" % (self._testMethodName, self.good_uploads)
        content = os.urandom(256 * 1024)
        answer = self.send(multipart(b"good", [file_part(name.encode(), content)]), b"good")
        self.assertEqual(answer, (200, SUCCESS_PAGE))
        self.assertEqual(sha256(os.path.join(self.uploads, name)),
                         hashlib.sha256(content).hexdigest())
        self.assert_outside_untouched()

    def stored(self):
        """What this test stored, its good uploads aside."""
        return {name for name in set(os.listdir(self.uploads)) - self.before
                if not name.startswith("good-")}

    def test_bad_names_are_refused_and_every_page_stays_one_script_string(self):
        outside = os.path.join(self.root, "outside.txt").encode()
        refused = "Refused file name '%s': it contains a path separator"
        cases = [
            # (input, filename bytes or None for a bare empty one, status, message)
            ("../ in the name", b"../escape.txt", 400, refused % "../escape.txt"),
            ("absolute path", outside, 400, refused % outside.decode()),
            ("NUL byte", b"nul\0.txt", 400, "Refused file name: it contains a NUL byte"),
            ("empty name", b"", 400, "Refused file name: it is empty"),
            ("bare empty name", None, 400, "Refused file name: it is empty"),
            (".", b".", 400, "Refused file name '.': it names a directory"),
            ("..", b"..", 400, "Refused file name '..': it names a directory"),
            ("temporary-file name", TEMP_PREFIX.encode() + b"x", 400,
             "Refused file name '%sx': it is reserved for temporary files" % TEMP_PREFIX),
            ("invalid UTF-8", b"\xff\xfe.txt", 400, "Invalid UTF-8 in text"),
            # A backslash is no separator here: the file keeps its odd name, inside.
            ("backslashes", b"..\\..\\windows.txt", 200, "SUCCESS"),
            # An error text carrying all that a script string must escape.
            ("</script>, backslash, U+2028, U+2029 in an error text",
             "</script><script>back\\slash\u2028\u2029/x".encode(), 400,
             refused % "</script><script>back\\slash\u2028\u2029/x"),
            # A name with control bytes is never quoted, whatever else is wrong with it.
            ("control bytes in the name", "tab\there\x01/x".encode(), 400,
             "Refused file name: it contains a control character"),
            # The module drops quotes from parameter values, and a line break ends the header
            # line, so neither can reach a name: the rest of the name is what counts.
            ("quote in the name", b'q"uote/x', 400, refused % "quote/x"),
            ("line break in the name", b"line\r\nbreak/x", 200, "SUCCESS"),
            ("U+2028 in a stored name", "para\u2028sep.txt".encode(), 200, "SUCCESS"),
        ]
        for label, name, status, message in cases:
            part = file_part(name, b"payload") if name is not None else (
                b'Content-Disposition: form-data; name="file"; filename=', b"payload")
            self.check(label, self.send(multipart(b"b", [part])), status, message)
        self.assertEqual(self.stored(), {"..\\..\\windows.txt", "line", "para\u2028sep.txt"})
        self.assertFalse(os.path.exists(outside))
        self.assert_still_serving()

    def test_odd_disposition_parameters_follow_the_module_rules(self):
        disposition = b'Content-Disposition: form-data; name="file"; '
        cases = [
            ("filename* alone", b"filename*=UTF-8''star.txt", 400,
             "Malformed multi-part request, no file name found", None),
            ("duplicate filename", b'filename="one.txt"; filename="two.txt"', 200, "SUCCESS",
             "two.txt"),
            ("; inside a quoted name", b'filename="semi;colon.txt"', 200, "SUCCESS", "semi"),
            ("= inside a name", b'filename="a=b.txt"', 200, "SUCCESS", "a=b.txt"),
        ]
        for label, parameters, status, message, stored in cases:
            before = self.stored()
            answer = self.send(multipart(b"b", [(disposition + parameters, b"odd")]))
            self.check(label, answer, status, message)
            self.assertEqual(self.stored() - before, {stored} if stored else set(), label)
        self.assert_still_serving()

    def test_bodies_without_a_usable_body_boundary_or_header_end_are_refused(self):
        name = file_part(b"never.txt", b"")[0]
        cases = [
            ("no body", b"", b"b", "Request Body is corrupted or null"),
            ("no boundary parameter", b"x", None,
             "Malformed multipart request - boundary not defined"),
            ("100,000 empty parts", multipart(b"b", [(b"", b"")] * 100000), b"b",
             "Malformed multi-part request, no file name found"),
            ("part header block that never ends", b"--b\r\n" + name + b"\r\nX-Pad: " + b"p" * 1000,
             b"b", "Malformed multi-part request, no header fields found"),
            ("50 MiB of preamble, no boundary", b"preamble " * (50 * MIB // 9), b"b",
             "Malformed multi-part request"),
            # No dash in the content, where "--b" would end the part early.
            ("body cut off mid-part",
             multipart(b"b", [file_part(b"never.txt", b"\xff" * MIB)])[:MIB // 2], b"b",
             "Malformed multi-part request"),
            ("LF-only framing", multipart(b"b", [file_part(b"never.txt", b"x")], newline=b"\n"),
             b"b", "Malformed multi-part request, no header fields found"),
        ]
        for label, body, boundary, message in cases:
            self.check(label, self.send(body, boundary), 400, message)
        # An HTTP header block that never ends is cut off at the server's header limit, and a
        # part header block (which the module would copy several times over) at the server's
        # part header limit, while the body is still arriving.
        head = b"POST /users HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Pad: " + b"p" * (10 * MIB)
        self.check("HTTP header block of 10 MiB that never ends", self.send(b"", head=head), 431,
                   "Request Header Fields Too Large\n")
        for label, padding in (("part header block of 10 MiB that never ends", b""),
                               ("part file name of 10 MiB", b"\r\n\r\nx\r\n--b--\r\n")):
            body = b"--b\r\n" + file_part(b"n" * (10 * MIB), b"")[0] + padding
            self.check(label, self.send(body), 400,
                       "Bad Request: a part's header block is longer than 16384 bytes\n",
                       page=False)
        self.assertEqual(self.stored(), set())
        self.assert_still_serving()

    def test_boundaries_of_any_length_frame_their_parts(self):
        cases = [(length, True) for length in (0, 1, 70, 71, 4096)] + [(0, False)]
        for length, quoted in cases:
            boundary = bytes(ord("a") + i % 26 for i in range(length))
            # No dash in the content: a "--" would be a marker of the empty boundary.
            content = os.urandom(64 * 1024).replace(b"-", b"")
            name = "boundary-%d-%s.bin" % (length, "quoted" if quoted else "bare")
            body = multipart(boundary, [file_part(name.encode(), content)])
            parameter = b'"' + boundary + b'"' if quoted else boundary
            self.check("boundary of %d bytes, %s" % (length, "quoted" if quoted else "bare"),
                       self.send(body, parameter), 200, "SUCCESS")
            self.assertEqual(sha256(os.path.join(self.uploads, name)),
                             hashlib.sha256(content).hexdigest())
        self.assert_still_serving()

    def test_stalled_and_vanished_uploads_leave_nothing_and_free_the_connection(self):
        # No dash in the content, where "--b" would end the part early.
        body = multipart(b"b", [file_part(b"stalled.bin", b"\xff" * 4 * MIB)])
        # A connection that never sends a request is closed, silently.
        with self.server.connect() as connection:
            self.assertEqual(connection.recv(1), b"")
        # Content-Length promises more than arrives: once the body pauses for the idle
        # timeout, the client is told and the connection closed.
        with self.server.connect() as connection:
            connection.sendall(request_head(b"/users", b"b", len(body) + 1) + body)
            status, text = read_response(connection)
            self.check("Content-Length larger than what arrives", (status, text), 408,
                       "Request Timeout: the body paused for 2 s or arrived slower than 1024 "
                       "bytes a second\n")
        # The client goes away mid-body: nobody is left to answer, the log counts it.
        with self.server.connect() as connection:
            connection.sendall(request_head(b"/users", b"b", len(body)) + body[:len(body) // 2])
        wait_for(lambda: "clients gone mid-body x1" in self.server.logged(), 20,
                 "the server to notice the client leave")
        self.assertRegex(self.server.logged(), r"bodies stalled or below the minimum rate x1")
        sys.stderr.write("hostile: client disconnects mid-upload -> closed\n")
        self.assertEqual(self.stored(), set())
        self.assert_still_serving()


class KilledServerTest(ServerTestCase):
    """SIGKILL while a large upload is being written, then a restart on the same directory
    (which the class's teardown stops and checks)."""

    def temp_files(self):
        return [name for name in os.listdir(self.uploads) if serverlib.is_temporary(name)]

    def unnamed_files(self):
        """The files the server has open in the upload directory without a name there: one
        being written."""
        fds = "/proc/%d/fd" % self.server.process.pid
        targets = []
        for fd in os.listdir(fds):
            try:
                targets.append(os.readlink(os.path.join(fds, fd)))
            except OSError:
                pass
        return [t for t in targets
                if t.startswith(os.path.realpath(self.uploads) + "/")
                and t.endswith(" (deleted)")]

    def test_a_kill_mid_write_leaves_no_file_and_no_temporary_one(self):
        content = os.urandom(MIB) * 200
        body = multipart(b"kill", [file_part(b"large.bin", content)])
        connection = self.server.connect(timeout=120)
        self.addCleanup(connection.close)
        connection.sendall(request_head(b"/users", b"kill", len(body)) + body)
        # The file is open, unnamed, once the whole body is in and the write has begun; it
        # takes the writer a good while to fill it with 200 MiB and flush them.
        wait_for(self.unnamed_files, 120, "the file being written")
        self.server.process.send_signal(signal.SIGKILL)
        self.server.process.wait(20)
        self.server.close()
        visible = {name for name in os.listdir(self.uploads)
                   if not name.startswith(serverlib.OWNER_PREFIX)}
        sys.stderr.write("hostile: SIGKILL during a 200 MiB upload -> left %s\n" % {
            name: os.path.getsize(os.path.join(self.uploads, name)) for name in visible})
        # Nothing, or the kill came after the file took its name: then it is whole.
        self.assertTrue(visible <= {"large.bin"}, visible)
        if visible:
            self.assertEqual(sha256(os.path.join(self.uploads, "large.bin")),
                             hashlib.sha256(content).hexdigest())

        type(self).server = Server(self.uploads)
        self.assertEqual(self.temp_files(), [])
        # The restart removed the killed server's owner file: one owner is left.
        self.assertEqual(len([name for name in os.listdir(self.uploads)
                              if name.startswith(serverlib.OWNER_PREFIX)]), 1)
        self.assertTrue({name for name in os.listdir(self.uploads)
                         if not name.startswith(serverlib.OWNER_PREFIX)} <= {"large.bin"})
        with self.server.connect() as again:
            again.sendall(request_head(b"/users", b"kill", len(body)) + body)
            self.assertEqual(read_response(again), (200, SUCCESS_PAGE))
        self.assertEqual(sha256(os.path.join(self.uploads, "large.bin")),
                         hashlib.sha256(content).hexdigest())


class DiskReserveTest(unittest.TestCase):
    """Clients that try to fill the upload directory's filesystem, a small one of its own,
    find what the server keeps free untouched: its bytes, whether uploads come at once or in
    chunks, and its files (inodes), which many empty files take."""

    SIZE = 64 * MIB
    KEEP = 16 * MIB
    refused = (507, b"Insufficient Storage: the server's disk is too full to take this upload; "
                    b"retry later\n")

    def setUp(self):
        serverlib.skip_without_server()
        self.root = tempfile.mkdtemp(prefix="kestrin-disk-")
        self.addCleanup(shutil.rmtree, self.root, True)
        self.uploads = os.path.join(self.root, "uploads")
        os.mkdir(self.uploads)

    def start(self, options, *flags):
        """A server on a tmpfs of the given mount options, mounted for the test."""
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", self.uploads],
                                 capture_output=True)
        if mounted.returncode != 0:
            self.skipTest("cannot mount a small filesystem: %s" % mounted.stderr.decode())
        self.addCleanup(subprocess.run, ["umount", "-l", self.uploads])
        self.server = Server(self.uploads, *flags)
        self.addCleanup(self.server.close)

    def names(self):
        """The files in the upload directory, the server's owner file aside."""
        return sorted(name for name in os.listdir(self.uploads)
                      if not name.startswith(serverlib.OWNER_PREFIX))

    def free(self):
        space = os.statvfs(self.uploads)
        return space.f_bavail * space.f_frsize

    def send(self, name, content, chunk=None):
        """Uploads one file, in one piece or in chunks of chunk bytes; (status, body)."""
        body = multipart(b"disk", [file_part(name.encode(), content)])
        with self.server.connect(timeout=60) as connection:
            if chunk is None:
                connection.sendall(request_head(b"/users", b"disk", len(body)) + body)
            else:
                head = request_head(b"/users", b"disk", 0).replace(
                    b"Content-Length: 0", b"Transfer-Encoding: chunked")
                try:
                    connection.sendall(head)
                    for start in range(0, len(body), chunk):
                        piece = body[start:start + chunk]
                        connection.sendall(b"%x\r\n%s\r\n" % (len(piece), piece))
                    connection.sendall(b"0\r\n\r\n")
                except (BrokenPipeError, ConnectionResetError):
                    pass  # refused mid-body: the answer is waiting
            return read_response(connection)

    def test_uploads_at_once_or_in_chunks_never_take_the_space_kept_free(self):
        self.start("size=%d" % self.SIZE, "--min-free", str(self.KEEP), "--max-body", "64M")
        contents = {"at-once-%d.bin" % i: os.urandom(8 * MIB) for i in range(12)}
        answers = at_once({name: lambda name=name: self.send(name, contents[name])
                           for name in contents})
        stored = sorted(name for name, answer in answers.items() if answer[0] == 200)
        sys.stderr.write("hostile: 12 uploads of 8 MiB at once on 64 MiB keeping 16 -> %d "
                         "stored, %.1f MiB free\n" % (len(stored), self.free() / MIB))
        self.assertEqual(len(answers), 12)
        for name, answer in answers.items():
            self.assertIn(answer, [(200, SUCCESS_PAGE), self.refused], name)
        # Each admitted upload claimed its whole body, so at most (64 - 16) / 8 got in.
        self.assertTrue(1 <= len(stored) <= 5, stored)
        self.assertGreaterEqual(self.free(), self.KEEP)
        self.assertEqual(self.names(), stored)
        for name in stored:
            self.assertEqual(sha256(os.path.join(self.uploads, name)),
                             hashlib.sha256(contents[name]).hexdigest())
        log = self.server.logged()
        self.assertEqual(log.count(" 507 "), 12 - len(stored), log)
        self.assertIn("kept free\"", log)

        # A body without a length is stopped once it grows past the room left.
        status, body = self.send("chunked.bin", os.urandom(self.SIZE), chunk=MIB)
        self.assertEqual((status, body), self.refused)
        self.assertNotIn("chunked.bin", self.names())
        self.assertGreaterEqual(self.free(), self.KEEP)

        # Health says so once the space kept free is gone, whoever took it, and recovers.
        self.assertEqual(read_health(self.server)[0], 200)
        filler = os.path.join(self.uploads, "filler")
        with open(filler, "wb") as file:
            file.write(b"f" * (self.free() - self.KEEP + MIB))
        status, text = read_health(self.server)
        self.assertEqual(status, 503)
        self.assertIn(b"kept free (--min-free, --min-free-files)", text)
        self.assertEqual(self.send("small.bin", b"s" * 1024)[0], 507)
        for name in self.names():
            os.unlink(os.path.join(self.uploads, name))
        self.assertEqual(read_health(self.server)[0], 200)
        # With the space back, uploads go in again, chunked ones too.
        content = os.urandom(20 * MIB)
        self.assertEqual(self.send("after.bin", content, chunk=MIB), (200, SUCCESS_PAGE))
        self.assertEqual(sha256(os.path.join(self.uploads, "after.bin")),
                         hashlib.sha256(content).hexdigest())
        self.assertEqual(self.server.stop(), 0)


    def test_uploads_of_many_empty_files_never_take_the_files_kept_free(self):
        self.start("size=%d,nr_inodes=2000" % self.SIZE, "--min-free-files", "500",
                   "--max-files", "200")

        def free_files():
            return os.statvfs(self.uploads).f_favail

        def send(prefix):
            body = multipart(b"empty", [file_part(b"%s-%d" % (prefix, i), b"")
                                        for i in range(200)])
            with self.server.connect(timeout=60) as connection:
                connection.sendall(request_head(b"/users", b"empty", len(body)) + body)
                return read_response(connection)

        answers = at_once({k: lambda k=k: send(b"e%d" % k) for k in range(8)})
        stored = sorted(k for k, answer in answers.items() if answer[0] == 200)
        sys.stderr.write("hostile: 8 uploads of 200 empty files at once with 2000 inodes "
                         "keeping 500 -> %d stored, %d inodes free\n" % (len(stored),
                                                                         free_files()))
        self.assertEqual(len(answers), 8)
        for answer in answers.values():
            self.assertIn(answer, [(200, SUCCESS_PAGE), self.refused])
        # 1,600 files would leave fewer than 500 of the 2,000: at least one upload is refused,
        # and none of them in part.
        self.assertTrue(1 <= len(stored) <= 7, stored)
        self.assertEqual(len(self.names()), 200 * len(stored))
        self.assertGreaterEqual(free_files(), 500)
        self.assertIn(" files kept free\"", self.server.logged())
        # How many went in depends on which finished before others came; one more goes in only
        # when its 200 files still leave 500.
        fits = free_files() - 200 >= 500
        self.assertEqual(send(b"late"), (200, SUCCESS_PAGE) if fits else self.refused)
        self.assertGreaterEqual(free_files(), 500)
        self.assertEqual(read_health(self.server)[0], 200)
        self.assertEqual(self.server.stop(), 0)


def at_once(calls):
    """Runs each call on a thread of its own, all at once; {key: what its call returned}, for
    the calls that returned within two minutes."""
    results = {}
    threads = [threading.Thread(target=lambda key=key, call=call: results.update({key: call()}))
               for key, call in calls.items()]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(120)
    return results


def read_health(server):
    with server.connect() as connection:
        connection.sendall(b"GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n")
        return read_response(connection)


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        serverlib.SERVER = sys.argv.pop(1)
    unittest.main()
