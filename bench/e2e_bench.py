#!/usr/bin/env python3
"""End-to-end figures of kestrin-upload-server against the machine's own limits, in one run.

Starts the server on 127.0.0.1 (a free port, a temporary upload directory, the discard route
switched on) and measures:

- one large upload (256 MiB by default) to /users, sent by a C++ client that hands the file to
  the socket with sendfile (bench/large_upload_client.cpp; curl -F copies every byte on one
  core and was the limit): wall time, throughput, the client's CPU time and the server's peak
  resident memory (VmHWM, reset before each upload), beside two floors taken in the same run:
  the same upload to the discard route (network and HTTP), and the same bytes written to a file
  in the upload directory and fsync'ed (disk);
- many small uploads (2,000 of 4 KiB) over 16 keep-alive connections, sent by a C++ client
  (bench/small_upload_client.cpp): uploads per second and p50/p99 latency, beside the same load
  to the discard route, the client's own ceiling (uploads per second of its CPU time), and the
  filesystem's own floor for small files (bench/small_file_floor.cpp: as many files of the same
  size written, fsync'ed, linked and their directory fsync'ed by 16 threads, no HTTP at all,
  once with a directory sync per file and once with none).

Each large measurement runs --repeat times. A floor is the fastest of its runs (it is what the
machine can do; a slow run only says the machine was busy or its memory cold), the upload is
the median of its runs, and peak memory the largest: so the ratios err against the server.
Every timed large run starts on a settled disk: the file the run before stored is deleted and
synced away first, so no run pays for the last one's clean-up. Everything is bounded: every
client and request has a time limit, the server is killed on the way out, and the temporary
files are deleted."""

import argparse
import json
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

MIB = 1 << 20
DISCARD_ROUTE = "/bench-discard"


class Server:
    def __init__(self, binary, directory, flags):
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [binary, "--listen", "127.0.0.1:0", "--dir", directory,
             "--discard-route", DISCARD_ROUTE, *flags],
            stdout=subprocess.PIPE, stderr=self.log)
        lines = []
        reader = threading.Thread(target=lambda: lines.append(self.process.stdout.readline()),
                                  daemon=True)
        reader.start()
        reader.join(20)
        match = re.fullmatch(rb"listening on http://127\.0\.0\.1:(\d+)/\n",
                             lines[0] if lines else b"")
        if not match:
            self.kill()
            raise SystemExit("the server did not start:\n" + self.logged())
        self.port = int(match.group(1))
        self.url = "http://127.0.0.1:%d" % self.port

    def status(self, field):
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                if line.startswith(field + ":"):
                    return int(line.split()[1]) * 1024
        raise RuntimeError("no %s in /proc/%d/status" % (field, self.process.pid))

    def reset_peak(self):
        # "5" sets the high-water mark back to the current resident size.
        with open("/proc/%d/clear_refs" % self.process.pid, "w") as refs:
            refs.write("5")

    def logged(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")[-4000:]

    def kill(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(10)
        self.process.stdout.close()


def make_file(path, size):
    with open(path, "wb") as out:
        left = size
        while left > 0:
            chunk = os.urandom(min(MIB, left))
            out.write(chunk)
            left -= len(chunk)


def large_upload(client, server, path, source, name):
    """One upload of the source file to path: the client's JSON (seconds, cpu); fails unless
    the answer is 200."""
    done = subprocess.run(
        [client, "--port", str(server.port), "--path", path, "--file", source, "--name", name,
         "--timeout", "300"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=320)
    if done.returncode != 0:
        raise SystemExit("large upload to %s failed: %s %s"
                         % (path, done.stdout.strip(), done.stderr.strip()))
    return json.loads(done.stdout)


def settle(path):
    """Deletes a file the last run stored and waits out what deleting it costs the disk (its
    blocks are written back and, on a filesystem mounted with discard, trimmed), so that the
    next timed run does not pay for it."""
    os.unlink(path)
    os.sync()
    time.sleep(0.5)


def disk_floor(source, directory):
    """Seconds to write the file's bytes, already in memory, to the upload directory and fsync
    them, as the server stores an upload (one write to an unnamed file, fsync, link to its name,
    directory fsync; a temporary name and a rename where the filesystem has no unnamed files)."""
    with open(source, "rb") as file:
        data = file.read()
    temp = os.path.join(directory, "disk-floor.tmp")
    target = os.path.join(directory, "disk-floor.bin")
    started = time.perf_counter()
    try:
        fd = os.open(directory, os.O_TMPFILE | os.O_WRONLY, 0o644)
        unnamed = True
    except OSError:
        fd = os.open(temp, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
        unnamed = False
    view = memoryview(data)
    while view:
        view = view[os.write(fd, view):]
    os.fsync(fd)
    dirfd = os.open(directory, os.O_RDONLY)
    if unnamed:
        # A directory descriptor makes Python link with linkat, which follows the /proc link
        # to the file; plain link() would try to link the /proc entry itself.
        os.link("/proc/self/fd/%d" % fd, target, src_dir_fd=dirfd, follow_symlinks=True)
        os.close(fd)
    else:
        os.close(fd)
        os.rename(temp, target)
    os.fsync(dirfd)
    os.close(dirfd)
    elapsed = time.perf_counter() - started
    settle(target)
    return elapsed


def small_uploads(client, server, path, count, connections, size, prefix):
    """count uploads of size bytes to path over connections keep-alive connections, by the C++
    client (a Python client was the limit, at a third of what the server takes)."""
    done = subprocess.run(
        [client, "--port", str(server.port), "--path", path, "--count", str(count),
         "--connections", str(connections), "--size", str(size), "--prefix", prefix,
         "--timeout", "120"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=180)
    try:
        result = json.loads(done.stdout)
    except ValueError:
        raise SystemExit("small uploads: the client printed %r: %s"
                         % (done.stdout[:200], done.stderr.strip())) from None
    if done.returncode != 0:
        raise SystemExit("small uploads failed (%d of %d done): %s"
                         % (result["ok"], count, result["failure"]))
    return result


def small_file_floor(floor, directory, count, threads, size, directory_sync):
    """Files per second the filesystem takes, stored as the server stores an upload."""
    done = subprocess.run(
        [floor, "--dir", directory, "--count", str(count), "--threads", str(threads),
         "--size", str(size), "--directory-sync", directory_sync,
         "--prefix", "floor-" + directory_sync],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=180)
    if done.returncode != 0:
        raise SystemExit("small-file floor failed: %s" % done.stderr.strip())
    return json.loads(done.stdout)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--server", required=True, help="the kestrin-upload-server binary")
    parser.add_argument("--client", required=True, help="the small_upload_client binary")
    parser.add_argument("--large-client", required=True, help="the large_upload_client binary")
    parser.add_argument("--floor", required=True, help="the small_file_floor binary")
    parser.add_argument("--size-mib", type=int, default=256, help="large upload size (256)")
    parser.add_argument("--repeat", type=int, default=5, help="runs of each large measurement (5)")
    parser.add_argument("--small-count", type=int, default=2000, help="small uploads (2000)")
    parser.add_argument("--connections", type=int, default=16, help="small-upload connections")
    parser.add_argument("--small-kib", type=int, default=4, help="small upload size (4 KiB)")
    parser.add_argument("--tmp", default=None, help="where the temporary directories go")
    parser.add_argument("server_flags", nargs="*", help="more flags for the server, after --")
    args = parser.parse_args()
    args.repeat = max(1, min(args.repeat, 10))
    args.small_count = max(args.connections, min(args.small_count, 100000))

    size = args.size_mib * MIB
    work = tempfile.mkdtemp(prefix="kestrin-e2e-bench-", dir=args.tmp)
    server = None
    try:
        uploads = os.path.join(work, "uploads")
        os.mkdir(uploads)
        source = os.path.join(work, "large.bin")
        make_file(source, size)
        server = Server(args.server, uploads, args.server_flags)

        network, disk, upload, peaks, client_cpu = [], [], [], [], []
        idle = server.status("VmRSS")
        for _ in range(args.repeat):
            disk.append(disk_floor(source, uploads))
            sent = large_upload(args.large_client, server, DISCARD_ROUTE, source, "large.bin")
            network.append(sent["seconds"])
            server.reset_peak()
            sent = large_upload(args.large_client, server, "/users", source, "large.bin")
            upload.append(sent["seconds"])
            client_cpu.append(sent["cpu"])
            peaks.append(server.status("VmHWM"))
            stored = os.path.join(uploads, "large.bin")
            if os.path.getsize(stored) != size:
                raise SystemExit("the stored file has %d bytes, not %d"
                                 % (os.path.getsize(stored), size))
            settle(stored)
        small_args = (args.small_count, args.connections, args.small_kib * 1024)
        # The same load to the discard route first: what the client and the HTTP layer manage
        # without the module or the disk, so a server figure near it would be the client's.
        discard = small_uploads(args.client, server, DISCARD_ROUTE, *small_args, "discard")
        # The filesystem alone, in the upload directory itself: how fast this disk creates files
        # moves several-fold with how many were deleted nearby in the last minutes, so the
        # floor must be taken where, and just before, the server's uploads land.
        floors_small = [small_file_floor(args.floor, uploads, *small_args, mode)
                        for mode in ("each", "none")]
        small = small_uploads(args.client, server, "/users", *small_args, "small")

        net_s, disk_s, up_s = min(network), min(disk), statistics.median(upload)
        # The module gets the body only once all of it is in, so the two floors add up.
        floors = net_s + disk_s
        peak = max(peaks)
        rows = [
            ("disk floor: write + fsync %d MiB (fastest)" % args.size_mib, "%.3f s" % disk_s,
             "%.0f MiB/s" % (args.size_mib / disk_s)),
            ("network floor: the same upload to %s (fastest)" % DISCARD_ROUTE,
             "%.3f s" % net_s, "%.0f MiB/s" % (args.size_mib / net_s)),
            ("upload to /users (median)", "%.3f s" % up_s,
             "%.0f MiB/s" % (args.size_mib / up_s)),
            ("client CPU during the upload / its time (client check)",
             "%.2f" % (statistics.median(client_cpu) / up_s), ""),
            ("upload / (network + disk floor) (target <= 1.2)", "%.2f" % (up_s / floors),
             "floors %.3f s" % floors),
            ("server peak RSS during upload", "%.0f MiB" % (peak / MIB),
             "idle %.0f MiB" % (idle / MIB)),
            ("peak RSS / body size (target <= 2.2)", "%.2f" % (peak / size), ""),
            ("%d uploads of %d KiB, %d connections" % (args.small_count, args.small_kib,
                                                       args.connections),
             "%.0f /s" % small["rate"], "%.2f s total" % small["elapsed"]),
            ("small upload latency p50 / p99", "%.1f ms" % (small["p50"] * 1000),
             "%.1f ms" % (small["p99"] * 1000)),
            ("small-file floor: the same files, no HTTP, directory sync each",
             "%.0f /s" % floors_small[0]["rate"], "%.0f us CPU each" % floors_small[0]["cpu_us"]),
            ("the same without directory syncs (all sharing could give)",
             "%.0f /s" % floors_small[1]["rate"], "%.0f us CPU each" % floors_small[1]["cpu_us"]),
            ("small uploads / small-file floor", "%.2f" % (small["rate"] / floors_small[0]["rate"]),
             "%.2f of the one without" % (small["rate"] / floors_small[1]["rate"])),
            ("the same to %s (client check)" % DISCARD_ROUTE, "%.0f /s" % discard["rate"],
             "client CPU ceiling %.0f /s" % small["ceiling"]),
        ]
        print("kestrin-upload-server end to end (%d runs of each large measurement)"
              % args.repeat)
        width = max(len(row[0]) for row in rows)
        for name, value, extra in rows:
            print("  %-*s  %12s  %s" % (width, name, value, extra))
        print("  raw seconds: disk %s, network %s, upload %s" % tuple(
            " ".join("%.3f" % t for t in v) for v in (disk, network, upload)))
    finally:
        if server is not None:
            server.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
