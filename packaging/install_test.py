#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests cmake --install into a temporary folder. Called with the paths of cmake and the build
folder.
"""

import os
import subprocess
import sys
import tempfile
import unittest

SOURCES = os.path.dirname(os.path.realpath(__file__))

# Files below the prefix and their sources; None for programs.
BELOW_THE_PREFIX = {
    "sbin/keeld": None,
    "bin/keelctl": None,
    "libexec/keeld/keel-pam": None,
    "lib/systemd/system/keeld.service": "systemd/keeld.service",
    "lib/systemd/system/keeld-auth.socket": "systemd/keeld-auth.socket",
    "lib/systemd/system/keeld-notify.socket": "systemd/keeld-notify.socket",
    "lib/sysusers.d/keeld.conf": "systemd/keeld.sysusers",
    "lib/tmpfiles.d/keeld.conf": "systemd/keeld.tmpfiles",
}
AT_ONE_PLACE = {
    "/etc/pam.d/keeld": "pam/keeld",
    "/usr/share/polkit-1/actions/com.vantor.ServiceManagement.policy":
        "polkit/com.vantor.ServiceManagement.policy",
    "/usr/share/polkit-1/rules.d/50-keeld.rules": "polkit/50-keeld.rules",
}


def text_of(path):
    with open(path) as file:
        return file.read()


class Install(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.top = folder.name

    def install(self, *options):
        subprocess.run([cmake, "--install", build, *options],
                       env={**os.environ, "DESTDIR": self.top}, umask=0o022, check=True,
                       stdout=subprocess.DEVNULL)

    def assertInstalledBelow(self, prefix):
        expected = {f"{prefix}/{path}": source
                    for path, source in BELOW_THE_PREFIX.items()} | AT_ONE_PLACE
        found = [os.path.join(folder, name)[len(self.top):]
                 for folder, _, names in os.walk(self.top) for name in names]
        self.assertEqual(sorted(found), sorted(expected))
        for path, source in expected.items():
            with self.subTest(path=path):
                mode = os.stat(self.top + path).st_mode & 0o7777
                self.assertEqual(oct(mode), oct(0o644 if source else 0o755))
                if source:
                    original = text_of(os.path.join(SOURCES,
                                                    source)).replace("/usr/sbin/keeld\n",
                                                                     f"{prefix}/sbin/keeld\n")
                    self.assertEqual(text_of(self.top + path), original)

    def test_installs_every_file_at_its_path(self):
        self.install()
        self.assertInstalledBelow("/usr/local")
        unit = text_of(f"{self.top}/usr/local/lib/systemd/system/keeld.service")
        self.assertIn("\nExecStart=/usr/local/sbin/keeld\n", unit)

    def test_creates_the_modules_folder(self):
        self.install()
        folder = self.top + "/Applications/Calder.app/Contents/CalderRoot/usr/share/keeld/bundles"
        self.assertEqual(os.listdir(folder), [])
        self.assertEqual(oct(os.stat(folder).st_mode & 0o7777), oct(0o755))

    def test_accepts_another_prefix(self):
        self.install("--prefix", "/usr")
        self.assertInstalledBelow("/usr")

    def test_keeps_an_existing_pam_service(self):
        self.install()
        service = f"{self.top}/etc/pam.d/keeld"
        with open(service, "a") as file:
            file.write("auth required pam_faillock.so\n")
        changed = text_of(service)
        self.install()
        self.assertEqual(text_of(service), changed)


if __name__ == "__main__":
    cmake, build = sys.argv[1:]
    unittest.main(argv=sys.argv[:1])
