#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""What a command on a private host leaves behind. Called as root with the path of keeld's sources."""

import os
import subprocess
import sys
import tempfile
import unittest


class PrivateHost(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_inside(self, command, *options, shared=None):
        environment = dict(os.environ)
        environment.pop("PRIVATE_HOST_SHARED", None)
        if shared:
            environment["PRIVATE_HOST_SHARED"] = shared
        script = f"{sources}/scripts/private-host"
        subprocess.run([script, *options, "sh", "-c", command], env=environment, check=True)

    def test_what_is_written_vanishes(self):
        self.run_inside(f"mkdir -p {self.folder} && echo lost >{self.folder}/file")
        self.assertEqual(os.listdir(self.folder), [])

    def test_what_is_written_to_the_shared_folder_stays(self):
        for options in ((), ("--net",), ("--systemd",)):
            name = "file" + "".join(options)
            self.run_inside(f"echo kept >{self.folder}/{name}", *options, shared=self.folder)
            with open(f"{self.folder}/{name}", encoding="utf-8") as file:
                self.assertEqual(file.read(), "kept\n")


sources = sys.argv.pop(1)
unittest.main(verbosity=2)
