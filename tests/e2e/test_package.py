#!/usr/bin/env python3
"""The Debian package as an operator gets it: built by CPack from the build tree, its control
data and file list, its systemd unit checked by systemd-analyze (systemd is not booted), its
settings file against the server's options, and the server extracted from it serving one upload
with the libraries it brought.

Needs KESTRIN_BUILD (the build directory, set by CTest)."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import serverlib
from serverlib import SUCCESS_PAGE, Server, file_part, multipart, read_response, request_head

BUILD = os.environ.get("KESTRIN_BUILD", "")
PREFIX = "/opt/kestrin"
UNIT = "lib/systemd/system/kestrin-upload.service"
CONFIG = "etc/kestrin-upload/kestrin-upload.conf"
# Settings that name files the test has none of; the rest take their shown values as they are.
NEEDS_FILES = {"auth-file", "tls-cert", "tls-key"}


def run(*command, **kwargs):
    return subprocess.run(command, capture_output=True, text=True, timeout=120, **kwargs)


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not os.path.isfile(os.path.join(BUILD, "CPackConfig.cmake")):
            raise unittest.SkipTest("KESTRIN_BUILD names no configured build directory")
        cls.root = tempfile.mkdtemp(prefix="kestrin-package-")
        built = run("cpack", "-G", "DEB", "--config", os.path.join(BUILD, "CPackConfig.cmake"),
                    "-B", os.path.join(cls.root, "out"))
        if built.returncode != 0:
            shutil.rmtree(cls.root, ignore_errors=True)
            raise AssertionError("cpack failed:\n" + built.stdout + built.stderr)
        found = [name for name in os.listdir(os.path.join(cls.root, "out"))
                 if name.endswith(".deb")]
        cls.deb = os.path.join(cls.root, "out", found[0])
        cls.tree = os.path.join(cls.root, "tree")
        subprocess.run(["dpkg-deb", "-x", cls.deb, cls.tree], check=True, timeout=60)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.root, ignore_errors=True)

    def in_tree(self, path):
        return os.path.join(self.tree, path.lstrip("/"))

    def test_control_data_and_file_list(self):
        info = run("dpkg-deb", "-I", self.deb).stdout
        self.assertRegex(info, r"\n Package: kestrin-upload\n")
        self.assertRegex(info, r"\n Version: \d+\.\d+\.\d+\.\d+\n")
        depends = re.search(r"\n Depends: (.*)\n", info).group(1)
        for library in ("libc6", "libssl3", "libcrypt1", "libprometheus-cpp-core"):
            self.assertIn(library, depends)
        # Settings an operator changed survive an upgrade.
        with open(self.in_control("conffiles")) as file:
            self.assertEqual(file.read().split(), ["/" + CONFIG])

        listing = run("dpkg-deb", "-c", self.deb).stdout.splitlines()
        files = {line.split()[5][1:] for line in listing if not line.startswith("d")}
        self.assertEqual(files, {
            PREFIX + "/bin/kestrin-upload-server",
            PREFIX + "/bin/zarnix/libqvkestrinfileuploadimpl.so",
            PREFIX + "/lib/libkestrinplatform.so",
            "/usr/bin/kestrin-upload-server",
            "/" + UNIT,
            "/" + CONFIG,
            "/usr/share/man/man8/kestrin-upload-server.8.gz",
            "/usr/share/doc/kestrin-upload/README.md",
            "/usr/share/doc/kestrin-upload/examples/haproxy.cfg",
        })
        owners = {line.split()[1] for line in listing}
        self.assertEqual(owners, {"root/root"})

    def in_control(self, name):
        control = os.path.join(self.root, "control")
        if not os.path.isdir(control):
            subprocess.run(["dpkg-deb", "-e", self.deb, control], check=True, timeout=60)
        return os.path.join(control, name)

    def test_unit_verifies_and_is_hardened(self):
        with open(self.in_tree(UNIT)) as file:
            unit = file.read()
        settings = dict(line.split("=", 1) for line in unit.splitlines()
                        if re.match(r"^[A-Za-z]+=", line))
        command = settings["ExecStart"].split()
        self.assertEqual(command, [PREFIX + "/bin/kestrin-upload-server", "--config", "/" + CONFIG])
        for key, value in (("DynamicUser", "yes"), ("StateDirectory", "kestrin-upload"),
                           ("WorkingDirectory", "/var/lib/kestrin-upload"),
                           ("ProtectSystem", "strict"), ("ProtectHome", "yes"),
                           ("NoNewPrivileges", "yes"), ("PrivateTmp", "yes")):
            self.assertEqual(settings.get(key), value, key)

        # The unit as it would be installed, its command pointing into the extracted tree, so
        # that systemd-analyze finds the binary; any complaint at all fails.
        checked = os.path.join(self.root, "kestrin-upload.service")
        with open(checked, "w") as file:
            file.write(unit.replace(PREFIX + "/", self.in_tree(PREFIX) + "/"))
        verified = run("systemd-analyze", "verify", "--man=no", checked)
        self.assertEqual((verified.returncode, verified.stdout + verified.stderr), (0, ""))
        # The exposure score (0 best, 10 worst) stays low.
        security = run("systemd-analyze", "security", "--offline=yes", "--threshold=20", checked)
        self.assertEqual(security.returncode, 0, security.stdout[-3000:])

    def test_settings_file_lists_every_option_with_a_value_the_server_takes(self):
        server = self.in_tree("/usr/bin/kestrin-upload-server")
        helped = run(server, "--help", env={})
        self.assertEqual(helped.returncode, 0, helped.stderr)
        options = set(re.findall(r"^\s+--([a-z0-9-]+)", helped.stdout, re.M))
        options -= {"help", "config", "version", "hash-password"}
        with open(self.in_tree(CONFIG)) as file:
            lines = file.read().splitlines()
        settings = {}
        for line in lines:
            match = re.match(r"#([a-z0-9-]+) = (.*)$", line)
            if match:
                settings[match.group(1)] = match.group(2)
            else:
                self.assertTrue(line == "" or line.startswith("# ") or line == "#", line)
        self.assertEqual(set(settings), options)

        # Every setting uncommented as shown: the extracted server starts on it and stores.
        uncommented = os.path.join(self.root, "uncommented.conf")
        with open(uncommented, "w") as file:
            file.write("".join("%s = %s\n" % item for item in settings.items()
                               if item[0] not in NEEDS_FILES | {"listen", "dir"}))
        self.serve_one_upload(server, "--config", uncommented)

    def serve_one_upload(self, server, *flags):
        uploads = os.path.join(self.root, "uploads")
        saved, serverlib.SERVER = serverlib.SERVER, server
        try:
            instance = Server(uploads, *flags, env={"LD_LIBRARY_PATH": ""})
        finally:
            serverlib.SERVER = saved
        try:
            body = multipart(b"pkg", [file_part(b"packaged.txt", b"from the package\n")])
            with instance.connect() as connection:
                connection.sendall(request_head(b"/users", b"pkg", len(body)) + body)
                self.assertEqual(read_response(connection), (200, SUCCESS_PAGE))
            with open(os.path.join(uploads, "packaged.txt"), "rb") as file:
                self.assertEqual(file.read(), b"from the package\n")
            # The libraries it runs with are the package's, not the build tree's.
            with open("/proc/%d/maps" % instance.process.pid) as file:
                mapped = {line.split()[-1] for line in file if ".so" in line}
            ours = {path for path in mapped if "kestrin" in os.path.basename(path)}
            self.assertEqual({os.path.relpath(path, self.tree) for path in ours},
                             {PREFIX[1:] + "/lib/libkestrinplatform.so",
                              PREFIX[1:] + "/bin/zarnix/libqvkestrinfileuploadimpl.so"})
            self.assertEqual(instance.stop(), 0, instance.logged())
        finally:
            instance.close()


if __name__ == "__main__":
    unittest.main()
