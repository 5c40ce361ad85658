#!/usr/bin/env python3
"""End-to-end tests of what an operator of kestrin-upload-server relies on: where settings come
from and how bad ones are refused, the upload directory checked at start, one log line per
request (text and JSON), /healthz, /metrics, names already taken, and HTTPS. Each test starts
the servers it needs on 127.0.0.1 (a free port) in a temporary directory of its own.

The server binary comes from KESTRIN_SERVER (set by CTest) or the first argument."""

import base64
import concurrent.futures
import contextlib
import datetime
import json
import os
import re
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import serverlib
from serverlib import SUCCESS_PAGE, Server, file_part, multipart, page_message

BOUNDARY = b"ops-e2e-boundary"


def upload_body(files):
    """A multipart body of (name, content) files, both bytes."""
    return multipart(BOUNDARY, [file_part(name, content) for name, content in files])


def body_of_size(size):
    """An upload of one file whose body is exactly size bytes."""
    overhead = len(upload_body([(b"sized.bin", b"")]))
    return upload_body([(b"sized.bin", b"s" * (size - overhead))])


def exchange(server, method, path, headers=b"", body=b"", context=None, source=None):
    """One request on a connection of its own, from the address source if given; (status,
    fields with lowercase names, body), or (None, {}, raw bytes) when the answer is no HTTP."""
    with contextlib.ExitStack() as stack:
        connection = stack.enter_context(server.connect(timeout=30, source=source))
        if context:
            connection = stack.enter_context(
                context.wrap_socket(connection, server_hostname="127.0.0.1"))
        connection.sendall(b"%s %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nContent-Length: %d\r\n"
                           b"Connection: close\r\n" % (method, path, server.port, len(body)) +
                           headers + b"\r\n" + body)
        raw = b""
        try:
            while chunk := connection.recv(1 << 16):
                raw += chunk
        except (ConnectionResetError, ssl.SSLError):
            pass  # whatever came before the close is the answer
    head, separator, rest = raw.partition(b"\r\n\r\n")
    match = re.match(rb"HTTP/1\.1 (\d{3}) ", head)
    if not separator or not match:
        return None, {}, raw
    lines = (line.decode("latin-1").partition(":") for line in head.split(b"\r\n")[1:])
    return int(match.group(1)), {name.lower(): value.strip() for name, _, value in lines}, rest


def upload(server, files=None, body=None, headers=b"", context=None, source=None):
    return exchange(server, b"POST", b"/users", b"Content-Type: multipart/form-data; boundary=" +
                    BOUNDARY + b"\r\n" + headers, upload_body(files) if body is None else body,
                    context, source)


QUOTED = r'"(?:[^"\\]|\\.)*"'
TEXT_LINE = re.compile(r'(?P<time>\S+) (?:INFO|WARN|ERROR) (?P<client>\S+) (?P<method>[A-Z]+) '
                       r'(?P<target>%s) (?P<status>\d{3}) in=(?P<bytes_in>\d+) '
                       r'ms=(?P<duration>\d+\.\d)(?: files=(?P<files>(?:%s:\d+,?)+))?'
                       r'(?: reason=(?P<reason>%s))?' % (QUOTED, QUOTED, QUOTED))
RFC3339_UTC = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z")


def unquote_text(quoted):
    """A text log field back to what the client sent; bytes that were not UTF-8 come back as
    U+FFFD, as the JSON log writes them."""
    raw = re.sub(rb"\\(x[0-9A-F]{2}|.)", lambda m: bytes([int(m.group(1)[1:], 16)])
                 if len(m.group(1)) == 3 else m.group(1), quoted[1:-1].encode())
    return raw.decode(errors="replace")


def request_lines(log, log_format):
    """The request records of a log, each a dict of the JSON form. Every line after the start
    line must be one, so a forged or split line shows up as a line that is not."""
    lines = log.splitlines()
    assert "storing uploads in" in lines[0], lines[0]
    records = []
    for line in lines[1:]:
        if log_format == "json":
            record = json.loads(line)
            assert record.pop("event") == "request", line
        else:
            match = TEXT_LINE.fullmatch(line)
            assert match, "not a request line: %r" % line
            record = {key: value for key, value in match.groupdict().items() if value}
            record["target"] = unquote_text(record["target"])
            record["status"] = int(record["status"])
            record["bytes_in"] = int(record["bytes_in"])
            record["duration_ms"] = float(record.pop("duration"))
            if "files" in record:
                record["files"] = [{"name": unquote_text(name), "size": int(size)} for name, size
                                   in re.findall(r"(%s):(\d+)" % QUOTED, record["files"])]
            if "reason" in record:
                record["reason"] = unquote_text(record["reason"])
        records.append(record)
    return records


def parse_metrics(text):
    """Prometheus text: {(name, frozenset of label pairs): value}; every sample line must parse."""
    samples = {}
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        match = re.fullmatch(r"([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (\S+)", line)
        assert match, "not a sample: %r" % line
        labels = re.findall(r'([a-zA-Z_]\w*)="((?:[^"\\]|\\.)*)"', match.group(2) or "")
        assert ",".join('%s="%s"' % pair for pair in labels) == (match.group(2) or ""), line
        samples[(match.group(1), frozenset(labels))] = float(match.group(3))
    return samples


def metric(samples, name, **labels):
    return samples.get((name, frozenset(labels.items())))


class OperationsTestCase(unittest.TestCase):
    def setUp(self):
        serverlib.skip_without_server()
        self.root = tempfile.mkdtemp(prefix="kestrin-ops-")
        self.addCleanup(shutil.rmtree, self.root, True)

    def start(self, *flags, **options):
        """A server in an upload directory of its own, killed when the test ends."""
        server = Server(tempfile.mkdtemp(dir=self.root), *flags, **options)
        self.addCleanup(server.close)
        return server

    def write(self, name, text):
        path = os.path.join(self.root, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def run_refused(self, *arguments, env=None):
        """Runs a server that must not start: (exit code, stdout, stderr)."""
        try:
            done = subprocess.run([serverlib.SERVER, *arguments], capture_output=True, timeout=20,
                                  env=dict(os.environ, **(env or {})))
        except subprocess.TimeoutExpired as error:
            self.fail("still running after 20 s; stdout %r" % error.stdout)
        return done.returncode, done.stdout.decode(), done.stderr.decode()


class ConfigurationTest(OperationsTestCase):
    def test_each_listen_form_binds_and_prints_the_address_it_took(self):
        try:
            socket.create_server(("::1", 0), family=socket.AF_INET6).close()
            ipv6 = True
        except OSError:
            ipv6 = False
        # Loopback forms only: a test server never listens beyond this machine.
        for listen, printed in (("127.0.0.1:0", "127.0.0.1"), ("localhost:0", "localhost"),
                                ("[::1]:0", "[::1]")):
            with self.subTest(listen=listen):
                if printed == "[::1]" and not ipv6:
                    self.skipTest("no IPv6 loopback")
                server = self.start(listen=listen)
                self.assertEqual((server.scheme, server.host), ("http", printed))
                self.assertNotEqual(server.port, 0)
                # The printed port is the one bound: the server answers on it.
                self.assertEqual(exchange(server, b"GET", b"/healthz")[0], 200)

    def test_body_limit_comes_from_flag_environment_or_file_the_flag_first(self):
        # Which source wins is the unit test's concern; here the server must enforce the value
        # it was given, to the byte, from a flag and from the environment over a file.
        file_1k = "max-body = 1K\n"
        # (flags, environment, config file, {body size: status})
        for flags, env, config, expected in (
                (["--max-body", "1KiB"], {}, None, {512: 200, 1024: 200, 1025: 413, 2048: 413}),
                ([], {"KESTRIN_MAX_BODY": "2K"}, file_1k, {1536: 200, 3072: 413})):
            with self.subTest(flags=flags, env=env, config=config):
                if config:
                    flags = flags + ["--config", self.write("settings.conf", config)]
                server = self.start(*flags, env=env)
                for size, status in expected.items():
                    self.assertEqual(upload(server, body=body_of_size(size))[0], status, size)

    def test_a_client_share_over_the_memory_budget_is_capped_and_said_to_be(self):
        for share, line, warned in (("128M", "memory 64 MiB (64 MiB per client)", True),
                                    ("16M", "memory 64 MiB (16 MiB per client)", False)):
            with self.subTest(share=share):
                server = self.start("--max-memory", "64M", "--max-memory-per-client", share)
                serverlib.wait_for(lambda: line in server.logged(), 10, line)
                warning = ("WARN --max-memory-per-client 128 MiB is over the memory budget of "
                           "64 MiB: one client may hold all of it")
                self.assertEqual(warning in server.logged(), warned, server.logged())

    def test_a_bad_setting_exits_2_before_listening_naming_it_and_what_is_expected(self):
        bad_size = self.write("size.conf", "max-body = 10XB\n")
        quiet = ["--dir", os.path.join(self.root, "never")]
        here = ["--listen", "127.0.0.1:0"] + quiet
        for arguments, env, words in (
                (here + ["--max-body", "10XB"], None, ["--max-body 10XB", "expected a number"]),
                (quiet, {"KESTRIN_LISTEN": "70000"}, ["KESTRIN_LISTEN=70000", "0 to 65535"]),
                (here + ["--config", bad_size], None,
                 [bad_size, "max-body = 10XB", "expected a number"])):
            with self.subTest(arguments=arguments[len(quiet):], env=env):
                code, out, err = self.run_refused(*arguments, env=env)
                self.assertEqual(code, 2, err)
                self.assertNotIn("listening on", out)
                for word in words:
                    self.assertIn(word, err)

    def test_an_upload_directory_that_cannot_take_files_stops_the_start(self):
        blocker = self.write("a-file", "")
        for directory, words in ((os.path.join(blocker, "uploads"), "cannot create"),
                                 ("/proc", "cannot write")):
            with self.subTest(directory=directory):
                code, out, err = self.run_refused("--listen", "127.0.0.1:0", "--dir", directory)
                self.assertNotEqual(code, 0)
                self.assertNotIn("listening on", out)
                self.assertIn("--dir " + directory + ": " + words, err)


class LogTest(OperationsTestCase):
    def test_each_request_is_one_line_with_what_happened_whatever_the_client_sent(self):
        two = [(b"one.txt", b"12345"), (b"two words.bin", b"t" * 300)]
        forged = b'\n2026-01-01T00:00:00.000Z INFO 127.0.0.1 GET "/forged" 200 in=0 ms=0.1'
        odd_name = "back\\slash \u00e9.bin".encode()
        evil = b"Origin: http://evil.example\r\n"
        quoting = b'Origin: http://evil.example\xff\t" 200 in=0 ms=0.1 files="forged.txt":1\r\n'
        # (files, body, headers, status)
        requests = ((two, None, b"", 200), ([(b"../x", b"x")], None, b"", 400),
                    (two, None, evil, 403), (None, body_of_size(2048), b"", 413),
                    ([(b"lf" + forged, b"lf")], None, b"", 200),
                    ([(odd_name, b"odd")], None, b"", 200), (two, None, quoting, 403))
        for log_format in ("text", "json"):
            with self.subTest(log_format=log_format):
                server = self.start("--max-body", "1K", "--log-format", log_format)
                sent = []
                for files, body, headers, status in requests:
                    body = upload_body(files) if body is None else body
                    answer = upload(server, body=body, headers=headers)
                    self.assertEqual(answer[0], status, page_message(answer[2]))
                    sent.append(len(body))
                log = server.logged()
                # A tab in a header is the one control character a client can get in.
                self.assertNotRegex(log, r"[\x00-\x09\x0b-\x1f\x7f]")
                records = request_lines(log, log_format)
                self.assertEqual([(r["method"], r["target"], r["status"]) for r in records],
                                 [("POST", "/users", status) for *_, status in requests])
                now = datetime.datetime.now(datetime.timezone.utc)
                for record, length in zip(records, sent):
                    self.assertRegex(record["time"], RFC3339_UTC)
                    logged = datetime.datetime.fromisoformat(record["time"].replace("Z", "+00:00"))
                    self.assertLess(abs((now - logged).total_seconds()), 60)
                    self.assertEqual(record["client"], "127.0.0.1")
                    self.assertGreaterEqual(record["duration_ms"], 0)
                    self.assertLessEqual(record["bytes_in"], length)
                    # An answer of the module's has the whole body behind it; only refusals
                    # say why.
                    if record["status"] in (200, 400):
                        self.assertEqual(record["bytes_in"], length)
                    self.assertEqual("reason" in record, record["status"] != 200, record)
                stored = [[(f["name"], f["size"]) for f in r.get("files", [])] for r in records]
                self.assertEqual(stored, [[("one.txt", 5), ("two words.bin", 300)], [], [], [],
                                          [("lf", 2)], [(odd_name.decode(), 3)], []])
                self.assertIn("'../x'", records[1]["reason"])
                self.assertIn("evil.example", records[2]["reason"])
                self.assertIn("limit", records[3]["reason"])
                self.assertIn(quoting[8:-2].decode(errors="replace"), records[6]["reason"])


class ProxyTest(OperationsTestCase):
    def test_a_trusted_proxy_names_the_client_whose_share_and_log_line_a_request_is(self):
        # One body of 100,000 bytes and its copy fill a client's share. The first is held open
        # once admitted: a go-ahead comes only after every check of its head.
        server = self.start("--trusted-proxy", "127.0.0.1", "--max-memory-per-client", "300K")
        body = body_of_size(100_000)
        held = server.connect()
        self.addCleanup(held.close)
        held.sendall(b"POST /users HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
                     b"Content-Length: %d\r\nExpect: 100-continue\r\n"
                     b"Content-Type: multipart/form-data; boundary=%s\r\n"
                     b"X-Forwarded-For: 203.0.113.9, 198.51.100.1\r\n\r\n" % (len(body), BOUNDARY))
        self.assertTrue(held.recv(1024).startswith(b"HTTP/1.1 100 Continue\r\n"))
        self.assertEqual(upload(server, body=body,
                                headers=b"X-Forwarded-For: 198.51.100.1\r\n")[0], 503)
        # Another client behind the proxy has a share of its own; a peer that is no proxy is
        # itself, whatever it forwards.
        self.assertEqual(upload(server, body=body, headers=b"X-Forwarded-For: 198.51.100.2, "
                                b"unknown, 198.51.100.3\r\n")[0], 200)
        self.assertEqual(upload(server, body=body, source="127.0.0.2",
                                headers=b"X-Forwarded-For: 198.51.100.1\r\n")[0], 200)
        held.sendall(body)
        self.assertEqual(serverlib.read_response(held)[0], 200)
        self.assertEqual(server.stop(), 0)
        clients = [match.group("client") for match in map(TEXT_LINE.fullmatch,
                                                           server.logged().splitlines()) if match]
        self.assertEqual(clients, ["198.51.100.1", "198.51.100.3", "127.0.0.2", "198.51.100.1"])


class HealthTest(OperationsTestCase):
    def test_health_follows_the_upload_directory_and_head_answers_like_get(self):
        server = self.start()
        for method in (b"GET", b"HEAD"):
            status, fields, body = exchange(server, method, b"/healthz")
            self.assertEqual((status, body), (200, b"ok\n" if method == b"GET" else b""))
            self.assertEqual(fields["content-length"], "3")
        status, fields, _ = exchange(server, b"POST", b"/healthz", body=b"x")
        self.assertEqual((status, fields.get("allow")), (405, "GET, HEAD"))

        status, get_fields, page = exchange(server, b"GET", b"/")
        self.assertEqual((status, get_fields["content-length"]), (200, str(len(page))))
        status, head_fields, nothing = exchange(server, b"HEAD", b"/")
        self.assertEqual((status, head_fields["content-length"], nothing),
                         (200, get_fields["content-length"], b""))

        shutil.rmtree(server.directory)
        status, _, body = exchange(server, b"GET", b"/healthz")
        self.assertEqual(status, 503)
        self.assertIn(b"directory is gone", body)
        self.assertEqual(exchange(server, b"HEAD", b"/healthz")[::2], (503, b""))


class MetricsTest(OperationsTestCase):
    def test_counters_follow_uploads_and_refusals_with_a_bounded_route_label(self):
        server = self.start("--max-body", "4K")
        uploads, sent = 3, 0
        for i in range(uploads):
            body = upload_body([(b"m%d-a.bin" % i, b"a" * 100), (b"m%d-b.bin" % i, b"b" * 200)])
            self.assertEqual(upload(server, body=body)[0], 200)
            sent += len(body)
        # The same status on the other route counts apart.
        body = upload_body([(b"drive.bin", b"d" * 100)])
        self.assertEqual(exchange(server, b"POST", b"/ORVANE%20Drive", b"Content-Type: "
                                  b"multipart/form-data; boundary=" + BOUNDARY + b"\r\n",
                                  body)[0], 200)
        sent += len(body)
        self.assertEqual(upload(server, [(b"../x", b"x")])[0], 400)
        self.assertEqual(upload(server, [(b"x", b"x")], headers=b"Origin: http://evil.example\r\n"
                                )[0], 403)
        self.assertEqual(upload(server, body=body_of_size(5000))[0], 413)
        for path in (b"/x123", b"/y456"):
            self.assertEqual(exchange(server, b"GET", path)[0], 404)

        status, fields, text = exchange(server, b"GET", b"/metrics")
        self.assertEqual(status, 200)
        self.assertTrue(fields["content-type"].startswith("text/plain; version=0.0.4"))
        samples = parse_metrics(text.decode())
        requests = {dict(labels)["route"] + " " + dict(labels)["status"]: value
                    for (name, labels), value in samples.items()
                    if name == "kestrin_http_requests_total"}
        # The limit cuts the 413 off before its route is looked up; it still counts there.
        self.assertEqual(requests, {"/users 200": uploads, "/ORVANE Drive 200": 1,
                                    "/users 400": 1, "/users 403": 1, "/users 413": 1,
                                    "other 404": 2})
        self.assertEqual(metric(samples, "kestrin_files_stored_total"), 2 * uploads + 1)
        self.assertEqual(metric(samples, "kestrin_stored_bytes_total"), 300 * uploads + 100)
        self.assertGreaterEqual(metric(samples, "kestrin_received_bytes_total"), sent)
        # The module's own 400 is an answer, not a refusal by the server; each refusal says why.
        self.assertEqual({dict(labels)["cause"] + " " + dict(labels)["reason"]: value
                          for (name, labels), value in samples.items()
                          if name == "kestrin_refusals_total"},
                         {"403 cross_site": 1, "413 body_too_large": 1})
        # The scrape being answered is the one request in flight, and not yet counted.
        self.assertEqual(metric(samples, "kestrin_requests_in_flight"), 1)
        # A head refused by its framing gets no timing; the scrape itself does.
        answered = sum(requests.values()) - requests["/users 413"] + 1
        self.assertEqual(metric(samples, "kestrin_request_duration_seconds_count"), answered)
        self.assertEqual(metric(samples, "kestrin_request_duration_seconds_bucket", le="+Inf"),
                         answered)
        self.assertGreater(metric(samples, "kestrin_memory_bytes", kind="budget"), 0)
        self.assertEqual(metric(samples, "kestrin_memory_bytes", kind="in_use"), 0)
        self.assertEqual(metric(samples, "kestrin_service_calls", state="waiting"), 0)
        # A service thread gives its place back just after the answer has gone out.
        serverlib.wait_for(lambda: metric(parse_metrics(exchange(server, b"GET", b"/metrics")[2]
                                                        .decode()),
                                          "kestrin_service_calls", state="running") == 0,
                           5, "the service calls to end")


    def test_connections_refused_count_under_their_reason_apart_from_requests(self):
        server = self.start("--max-connections-per-client", "2")
        # Connections are admitted in the order they come. The third comes well within the half
        # second after which a silent connection is worth closing for a newcomer: it is refused.
        held = [server.connect(source="127.0.0.2") for _ in range(2)]
        try:
            with server.connect(source="127.0.0.2") as third:
                third.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
                self.assertIn(b" 503 ", third.recv(4096))
            for connection in held:
                connection.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
                self.assertIn(b" 200 ", connection.recv(4096))
            samples = parse_metrics(exchange(server, b"GET", b"/metrics",
                                             source="127.0.0.3")[2].decode())
        finally:
            for connection in held:
                connection.close()
        self.assertEqual(metric(samples, "kestrin_refusals_total", cause="503",
                                reason="client_connections"), 1)
        self.assertEqual(sum(value for (name, _), value in samples.items()
                             if name == "kestrin_refusals_total"), 1)

    def test_a_head_cut_short_to_make_room_counts_as_evicted_not_as_a_timeout(self):
        server = self.start("--max-connections", "2")
        slow = [server.connect(source="127.0.0.%d" % n) for n in (2, 3)]
        try:
            for connection in slow:
                connection.sendall(b"POST /users HTTP/1.1\r\nHost: x\r\n")
            time.sleep(1)  # both are now worth closing for a newcomer
            with server.connect(source="127.0.0.4") as fresh:
                cut, _, _ = select.select(slow, [], [], 10)
                self.assertEqual(len(cut), 1)
                self.assertIn(b" 408 ", cut[0].recv(4096))
                fresh.sendall(b"GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
                answer = b""
                while chunk := fresh.recv(65536):
                    answer += chunk
        finally:
            for connection in slow:
                connection.close()
        samples = parse_metrics(answer.partition(b"\r\n\r\n")[2].decode())
        self.assertEqual({dict(labels)["cause"] + " " + dict(labels)["reason"]: value
                          for (name, labels), value in samples.items()
                          if name == "kestrin_refusals_total"}, {"408 evicted": 1})

    def test_large_bodies_and_parts_are_kept_for_the_next_upload_as_the_setting_says(self):
        # Large enough for the part's memory to be made ready while the body arrives: from the
        # last upload's kept part, which must never leak into the next file.
        sizes = (9 << 20, 3 << 20)
        for keep in ("1G", "0"):
            with self.subTest(keep=keep):
                server = self.start("--keep-body-memory", keep)
                for i in range(3):
                    files = [(b"big%d-%d.bin" % (i, n), os.urandom(size))
                             for n, size in enumerate(sizes)]
                    body = upload_body(files)
                    self.assertEqual(upload(server, body=body)[0], 200)
                    for name, content in files:
                        with open(os.path.join(server.directory, name.decode()), "rb") as stored:
                            self.assertTrue(stored.read() == content, "%s differs" % name)
                samples = parse_metrics(exchange(server, b"GET", b"/metrics")[2].decode())
                # Kept: the last body's storage, of exactly its size, and its larger part's,
                # which the module grew by doubling; one part block is all a later upload uses.
                part = 1 << (max(sizes) - 1).bit_length()
                kept = len(body) + part if keep != "0" else 0
                self.assertEqual(metric(samples, "kestrin_memory_bytes", kind="kept"), kept)
                self.assertEqual(metric(samples, "kestrin_memory_bytes", kind="in_use"), kept)

    def test_a_small_body_of_many_files_runs_on_a_service_thread_and_leaves_the_rest_alone(self):
        # Where the disk syncs in microseconds, small uploads run on the IO thread that read
        # them. Memory-backed storage stands in for such a disk.
        if not os.path.isdir("/dev/shm"):
            self.skipTest("no memory-backed directory here")
        directory = tempfile.mkdtemp(dir="/dev/shm", prefix="kestrin-ops-")
        self.addCleanup(shutil.rmtree, directory, True)
        server = Server(directory)
        self.addCleanup(server.close)

        def placed():
            samples = parse_metrics(exchange(server, b"GET", b"/metrics")[2].decode())
            return (metric(samples, "kestrin_upload_calls_total", thread="io"),
                    metric(samples, "kestrin_upload_calls_total", thread="service"))

        def one_upload(name):
            self.assertEqual(upload(server, [(name, b"x")])[0], 200)

        # Calls start out on the service threads, until they have shown they are quick.
        for n in range(100):
            one_upload(b"warm%d" % n)
            if placed()[0] >= 3:
                break
        else:
            self.skipTest("uploads here are never quick enough to run on an IO thread")
        # 50 files of 512 bytes: a small body, but 50 files to write and sync one after another.
        files = [(b"many%d" % n, os.urandom(512)) for n in range(50)]
        self.assertLess(len(upload_body(files)), 64 << 10)
        # Its time is not the time of a small upload: the next ones stay where they were. Had
        # it counted, the next dozen would go to the service threads while the average fell.
        # A machine busy elsewhere can slow a small upload as much, so it has three tries.
        for attempt in range(3):
            before = placed()
            self.assertEqual(upload(server, files)[0], 200)
            self.assertEqual(placed(), (before[0], before[1] + 1))
            for n in range(3):
                one_upload(b"after%d-%d" % (attempt, n))
            if placed()[0] > before[0]:
                break
        else:
            self.fail("after a body of many files, small uploads stayed off the IO threads")

class UploadQuotaTest(OperationsTestCase):
    def test_one_clients_uploads_in_an_hour_are_held_to_its_quota_and_others_keep_theirs(self):
        server = self.start("--max-upload-per-client", "1M")
        serverlib.wait_for(lambda: "(1 MiB an hour per client)" in server.logged(), 10,
                           "the start line with the quota")
        body = body_of_size(600 << 10)
        self.assertEqual(upload(server, body=body, source="127.0.0.2")[0], 200)
        # 424 KiB left, earned back at 1 MiB an hour: the next 600 KiB waits about ten minutes.
        status, fields, _ = upload(server, body=body, source="127.0.0.2")
        self.assertEqual(status, 503)
        self.assertGreaterEqual(int(fields["retry-after"]), 600)
        self.assertEqual(upload(server, body=body, source="127.0.0.3")[0], 200)
        self.assertIn("client's upload quota", server.logged())
        samples = parse_metrics(exchange(server, b"GET", b"/metrics")[2].decode())
        self.assertEqual(metric(samples, "kestrin_refusals_total", cause="503",
                                reason="upload_quota"), 1)
        self.assertEqual(server.stop(), 0)


class AuthTest(OperationsTestCase):
    def test_password_checks_are_held_to_the_cpu_shares_given(self):
        # "right" hashed at four times the default cost: each wrong guess then takes about 100 ms
        # of CPU where the default hash takes 25, so that the shares below run out after the same
        # guesses on a machine faster than this one (the default's cost was 22 ms on one).
        hashed = ("$y$jBT$my8.kFTD8OztBIBAZY74S0$0wY0SXdFgLzDec46.jxOOy/Kmh.Qy7i1N2tvKTp0b30")
        users = self.write("users", "alice:%s\n" % hashed)

        def guesses(server, sources):
            """The (status, Retry-After) of a wrong password from each source, sent 0.2 s apart:
            an answer to a wrong password is held back a second, the check is not."""
            def guess(attempt, source):
                time.sleep(0.2 * attempt)
                status, fields, _ = upload(server, [(b"g.txt", b"g")], source=source,
                                           headers=b"Authorization: Basic %s\r\n" %
                                           base64.b64encode(b"alice:wrong-%d" % attempt))
                return status, fields.get("retry-after")

            with concurrent.futures.ThreadPoolExecutor(len(sources)) as pool:
                return list(pool.map(guess, range(len(sources)), sources))

        # One percent of a core is 50 ms at once for one client: a guess or two, where the default
        # share allows three or more. Another client has its own share.
        server = self.start("--auth-file", users, "--auth-cpu-per-client", "1")
        serverlib.wait_for(lambda: "password checks up to 25% of a core, 1% per client" in
                           server.logged(), 10, "the start line with the shares")
        answers = guesses(server, ["127.0.0.2"] * 3)
        self.assertLessEqual([status for status, _ in answers].count(401), 2, answers)
        self.assertGreaterEqual(min(int(after) for status, after in answers if status == 503), 1)
        self.assertEqual(guesses(server, ["127.0.0.3"]), [(401, None)])
        self.assertIn("password checks over their budget", server.logged())
        self.assertEqual(server.stop(), 0)

        # One percent of a core in all, 40 ms at once: once one client spent it, others wait too.
        server = self.start("--auth-file", users, "--auth-cpu", "1")
        answers = guesses(server, ["127.0.0.2", "127.0.0.2", "127.0.0.3"])
        self.assertEqual(answers[-1][0], 503, answers)
        self.assertEqual(server.stop(), 0)


class ConflictTest(OperationsTestCase):
    def test_a_name_already_taken_is_replaced_refused_or_renamed_as_configured(self):
        # (policy, status of the second upload, the directory afterwards)
        for policy, second, after in (
                ("replace", 200, {"a.txt": b"second"}),
                ("refuse", 400, {"a.txt": b"first"}),
                ("rename", 200, {"a.txt": b"first", "a (1).txt": b"second"})):
            with self.subTest(policy=policy):
                server = self.start("--on-conflict", policy)
                self.assertEqual(upload(server, [(b"a.txt", b"first")])[::2], (200, SUCCESS_PAGE))
                status, _, page = upload(server, [(b"a.txt", b"second")])
                self.assertEqual(status, second)
                if status == 400:
                    self.assertIn("a.txt", page_message(page))
                self.assertEqual(self.contents(server.directory), after)

    def test_two_uploads_of_one_name_at_once_are_both_kept_under_rename(self):
        server = self.start("--on-conflict", "rename", "--service-threads", "4")
        contents = [bytes([65 + i]) * (2 << 20) for i in range(2)]
        start = threading.Barrier(2, timeout=30)
        statuses = []

        def send(content):
            start.wait()
            statuses.append(upload(server, [(b"c.txt", content)])[0])
        threads = [threading.Thread(target=send, args=(content,)) for content in contents]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
        self.assertEqual(statuses, [200, 200])
        stored = self.contents(server.directory)
        self.assertEqual(sorted(stored), ["c (1).txt", "c.txt"])
        self.assertEqual(sorted(stored.values()), contents)

    @staticmethod
    def contents(directory):
        result = {}
        for name in os.listdir(directory):
            if name.startswith(serverlib.OWNER_PREFIX):
                continue  # the running server's own
            with open(os.path.join(directory, name), "rb") as file:
                result[name] = file.read()
        return result


class TlsTest(OperationsTestCase):
    def certificate(self, name):
        """A new self-signed certificate for 127.0.0.1: (its file, its key's file)."""
        if not shutil.which("openssl"):
            self.skipTest("no openssl command")
        cert, key = (os.path.join(self.root, name + suffix) for suffix in (".pem", ".key"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert,
                        "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                        "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True,
                       timeout=60)
        return cert, key

    def test_https_stores_uploads_and_shrugs_off_plain_http(self):
        cert, key = self.certificate("cert")
        server = self.start("--tls-cert", cert, "--tls-key", key)
        self.assertEqual(server.scheme, "https")
        context = ssl.create_default_context(cafile=cert)
        content = os.urandom(100000)
        self.assertEqual(upload(server, [(b"secure.bin", content)], context=context)[::2],
                         (200, SUCCESS_PAGE))
        with open(os.path.join(server.directory, "secure.bin"), "rb") as file:
            self.assertEqual(file.read(), content)
        # The upload page is larger than one TLS record.
        status, fields, page = exchange(server, b"GET", b"/", context=context)
        self.assertEqual((status, len(page)), (200, int(fields["content-length"])))
        self.assertTrue(page.rstrip().endswith(b"</html>"), page[-100:])

        status, _, raw = exchange(server, b"GET", b"/healthz")
        self.assertIsNone(status)
        self.assertFalse(raw.startswith(b"HTTP/"), raw)
        self.assertEqual(exchange(server, b"GET", b"/healthz", context=context)[0], 200)

        code, out, err = self.run_refused("--listen", "127.0.0.1:0", "--dir", self.root,
                                          "--tls-cert", cert, "--tls-key", key + ".missing")
        self.assertEqual(code, 1, err)
        self.assertNotIn("listening on", out)
        self.assertIn(key + ".missing", err)


    def test_sighup_reloads_certificate_and_users_for_new_connections_unless_unusable(self):
        cert, key = os.path.join(self.root, "live.pem"), os.path.join(self.root, "live.key")
        first, second = self.certificate("first"), self.certificate("second")
        hashed = {}
        for password in ("alice-pw", "bob-pw"):
            done = subprocess.run([serverlib.SERVER, "--hash-password"], capture_output=True,
                                  input=password.encode() + b"\n", timeout=30, check=True)
            hashed[password] = done.stdout.decode().strip()

        def install(certificate, users):
            shutil.copyfile(certificate[0], cert)
            shutil.copyfile(certificate[1], key)
            self.write("users", users)

        def login(user, password):
            return b"Authorization: Basic %s\r\n" % base64.b64encode(
                ("%s:%s" % (user, password)).encode())

        install(first, "alice:%s\n" % hashed["alice-pw"])
        server = self.start("--tls-cert", cert, "--tls-key", key, "--auth-file",
                            os.path.join(self.root, "users"))
        trusts_first, trusts_second = (ssl.create_default_context(cafile=c) for c, _ in
                                       (first, second))
        self.assertEqual(upload(server, [(b"a.txt", b"a")], headers=login("alice", "alice-pw"),
                                context=trusts_first)[0], 200)

        install(second, "bob:%s\n" % hashed["bob-pw"])
        server.process.send_signal(signal.SIGHUP)
        serverlib.wait_for(lambda: "reloaded the 1 user of" in server.logged(), 20, "the reload")
        self.assertIn("reloaded the TLS certificate %s and key %s" % (cert, key), server.logged())
        with self.assertRaises(ssl.SSLCertVerificationError):
            exchange(server, b"GET", b"/healthz", context=trusts_first)
        self.assertEqual(upload(server, [(b"b.txt", b"b")], headers=login("alice", "alice-pw"),
                                context=trusts_second)[0], 401)
        self.assertEqual(upload(server, [(b"b.txt", b"b")], headers=login("bob", "bob-pw"),
                                context=trusts_second)[0], 200)

        # Files that cannot be used leave the ones loaded before in place, and say why.
        self.write("live.pem", "not a certificate\n")
        self.write("users", "bob\n")
        server.process.send_signal(signal.SIGHUP)
        serverlib.wait_for(lambda: "cannot reload the users" in server.logged(), 20,
                           "the refused reload")
        self.assertRegex(server.logged(), r"ERROR cannot reload the TLS certificate: "
                                          r"--tls-cert \S+live\.pem: not a usable PEM file")
        self.assertRegex(server.logged(), r"ERROR cannot reload the users: \S+users:1: no ':'")
        self.assertEqual(upload(server, [(b"c.txt", b"c")], headers=login("bob", "bob-pw"),
                                context=trusts_second)[0], 200)
        self.assertEqual(server.stop(), 0)


    def test_handshakes_past_their_rate_are_refused_per_client_and_in_all(self):
        cert, key = self.certificate("cert")
        context = ssl.create_default_context(cafile=cert)

        def handshake(server, source):
            """Whether a TLS handshake from source completes."""
            with socket.create_connection(("127.0.0.1", server.port), timeout=10,
                                          source_address=(source, 0)) as raw:
                try:
                    with context.wrap_socket(raw, server_hostname="127.0.0.1"):
                        return True
                except (ssl.SSLError, OSError):
                    return False

        def flood(server, source, tries):
            """(handshakes that completed, seconds taken)."""
            started = time.monotonic()
            done = sum(handshake(server, source) for _ in range(tries))
            return done, time.monotonic() - started

        # One a second with four at once: twelve tries in a row get four and what refilled.
        server = self.start("--tls-cert", cert, "--tls-key", key,
                            "--tls-handshakes-per-client", "1")
        serverlib.wait_for(lambda: "HTTPS (512 handshakes a second, 1 per client)" in
                           server.logged(), 10, "the start line with the rates")
        done, seconds = flood(server, "127.0.0.2", 12)
        self.assertLessEqual(done, 4 + int(seconds) + 1)
        self.assertLess(done, 12)
        # Another address has its own share.
        self.assertEqual(upload(server, [(b"a.txt", b"a")], context=context)[0], 200)
        serverlib.wait_for(lambda: "TLS handshakes refused" in server.logged(), 10, "the count")
        self.assertRegex(server.logged(),
                         r"TLS handshakes refused: over their rate x\d+ \(127\.0\.0\.2\)")
        # Every connection closed unanswered is a refusal under its reason.
        samples = parse_metrics(exchange(server, b"GET", b"/metrics", context=context)[2].decode())
        self.assertEqual(metric(samples, "kestrin_refusals_total", cause="503",
                                reason="tls_handshakes"), 12 - done)
        self.assertEqual(server.stop(), 0)

        # The same in all: the pool runs dry for every address, which the log says.
        server = self.start("--tls-cert", cert, "--tls-key", key, "--tls-handshakes", "1")
        done, seconds = flood(server, "127.0.0.2", 12)
        self.assertLessEqual(done, 4 + int(seconds) + 1)
        self.assertLess(done, 12)
        serverlib.wait_for(lambda: "TLS handshakes refused" in server.logged(), 10, "the count")
        self.assertRegex(server.logged(), r"over their rate x\d+ \(all clients\)")
        self.assertEqual(server.stop(), 0)

    def test_a_connection_cannot_ask_for_a_second_handshake(self):
        if not shutil.which("openssl"):
            self.skipTest("no openssl command")
        cert, key = self.certificate("cert")
        server = self.start("--tls-cert", cert, "--tls-key", key)
        # "R" asks the TLS 1.2 client to renegotiate; it stays connected while its input is open.
        client = subprocess.Popen(["openssl", "s_client", "-connect", "127.0.0.1:%d" % server.port,
                                   "-tls1_2", "-CAfile", cert], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            client.stdin.write(b"R\n")
            client.stdin.flush()
            client.wait(timeout=10)
        except subprocess.TimeoutExpired:
            client.kill()
        output = client.communicate()[0].decode(errors="replace")
        self.assertIn("RENEGOTIATING", output)
        self.assertIn("no renegotiation", output)
        # Told no, the client may ask again and again: the log counts it, naming the client.
        serverlib.wait_for(lambda: "TLS renegotiations refused x1 (127.0.0.1)" in
                           server.logged(), 5, "the refusal counted in the log")
        self.assertEqual(server.stop(), 0)


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        serverlib.SERVER = sys.argv.pop(1)
    unittest.main()
