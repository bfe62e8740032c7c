#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Names that an administrator has reserved for users."""

import os
import shutil
import subprocess

import keel_accounts
import keel_host
from keel_host import DaemonTest

FOLDER = "/etc/keeld/names.d"
ALICE, BOB = 501, 502
NOT_OWNER = 10


def write(name, text, mode=0o644):
    os.makedirs(FOLDER, exist_ok=True)
    path = os.path.join(FOLDER, name)
    with open(path, "w") as file:
        file.write(text)
    os.chmod(path, mode)


class NamesTest(DaemonTest):
    def setUp(self):
        with open("/etc/passwd") as file:
            if "\nalice:" not in file.read():
                keel_accounts.add_accounts()
        shutil.rmtree(FOLDER, ignore_errors=True)
        self.addCleanup(shutil.rmtree, FOLDER, ignore_errors=True)
        self.write_rules()
        super().setUp()
        self.alice, self.bob = (self.process(uid=uid).client() for uid in (ALICE, BOB))

    def write_rules(self):
        """Creates the files that keeld reads at its start."""

    def problems(self):
        return [
            line.text
            for line in self.daemon.log
            if (line.category, line.level) == ("startup", "error")
        ]

    def assertReserved(self, client, name):
        self.assertError(
            client.publish({}, name), NOT_OWNER, f"the name {name} is reserved for another user"
        )


class Reserved(NamesTest):
    def write_rules(self):
        write("mail.conf", "# hers\nmail.* alice\nmail.test* bob\nmail.root 0\n")

    def test_names_are_published_by_their_user_and_root_alone(self):
        self.assertReserved(self.bob, "mail.inbox")
        self.assertWorked(self.alice.publish({"new": 1}, "mail.inbox"))
        self.assertWorked(self.alice.update({"new": 2}, "mail.inbox"))
        self.assertWorked(self.client().publish({}, "mail.sent"))
        self.assertReserved(self.alice, "mail.test 1")
        self.assertWorked(self.bob.publish({}, "mail.test 1"))
        self.assertReserved(self.alice, "mail.root")
        self.assertWorked(self.bob.publish({}, "weather"))
        self.assertEqual(self.problems(), [])

    def test_a_refusal_changes_nothing_and_everybody_may_follow(self):
        self.assertWorked(self.bob.subscribe("mail.inbox"))
        self.assertReserved(self.bob, "mail.inbox")
        self.assertWorked(self.alice.publish({"new": 1}, "mail.inbox"))
        self.assertEqual(tuple(self.bob.delivery()), ("mail.inbox", {"new": 1}, 0, None))
        self.assertReserved(self.bob, "mail.inbox")
        self.assertWorked(self.alice.update({"new": 2}, "mail.inbox"))
        self.assertEqual(tuple(self.bob.delivery()), ("mail.inbox", {"new": 2}, 0, None))

    def test_names_stay_reserved_when_their_publisher_has_gone(self):
        publisher = self.process(uid=ALICE)
        self.assertWorked(publisher.client().publish({}, "mail.inbox"))
        self.after_clean_up(publisher.kill)
        self.assertReserved(self.bob, "mail.inbox")
        self.assertWorked(self.alice.publish({}, "mail.inbox"))

    def test_keelctl_prints_the_reason(self):
        done = subprocess.run(
            [keel_host.keelctl, "publish", "mail.inbox", "{}"],
            user=BOB,
            group=BOB,
            extra_groups=[],
            capture_output=True,
            text=True,
            stdin=subprocess.DEVNULL,
            check=False,
        )
        self.assertEqual(done.returncode, 1)
        self.assertEqual(
            done.stderr,
            'keelctl: keeld refused to publish "mail.inbox": '
            "the name mail.inbox is reserved for another user (error 10)\n",
        )


class Unreserved(NamesTest):
    def test_without_files_everybody_publishes_every_name(self):
        self.assertWorked(self.bob.publish({}, "mail.inbox"))
        self.assertEqual(self.problems(), [])


class BadRules(NamesTest):
    def write_rules(self):
        write("a.conf", "mail.inbox alice\nnonsense\n")
        write("b.conf", "mail.inbox bob\nnews nobody-of-that-name\n")
        write("c.conf", "weather alice\n", mode=0o666)

    def test_are_logged_and_the_others_count(self):
        expected = [
            f"{FOLDER}/a.conf:2: not a rule, and ignored; "
            "write NAME USER or PREFIX* USER, in UTF-8, a rule a line",
            f"{FOLDER}/b.conf:1: mail.inbox is reserved for uid 501 already, at {FOLDER}/a.conf:1; "
            "remove one of the two lines, until then the first counts",
            f"{FOLDER}/b.conf:2: there is no user nobody-of-that-name; until the line names one "
            "and keeld is restarted, only root may publish news",
            f"{FOLDER}/c.conf can be written by others than root, so its rules do not count; "
            "give it to root, with mode 0644",
        ]
        self.assertEqual(self.problems(), expected)
        self.assertReserved(self.bob, "mail.inbox")
        self.assertReserved(self.alice, "news")
        self.assertWorked(self.client().publish({}, "news"))
        self.assertWorked(self.bob.publish({}, "weather"))


if __name__ == "__main__":
    keel_host.main()
