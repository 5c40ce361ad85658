#!/usr/bin/env python3
"""Load client: starts the server on 127.0.0.1 in a directory of its own, sends uploads from
several keep-alive connections at once (random sizes, random names, several files per
request), then checks every stored file's sha256 against what was sent.

Prints uploads/s, request latency (p50, p99) and the server's peak resident memory; exits
non-zero on any lost or corrupt file, any 5xx or failed request, a sanitizer report, an
unclean server exit, or when the hard deadline passes.

    load_client.py SERVER_BINARY [--uploads 5000] [--connections 16] [--deadline 900]

The server binary may come from KESTRIN_SERVER instead."""

import argparse
import hashlib
import http.client
import os
import random
import shutil
import sys
import tempfile
import threading
import time

# Starting the server and reading its pages work as in the end-to-end tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import serverlib  # noqa: E402
from serverlib import SUCCESS_PAGE, Server, result_page, sha256  # noqa: E402


def vm_hwm_kib(pid):
    """The peak resident set size of a process, in KiB."""
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


MIB = 1024 * 1024
BOUNDARY = "load-client-boundary-7f3a"
NAME_CHARS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 _-.()\u00e9\u65e5"


class Plan:
    """Every request to send, drawn up front from one seed: each is a list of (name, size,
    offset) and the content is a slice of a shared random pool after the file's own name, so
    every file differs and only its hash needs keeping. Every refuse_every-th request ends
    with a part whose name the server refuses: the files before it are stored, the answer is
    a 400 page naming the refusal, and failures cross threads under load too."""

    def __init__(self, uploads, max_size, max_parts, seed, refuse_every=20):
        rng = random.Random(seed)
        self.pool = rng.randbytes(2 * MIB)
        self.requests = []
        made = 0
        while made < uploads:
            count = min(rng.randint(1, max_parts), uploads - made)
            files = []
            for _ in range(count):
                name = "%05d-%s.bin" % (made, "".join(rng.choices(NAME_CHARS, k=12)))
                files.append((name, rng.randint(0, max_size), rng.randrange(MIB)))
                made += 1
            if len(self.requests) % refuse_every == refuse_every - 1:
                files.append(("../escape-%05d.bin" % len(self.requests), 16, 0))
            self.requests.append(files)

    @staticmethod
    def expected(files):
        """The answer a request should get, and the files it stores."""
        name = files[-1][0]
        if not name.startswith("../"):
            return SUCCESS_PAGE, files
        return (result_page("Refused file name '%s': it contains a path separator" % name),
                files[:-1])

    def content(self, name, size, offset):
        return (name.encode() + self.pool[offset:offset + size])[:size]

    def body(self, files):
        pieces = []
        for name, size, offset in files:
            pieces.append(('--%s\r\nContent-Disposition: form-data; name="file"; '
                           'filename="%s"\r\nContent-Type: application/octet-stream\r\n\r\n'
                           % (BOUNDARY, name)).encode())
            pieces.append(self.content(name, size, offset))
            pieces.append(b"\r\n")
        pieces.append(("--%s--\r\n" % BOUNDARY).encode())
        return b"".join(pieces)


class Results:
    def __init__(self):
        self.lock = threading.Lock()
        self.next = 0
        self.latencies = []
        self.stored = {}  # name -> sha256 of what was sent, for every request answered 200
        self.failures = []  # (request index, what went wrong)
        self.server_errors = 0


def worker(server, plan, results, deadline):
    connection = None
    while time.monotonic() < deadline:
        with results.lock:
            index = results.next
            if index >= len(plan.requests):
                break
            results.next += 1
        files = plan.requests[index]
        body = plan.body(files)
        started = time.monotonic()
        try:
            if connection is None:
                connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=120)
            connection.request("POST", "/users", body, {
                "Content-Type": "multipart/form-data; boundary=" + BOUNDARY})
            response = connection.getresponse()
            answer = response.read()
            status = response.status
            if response.will_close:
                connection.close()
                connection = None
        except (OSError, http.client.HTTPException) as error:
            with results.lock:
                results.failures.append((index, "connection: %r" % error))
            if connection is not None:
                connection.close()
            connection = None
            continue
        elapsed = time.monotonic() - started
        with results.lock:
            results.latencies.append(elapsed)
            if status >= 500:
                results.server_errors += 1
            page, stored = plan.expected(files)
            if (status, answer) != (200 if stored == files else 400, page):
                results.failures.append((index, "%d %r" % (status, answer[:200])))
                continue
            for name, size, offset in stored:
                results.stored[name] = hashlib.sha256(plan.content(name, size, offset)).hexdigest()
    if connection is not None:
        connection.close()


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))] if ordered else 0.0


def run(arguments):
    plan = Plan(arguments.uploads, arguments.max_size, arguments.max_parts, arguments.seed)
    root = tempfile.mkdtemp(prefix="kestrin-load-")
    uploads = os.path.join(root, "uploads")
    problems = []
    try:
        server = Server(uploads, "--max-body", "64M", threads=arguments.server_threads)
        try:
            results = Results()
            started = time.monotonic()
            deadline = started + arguments.deadline
            threads = [threading.Thread(target=worker, args=(server, plan, results, deadline))
                       for _ in range(arguments.connections)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            elapsed = time.monotonic() - started
            peak_kib = vm_hwm_kib(server.process.pid)
            if results.next < len(plan.requests) or time.monotonic() > deadline:
                problems.append("deadline of %d s passed after %d of %d requests"
                                % (arguments.deadline, results.next, len(plan.requests)))
            code = server.stop()
            log = server.logged()
        finally:
            server.close()
        if code != 0:
            problems.append("server exited with %s" % code)
        for report in ("WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                       "runtime error:", "ERROR: LeakSanitizer"):
            if report in log:
                problems.append("sanitizer report in the server log:\n" + log[-20000:])

        lost = corrupt = 0
        for name, digest in results.stored.items():
            path = os.path.join(uploads, name)
            if not os.path.exists(path):
                lost += 1
            elif sha256(path) != digest:
                corrupt += 1
        leftovers = [name for name in os.listdir(uploads)
                     if name.startswith(serverlib.TEMP_PREFIX)]

        done = plan.requests[:results.next]
        files = sum(len(plan.expected(request)[1]) for request in done)
        sent = sum(size for request in done for _, size, _ in plan.expected(request)[1])
        refused = sum(request[-1][0].startswith("../") for request in done)
        print("requests: %d (%d files, %.1f MiB; %d with a refused name) from %d connections "
              "in %.1f s" % (results.next, files, sent / MIB, refused, arguments.connections,
                             elapsed))
        print("uploads/s: %.1f  requests/s: %.1f  MiB/s: %.1f"
              % (files / elapsed, results.next / elapsed, sent / MIB / elapsed))
        print("latency per request: p50 %.1f ms  p99 %.1f ms"
              % (1000 * percentile(results.latencies, 0.5),
                 1000 * percentile(results.latencies, 0.99)))
        print("server peak RSS (VmHWM): %.1f MiB" % (peak_kib / 1024))
        print("stored and verified: %d  lost: %d  corrupt: %d  5xx: %d  failed requests: %d  "
              "temporary files left: %d" % (len(results.stored) - lost - corrupt, lost, corrupt,
                                            results.server_errors, len(results.failures),
                                            len(leftovers)))
        for index, what in results.failures[:10]:
            problems.append("request %d: %s" % (index, what))
        if lost or corrupt or results.server_errors or results.failures or leftovers:
            problems.append("lost, corrupt, failed or leftover files")
    finally:
        shutil.rmtree(root, ignore_errors=True)
    for problem in problems:
        print("FAIL: " + problem, file=sys.stderr)
    return 1 if problems else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("server", nargs="?", default=serverlib.SERVER,
                        help="the kestrin-upload-server binary (default: $KESTRIN_SERVER)")
    parser.add_argument("--uploads", type=int, default=5000, help="files to upload")
    parser.add_argument("--connections", type=int, default=16)
    parser.add_argument("--max-size", type=int, default=MIB, help="largest file, in bytes")
    parser.add_argument("--max-parts", type=int, default=4, help="most files per request")
    parser.add_argument("--server-threads", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--deadline", type=int, default=900, help="seconds for all requests")
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    serverlib.SERVER = arguments.server
    if not serverlib.SERVER or not os.access(serverlib.SERVER, os.X_OK):
        parser.error("no server binary: pass it or set KESTRIN_SERVER")
    return run(arguments)


if __name__ == "__main__":
    sys.exit(main())
