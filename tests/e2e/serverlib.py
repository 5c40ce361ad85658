"""What the end-to-end tests and the load client share: starting and stopping the server
binary on 127.0.0.1 (a free port) in a directory of its own, building multipart bodies, and
reading the result pages the module answers with.

The server binary comes from KESTRIN_SERVER (set by CTest) or the first argument."""

import hashlib
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

SERVER = os.environ.get("KESTRIN_SERVER", "")
TEMP_PREFIX = ".kestrin-upload-"
# A running server holds its owner file beside its temporary files, and removes it when it stops.
OWNER_PREFIX = TEMP_PREFIX + "owner-"


def is_temporary(name):
    return name.startswith(TEMP_PREFIX) and not name.startswith(OWNER_PREFIX)

PAGE_PREFIX = b'<html>\n<head>\n<script>\nparent.postMessage("'
PAGE_SUFFIX = b'", "*");\n</script>\n</head>\n<body>\n</body>\n</html>\n'
SUCCESS_PAGE = PAGE_PREFIX + b"SUCCESS" + PAGE_SUFFIX


def result_page(message):
    return PAGE_PREFIX + message.encode() + PAGE_SUFFIX


# A double-quoted JavaScript string literal up to its closing quote: no raw line terminator,
# only the escapes the language knows.
JS_STRING = re.compile(r'((?:[^"\\\r\n\u2028\u2029]|\\(?:[\\"\'nrtbfv0]|x[0-9a-fA-F]{2}'
                       r'|u[0-9a-fA-F]{4}))*)(?=")')


def page_message(page):
    """The message a result page posts, read as a browser would read the script's string
    literal; None when the page is not prefix, one string literal, suffix. "</script" inside
    the literal counts as broken too: the HTML parser would end the script element there."""
    if not page.startswith(PAGE_PREFIX):
        return None
    text = page[len(PAGE_PREFIX):].decode()
    match = JS_STRING.match(text)
    if (not match or "</script" in match.group(1).lower()
            or text[match.end():].encode() != PAGE_SUFFIX):
        return None
    return match.group(1).encode("latin-1", "backslashreplace").decode("unicode_escape")


def sha256(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def multipart(boundary, parts, closing=True, newline=b"\r\n"):
    """A multipart body; parts are (header-bytes, content-bytes). boundary is bytes."""
    pieces = [b"--" + boundary + newline + header + newline + newline + content + newline
              for header, content in parts]
    if closing:
        pieces.append(b"--" + boundary + b"--" + newline)
    return b"".join(pieces)


def file_part(filename, content, quote=True):
    """A part header naming filename (bytes), quoted or bare."""
    name = b'"' + filename + b'"' if quote else filename
    return (b'Content-Disposition: form-data; name="file"; filename=' + name +
            b"\r\nContent-Type: application/octet-stream", content)


def request_head(path, boundary, length, extra=b""):
    """A POST head; boundary None leaves the parameter out."""
    parameter = b"; boundary=" + boundary if boundary is not None else b""
    return (b"POST " + path + b" HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            b"Content-Type: multipart/form-data" + parameter + b"\r\n"
            b"Content-Length: " + str(length).encode() + b"\r\nConnection: close\r\n" + extra +
            b"\r\n")


def read_response(connection):
    """Reads until the server closes; returns (status, body) or (None, raw) when the bytes
    are no HTTP response."""
    raw = b""
    while True:
        chunk = connection.recv(1 << 16)
        if not chunk:
            break
        raw += chunk
    match = re.match(rb"HTTP/1\.1 (\d{3}) [^\r\n]*\r\n(.*?)\r\n\r\n", raw, re.S)
    if not match:
        return None, raw
    return int(match.group(1)), raw[match.end():]


class StartError(AssertionError):
    """The server did not say where it listens. exit_code is None when it was still running
    (and then killed); 2 means it refused its command line."""

    def __init__(self, message, exit_code, log):
        super().__init__(message)
        self.exit_code = exit_code
        self.log = log


class Server:
    """One server process. start() returns once it has said where it listens; stop() sends
    SIGTERM and returns the exit code; kill() is the last resort and always safe.
    preexec_fn runs in the child before the server starts (limits, a parent-death signal).
    listen None leaves --listen to env (added to the environment) or a --config file; the
    address printed at start is where connect() goes, 127.0.0.1 for one that names every
    interface."""

    def __init__(self, directory, *flags, threads=2, preexec_fn=None, listen="127.0.0.1:0",
                 env=None):
        self.directory = directory
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [SERVER, *(("--listen", listen) if listen else ()), "--dir", directory,
             "--threads", str(threads), *flags],
            stdout=subprocess.PIPE, stderr=self.log, preexec_fn=preexec_fn,
            env=dict(os.environ, **env) if env else None)
        line = self._first_line(timeout=60)
        match = re.fullmatch(r"listening on (https?)://(\[[0-9a-fA-F:]+\]|[^/:\[\]]+):(\d+)/\n",
                             line)
        if not match:
            # A server that refused its command line closes its output as it exits.
            try:
                exit_code = self.process.wait(5)
            except subprocess.TimeoutExpired:
                exit_code = None
            self.kill()
            log = self.logged()
            raise StartError("unexpected start-up line %r; log:\n%s" % (line, log), exit_code,
                             log)
        self.scheme, self.host, self.port = match.group(1), match.group(2), int(match.group(3))
        self.url = "%s://%s:%d" % (self.scheme, self.host, self.port)

    def _first_line(self, timeout):
        lines = []
        reader = threading.Thread(target=lambda: lines.append(self.process.stdout.readline()))
        reader.daemon = True
        reader.start()
        reader.join(timeout)
        return lines[0].decode() if lines else ""

    def connect(self, timeout=30, source=None):
        """A connection to the server, from the address source if given (127.0.0.2 and so on:
        another client)."""
        host = self.host.strip("[]")
        return socket.create_connection(("127.0.0.1" if host in ("0.0.0.0", "::") else host,
                                         self.port), timeout=timeout,
                                        source_address=(source, 0) if source else None)

    def stop(self, timeout=60):
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(timeout)
        finally:
            self.kill()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(10)
        self.process.stdout.close()

    def close(self):
        self.kill()
        self.log.close()

    def logged(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")

    def log_size(self):
        """Bytes the server has written to its log so far."""
        return os.fstat(self.log.fileno()).st_size

    def log_tail(self, lines=15, limit=4096):
        """The last whole lines of the log, from at most its last limit bytes, without
        reading all of it."""
        start = max(0, self.log_size() - limit)
        self.log.seek(start)
        text = self.log.read(limit).decode(errors="replace").splitlines()
        return "\n".join(text[1 if start else 0:][-lines:])


def wait_for(predicate, seconds, what):
    """Polls predicate until it holds; the server gives no other sign for what we wait on."""
    deadline = time.monotonic() + seconds
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.01)


def skip_without_server():
    if not SERVER or not os.access(SERVER, os.X_OK):
        raise unittest.SkipTest("KESTRIN_SERVER does not name the server binary")


class ServerTestCase(unittest.TestCase):
    """A fresh root per class: root/uploads is the upload directory, root/files the files sent,
    so anything written outside the upload directory shows up in root."""

    flags = ()

    @classmethod
    def setUpClass(cls):
        skip_without_server()
        cls.root = tempfile.mkdtemp(prefix="kestrin-e2e-")
        cls.uploads = os.path.join(cls.root, "uploads")
        cls.files = os.path.join(cls.root, "files")
        os.mkdir(cls.files)
        try:
            cls.server = Server(cls.uploads, *cls.flags)
        except BaseException:
            shutil.rmtree(cls.root, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        try:
            # Whatever the tests did, the server is still up and stops cleanly.
            code = cls.server.stop()
            if code != 0:
                raise AssertionError("server exited with %s; log:\n%s"
                                     % (code, cls.server.logged()))
        finally:
            cls.server.close()
            shutil.rmtree(cls.root, ignore_errors=True)

    def make_file(self, name, content):
        path = os.path.join(self.files, name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def curl(self, path, *arguments):
        """Runs curl against the server; returns (status, body)."""
        body_file = os.path.join(self.root, "response")
        command = ["curl", "-sS", "--max-time", "60", "-o", body_file, "-w", "%{http_code}",
                   *arguments, self.server.url + path]
        done = subprocess.run(command, capture_output=True, timeout=90)
        self.assertEqual(done.returncode, 0, done.stderr.decode())
        with open(body_file, "rb") as file:
            return int(done.stdout), file.read()

    def upload(self, route, *parts):
        arguments = []
        for part in parts:
            arguments += ["-F", part]
        return self.curl(route, *arguments)

    def assert_outside_untouched(self):
        self.assertTrue(set(os.listdir(self.root)) <= {"files", "response", "uploads"},
                        os.listdir(self.root))
        for name in os.listdir(self.uploads):
            self.assertFalse(is_temporary(name), name)
