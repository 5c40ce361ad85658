#!/usr/bin/env python3
"""Hostile load: runs one attack after another against the upload server, each against a
server of its own on 127.0.0.1 (a free port, a temporary upload directory, its log in a
temporary file), measures the server over the attack, and prints one table: what the server
answered, its peak resident memory, its CPU, the log it wrote, how a good upload made during
the attack fared, the target and the verdict.

    hostile_load.py SERVER_BINARY [--full] [--only ROWS] [--deadline SECS]

The short form (the default) scales the attacks down to about a minute and a few hundred MB;
--full runs them at full size (many GB of memory and disk, tens of minutes). The exit status
is non-zero when a functional target fails: a wrong status, something stored that must not
be, the server dying, memory or log over its bound, the deadline passing. Latency and CPU
targets fail only the full form. Rows whose flags the binary refuses are skipped (a failure
in the full form only)."""

import argparse
import asyncio
import base64
import contextlib
import ctypes
import dataclasses
import http.client
import os
import re
import resource
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import traceback
from collections import Counter

# Starting the server and reading its pages work as in the end-to-end tests.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import serverlib  # noqa: E402
from hostile_client import (BOUNDARY, CLOSING, GOOD_SOURCE, MIB, Answer,  # noqa: E402
                            Connection, exchange, finish, part_head, repeated, request_head,
                            small_body)
from serverlib import SUCCESS_PAGE, Server, StartError, page_message  # noqa: E402

# All of 127/8 is loopback on Linux: attackers look like 39 different clients.
ATTACK_SOURCES = ["127.0.0.%d" % last for last in range(2, 41)]
PER_CLIENT_CAP = 32
# Random, without "-", so no delimiter can appear in a body made of it.
BLOCK = os.urandom(MIB).replace(b"-", b"")
GOOD_CONTENT = BLOCK[:256 * 1024]
# An attack after which the server has logged this much ends early: the disk is not ours.
LOG_FLOOD_CAP = 128 * MIB
TICKS = os.sysconf("SC_CLK_TCK")
LIBC = ctypes.CDLL(None, use_errno=True)
PR_SET_PDEATHSIG = 1


@dataclasses.dataclass
class Form:
    """Sizes and counts of one form of the run."""
    name: str
    big_count: int          # concurrent large uploads
    big_mib: int
    big_budget_mib: int     # --max-memory for them
    name_mib: int           # length of the one huge file name
    flood_count: int        # attacking connections
    flood_nofile: int       # the server's descriptor limit under a flood
    flood_seconds: int
    files_requests: int     # concurrent requests of many tiny files
    files_parts: int
    max_files: int | None   # --max-files, None for the server's default
    one_body_parts: int
    burst_count: int
    burst_mib: int
    idle_bound_mib: int     # resident memory allowed once the burst is over
    password_seconds: int
    row_limit: int          # seconds one row may take
    deadline: int
    handshake_seconds: int = 5
    hog_sources: int = 4     # addresses keeping the service threads busy
    hog_connections: int = 8
    hog_parts: int = 100     # files in each of their requests
    hog_threads: int | None = 4  # --service-threads for them, None for the server's default


def default_budget_mib():
    """Half of the machine's memory, or of the control group's limit if that is lower."""
    with open("/proc/meminfo") as meminfo:
        total = int(meminfo.readline().split()[1]) * 1024
    for path in ("/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"):
        with contextlib.suppress(OSError, ValueError):
            with open(path) as limit:
                total = min(total, int(limit.read()))
    return total // 2 // MIB


SHORT = Form("short", 8, 64, 256, 64, 300, 256, 10, 4, 2000, 500, 20000, 16, 8, 128, 5, 60, 300)
# The budget is passed even where it equals the server's default: a server without one would
# take 32 GB for sixteen bodies of 1,000 MiB.
FULL = Form("full", 16, 1000, default_budget_mib(), 1000, 1100, 1024, 30, 16, 10000, None,
            100000, 64, 30, 256, 10, 900, 1800, handshake_seconds=30, hog_sources=8,
            hog_connections=32, hog_parts=1000, hog_threads=None)


class Skipped(Exception):
    """The binary refused a row's command line."""


# ---- measurements and results -------------------------------------------------------------

def proc_status_kib(pid, field):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise OSError("no %s for %d" % (field, pid))


def cpu_ticks(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])  # utime and stime, all threads


class Meter:
    """Peak RSS, CPU and log growth of one server process over one attack. The peak is VmHWM
    after clear_refs has reset it to the current RSS, so earlier attacks do not count."""

    def __init__(self, server):
        self.server = server
        self.pid = server.process.pid
        self.peak_mib = self.cpu_percent = self.log_bytes = None

    def start(self):
        with open("/proc/%d/clear_refs" % self.pid, "w") as clear:
            clear.write("5")
        self.log_start = self.server.log_size()
        self.ticks = cpu_ticks(self.pid)
        self.started = time.monotonic()

    def log_growth(self):
        return self.server.log_size() - self.log_start

    def rss_mib(self):
        return proc_status_kib(self.pid, "VmRSS") / 1024

    def stop(self):
        elapsed = time.monotonic() - self.started
        self.log_bytes = self.log_growth()
        with contextlib.suppress(OSError, IndexError):  # gone: no figures
            self.peak_mib = proc_status_kib(self.pid, "VmHWM") / 1024
            # Over a few clock ticks the share is noise.
            if elapsed >= 0.5:
                self.cpu_percent = 100.0 * (cpu_ticks(self.pid) - self.ticks) / TICKS / elapsed


@dataclasses.dataclass
class Good:
    """A good upload: what came back, how long it took, and whether it was stored whole."""
    label: str
    seconds: float
    ok: bool

    def __str__(self):
        return "%s %.2fs" % (self.label, self.seconds)


class Row:
    """One attack's line in the table. Functional failures always fail the run; timing misses
    (latency, CPU) only in the full form."""

    def __init__(self, key, title, target):
        self.key, self.title, self.target = key, title, target
        self.answers = Counter()
        self.meter = None
        self.good = None
        self.failures, self.misses, self.notes = [], [], []
        self.skipped = None
        self.log_tail = ""

    def record(self, answer):
        self.answers[answer.label] += 1
        return answer

    def check(self, ok, what, timing=False):
        if not ok:
            (self.misses if timing else self.failures).append(what)
        return ok

    def check_peak(self, bound_mib):
        peak = self.meter.peak_mib
        self.check(peak is not None and peak <= bound_mib, "peak RSS over %d MiB" % bound_mib)

    def check_good(self, good, within=1.0):
        self.check(good.ok, "good upload: %s" % good.label)
        self.check(not good.ok or good.seconds <= within,
                   "good upload took %.2f s (> %.1f)" % (good.seconds, within), timing=True)

    @contextlib.contextmanager
    def measure(self, server):
        self.meter = Meter(server)
        self.meter.start()
        try:
            yield self.meter
        finally:
            self.meter.stop()

    def fails(self, full):
        return bool(self.failures or (full and (self.misses or self.skipped)))

    def verdict(self, full):
        failures, misses = (self.failures + self.misses, []) if full else (self.failures,
                                                                           self.misses)
        parts = ["FAIL: " + "; ".join(failures)] if failures else []
        parts += ["missed (not asserted): " + "; ".join(misses)] if misses else []
        text = "skipped: " + self.skipped if self.skipped else " / ".join(parts) or "ok"
        return text + "".join(" [%s]" % note for note in self.notes)

    def cells(self, full):
        meter = self.meter
        answers = " ".join("%dx%s" % (count, label) for label, count in sorted(
            self.answers.items(), key=lambda item: (-item[1], item[0])))
        return [self.key + " " + self.title, answers or "-",
                "%.0f MiB" % meter.peak_mib if meter and meter.peak_mib is not None else "-",
                "%.1f%%" % meter.cpu_percent if meter and meter.cpu_percent is not None else "-",
                human_bytes(meter.log_bytes) if meter and meter.log_bytes is not None else "-",
                str(self.good) if self.good else "-", self.target, self.verdict(full)]


def human_bytes(count):
    for unit, size in (("MiB", MIB), ("KiB", 1024)):
        if count >= size:
            return "%.1f %s" % (count / size, unit)
    return "%d B" % count


def print_table(rows, full, out=sys.stdout):
    header = ["attack", "server's answers", "peak RSS", "CPU", "log", "good upload", "target",
              "verdict"]
    lines = [header] + [row.cells(full) for row in rows]
    widths = [max(len(line[column]) for line in lines) for column in range(len(header) - 1)]
    for index, line in enumerate(lines):
        print(" | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " | " +
              line[-1], file=out)
        if index == 0:
            print("-+-".join("-" * width for width in widths) + "-+-" + "-" * 7, file=out)
    out.flush()


# ---- uploads -------------------------------------------------------------------------------

async def good_upload(ctx, server, extra=(), timeout=10):
    """A 256 KiB upload from a fresh connection from 127.0.0.1, checked on disk and removed."""
    ctx.good_count += 1
    name = "good-%d.bin" % ctx.good_count
    body = small_body([(name.encode(), GOOD_CONTENT)])
    started = time.monotonic()
    answer = await exchange(server.port, request_head(server.port, len(body), extra=extra), body,
                            timeout=timeout)
    seconds = time.monotonic() - started
    path = os.path.join(server.directory, name)
    stored = os.path.exists(path) and os.path.getsize(path) == len(GOOD_CONTENT)
    with contextlib.suppress(OSError):
        os.remove(path)
    ok = answer.status == 200 and answer.body == SUCCESS_PAGE and stored
    label = answer.label if ok or answer.status != 200 else "200 but not stored"
    return Good(label, seconds, ok)


async def upload_large(server, name, size, source=GOOD_SOURCE, keep=False):
    """One file of size bytes, streamed; a stored file is checked for its size and, unless
    kept, removed at once to spare the disk. Sets answer.whole."""
    body = [part_head(name.encode()), *repeated(BLOCK, size), CLOSING]
    length = sum(len(piece) for piece in body)
    answer = await exchange(server.port, request_head(server.port, length), body, source, 600)
    path = os.path.join(server.directory, name)
    answer.whole = os.path.exists(path) and os.path.getsize(path) == size
    if not keep:
        with contextlib.suppress(OSError):
            os.remove(path)
    return answer


def stored_names(server):
    """What the attacks stored: neither the good uploads nor the server's own owner file."""
    return [entry.name for entry in os.scandir(server.directory)
            if not entry.name.startswith(("good-", serverlib.OWNER_PREFIX))]


def metrics_text(server, context=None):
    """The server's metrics page, asked from the good client's address; over TLS with a
    context."""
    if context is None:
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=10,
                                                source_address=(GOOD_SOURCE, 0))
    else:
        connection = http.client.HTTPSConnection("127.0.0.1", server.port, timeout=10,
                                                 source_address=(GOOD_SOURCE, 0), context=context)
    try:
        connection.request("GET", "/metrics")
        return connection.getresponse().read().decode()
    finally:
        connection.close()


def waiting_calls(server):
    """How many uploads wait for a service thread, as the metrics say."""
    found = re.search(r'^kestrin_service_calls\{state="waiting"\} (\S+)$', metrics_text(server),
                      re.MULTILINE)
    return int(float(found.group(1))) if found else 0


def refusal_reasons(server, context=None):
    """What the server's metrics count its refusals under: {reason: count}."""
    text = metrics_text(server, context)
    reasons = Counter()
    for match in re.finditer(r'^kestrin_refusals_total\{[^}]*reason="([a-z_]+)"[^}]*\} (\S+)$',
                             text, re.MULTILINE):
        reasons[match.group(1)] += int(float(match.group(2)))
    return dict(reasons)


async def still_serving(ctx, row, server, extra=()):
    """After the attack: the process is up and a good upload is stored."""
    if not row.check(server.process.poll() is None,
                     "server died (exit %s)" % server.process.poll()):
        return
    good = await good_upload(ctx, server, extra)
    row.check(good.ok, "after the attack, a good upload got %s" % good.label)


# ---- connection floods ---------------------------------------------------------------------

class Flood:
    """count attacking connections held open for seconds. Each binds to its source address,
    behaves as mode says ("idle", "slowloris": a head one byte a second, never finished,
    "slow-body": a whole head, then one body byte every 20 s) and, when the server answers or
    closes, records what it saw and reconnects: at most reopen_rate reconnects a second over
    all of them, and at most ten per attacker in all."""

    def __init__(self, port, mode, count, sources, seconds, reopen_rate=100):
        self.port, self.mode, self.count, self.sources = port, mode, count, sources
        self.seconds, self.reopen_rate = seconds, reopen_rate
        self.reopens_left = 10 * count
        self.next_reopen = 0.0
        self.answers = Counter()
        self.opened = {}  # attacker -> when its connection opened
        self.stopping = asyncio.Event()
        self.held = 0     # connections open for a second or more at the end
        self.note = None
        if mode == "slowloris":
            head = b"POST /users HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nX-Slow: " % port
            self.pieces, self.gap = [head[i:i + 1] for i in range(len(head))], 1.0
        elif mode == "slow-body":
            body = small_body([(b"slow.bin", b"s" * 100)])
            self.pieces = [request_head(port, 1000000) + body[:1]]
            self.pieces += [body[i:i + 1] for i in range(1, len(body))]
            self.gap = 20.0

    async def pause(self, seconds):
        """Sleeps, or returns True at once when the flood is over."""
        with contextlib.suppress(TimeoutError):
            await asyncio.wait_for(self.stopping.wait(), max(seconds, 0))
        return self.stopping.is_set()

    async def may_reopen(self):
        if self.reopens_left <= 0:
            return False
        self.reopens_left -= 1
        now = time.monotonic()
        slot = max(now, self.next_reopen)
        self.next_reopen = slot + 1.0 / self.reopen_rate
        return not await self.pause(slot - now)

    async def behave(self, connection):
        if self.mode == "idle":
            return
        for index in range(10 ** 6):
            await connection.send(self.pieces[index] if index < len(self.pieces) else b"s")
            if await self.pause(self.gap):
                return

    async def attacker(self, index):
        source = self.sources[index % len(self.sources)]
        while not self.stopping.is_set():
            try:
                connection = await Connection.open(self.port, source)
            except (OSError, TimeoutError):
                self.answers["no connection"] += 1
                if not await self.may_reopen():
                    return
                continue
            self.opened[index] = time.monotonic()
            behaviour = asyncio.create_task(self.behave(connection))
            answer = asyncio.create_task(connection.read_answer())
            stop = asyncio.create_task(self.stopping.wait())
            await asyncio.wait({answer, stop}, return_when=asyncio.FIRST_COMPLETED)
            if answer.done():
                self.answers[answer.result().label] += 1
            await finish(behaviour, answer, stop)
            del self.opened[index]
            connection.close()
            if self.stopping.is_set() or not await self.may_reopen():
                return

    async def run(self, ctx, server, meter, row, good_at):
        """Floods for self.seconds; a good upload starts good_at seconds in. Ends early when
        the server dies or floods its log."""
        attackers = [asyncio.create_task(self.attacker(i)) for i in range(self.count)]
        started = time.monotonic()
        end = started + self.seconds
        good = asyncio.create_task(self.late_good_upload(ctx, server, good_at, end))
        while time.monotonic() < end:
            await asyncio.sleep(0.25)
            if server.process.poll() is not None:
                self.note = "server died after %.1f s" % (time.monotonic() - started)
                break
            if meter.log_growth() > LOG_FLOOD_CAP:
                self.note = "stopped after %.1f s: log over %s" % (
                    time.monotonic() - started, human_bytes(LOG_FLOOD_CAP))
                break
        now = time.monotonic()
        self.held = sum(1 for opened in self.opened.values() if now - opened >= 1)
        if self.opened:
            self.answers["open"] += len(self.opened)
        if self.note and not good.done():
            good.cancel()
            row.good = Good("cut short", max(0.0, time.monotonic() - started - good_at), False)
        else:
            row.good = await good
        self.stopping.set()
        await asyncio.wait(attackers, timeout=10)
        for attacker in attackers:
            attacker.cancel()

    async def late_good_upload(self, ctx, server, delay, end):
        await asyncio.sleep(delay)
        return await good_upload(ctx, server, timeout=max(2.0, end - time.monotonic()))


async def flood_row(ctx, row, mode, sources, *flags):
    form = ctx.form
    server = ctx.start(*flags, nofile=form.flood_nofile)
    flood = Flood(server.port, mode, form.flood_count, sources, form.flood_seconds)
    with row.measure(server) as meter:
        # Two seconds in, every attacker has been connected for a second or more.
        await flood.run(ctx, server, meter, row, good_at=2.0)
    row.answers.update(flood.answers)
    if flood.note:
        row.notes.append(flood.note)
    row.check_good(row.good)
    log_bound = MIB * form.flood_seconds // 30
    row.check(meter.log_bytes <= log_bound, "log %s > %s" % (
        human_bytes(meter.log_bytes), human_bytes(log_bound)))
    if meter.cpu_percent is not None:
        row.check(meter.cpu_percent < 10, "CPU %.0f%% >= 10%%" % meter.cpu_percent, timing=True)
    if len(sources) == 1:
        row.check(flood.held <= PER_CLIENT_CAP, "%d connections of one client held open > %d"
                  % (flood.held, PER_CLIENT_CAP))
    # The server says at start how many connections it keeps; closing one for room must
    # close it, not just stop counting it. Unless the row sets a limit above the descriptors.
    limit = re.search(r"(\d+) connections \(", server.logged())
    if limit and not flags:
        row.check(flood.held <= int(limit.group(1)), "%d connections held open > the limit %s"
                  % (flood.held, limit.group(1)))
    await still_serving(ctx, row, server)


# ---- the attacks ---------------------------------------------------------------------------

def check_stored_or_refused_early(row, answers, refusal, name):
    """Each upload was stored whole or refused with the refusal status before its body was
    all sent, and at least one got in; name formats an upload's index."""
    for index, answer in enumerate(answers):
        if answer.status == 200:
            row.check(answer.whole, "%s not stored whole" % (name % index))
        elif answer.label == refusal:
            row.check(answer.early,
                      "%s: %s only after the whole body" % (name % index, refusal))
        else:
            row.check(False, "%s: %s" % (name % index, answer.label))
    row.check(any(answer.status == 200 for answer in answers), "no upload admitted")


async def big_uploads(ctx, row):
    form = ctx.form
    server = ctx.start("--max-memory", "%dM" % form.big_budget_mib)
    size = form.big_mib * MIB
    with row.measure(server):
        uploads = [asyncio.create_task(upload_large(server, "big-%d.bin" % i, size))
                   for i in range(form.big_count)]
        await asyncio.sleep(0.5)
        row.good = await good_upload(ctx, server, timeout=60)
        answers = [row.record(answer) for answer in await asyncio.gather(*uploads)]
    check_stored_or_refused_early(row, answers, "503", "big-%d.bin")
    row.check_peak(form.big_budget_mib + 64)
    await still_serving(ctx, row, server)


async def hog(server, source, size, seconds, rate=2048, extra=()):
    """Announces an upload of size bytes and sends rate bytes of it a second (by default 2 KiB,
    above the minimum rate): it holds its share of the memory budget until the server takes
    it back. Returns the answer it got, or "open". extra: more head lines."""
    try:
        connection = await Connection.open(server.port, source)
    except (OSError, TimeoutError):
        return Answer(what="no connection")

    async def send():
        await connection.send(request_head(server.port, size, extra=extra) +
                              part_head(b"hog.bin"))
        for _ in range(seconds):
            await connection.send(BLOCK[:rate])
            await asyncio.sleep(1)

    sender = asyncio.create_task(send())
    try:
        return await asyncio.wait_for(connection.read_answer(), seconds)
    except TimeoutError:
        return Answer(what="open")
    finally:
        await finish(sender)
        connection.close()


async def memory_hogs(ctx, row):
    form = ctx.form
    size = min(form.big_budget_mib // 5, 512) * MIB
    count = form.big_budget_mib * MIB // (2 * size) + 1
    server = ctx.start("--max-memory", "%dM" % form.big_budget_mib)
    with row.measure(server):
        hogs = [asyncio.create_task(hog(server, ATTACK_SOURCES[i % len(ATTACK_SOURCES)], size, 60))
                for i in range(count)]
        # Past their grace, the hogs hold the budget; an upload that needs memory gets 503
        # and makes the slowest of them yield, so its retry fits.
        await asyncio.sleep(2)
        started = time.monotonic()
        tries = []
        for _ in range(4):
            answer = await upload_large(server, "wanted.bin", size)
            tries.append(answer.label)
            if answer.label != "503":
                break
            await asyncio.sleep(1)
        took = time.monotonic() - started
        row.good = await good_upload(ctx, server)
        await finish(*hogs)
    for task in hogs:
        if not task.cancelled() and task.exception() is None:
            row.record(task.result())
    row.notes.append("wanted upload: %s in %.1f s" % (" then ".join(tries), took))
    row.check(tries[-1] == "200" and answer.whole, "the wanted upload never got in: %s" % tries)
    row.check_peak(form.big_budget_mib + 64)
    await still_serving(ctx, row, server)


async def memory_share(ctx, row):
    """One address announces bodies that would take the whole budget, and sends them at a pace
    that would finish them within minutes, so no eviction takes them back: only what its
    share holds is let in, and another client's upload gets in at once."""
    budget_mib, size = 96, 8 * MIB
    server = ctx.start("--max-memory", "%dM" % budget_mib, "--max-memory-per-client", "40M")
    count = budget_mib * MIB // (2 * size)
    # 40 MiB holds two bodies of 8 MiB and their copies, not three.
    await hogs_against_a_share(ctx, row, server, size, [()] * count, 8, 2,
                               "client's memory share")


async def site_memory(ctx, row):
    """Ten /64s of one IPv6 /48, named by a trusted proxy, each announce a body that their own
    share holds, at a pace that keeps them from being closed: with four shares a site, together
    they hold no more than four, and a client of no such site gets in at once."""
    size = 4 * MIB
    server = ctx.start("--max-memory", "96M", "--max-memory-per-client", "10M",
                       "--trusted-proxy", "127.0.0.0/8", "--ipv6-site-shares", "4")
    heads = [(b"X-Forwarded-For: 2001:db8:1:%x::7" % (index + 1),) for index in range(10)]
    # 10 MiB holds one body of 4 MiB and its copy; four of those fit in the site's 40 MiB.
    await hogs_against_a_share(ctx, row, server, size, heads, 6, 4,
                               "memory share of the /64s of 2001:db8:1::/48")


async def hogs_against_a_share(ctx, row, server, size, heads, seconds, let_in, logged):
    """One hog of size bytes for each of heads (its extra head lines), from one address, for
    seconds: all but let_in are refused with 503 under the memory share, the log says logged,
    and another client's upload of the same size gets in meanwhile."""
    with row.measure(server):
        hogs = [asyncio.create_task(hog(server, ATTACK_SOURCES[0], size, seconds,
                                        rate=64 * 1024, extra=extra))
                for extra in heads]
        await asyncio.sleep(2)
        wanted = await upload_large(server, "wanted.bin", size)
        row.good = await good_upload(ctx, server)
        await finish(*hogs)
    held = [task.result() for task in hogs if not task.cancelled() and task.exception() is None]
    for answer in held:
        row.record(answer)
    row.notes.append("another client's %d MiB upload: %s" % (size // MIB, wanted.label))
    row.check(wanted.label == "200" and wanted.whole,
              "another client's upload got %s" % wanted.label)
    refused = sum(answer.label == "503" for answer in held)
    expected = len(heads) - let_in
    row.check(refused == expected, "%d of %d refused, not %d" % (refused, len(heads), expected))
    row.check(logged in server.logged(), "no log line says %r" % logged)
    reasons = refusal_reasons(server)
    row.check(reasons == {"memory_share": refused}, "the metrics counted %s" % reasons)
    row.check_good(row.good)
    await still_serving(ctx, row, server)


async def long_name(ctx, row):
    server = ctx.start()
    name_length = ctx.form.name_mib * MIB
    body = [b"--" + BOUNDARY + b'\r\nContent-Disposition: form-data; name="file"; filename="',
            *repeated(b"n" * MIB, name_length),
            b'"\r\nContent-Type: application/octet-stream\r\n\r\nx', CLOSING]
    length = sum(len(piece) for piece in body)
    with row.measure(server):
        answer = row.record(await exchange(server.port, request_head(server.port, length), body,
                                           timeout=300))
        row.good = await good_upload(ctx, server)
    row.check(answer.status is not None and 400 <= answer.status < 500,
              "answered %s, not 4xx" % answer.label)
    row.check_peak(3 * length // MIB + 64)
    row.check(stored_names(server) == [], "stored %s" % stored_names(server)[:3])
    await still_serving(ctx, row, server)


async def chunked_growth(ctx, row):
    budget = 64
    server = ctx.start("--max-memory", "%dM" % budget)
    chunk = b"%x\r\n" % len(BLOCK) + BLOCK + b"\r\n"
    first = part_head(b"chunked.bin")
    body = [b"%x\r\n" % len(first) + first + b"\r\n"]
    body += [chunk] * (4 * budget) + [b"%x\r\n" % len(CLOSING) + CLOSING + b"\r\n0\r\n\r\n"]
    with row.measure(server):
        answer = row.record(await exchange(
            server.port, request_head(server.port, chunked=True), body, timeout=120))
        row.good = await good_upload(ctx, server)
    row.check(answer.status == 413, "answered %s, not 413" % answer.label)
    row.check(answer.status != 413 or answer.early, "413 only after the whole body")
    row.check_peak(budget + 64)
    await still_serving(ctx, row, server)


async def disk_fill(ctx, row):
    """Uploads at once that would together fill the upload directory's filesystem (one of
    256 MiB, mounted for the row) past the 64 MiB kept free, then one just over the room they
    left; once their files are gone, uploads go in again."""
    keep, each = 64 * MIB, 32 * MIB
    server = ctx.start("--min-free", str(keep), filesystem_mib=256)

    def free():
        space = os.statvfs(server.directory)
        return space.f_bavail * space.f_frsize

    with row.measure(server):
        uploads = [asyncio.create_task(upload_large(server, "fill-%d.bin" % i, each, keep=True))
                   for i in range(16)]
        row.good = await good_upload(ctx, server)
        answers = [row.record(answer) for answer in await asyncio.gather(*uploads)]
        over = row.record(await upload_large(server, "over.bin", free() - keep + MIB))
    row.notes.append("%d stored, %d MiB free" % (len(stored_names(server)), free() // MIB))
    row.check(free() >= keep, "only %d MiB left free" % (free() // MIB))
    check_stored_or_refused_early(row, answers, "507", "fill-%d.bin")
    row.check(over.label == "507" and over.early, "over.bin: %s%s" % (
        over.label, "" if over.early else " after the whole body"))
    for name in stored_names(server):
        os.remove(os.path.join(server.directory, name))
    await still_serving(ctx, row, server)


async def many_files(ctx, row, requests, parts):
    form = ctx.form
    flags = ("--max-files", str(form.max_files)) if form.max_files else ()
    limit = form.max_files or 1000
    server = ctx.start(*flags)
    baseline = await good_upload(ctx, server)
    bodies = [small_body([(b"r%d-%06d.txt" % (i, j), b"x") for j in range(parts)])
              for i in range(requests)]
    started = time.monotonic()
    with row.measure(server):
        heavy = [asyncio.create_task(exchange(server.port, request_head(server.port, len(body)),
                                              body, timeout=ctx.form.row_limit))
                 for body in bodies]
        del bodies
        if requests > 1:
            await asyncio.sleep(0.3)
            row.good = await good_upload(ctx, server, timeout=60)
        answers = [row.record(answer) for answer in await asyncio.gather(*heavy)]
        if requests == 1:
            row.good = await good_upload(ctx, server)
    row.notes.append("took %.1f s" % (time.monotonic() - started))
    stored = Counter(name.split("-")[0] for name in stored_names(server))
    for index, answer in enumerate(answers):
        row.check(answer.status == 400 and "files" in (page_message(answer.body) or "").lower(),
                  "request %d: %s %r" % (index, answer.label, answer.message()[:60]))
        row.check(stored["r%d" % index] <= limit,
                  "request %d stored %d files > %d" % (index, stored["r%d" % index], limit))
    if requests > 1:
        row.check_good(row.good, within=baseline.seconds + 1.0)
    await still_serving(ctx, row, server)


async def cross_site(ctx, row):
    server = ctx.start()
    port = server.port
    victim = os.path.join(server.directory, "victim.txt")
    with open(victim, "wb") as file:
        file.write(b"original")
    evil, cross = b"Origin: http://evil.example", b"Sec-Fetch-Site: cross-site"
    cases = [("evil origin + cross-site", [evil, cross]), ("evil origin", [evil]),
             ("origin null", [b"Origin: null"]), ("cross-site", [cross])]

    async def post(target_server, names, extra):
        body = small_body([(name, b"evil") for name in names])
        return row.record(await exchange(target_server.port, request_head(
            target_server.port, len(body), extra=extra), body))

    with row.measure(server):
        for index, (label, extra) in enumerate(cases):
            answer = await post(server, [b"victim.txt", b"cross-%d.txt" % index], extra)
            row.check(answer.status == 403, "%s: %s, not 403" % (label, answer.label))
        with open(victim, "rb") as file:
            row.check(file.read() == b"original", "victim.txt overwritten")
        same = await post(server, [b"same-origin.txt"], [b"Origin: http://127.0.0.1:%d" % port])
        row.good = await good_upload(ctx, server)
    row.check(same.status == 200 and "same-origin.txt" in stored_names(server),
              "same-origin POST: %s" % same.label)
    crossed = [name for name in stored_names(server) if name.startswith("cross-")]
    row.check(not crossed, "stored %s" % crossed)
    reasons = refusal_reasons(server)
    row.check(reasons == {"cross_site": len(cases)}, "the metrics counted %s" % reasons)
    try:
        allowing = ctx.start("--allow-origin", "http://evil.example")
    except Skipped as refused:
        row.notes.append("allow-origin variant skipped: %s" % refused)
    else:
        allowed = await post(allowing, [b"allowed.txt"], [evil, cross])
        row.check(allowed.status == 200 and "allowed.txt" in stored_names(allowing),
                  "allowed origin: %s" % allowed.label)
    await still_serving(ctx, row, server)


async def smuggling(ctx, row):
    server = ctx.start()
    port = server.port
    inner_body = small_body([(b"smuggled.txt", b"smuggled")])
    inner = request_head(port, len(inner_body)) + inner_body
    with row.measure(server):
        for coding in (b"gzip", b"identity", b"chunked, identity", b"gzip, chunked"):
            head = request_head(port, extra=[b"Transfer-Encoding: " + coding], keep_alive=True)
            answer = row.record(await exchange(port, head, inner, timeout=10, linger=2))
            row.check(answer.status == 501 and answer.after == "closed",
                      "TE %s: %s, then %s" % (coding.decode(), answer.label, answer.after))
        bad = await exchange(port, request_head(port, chunked=True, keep_alive=True),
                             b"zz\r\nhello\r\n0\r\n\r\n", timeout=10, linger=2)
        row.record(bad)
        row.check(bad.status is not None and 400 <= bad.status < 500 and bad.after == "closed",
                  "bad chunk size: %s, then %s" % (bad.label, bad.after))
        row.good = await good_upload(ctx, server)
    row.check(stored_names(server) == [], "stored %s" % stored_names(server))
    await still_serving(ctx, row, server)


async def control_characters(ctx, row):
    server = ctx.start()
    names = [b"esc\x1b[31mred.txt", b"one\x01.txt", b"del\x7f.txt"]
    with row.measure(server):
        for name in names:
            body = small_body([(name, b"control")])
            answer = row.record(await exchange(server.port, request_head(server.port, len(body)),
                                               body))
            row.check(answer.status == 400 and page_message(answer.body) is not None,
                      "%r: %s" % (name, answer.label))
        row.good = await good_upload(ctx, server)
    row.check(stored_names(server) == [], "stored %r" % stored_names(server))
    await still_serving(ctx, row, server)


async def burst_then_idle(ctx, row):
    form = ctx.form
    server = ctx.start("--keep-body-memory", "0")
    with row.measure(server) as meter:
        # From many addresses, so that no client's connection limit cuts the burst short.
        uploads = [asyncio.create_task(upload_large(server, "burst-%d.bin" % i,
                                                    form.burst_mib * MIB,
                                                    ATTACK_SOURCES[i % len(ATTACK_SOURCES)]))
                   for i in range(form.burst_count)]
        answers = [row.record(answer) for answer in await asyncio.gather(*uploads)]
        row.good = await good_upload(ctx, server)
        await asyncio.sleep(3)
        idle = meter.rss_mib()
    row.notes.append("idle RSS %.0f MiB" % idle)
    for index, answer in enumerate(answers):
        row.check(answer.label in ("200", "503") and (answer.status != 200 or answer.whole),
                  "burst-%d.bin: %s" % (index, answer.label))
    row.check(idle <= form.idle_bound_mib, "idle RSS %.0f MiB > %d" % (idle, form.idle_bound_mib))
    await still_serving(ctx, row, server)


async def sigterm_while_trickling(ctx, row):
    grace = 3
    server = ctx.start("--shutdown-timeout", str(grace))
    flood = Flood(server.port, "slow-body", 1, [GOOD_SOURCE], 0)
    flood.reopens_left = 0
    with row.measure(server):
        trickle = asyncio.create_task(flood.attacker(0))
        await asyncio.sleep(1)
        row.good = await good_upload(ctx, server)
    server.process.send_signal(signal.SIGTERM)
    started = time.monotonic()
    while server.process.poll() is None and time.monotonic() - started < grace + 2.5:
        await asyncio.sleep(0.05)
    took, code = time.monotonic() - started, server.process.poll()
    if flood.opened:
        flood.answers["open"] += len(flood.opened)
    flood.stopping.set()
    await asyncio.wait([trickle], timeout=5)
    row.answers.update(flood.answers)
    row.notes.append("exit %s after %.1f s" % (code, took) if code is not None else
                     "still running %.1f s after SIGTERM" % took)
    row.check(code == 0 and took <= grace + 2, "not exit 0 within %d s" % (grace + 2))


async def sigterm_with_calls_waiting(ctx, row):
    """SIGTERM while uploads of many tiny files wait for the one service thread: once the
    shutdown timeout has passed, those still waiting are dropped rather than run for clients
    whose connections are closed, so the stop takes the timeout and the one call under way, not
    the whole queue. No request is left half stored, and none that was answered 200 lost a
    file."""
    grace, requests, parts = 1, 16, 1000
    server = ctx.start("--service-threads", "1", "--shutdown-timeout", str(grace))

    def body_of(index):
        return small_body([(b"q%d-%04d.txt" % (index, part), b"x") for part in range(parts)])

    # One call alone, to know what the queue would take to run out.
    started = time.monotonic()
    first = body_of(0)
    alone = await exchange(server.port, request_head(server.port, len(first)), first,
                           timeout=ctx.form.row_limit)
    one_call = time.monotonic() - started
    row.check(alone.status == 200, "a request alone got %s" % alone.label)

    with row.measure(server):
        uploads = [asyncio.create_task(exchange(
            server.port, request_head(server.port, len(body_of(index))), body_of(index),
            ATTACK_SOURCES[index % 4], ctx.form.row_limit)) for index in range(1, requests + 1)]
        waited = 0
        deadline = time.monotonic() + 10
        while waited < requests // 2 and time.monotonic() < deadline:
            await asyncio.sleep(0.05)
            waited = await asyncio.to_thread(waiting_calls, server)
        server.process.send_signal(signal.SIGTERM)
        signalled = time.monotonic()
        bound = grace + one_call + 2
        while server.process.poll() is None and time.monotonic() - signalled < bound + 30:
            await asyncio.sleep(0.05)
        took, code = time.monotonic() - signalled, server.process.poll()
        answers = await asyncio.gather(*uploads)
    for answer in answers:
        row.record(answer)
    row.notes.append("%d calls waiting at SIGTERM, one call alone %.2f s; exit %s after %.1f s"
                     % (waited, one_call, code, took))
    row.check(code == 0, "exit %s" % code)
    # Only where the queue outlasts the timeout is there anything to drop.
    if waited * one_call > 2 * grace:
        row.check(took <= bound, "stopped after %.1f s, over %.1f" % (took, bound))
        dropped = re.search(r"dropping (\d+) uploads that waited for a service thread",
                            server.logged())
        row.check(dropped is not None, "no log line counts the uploads dropped")
    stored = Counter(name.split("-")[0] for name in stored_names(server))
    for index, answer in enumerate(answers, start=1):
        files = stored["q%d" % index]
        row.check(files in (0, parts), "request %d left %d of its files" % (index, files))
        row.check(answer.status in (200, None), "request %d got %s" % (index, answer.label))
        row.check(answer.status != 200 or files == parts,
                  "request %d got 200 with %d files" % (index, files))


async def password_flood(ctx, row):
    hashed = subprocess.run([serverlib.SERVER, "--hash-password"], input=b"right-password\n",
                            capture_output=True, timeout=30)
    if hashed.returncode != 0 or not hashed.stdout.strip():
        raise Skipped("--hash-password: " + first_line(hashed.stderr.decode(errors="replace")))
    users = os.path.join(ctx.root, "users")
    with open(users, "w") as file:
        file.write("tester:%s\n" % hashed.stdout.decode().split()[-1])
    server = ctx.start("--auth-file", users)
    right = b"Authorization: Basic " + base64.b64encode(b"tester:right-password")
    body = small_body([(b"flood.txt", b"flood")])
    end = time.monotonic() + ctx.form.password_seconds

    async def guesser(source, client):
        for attempt in range(20000):
            if time.monotonic() > end:
                return
            wrong = base64.b64encode(b"tester:wrong-%d-%d" % (client, attempt))
            row.record(await exchange(server.port, request_head(
                server.port, len(body), extra=[b"Authorization: Basic " + wrong]), body, source,
                timeout=10))

    with row.measure(server) as meter:
        guessers = [asyncio.create_task(guesser(ATTACK_SOURCES[i], i)) for i in range(2)]
        await asyncio.sleep(1)
        row.good = await good_upload(ctx, server, extra=[right])
        await asyncio.gather(*guessers)
    bare = await exchange(server.port, request_head(server.port, len(body)), body)
    row.check(bare.label == "401", "no credentials: %s" % bare.label)
    wrong = set(row.answers) - {"401", "503"}
    row.check(not wrong, "wrong passwords got %s" % sorted(wrong))
    row.check_good(row.good)
    if meter.cpu_percent is not None:
        row.check(meter.cpu_percent < 30, "CPU %.0f%% >= 30%%" % meter.cpu_percent, timing=True)
    await still_serving(ctx, row, server, [right])


# The server's default handshake rate for one client address, four seconds' worth at once.
HANDSHAKES_PER_CLIENT = 32


def tls_certificate(ctx):
    """A self-signed P-256 certificate for 127.0.0.1 in the run's root: (its file, its key's
    file). Skipped without the openssl command."""
    cert, key = os.path.join(ctx.root, "tls.pem"), os.path.join(ctx.root, "tls.key")
    try:
        made = subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                               "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out",
                               cert, "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                               "subjectAltName=IP:127.0.0.1"], capture_output=True, timeout=60)
    except FileNotFoundError:
        raise Skipped("no openssl command") from None
    if made.returncode != 0:
        raise Skipped("openssl: " + first_line(made.stderr.decode(errors="replace")))
    return cert, key


def tls_upload(server, context):
    """good_upload over HTTPS, from a thread."""
    name = "good-tls.bin"
    body = small_body([(name.encode(), GOOD_CONTENT)])
    started = time.monotonic()
    connection = http.client.HTTPSConnection("127.0.0.1", server.port, timeout=10,
                                             context=context, source_address=(GOOD_SOURCE, 0))
    try:
        connection.request("POST", "/users", body, {
            "Content-Type": "multipart/form-data; boundary=" + BOUNDARY.decode()})
        response = connection.getresponse()
        label, page = str(response.status), response.read()
    except (OSError, http.client.HTTPException) as error:
        label, page = type(error).__name__, b""
    finally:
        connection.close()
    seconds = time.monotonic() - started
    path = os.path.join(server.directory, name)
    stored = os.path.exists(path) and os.path.getsize(path) == len(GOOD_CONTENT)
    with contextlib.suppress(OSError):
        os.remove(path)
    ok = label == "200" and page == SUCCESS_PAGE and stored
    return Good(label if ok or label != "200" else "200 but not stored", seconds, ok)


async def handshake_flood(ctx, row):
    """Clients at two addresses reconnect over TLS as fast as they can, each connection a
    handshake the server must sign and nothing more."""
    cert, key = tls_certificate(ctx)
    server = ctx.start("--tls-cert", cert, "--tls-key", key)
    context = ssl.create_default_context(cafile=cert)
    sources = ATTACK_SOURCES[:2]
    end = time.monotonic() + ctx.form.handshake_seconds

    def handshaker(source):
        done = refused = 0
        for _ in range(200000):
            if time.monotonic() > end:
                break
            try:
                with socket.create_connection(("127.0.0.1", server.port), timeout=5,
                                              source_address=(source, 0)) as raw:
                    with context.wrap_socket(raw, server_hostname="127.0.0.1"):
                        done += 1
            except (ssl.SSLError, OSError):
                refused += 1
        return source, done, refused

    with row.measure(server) as meter:
        started = time.monotonic()
        attackers = [asyncio.create_task(asyncio.to_thread(handshaker, source))
                     for source in sources for _ in range(2)]
        await asyncio.sleep(1)
        row.good = await asyncio.to_thread(tls_upload, server, context)
        results = await asyncio.gather(*attackers)
        seconds = time.monotonic() - started
    done, refused = Counter(), Counter()
    for source, completed, closed in results:
        done[source] += completed
        refused[source] += closed
    row.answers.update({"handshake": sum(done.values()), "closed": sum(refused.values())})
    # Four seconds' worth at once, then the rate, and a second of it to spare for the clocks.
    allowed = HANDSHAKES_PER_CLIENT * (4 + seconds + 1)
    for source in sources:
        row.check(done[source] <= allowed, "%s completed %d handshakes in %.1f s (> %d)"
                  % (source, done[source], seconds, allowed))
    row.check(sum(refused.values()) > 0, "no handshake refused: the flood never outran the rate")
    with contextlib.suppress(AssertionError):  # the count is written once a second
        serverlib.wait_for(lambda: "TLS handshakes refused" in server.logged(), 5, "the count")
    row.check("TLS handshakes refused: over their rate" in server.logged(),
              "no log line for the refused handshakes")
    # Each refusal is counted under its reason; a client may also have failed for its own.
    reasons = refusal_reasons(server, context)
    counted = reasons.get("tls_handshakes", 0)
    row.check(set(reasons) == {"tls_handshakes"} and 0 < counted <= sum(refused.values()),
              "the metrics counted %s for %d closed" % (reasons, sum(refused.values())))
    row.check_good(row.good)
    if meter.cpu_percent is not None:
        row.check(meter.cpu_percent < 30, "CPU %.0f%% >= 30%%" % meter.cpu_percent, timing=True)
    good = await asyncio.to_thread(tls_upload, server, context)
    row.check(good.ok, "after the attack, a good upload got %s" % good.label)


async def upload_quota(ctx, row):
    """One address uploads as fast as it can over four connections: what it stores stops at its
    quota for the hour, each upload past it is refused before its body comes, and another
    client's upload is stored at once."""
    quota, size = 4 * MIB, 256 * 1024
    server = ctx.start("--max-upload-per-client", "4M")
    end = time.monotonic() + 3

    async def flood(worker):
        answers = []
        for index in range(200):
            if time.monotonic() > end:
                break
            body = small_body([(b"quota-%d-%d.bin" % (worker, index), b"q" * size)])
            answers.append(await exchange(server.port, request_head(server.port, len(body)),
                                          body, ATTACK_SOURCES[0]))
        return answers

    with row.measure(server):
        floods = [asyncio.create_task(flood(worker)) for worker in range(4)]
        await asyncio.sleep(1)
        row.good = await good_upload(ctx, server)
        answers = [answer for answers in await asyncio.gather(*floods) for answer in answers]
    for answer in answers:
        row.record(answer)
    stored = sum(os.path.getsize(os.path.join(server.directory, name))
                 for name in stored_names(server))
    row.notes.append("the attacker stored %d KiB of a %d KiB quota" % (stored >> 10, quota >> 10))
    row.check(stored <= quota, "the attacker stored %d bytes, over %d" % (stored, quota))
    refused = sum(answer.status == 503 for answer in answers)
    row.check(refused > 0, "nothing refused: the flood never reached the quota")
    row.check(all(answer.status in (200, 503) for answer in answers),
              "answers other than 200 and 503: %s" % sorted({a.label for a in answers}))
    row.check("client's upload quota" in server.logged(), "no log line names the quota")
    reasons = refusal_reasons(server)
    row.check(reasons == {"upload_quota": refused}, "the metrics counted %s" % reasons)
    row.check_good(row.good)
    await still_serving(ctx, row, server)


async def address_spray(ctx, row):
    """Addresses are cheap: more of them than the quota's table remembers each upload once. The
    ones past the table share one quota, the debts of the remembered ones stand, and a client
    known before the spray keeps its own quota."""
    quota, size, table, past = 4096, 3000, 4096, 120
    server = ctx.start("--max-upload-per-client", "4K")
    sources = ["127.1.%d.%d" % (index // 250, index % 250 + 1) for index in range(table + past)]
    known = await exchange(server.port, *upload_of(server, b"known-1.bin", 1000))
    row.check(known.status == 200, "the known client's first upload got %s" % known.label)
    end = time.monotonic() + 90
    pending = iter(enumerate(sources))
    answers = [None] * len(sources)

    async def spray():
        for index, source in pending:
            if time.monotonic() > end:
                return
            answers[index] = await exchange(
                server.port, *upload_of(server, b"spray-%d.bin" % index, size), source)

    with row.measure(server):
        await asyncio.gather(*(spray() for _ in range(32)))
    sent = [answer for answer in answers if answer is not None]
    row.check(len(sent) == len(sources), "the spray ran out of time after %d" % len(sent))
    for answer in sent:
        row.record(answer)
    # What every address owes is far from paid back within the row: the first ones stay refused.
    again = [await exchange(server.port, *upload_of(server, b"again-%d.bin" % index, size), source)
             for index, source in enumerate(sources[:4])]
    for answer in again:
        row.record(answer)
    stored = sum(answer.status == 200 for answer in sent)
    row.notes.append("%d addresses stored %d uploads; the first four again: %s"
                     % (len(sent), stored, " ".join(answer.label for answer in again)))
    row.check(stored <= table + 1, "%d uploads stored, over %d" % (stored, table + 1))
    row.check(all(answer.label == "503" for answer in again),
              "an address seen before uploaded again: its debt was forgotten")
    row.check(all(answer.status in (200, 503) for answer in sent),
              "answers other than 200 and 503: %s" % sorted({a.label for a in sent}))
    row.check("the full table" in server.logged(), "no log line names the shared quota")
    refused = sum(answer.status == 503 for answer in sent + again)
    reasons = refusal_reasons(server)
    row.check(reasons == {"upload_quota": refused}, "the metrics counted %s" % reasons)
    known = await exchange(server.port, *upload_of(server, b"known-2.bin", 1000))
    row.check(known.status == 200, "the known client's second upload got %s" % known.label)
    row.check(server.process.poll() is None, "server died (exit %s)" % server.process.poll())


async def site_spray(ctx, row):
    """A client given an IPv6 /48 uploads once from each of 300 of its /64s, named by a trusted
    proxy, against a server whose sites hold two quotas: together they store what two clients
    may, while a /64 of another site and an IPv4 client behind the same proxy keep their own."""
    quota, size, sites, count = 4096, 3000, 2, 300
    server = ctx.start("--max-upload-per-client", "4K", "--trusted-proxy", "127.0.0.0/8",
                       "--ipv6-site-shares", str(sites))

    def upload_from(name, client):
        head, body = upload_of(server, name, size, (b"X-Forwarded-For: " + client,))
        return exchange(server.port, head, body)

    pending = iter(range(count))
    answers = []

    async def spray():
        for index in pending:
            answers.append(await upload_from(b"site-%d.bin" % index,
                                             b"2001:db8:1:%x::7" % (index + 1)))

    with row.measure(server):
        await asyncio.gather(*(spray() for _ in range(8)))
    for answer in answers:
        row.record(answer)
    stored = sum(answer.status == 200 for answer in answers)
    most = sites * quota // size
    row.notes.append("%d /64s of one /48 stored %d uploads of %d bytes" % (count, stored, size))
    row.check(stored <= most, "%d uploads stored, over the site's %d" % (stored, most))
    row.check(all(answer.status in (200, 503) for answer in answers),
              "answers other than 200 and 503: %s" % sorted({a.label for a in answers}))
    row.check("the /64s of 2001:db8:1::/48" in server.logged(),
              "no log line names the site's shared quota")
    refused = sum(answer.status == 503 for answer in answers)
    reasons = refusal_reasons(server)
    row.check(reasons == {"upload_quota": refused}, "the metrics counted %s" % reasons)
    for name, client in ((b"other-site.bin", b"2001:db8:2:1::7"), (b"ipv4.bin", b"192.0.2.7")):
        other = await upload_from(name, client)
        row.check(other.status == 200, "%s got %s" % (client.decode(), other.label))
    row.check(server.process.poll() is None, "server died (exit %s)" % server.process.poll())


async def service_hogs(ctx, row):
    """A few addresses keep a request of many tiny files going on each of their connections,
    more than the server's service threads can run at once, so that calls wait for a thread.
    Another client's upload, sent while they wait, gets the next thread that frees: most of
    the requests already under way are answered after it. Taken in the order they came, none
    would be."""
    form = ctx.form
    sources, connections, parts = (ATTACK_SOURCES[:form.hog_sources], form.hog_connections,
                                   form.hog_parts)
    server = ctx.start(*(("--service-threads", str(form.hog_threads)) if form.hog_threads
                         else ()))
    finished = []  # (sent, answered, answer) of every attacking request
    stopping = asyncio.Event()

    async def hog(source, index):
        for turn in range(10000):
            if stopping.is_set():
                break
            body = small_body([(b"hog-%s-%d-%d-%d.txt" % (source.encode(), index, turn, part),
                                b"x") for part in range(parts)])
            sent = time.monotonic()
            answer = await exchange(server.port, request_head(server.port, len(body)), body,
                                    source, ctx.form.row_limit)
            finished.append((sent, time.monotonic(), answer))

    with row.measure(server):
        hogs = [asyncio.create_task(hog(source, index))
                for source in sources for index in range(connections)]
        waited = 0
        deadline = time.monotonic() + 20
        while waited < len(hogs) // 2 and time.monotonic() < deadline:
            await asyncio.sleep(0.1)
            waited = await asyncio.to_thread(waiting_calls, server)
        good_sent = time.monotonic()
        row.good = await good_upload(ctx, server, timeout=ctx.form.row_limit)
        good_answered = time.monotonic()
        stopping.set()
        await asyncio.gather(*hogs)
    for _, _, answer in finished:
        row.record(answer)
    ahead = [answered for sent, answered, _ in finished if sent < good_sent < answered]
    overtaken = sum(answered > good_answered for answered in ahead)
    row.notes.append("%d calls waiting; of %d requests under way, %d answered after the good "
                     "upload" % (waited, len(ahead), overtaken))
    row.check(waited >= len(hogs) // 2, "only %d calls waited for a thread" % waited)
    row.check(row.good.ok, "good upload: %s" % row.good.label)
    row.check(2 * overtaken >= len(ahead), "the good upload waited behind %d of the %d requests "
              "under way" % (len(ahead) - overtaken, len(ahead)))
    row.check(all(answer.status == 200 for _, _, answer in finished),
              "answers other than 200: %s" % sorted({a.label for _, _, a in finished}))
    await still_serving(ctx, row, server)


async def file_quota(ctx, row):
    """One address stores requests of 100 tiny files, one after another, against a quota of
    500 files an hour: five are stored whole; the rest get 503 with Retry-After once their
    bodies are in, and store nothing; another address still stores its own."""
    quota, parts, requests = 500, 100, 8
    server = ctx.start("--max-files-per-client", str(quota))

    def request(prefix):
        body = small_body([(b"%s-%03d.txt" % (prefix, part), b"x") for part in range(parts)])
        return request_head(server.port, len(body)), body

    answers = []
    with row.measure(server):
        for index in range(requests):
            head, body = request(b"f%d" % index)
            answers.append(row.record(await exchange(server.port, head, body,
                                                     ATTACK_SOURCES[0])))
        head, body = request(b"other")
        other = await exchange(server.port, head, body, ATTACK_SOURCES[1])
    stored = Counter(name.split("-")[0] for name in stored_names(server))
    allowed = quota // parts
    for index, answer in enumerate(answers):
        want = 200 if index < allowed else 503
        row.check(answer.status == want, "request %d got %s, not %d" % (index, answer.label,
                                                                        want))
        row.check(stored["f%d" % index] == (parts if want == 200 else 0),
                  "request %d stored %d files" % (index, stored["f%d" % index]))
        if want == 503:
            row.check("retry-after" in answer.headers,
                      "request %d: 503 without Retry-After" % index)
    row.check(other.status == 200 and stored["other"] == parts,
              "another address got %s and stored %d files" % (other.label, stored["other"]))
    row.check("client's file quota" in server.logged(), "no log line names the file quota")
    reasons = refusal_reasons(server)
    row.check(reasons == {"file_quota": requests - allowed}, "the metrics counted %s" % reasons)


def upload_of(server, name, size, extra=()):
    """(head, body) of one upload of a file of size bytes."""
    body = small_body([(name, b"s" * size)])
    return request_head(server.port, len(body), extra=extra), body


async def page_flood(ctx, row):
    """One address asks for the health page and for a page that is not there over four kept
    connections as fast as it can: the log keeps a few of its lines and counts the rest, an
    upload's line is still written, and so is another client's refusal."""
    server = ctx.start()
    seconds = min(ctx.form.flood_seconds, 5)
    end = time.monotonic() + seconds

    async def asker(path):
        request = b"GET %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % (path, server.port)
        reader, writer = await asyncio.open_connection(
            "127.0.0.1", server.port, local_addr=(ATTACK_SOURCES[0], 0))
        statuses = Counter()
        try:
            while time.monotonic() < end:
                writer.write(request)
                head = await reader.readuntil(b"\r\n\r\n")
                length = re.search(rb"(?i)content-length: *(\d+)", head)
                await reader.readexactly(int(length.group(1)) if length else 0)
                statuses[head.split(b" ", 2)[1].decode()] += 1
        except (OSError, asyncio.IncompleteReadError) as error:
            statuses[type(error).__name__] += 1
        finally:
            writer.close()
        return statuses

    with row.measure(server) as meter:
        askers = [asyncio.create_task(asker(path))
                  for path in (b"/healthz", b"/healthz", b"/nowhere", b"/nowhere")]
        await asyncio.sleep(1)
        row.good = await good_upload(ctx, server)
        missing = await exchange(server.port, b"GET /good-missing HTTP/1.1\r\nHost: x\r\n"
                                 b"Connection: close\r\n\r\n")
        for statuses in await asyncio.gather(*askers):
            row.answers.update(statuses)
    asked = sum(row.answers.values())
    row.notes.append("%d requests in %d s" % (asked, seconds))
    row.check(set(row.answers) == {"200", "404"}, "answers other than 200 and 404: %s"
              % dict(row.answers))
    row.check(missing.status == 404, "the other client's request got %s" % missing.label)
    row.check_good(row.good)
    log_bound = 64 * 1024
    row.check(meter.log_bytes <= log_bound, "log %s > %s for %d requests" % (
        human_bytes(meter.log_bytes), human_bytes(log_bound), asked))
    logged = server.logged()
    row.check("good-%d.bin" % ctx.good_count in logged, "the good upload's line is missing")
    row.check("/good-missing" in logged, "the other client's refusal has no line")
    with contextlib.suppress(AssertionError):  # the count is written once a second
        serverlib.wait_for(lambda: "answers not logged" in server.logged(), 3, "the count")
    row.check("answers not logged one by one" in server.logged(), "no count of the lines left out")
    await still_serving(ctx, row, server)


def first_line(text):
    return (text.strip().splitlines() or ["(nothing)"])[0]


def rows_of(form):
    """(key, title, target, attack) for every row, in order."""
    f = form
    flood = "good <1s, CPU<10%%, log<%s" % human_bytes(MIB * f.flood_seconds // 30)
    files = "400 'files', <=%d stored each" % (f.max_files or 1000)
    return [
        ("1", "%d x %d MiB uploads" % (f.big_count, f.big_mib),
         "200 whole or early 503+RA, RSS<=%dM" % (f.big_budget_mib + 64), big_uploads),
        ("1b", "memory held by trickling bodies", "wanted upload 200 after 503, RSS<=%dM"
         % (f.big_budget_mib + 64), memory_hogs),
        ("1c", "one address holding memory", "another's upload 200 at once; its extra 503+RA",
         memory_share),
        ("1d", "10 /64s of one /48 holding memory", "<=4 shares held; another's upload 200",
         site_memory),
        ("2", "file name of %d MiB" % f.name_mib, "4xx, RSS<=3xbody+64M", long_name),
        ("3", "chunked body past budget", "early 413, RSS<=128M", chunked_growth),
        ("4", "%d idle connections" % f.flood_count, flood,
         lambda ctx, row: flood_row(ctx, row, "idle", ATTACK_SOURCES)),
        ("5", "%d slowloris heads" % f.flood_count, flood,
         lambda ctx, row: flood_row(ctx, row, "slowloris", ATTACK_SOURCES)),
        ("6", "%d slow bodies" % f.flood_count, flood,
         lambda ctx, row: flood_row(ctx, row, "slow-body", ATTACK_SOURCES)),
        ("4b", "%d idle from one address" % f.flood_count, "<=%d held; " % PER_CLIENT_CAP + flood,
         lambda ctx, row: flood_row(ctx, row, "idle", ATTACK_SOURCES[:1])),
        ("7", "accept errors, %d conns" % f.flood_count, flood,
         lambda ctx, row: flood_row(ctx, row, "idle", ATTACK_SOURCES, "--max-connections",
                                    str(5 * f.flood_nofile))),
        ("8", "%d x %d tiny parts" % (f.files_requests, f.files_parts), files + ", good +<1s",
         lambda ctx, row: many_files(ctx, row, f.files_requests, f.files_parts)),
        ("9", "one body of %d parts" % f.one_body_parts, files,
         lambda ctx, row: many_files(ctx, row, 1, f.one_body_parts)),
        ("9b", "%d addresses x %d requests of %d files" % (f.hog_sources, f.hog_connections,
                                                            f.hog_parts),
         "another's upload ahead of most waiting", service_hogs),
        ("10", "cross-site POSTs", "403, nothing stored; same origin stores", cross_site),
        ("11", "request smuggling", "501 + close; bad chunk 4xx + close", smuggling),
        ("12", "control chars in names", "400 page, nothing stored", control_characters),
        ("13", "burst %d x %d MiB, then idle" % (f.burst_count, f.burst_mib),
         "idle RSS<=%dM" % f.idle_bound_mib, burst_then_idle),
        ("14", "SIGTERM while a body trickles", "exit 0 within 5 s", sigterm_while_trickling),
        ("14b", "SIGTERM with 15 uploads queued", "exit 0 within the timeout + one call",
         sigterm_with_calls_waiting),
        ("15", "wrong-password flood", "401/503, good 200, CPU<30%", password_flood),
        ("16", "16 x 32 MiB onto 256 MiB, 64 kept", "200 or early 507, 64 MiB stay free",
         disk_fill),
        ("17", "TLS handshake flood, 2 addresses", "<=%d/s each after a burst, good 200, CPU<30%%"
         % HANDSHAKES_PER_CLIENT, handshake_flood),
        ("18", "one address uploading without end", "stores <= its 4 MiB quota, then 503+RA",
         upload_quota),
        ("18b", "4,216 addresses, one upload each", "<=4,097 stored; debts stand; known 200",
         address_spray),
        ("18c", "300 /64s of one /48 behind a proxy", "<=2 quotas stored; other site 200",
         site_spray),
        ("18d", "one address storing 8 x 100 files", "<=500 files stored, then 503+RA",
         file_quota),
        ("19", "page flood, one address", "log<64K; upload, other's 404 logged",
         page_flood),
    ]


# ---- running -------------------------------------------------------------------------------

class Context:
    """What the rows share: the form, the temporary root, and every server started, so that
    each way out can stop them."""

    def __init__(self, form, root):
        self.form, self.root = form, root
        self.servers = []
        self.row_servers = []
        self.mounts = []  # upload directories that are filesystems of their own
        self.good_count = 0
        self.lock = threading.Lock()

    def start(self, *flags, nofile=None, filesystem_mib=None):
        """A server of the current row; Skipped when it refuses its command line. With
        filesystem_mib, its upload directory is a filesystem of that size of its own (a tmpfs:
        Skipped where mounting one is not allowed)."""
        directory = tempfile.mkdtemp(prefix="uploads-", dir=self.root)
        if filesystem_mib:
            mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%dm" % filesystem_mib,
                                      "tmpfs", directory], capture_output=True)
            if mounted.returncode != 0:
                raise Skipped("cannot mount a small filesystem: " +
                              first_line(mounted.stderr.decode()))
            self.mounts.append(directory)

        def child():
            # The server dies with us, even when we are killed outright.
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            if nofile:
                resource.setrlimit(resource.RLIMIT_NOFILE, (nofile, nofile))

        try:
            server = Server(directory, *flags, preexec_fn=child)
        except StartError as error:
            if error.exit_code == 2:
                raise Skipped(first_line(error.log)) from None
            raise
        with self.lock:
            self.servers.append(server)
        self.row_servers.append(server)
        return server

    def finish_row(self, row):
        """Stops the row's servers (a failed stop fails the row) and removes their files."""
        for index, server in enumerate(self.row_servers):
            if server.process.poll() is None:
                try:
                    code = server.stop(timeout=15)
                except subprocess.TimeoutExpired:
                    code = "none within 15 s"
                row.check(code == 0, "SIGTERM: exit %s" % code)
            if index == 0:
                row.log_tail = server.log_tail()
            server.close()
            if server.directory in self.mounts:
                subprocess.run(["umount", "-l", server.directory])
                self.mounts.remove(server.directory)
            shutil.rmtree(server.directory, ignore_errors=True)
        self.row_servers = []

    def kill_all(self):
        with self.lock:
            for server in self.servers:
                with contextlib.suppress(Exception):
                    server.kill()
            # Lazily: whatever a killed server left open goes with it.
            for directory in self.mounts:
                subprocess.run(["umount", "-l", directory])
            self.mounts = []


def run_row(ctx, key, title, target, attack):
    row = Row(key, title, target)
    try:
        asyncio.run(asyncio.wait_for(attack(ctx, row), ctx.form.row_limit))
    except Skipped as refused:
        row.skipped = str(refused)
    except TimeoutError:
        row.check(False, "not done within %d s" % ctx.form.row_limit)
    except Exception as error:  # the row fails; the others still run
        traceback.print_exc()
        row.check(False, "tool error: %r" % error)
    finally:
        ctx.finish_row(row)
    return row


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("server", nargs="?", default=serverlib.SERVER,
                        help="the kestrin-upload-server binary (default: $KESTRIN_SERVER)")
    parser.add_argument("--full", action="store_true", help="full sizes (many GB, long)")
    parser.add_argument("--only", help="comma-separated row keys, e.g. 1,4b,10")
    parser.add_argument("--deadline", type=int,
                        help="seconds for the whole run (default: 300 short, 1800 full)")
    arguments = parser.parse_args()
    serverlib.SERVER = os.path.abspath(arguments.server) if arguments.server else ""
    if not serverlib.SERVER or not os.access(serverlib.SERVER, os.X_OK):
        parser.error("no server binary: pass it or set KESTRIN_SERVER")
    form = FULL if arguments.full else SHORT
    deadline = arguments.deadline or form.deadline
    selected = rows_of(form)
    if arguments.only:
        keys = arguments.only.split(",")
        unknown = set(keys) - {entry[0] for entry in selected}
        if unknown:
            parser.error("unknown rows %s" % sorted(unknown))
        selected = [entry for entry in selected if entry[0] in keys]

    # The floods open more connections than the default descriptor limit allows.
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    root = tempfile.mkdtemp(prefix="kestrin-hostile-")
    ctx = Context(form, root)
    rows = []
    print_lock = threading.Lock()

    def on_deadline():
        with print_lock:
            ctx.kill_all()
            shutil.rmtree(root, ignore_errors=True)
            print_table(rows, arguments.full)
            print("FAIL: the deadline of %d s passed; every server killed" % deadline,
                  file=sys.stderr, flush=True)
            os._exit(1)

    watchdog = threading.Timer(deadline, on_deadline)
    watchdog.daemon = True
    watchdog.start()
    try:
        print("hostile load, %s form, against %s" % (form.name, serverlib.SERVER), flush=True)
        for entry in selected:
            started = time.monotonic()
            rows.append(run_row(ctx, *entry))
            print("row %s done in %.1f s: %s" % (entry[0], time.monotonic() - started,
                                                 rows[-1].verdict(arguments.full).split(":")[0]),
                  file=sys.stderr, flush=True)
    finally:
        watchdog.cancel()
        ctx.kill_all()
        shutil.rmtree(root, ignore_errors=True)
    with print_lock:
        print_table(rows, arguments.full)
        failed = [row for row in rows if row.fails(arguments.full)]
        for row in failed:
            if row.log_tail:
                print("--- row %s failed; the server's log ends:\n%s" % (row.key, row.log_tail),
                      file=sys.stderr)
        print("%d of %d rows failed" % (len(failed), len(rows)), file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
