#!/usr/bin/env python3
"""Several instances of kestrin-upload-server sharing one upload directory behind HAProxy, set
up as the balancer recipe (packaging/haproxy.cfg) says, all on 127.0.0.1: uploads through the
balancer while one instance is stopped and started again, every stored file checked; and the
stop delay that lets the balancer take an instance out before its listener closes. (What a start
removes from a shared directory is checked in DiskFileServiceTest, and after a real kill in
test_hostile.py.)

The server binary comes from KESTRIN_SERVER (set by CTest); haproxy from the PATH."""

import hashlib
import http.client
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import serverlib
from serverlib import TEMP_PREFIX, Server, sha256, wait_for

RECIPE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging",
                      "haproxy.cfg")
BOUNDARY = "instances-boundary"
UPLOADS = 2000
CONNECTIONS = 16
RATE = 80  # uploads a second at most, so that the restarts fall within the run
RESTARTS = 3
DEADLINE = 120  # seconds for all the uploads
# What the recipe asks of each instance: keep serving, unhealthy, for longer than the balancer
# takes to mark it down (two failed checks, 2 s and then 0.5 s apart).
STOP_DELAY = "5"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def balancer_config(recipe, port, servers):
    """The recipe with its addresses replaced by ours."""
    config, binds = re.subn(r"(?m)^(\s*bind) \S+$", r"\1 127.0.0.1:%d" % port, recipe)
    ports = iter(servers)
    config, count = re.subn(r"(?m)^(\s*server \S+) \S+$",
                            lambda match: "%s 127.0.0.1:%d" % (match.group(1), next(ports)),
                            config)
    assert (binds, count) == (1, len(servers)), (binds, count)
    # The balancer's own log of every request, on its stdout, to tell what went wrong.
    return config.replace("\nglobal\n", "\nglobal\n    log stdout format raw daemon\n", 1).replace(
        "\ndefaults\n", "\ndefaults\n    log global\n    option httplog\n", 1)


class Results:
    def __init__(self):
        self.lock = threading.Lock()
        self.next = 0
        self.done = 0
        self.stored = {}     # name -> sha256 of what was sent, for every 200
        self.refused = []    # (index, status or error) for everything else


class SeveralInstancesTest(unittest.TestCase):
    def setUp(self):
        serverlib.skip_without_server()
        self.haproxy = shutil.which("haproxy") or "/usr/sbin/haproxy"
        self.assertTrue(os.access(self.haproxy, os.X_OK), "haproxy is missing")
        self.root = tempfile.mkdtemp(prefix="kestrin-instances-")
        self.addCleanup(shutil.rmtree, self.root, True)
        self.uploads = os.path.join(self.root, "uploads")
        os.mkdir(self.uploads)

    def start(self, port, *flags):
        server = Server(self.uploads, *flags, listen="127.0.0.1:%d" % port)
        self.addCleanup(server.close)
        return server

    def test_uploads_through_the_balancer_are_whole_while_an_instance_restarts(self):
        ports = [free_port() for _ in range(3)]
        instances = [self.start(port, "--stop-delay", STOP_DELAY) for port in ports]
        front = free_port()
        with open(RECIPE) as file:
            config = balancer_config(file.read(), front, ports)
        config_path = os.path.join(self.root, "haproxy.cfg")
        with open(config_path, "w") as file:
            file.write(config)
        checked = subprocess.run([self.haproxy, "-c", "-q", "-f", config_path],
                                 capture_output=True, text=True, timeout=30)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        balancer_log = tempfile.TemporaryFile()
        balancer = subprocess.Popen([self.haproxy, "-db", "-f", config_path],
                                    stdout=balancer_log, stderr=subprocess.STDOUT)
        self.addCleanup(balancer_log.close)
        self.addCleanup(lambda: balancer.poll() is None and (balancer.kill(), balancer.wait()))

        def balancer_answers():
            connection = http.client.HTTPConnection("127.0.0.1", front, timeout=5)
            try:
                connection.request("GET", "/healthz")
                return connection.getresponse().status == 200
            except (OSError, http.client.HTTPException):
                return False
            finally:
                connection.close()
        wait_for(balancer_answers, 20, "the balancer")

        rng = random.Random(7)
        pool = rng.randbytes(1 << 20)
        plan = []
        for index in range(UPLOADS):
            size, offset = rng.randint(0, 64 << 10), rng.randint(0, 1 << 19)
            name = "u%04d-%08x.bin" % (index, rng.getrandbits(32))
            plan.append((name, name.encode() + pool[offset:offset + size]))
        results = Results()
        started = time.monotonic()
        deadline = started + DEADLINE

        def client():
            connection = None
            while time.monotonic() < deadline:
                with results.lock:
                    index = results.next
                    if index >= len(plan):
                        break
                    results.next += 1
                pause = started + index / RATE - time.monotonic()
                if pause > 0:
                    time.sleep(pause)
                name, content = plan[index]
                body = ("--%s\r\nContent-Disposition: form-data; name=\"file\"; filename=\"%s\""
                        "\r\n\r\n" % (BOUNDARY, name)).encode() + content + (
                        "\r\n--%s--\r\n" % BOUNDARY).encode()
                try:
                    if connection is None:
                        connection = http.client.HTTPConnection("127.0.0.1", front, timeout=30)
                    connection.request("POST", "/users", body, {
                        "Content-Type": "multipart/form-data; boundary=" + BOUNDARY})
                    response = connection.getresponse()
                    answer = response.read()
                    outcome = response.status if answer == serverlib.SUCCESS_PAGE else (
                        response.status, answer[:100])
                    if response.will_close:
                        connection.close()
                        connection = None
                except (OSError, http.client.HTTPException) as error:
                    outcome = repr(error)
                    if connection is not None:
                        connection.close()
                    connection = None
                with results.lock:
                    results.done += 1
                    if outcome == 200:
                        results.stored[name] = hashlib.sha256(content).hexdigest()
                    else:
                        results.refused.append((index, outcome))
            if connection is not None:
                connection.close()

        clients = [threading.Thread(target=client) for _ in range(CONNECTIONS)]
        for thread in clients:
            thread.start()
        # The second instance stops (SIGTERM, requests in flight finish) and starts again, on
        # its port, a few times over the run.
        answered = [0] * len(instances)  # uploads stored by each instance, over its restarts
        restarts = 0
        try:
            for mark in range(1, RESTARTS + 1):
                wait_for(lambda: results.done >= mark * UPLOADS // (RESTARTS + 1)
                         or time.monotonic() > deadline, DEADLINE, "uploads to go on")
                if time.monotonic() > deadline:
                    break
                self.assertEqual(instances[1].stop(), 0, instances[1].logged())
                answered[1] += instances[1].logged().count('POST "/users" 200')
                instances[1].close()
                instances[1] = self.start(ports[1], "--stop-delay", STOP_DELAY)
                restarts += 1
        finally:
            for thread in clients:
                thread.join()
        elapsed = time.monotonic() - started

        # The first signal begins each stop delay; stop() sends the second, which ends it.
        for instance in instances:
            instance.process.send_signal(signal.SIGTERM)
        for index, instance in enumerate(instances):
            self.assertEqual(instance.stop(), 0, instance.logged())
            answered[index] += instance.logged().count('POST "/users" 200')
        balancer.send_signal(signal.SIGUSR1)  # a soft stop
        balancer.wait(30)
        balancer_log.seek(0)
        unusual = [line for line in balancer_log.read().decode(errors="replace").splitlines()
                   if "/users" in line and not re.search(r" 200 \d+ - - ---- ", line)]

        corrupt = [name for name, digest in results.stored.items()
                   if not os.path.exists(os.path.join(self.uploads, name))
                   or sha256(os.path.join(self.uploads, name)) != digest]
        left = [name for name in os.listdir(self.uploads) if name.startswith(TEMP_PREFIX)]
        sys.stderr.write(
            "instances: %d uploads through HAProxy to 3 instances in %.1f s, %d restarts of one "
            "instance; %d answered 200 and checked (%d lost or corrupt), %d not 200%s; "
            "answered by each instance: %s\n" % (
                results.done, elapsed, restarts, len(results.stored), len(corrupt),
                len(results.refused), (": %r" % results.refused[:10]) if results.refused else "",
                answered))
        sys.stderr.write("".join("balancer: %s\n" % line for line in unusual[:20]))
        self.assertEqual(results.done, UPLOADS, "the uploads did not finish in time")
        self.assertEqual(restarts, RESTARTS)
        self.assertEqual(corrupt, [])
        self.assertEqual(left, [], "temporary or owner files after every instance stopped")
        # The balancer has marked an instance down before its listener closes (the stop delay),
        # and a refused connection goes to another instance: nothing is lost to a restart.
        self.assertEqual(results.refused, [])
        self.assertTrue(all(count > 0 for count in answered), answered)

    def test_a_stop_delay_keeps_serving_while_unhealthy_and_a_second_signal_ends_it(self):
        server = self.start(free_port(), "--stop-delay", "60")
        server.process.send_signal(signal.SIGTERM)
        wait_for(lambda: "stopping in 60 s" in server.logged(), 20, "the stop to begin")
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
        connection.request("GET", "/healthz")
        response = connection.getresponse()
        self.assertEqual((response.status, response.read()),
                         (503, b"unavailable: the server is stopping\n"))
        body = ("--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"late.txt\""
                "\r\n\r\nstill served\r\n--b--\r\n").encode()
        connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
        connection.request("POST", "/users", body,
                           {"Content-Type": "multipart/form-data; boundary=b"})
        response = connection.getresponse()
        self.assertEqual((response.status, response.read()), (200, serverlib.SUCCESS_PAGE))
        self.assertEqual(response.getheader("Connection"), "close")
        connection.close()
        started = time.monotonic()
        self.assertEqual(server.stop(timeout=20), 0, server.logged())
        self.assertLess(time.monotonic() - started, 20)
        with open(os.path.join(self.uploads, "late.txt"), "rb") as file:
            self.assertEqual(file.read(), b"still served")


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        serverlib.SERVER = sys.argv.pop(1)
    unittest.main()
