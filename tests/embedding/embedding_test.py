#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests a project that embeds keeld with add_subdirectory: it gets the client library and nothing
else.

Called with the paths of cmake, the compiler, keeld's sources and a build folder, which is kept:
only the first run takes long.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

OUTSIDE = os.path.dirname(os.path.realpath(__file__))


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)} failed:\n{done.stdout[-8000:]}")
    return done.stdout


class Embedding(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        launcher = [f"-DCMAKE_CXX_COMPILER_LAUNCHER={shutil.which('ccache')}"] if shutil.which(
            "ccache") else []
        run(cmake, "--fresh", "-G", "Ninja", "-S", OUTSIDE, "-B", build,
            f"-DKEELD_SOURCES={sources}",
            f"-DCMAKE_CXX_COMPILER={compiler}", *launcher)
        run(cmake, "--build", build, "--target", "x")

    def test_a_program_links_the_client_library(self):
        self.assertEqual(run(f"{build}/x"), "notRunning notRunning\n")

    def test_nothing_else_is_built(self):
        self.assertIn("no work to do", run(cmake, "--build", build))

    def test_no_test_of_keeld_is_added(self):
        self.assertIn("Total Tests: 0", run("ctest", "-N", cwd=build))

    def test_nothing_of_keeld_is_installed(self):
        with tempfile.TemporaryDirectory() as top:
            run(cmake, "--install", build, env={**os.environ, "DESTDIR": top})
            self.assertEqual(os.listdir(top), [])


if __name__ == "__main__":
    cmake, compiler, sources, build = sys.argv[1:]
    unittest.main(argv=sys.argv[:1])
