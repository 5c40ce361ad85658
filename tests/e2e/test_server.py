#!/usr/bin/env python3
"""End-to-end tests of kestrin-upload-server: the real binary on 127.0.0.1 (a free port) in a
temporary directory, driven by real curl and by plain sockets where the exact bytes matter.
Uploads to both routes, the host's own answers, the discard route, --version and SIGTERM;
hostile requests are in test_hostile.py, what both share in serverlib.py.

The server binary comes from KESTRIN_SERVER (set by CTest) or the first argument."""

import hashlib
import os
import re
import signal
import subprocess
import sys
import time
import unittest

import serverlib
from serverlib import (SUCCESS_PAGE, ServerTestCase, file_part, multipart, read_response,
                       request_head, sha256)


class UploadTest(ServerTestCase):
    flags = ("--max-body", "4M", "--discard-route", "/sink")

    def test_files_sent_to_each_route_are_stored_byte_for_byte(self):
        tricky = (b"--\r\n--\r\n\r\n" + b"\r\n--------------------------" * 50 + b"\x00\xff\r" +
                  bytes(range(256)) * 40 + b"\r\n--")
        for route, prefix in (("/users", "users"), ("/ORVANE%20Drive", "drive")):
            sent = {prefix + "-empty.bin": b"", prefix + "-tricky.bin": tricky,
                    prefix + " r\u00e9sum\u00e9 \u65e5\u672c \u0416.txt": "caf\u00e9".encode(),
                    prefix + "-large.bin": os.urandom(3 * 1024 * 1024)}
            parts = ["file=@" + self.make_file(name, data) for name, data in sent.items()]
            self.assertEqual(self.upload(route, *parts), (200, SUCCESS_PAGE), route)
            for name, data in sent.items():
                self.assertEqual(sha256(os.path.join(self.uploads, name)),
                                 hashlib.sha256(data).hexdigest(), name)
        self.assert_outside_untouched()

    def test_requests_sent_back_to_back_are_each_read_to_their_own_end(self):
        # One send holding two uploads and a discarded body: each body is cut at its own
        # Content-Length, whatever arrived with its header and whatever follows it.
        stored = {"pipelined-1.bin": os.urandom(70000), "pipelined-2.bin": os.urandom(200000)}
        requests = b""
        for name, data in stored.items():
            body = multipart(b"pipe", [file_part(name.encode(), data)])
            requests += request_head(b"/users", b"pipe", len(body)).replace(
                b"Connection: close", b"Connection: keep-alive") + body
        dropped = multipart(b"pipe", [file_part(b"dropped", os.urandom(90000))])
        requests += request_head(b"/sink", b"pipe", len(dropped)) + dropped
        with self.server.connect() as connection:
            connection.sendall(requests)
            status, rest = read_response(connection)
        self.assertEqual(status, 200)
        self.assertEqual(rest.count(SUCCESS_PAGE), 2, rest)
        self.assertTrue(rest.endswith(b"Discarded %d body bytes\n" % len(dropped)), rest)
        for name, data in stored.items():
            self.assertEqual(sha256(os.path.join(self.uploads, name)),
                             hashlib.sha256(data).hexdigest(), name)

    def test_host_answers_and_the_discard_route_store_nothing(self):
        self.assertEqual(self.curl("/never-routed-path"), (404, b"Not Found\n"))
        # One access log line per request: joined, they match only when there is one.
        self.assertRegex("\n".join(line for line in self.server.logged().splitlines()
                                   if "/never-routed-path" in line),
                         r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z WARN 127\.0\.0\.1 GET "
                         r"\"/never-routed-path\" 404 in=0 ms=[\d.]+$")
        self.assertEqual(self.curl("/users/", "-F", "file=@" + self.make_file("n", b"n")),
                         (404, b"Not Found\n"))
        self.assertEqual(self.curl("/bad%zzescape")[0], 400)
        status, page = self.curl("/")
        self.assertEqual(status, 200)
        self.assertIn(b'<input id="files" type="file" name="file" multiple>', page)

        # With and without waiting for "100 Continue", to either kind of route.
        big = "file=@" + self.make_file("big.bin", os.urandom(5 * 1024 * 1024))
        for route, expect in (("/users", "Expect: 100-continue"), ("/users", "Expect:"),
                              ("/sink", "Expect:")):
            self.assertEqual(self.curl(route, "-H", expect, "-F", big),
                             (413, b"Payload Too Large\n"), (route, expect))
        dropped = "file=@" + self.make_file("dropped.bin", os.urandom(3 * 1024 * 1024))
        self.assertEqual(self.upload("/sink", dropped)[0], 200)
        self.assertFalse({"n", "big.bin", "dropped.bin"} & set(os.listdir(self.uploads)))

        # A client that waits for the go-ahead gets it, and the connection stays usable.
        header = (b"POST /sink HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\n"
                  b"Content-Length: 100000\r\n\r\n")
        with self.server.connect() as connection:
            for _ in range(2):
                connection.sendall(header)
                self.assertEqual(connection.recv(4096), b"HTTP/1.1 100 Continue\r\n\r\n")
                connection.sendall(b"x" * 100000)
                reply = b""
                while not reply.endswith(b"Discarded 100000 body bytes\n"):
                    chunk = connection.recv(4096)
                    self.assertTrue(chunk, reply)
                    reply += chunk
                self.assertTrue(reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply)
                self.assertNotIn(b"Connection: close", reply)


class LargeUploadTest(ServerTestCase):
    def test_large_uploads_in_a_row_each_store_their_own_bytes(self):
        # Large enough for the server to keep a part's block and make it ready for the next
        # part: each later part is cut into memory that held the one before, so a byte of an
        # earlier upload left anywhere would show. The last request has two parts.
        mib = 1024 * 1024
        for upload, sizes in enumerate(((12 * mib,), (11 * mib,), (10 * mib, 12 * mib + 7))):
            sent = {"large-%d-%d.bin" % (upload, i): os.urandom(size)
                    for i, size in enumerate(sizes)}
            parts = ["file=@" + self.make_file(name, data) for name, data in sent.items()]
            self.assertEqual(self.upload("/users", *parts), (200, SUCCESS_PAGE), sizes)
            for name, data in sent.items():
                self.assertEqual(sha256(os.path.join(self.uploads, name)),
                                 hashlib.sha256(data).hexdigest(), name)


class RefusalFloodTest(ServerTestCase):
    def test_a_flood_of_refusals_is_counted_not_logged_line_by_line(self):
        # 120 refused requests on one connection, sent at once: about twenty lines, the
        # client's share, the rest counted in the once-a-second summary; none lost.
        count = 120
        with self.server.connect() as connection:
            connection.sendall(b"GET /flood%zz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" * count)
            received = b""
            while received.count(b"HTTP/1.1 400 ") < count:
                chunk = connection.recv(1 << 16)
                self.assertTrue(chunk, received[-300:])
                received += chunk
        summary = re.compile(r"refused requests not logged one by one x(\d+)")
        deadline = time.monotonic() + 10
        while True:
            log = self.server.logged()
            lines = sum('GET "/flood%zz" 400' in line for line in log.splitlines())
            counted = sum(int(n) for n in summary.findall(log))
            if lines + counted >= count or time.monotonic() > deadline:
                break
            time.sleep(0.05)
        self.assertLessEqual(lines, 30)  # twenty at once, five a second after
        self.assertEqual(lines + counted, count)


class ShutdownTest(ServerTestCase):
    """The class's own teardown checks that the server exited 0."""

    def test_sigterm_lets_the_request_in_flight_finish_then_exits_0(self):
        idle = self.server.connect()
        self.addCleanup(idle.close)
        # No dash in the content, where "--b" would end the part early.
        content = os.urandom(64 * 1024).replace(b"-", b"")
        body = multipart(b"b", [file_part(b"late.bin", content)])
        with self.server.connect() as upload:
            upload.sendall(request_head(b"/users", b"b", len(body), b"Expect: 100-continue\r\n"))
            # The go-ahead proves the server holds this request before the signal comes.
            self.assertEqual(upload.recv(4096), b"HTTP/1.1 100 Continue\r\n\r\n")
            self.server.process.send_signal(signal.SIGTERM)
            upload.sendall(body)
            self.assertEqual(read_response(upload), (200, SUCCESS_PAGE))
        self.assertEqual(self.server.process.wait(20), 0, self.server.logged())
        with open(os.path.join(self.uploads, "late.bin"), "rb") as file:
            self.assertEqual(file.read(), content)
        self.assertEqual(idle.recv(1), b"")
        self.assertIn("stopped", self.server.logged())

    def test_version_names_the_module_its_version_and_build_date(self):
        done = subprocess.run([serverlib.SERVER, "--version"], capture_output=True, timeout=20)
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout.decode(),
                         r"^module: bin/zarnix/libqvkestrinfileuploadimpl\.so\n"
                         r"version: \d+\.\d+\.\d+\.\d+\n"
                         r"build date: [A-Z][a-z]{2} [ \d]\d \d{4}\n$")


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        serverlib.SERVER = sys.argv.pop(1)
    unittest.main()
