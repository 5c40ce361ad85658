#!/usr/bin/env python3
"""End-to-end tests of kestrin-upload-server: the real binary on 127.0.0.1 (a free port) in a
temporary directory, driven by real curl and by plain sockets where the exact bytes matter.

The server binary comes from KESTRIN_SERVER (set by CTest) or the first argument; what the
e2e tests share lives in serverlib.py."""

import hashlib
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

import serverlib
from serverlib import SUCCESS_PAGE, Server, ServerTestCase, page_message, result_page, sha256


class UploadTest(ServerTestCase):
    flags = ("--max-body", "4M")

    def test_several_files_to_each_route_are_stored_byte_for_byte(self):
        for route, prefix in (("/users", "users"), ("/ORVANE%20Drive", "drive")):
            with self.subTest(route=route):
                sent = {
                    prefix + "-empty.bin": b"",
                    prefix + "-small.txt": b"hello\n",
                    prefix + "-random.bin": os.urandom(300 * 1024),
                    prefix + "-large.bin": os.urandom(3 * 1024 * 1024),
                }
                parts = ["file=@" + self.make_file(name, data) for name, data in sent.items()]
                status, body = self.upload(route, *parts)
                self.assertEqual((status, body), (200, SUCCESS_PAGE))
                for name, data in sent.items():
                    stored = os.path.join(self.uploads, name)
                    self.assertEqual(sha256(stored), hashlib.sha256(data).hexdigest(), name)
        self.assert_outside_untouched()

    def test_binary_content_with_line_breaks_and_dashes_is_stored_intact(self):
        content = (b"--\r\n--\r\n\r\n" + b"\r\n--------------------------" * 50 + b"\x00\xff\r" +
                   bytes(range(256)) * 40 + b"\r\n--")
        path = self.make_file("tricky.bin", content)
        status, body = self.upload("/users", "file=@" + path)
        self.assertEqual((status, body), (200, SUCCESS_PAGE))
        self.assertEqual(sha256(os.path.join(self.uploads, "tricky.bin")),
                         hashlib.sha256(content).hexdigest())

    def test_a_non_ascii_name_is_stored_under_that_name(self):
        name = "r\u00e9sum\u00e9 \u65e5\u672c \u0416.txt"
        path = self.make_file("plain.txt", "caf\u00e9".encode())
        status, body = self.upload("/ORVANE%20Drive", "file=@%s;filename=%s" % (path, name))
        self.assertEqual((status, body), (200, SUCCESS_PAGE))
        with open(os.path.join(self.uploads, name).encode(), "rb") as file:
            self.assertEqual(file.read(), "caf\u00e9".encode())

    def test_requests_the_module_refuses_get_its_400_pages(self):
        cases = [
            ("no body", ["-X", "POST"], "Request Body is corrupted or null"),
            ("no boundary", ["-H", "Content-Type: multipart/form-data", "--data-binary", "x"],
             "Malformed multipart request - boundary not defined"),
        ]
        for name, arguments, message in cases:
            with self.subTest(name):
                self.assertEqual(self.curl("/users", *arguments), (400, result_page(message)))

        status, body = self.curl("/users", "-H", "Content-Type: multipart/form-data; boundary=xyz",
                                 "--data-binary", "no boundary anywhere in here")
        self.assertEqual(status, 400)
        self.assertTrue(page_message(body).startswith("Malformed multi-part request"), body)

        status, body = self.upload("/users", "field=just a value")
        self.assertEqual((status, page_message(body)),
                         (400, "Malformed multi-part request, no file name found"))
        self.assert_outside_untouched()

    def test_host_errors_are_plain_text_and_the_server_keeps_serving(self):
        self.assertEqual(self.curl("/nowhere"), (404, b"Not Found\n"))
        self.assertEqual(self.curl("/users/", "-F", "file=@" + self.make_file("n", b"n")),
                         (404, b"Not Found\n"))
        self.assertEqual(self.curl("/bad%zzescape")[0], 400)

        big = self.make_file("big.bin", os.urandom(5 * 1024 * 1024))
        # With and without waiting for "100 Continue": either way the body is never stored.
        self.assertEqual(self.upload("/users", "file=@" + big), (413, b"Payload Too Large\n"))
        self.assertEqual(self.curl("/users", "-H", "Expect:", "-F", "file=@" + big),
                         (413, b"Payload Too Large\n"))
        self.assertNotIn("big.bin", os.listdir(self.uploads))

        self.assertEqual(self.curl("/", "-H", "X-Padding: " + "p" * 17000),
                         (431, b"Request Header Fields Too Large\n"))

        status, page = self.curl("/")
        self.assertEqual(status, 200)
        self.assertIn(b'<input id="files" type="file" name="file" multiple>', page)

    def test_the_access_log_has_one_line_per_request(self):
        self.curl("/never-routed-path")
        lines = [line for line in self.server.logged().splitlines()
                 if "/never-routed-path" in line]
        self.assertEqual(len(lines), 1, lines)
        self.assertRegex(lines[0], r"^GET /never-routed-path 404 0 \d+ms$")


class IdleConnectionTest(ServerTestCase):
    flags = ("--idle-timeout", "1")

    def test_an_idle_connection_is_closed_by_the_server(self):
        with socket.create_connection(("127.0.0.1", self.server.port), timeout=20) as connection:
            self.assertEqual(connection.recv(1), b"")


class DiscardRouteTest(ServerTestCase):
    flags = ("--max-body", "4M", "--discard-route", "/sink")

    def test_bodies_sent_to_the_discard_route_are_read_and_dropped(self):
        path = self.make_file("dropped.bin", os.urandom(3 * 1024 * 1024))
        self.assertEqual(self.upload("/sink", "file=@" + path)[0], 200)
        # The route takes precedence over nothing else: uploads still work beside it.
        self.assertEqual(self.upload("/users", "file=@" + path), (200, SUCCESS_PAGE))
        self.assertEqual(self.upload("/sink", "file=@" + self.make_file("big", b"b" * (5 << 20))),
                         (413, b"Payload Too Large\n"))
        self.assertEqual(os.listdir(self.uploads), ["dropped.bin"])

        # A client that waits for the go-ahead gets it, and the connection stays usable.
        body = b"x" * 100000
        header = ("POST /sink HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\n"
                  "Content-Length: %d\r\n\r\n" % len(body)).encode()
        with socket.create_connection(("127.0.0.1", self.server.port), timeout=20) as connection:
            for _ in range(2):
                connection.sendall(header)
                self.assertEqual(connection.recv(4096), b"HTTP/1.1 100 Continue\r\n\r\n")
                connection.sendall(body)
                reply = b""
                while not reply.endswith(b"Discarded 100000 body bytes\n"):
                    chunk = connection.recv(4096)
                    self.assertTrue(chunk, reply)
                    reply += chunk
                self.assertTrue(reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply)
                self.assertNotIn(b"Connection: close", reply)


class ShutdownTest(unittest.TestCase):
    def setUp(self):
        serverlib.skip_without_server()
        self.root = tempfile.mkdtemp(prefix="kestrin-e2e-")
        self.addCleanup(shutil.rmtree, self.root, True)

    def test_version_names_the_module_its_version_and_build_date(self):
        done = subprocess.run([serverlib.SERVER, "--version"], capture_output=True, timeout=20)
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout.decode(),
                         r"^module: bin/zarnix/libqvkestrinfileuploadimpl\.so\n"
                         r"version: \d+\.\d+\.\d+\.\d+\n"
                         r"build date: [A-Z][a-z]{2} [ \d]\d \d{4}\n$")

    def test_sigterm_lets_the_request_in_flight_finish_then_exits_0(self):
        server = Server(os.path.join(self.root, "uploads"))
        self.addCleanup(server.close)
        idle = socket.create_connection(("127.0.0.1", server.port), timeout=20)
        self.addCleanup(idle.close)

        boundary = "e2e-boundary"
        content = os.urandom(64 * 1024)
        body = (("--%s\r\nContent-Disposition: form-data; name=\"file\"; filename=\"late.bin\"\r\n"
                 "Content-Type: application/octet-stream\r\n\r\n" % boundary).encode() + content +
                ("\r\n--%s--\r\n" % boundary).encode())
        header = ("POST /users HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\n"
                  "Content-Type: multipart/form-data; boundary=%s\r\nContent-Length: %d\r\n\r\n"
                  % (boundary, len(body))).encode()
        with socket.create_connection(("127.0.0.1", server.port), timeout=20) as upload:
            upload.sendall(header)
            # The go-ahead proves the server holds this request before the signal comes.
            self.assertEqual(upload.recv(4096), b"HTTP/1.1 100 Continue\r\n\r\n")
            server.process.send_signal(signal.SIGTERM)
            upload.sendall(body)
            reply = b""
            while True:
                chunk = upload.recv(65536)
                if not chunk:
                    break
                reply += chunk
        self.assertTrue(reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply)
        self.assertTrue(reply.endswith(b"\r\n\r\n" + SUCCESS_PAGE), reply)
        self.assertEqual(server.process.wait(20), 0, server.logged())
        with open(os.path.join(self.root, "uploads", "late.bin"), "rb") as file:
            self.assertEqual(file.read(), content)
        self.assertEqual(idle.recv(1), b"")
        self.assertIn("stopped", server.logged())

    def test_sigterm_on_an_idle_server_exits_0(self):
        server = Server(os.path.join(self.root, "uploads"))
        self.addCleanup(server.close)
        self.assertEqual(server.stop(), 0, server.logged())


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        serverlib.SERVER = sys.argv.pop(1)
    unittest.main()
