#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/check-house in small trees of their own. Called with the path of keeld's sources."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

LICENCE = "SPDX-License-Identifier: Apache-2.0"
BODY = "\n\nThe problem, and why this answer."


class TreeTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = folder.name
        os.mkdir(f"{self.tree}/scripts")
        for script in ("check-house", "sources"):
            shutil.copy(f"{sources}/scripts/{script}", f"{self.tree}/scripts/{script}")
        for name in ("runtime/xpc/a.h", "notify/a.cpp", "notify/a_test.cpp"):
            self.write(name, "")
        self.write("CMakeLists.txt", "", comment="#")

    def write(self, name, text, comment="//"):
        os.makedirs(os.path.dirname(f"{self.tree}/{name}"), exist_ok=True)
        once = "#pragma once\n" if name.endswith(".h") else ""
        with open(f"{self.tree}/{name}", "w", encoding="utf-8") as file:
            file.write(f"{comment} {LICENCE}\n{once}{text}")

    def git(self, *arguments):
        environment = {
            name: value for name, value in os.environ.items() if not name.startswith("GIT_")
        }
        for variable in ("AUTHOR_NAME", "AUTHOR_EMAIL", "COMMITTER_NAME", "COMMITTER_EMAIL"):
            environment[f"GIT_{variable}"] = "somebody"
        for variable in ("CONFIG_GLOBAL", "CONFIG_SYSTEM"):
            environment[f"GIT_{variable}"] = "/dev/null"
        done = subprocess.run(
            ["git", *arguments], cwd=self.tree, env=environment, stdout=subprocess.PIPE, text=True,
            check=True)
        return done.stdout.strip()

    def commit(self, message):
        self.git("commit", "--quiet", "--allow-empty", "--cleanup=verbatim", "--message", message)
        return self.git("rev-parse", "--short", "HEAD")

    def check(self, *arguments):
        """The exit status, the breaches, and what else was said."""
        done = subprocess.run(
            [f"{self.tree}/scripts/check-house", *arguments], capture_output=True, text=True,
            check=False)
        return done.returncode, done.stdout.splitlines(), done.stderr.splitlines()


class Files(TreeTest):
    def assertBreaches(self, *breaches):
        status, found, _ = self.check()
        self.assertEqual(found, list(breaches))
        self.assertEqual(status, 1 if breaches else 0)

    def test_a_tree_that_keeps_the_rules_passes(self):
        self.assertBreaches()

    def test_a_source_without_its_licence_is_found(self):
        with open(f"{self.tree}/notify/a.cpp", "w", encoding="utf-8") as file:
            file.write("int one();\n")
        self.assertBreaches("notify/a.cpp:1: the first line is the licence")

    def test_lines_that_are_forbidden_are_found_where_they_stand(self):
        self.write("notify/a.cpp", 'int one();\n#include "../a.h"\n')
        self.assertBreaches("notify/a.cpp:3: an include spells its folder from the top")

    def test_a_file_of_more_than_500_lines_is_found(self):
        self.write("notify/a.cpp", "int one();\n" * 499)
        self.assertBreaches()
        self.write("notify/a.cpp", "int one();\n" * 500)
        self.assertBreaches("notify/a.cpp:501: a file has at most 500 lines: split it by noun")

    def test_only_dispatch_and_tests_have_thread_local(self):
        line = "thread_local int one = 1;\n"
        self.write("runtime/dispatch/a.cpp", line)
        self.write("notify/a_test.cpp", line)
        self.write("tests/siege/a.cpp", line)
        self.assertBreaches()
        self.write("notify/a.cpp", line)
        self.write("bench/load/a.h", line)
        self.assertBreaches(
            "bench/load/a.h:3: only runtime/dispatch has thread_local",
            "notify/a.cpp:2: only runtime/dispatch has thread_local")


class Commits(TreeTest):
    def setUp(self):
        super().setUp()
        self.git("init", "--quiet", "--initial-branch=main")
        self.git("add", ".")
        self.commit("Whatever was written before the base.")
        self.base = self.git("rev-parse", "HEAD")

    def assertTaken(self, *messages):
        for message in messages:
            self.commit(message)
        self.assertEqual(self.check(self.base), (0, [], []))

    def assertRefused(self, breach, *messages):
        found = [f"commit {self.commit(message)}: {breach}" for message in messages]
        self.assertEqual(self.check(self.base)[:2], (1, found))
        self.git("reset", "--quiet", "--hard", self.base)

    def test_a_message_that_keeps_the_rules_is_taken(self):
        self.assertTaken(
            "notify: answer dropped blocks" + BODY, "xpc, notify: send answers first" + BODY)

    def test_a_subject_names_its_folder(self):
        for subject in ("answer blocks", "Notify: answer", "notify:answer", "notify: ", ": answer"):
            self.assertRefused('a subject is "folder: imperative"', subject + BODY)

    def test_a_subject_has_72_columns(self):
        self.assertTaken("notify: " + 64 * "x" + BODY)
        self.base = self.git("rev-parse", "HEAD")
        self.assertRefused("a subject has at most 72 columns", "notify: " + 65 * "x" + BODY)

    def test_a_subject_begins_with_a_lower_case_word(self):
        self.assertRefused(
            "a subject's first word is lower-case", "notify: Answer blocks" + BODY,
            "notify: 2 answers" + BODY)

    def test_a_subject_has_no_full_stop(self):
        self.assertRefused("a subject has no full stop", "notify: answer dropped blocks." + BODY)

    def test_a_subject_is_in_the_imperative(self):
        self.assertRefused(
            "a subject is in the imperative", "notify: answered blocks" + BODY,
            "notify: answering blocks" + BODY)

    def test_a_verb_that_ends_like_a_participle_is_taken(self):
        self.assertTaken("tests: feed the decoder" + BODY, "docs: bring the figures" + BODY)

    def test_a_message_has_a_body(self):
        self.assertRefused(
            "a message has a body", "notify: answer blocks", "notify: answer blocks\n\n \n")

    def test_a_body_has_lines_of_100_columns(self):
        subject = "notify: answer blocks\n\n"
        self.assertTaken(subject + 100 * "x", subject + 100 * "µ")
        self.base = self.git("rev-parse", "HEAD")
        self.assertRefused(
            "a line of a body has at most 100 columns", subject + "x\n" + 101 * "x")

    def test_a_merge_is_not_checked(self):
        self.git("checkout", "--quiet", "-b", "other")
        self.commit("notify: answer blocks" + BODY)
        self.git("checkout", "--quiet", "main")
        self.git("merge", "--quiet", "--no-ff", "--message", "Merge branch 'other'", "other")
        self.assertTaken()

    def test_a_clone_without_the_base_says_so_and_passes(self):
        self.commit("Nothing of all that")
        absent = "0123456789012345678901234567890123456789"
        said = f"check-house: no commit was checked: this clone lacks {absent}"
        self.assertEqual(self.check(absent), (0, [], [said]))

    def test_the_base_is_a_commit_of_keeld_unless_given(self):
        status, breaches, said = self.check()
        self.assertEqual((status, breaches), (0, []))
        self.assertRegex(said[0], "no commit was checked: this clone lacks [0-9a-f]{40}$")

    def test_a_tree_without_a_repository_says_so_and_passes(self):
        shutil.rmtree(f"{self.tree}/.git")
        said = "check-house: no commit was checked: there is no repository here"
        self.assertEqual(self.check(self.base), (0, [], [said]))


sources = sys.argv.pop(1)
unittest.main(verbosity=2)
