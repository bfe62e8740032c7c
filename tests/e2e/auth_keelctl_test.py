#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests keelctl auth: every method of administrator proof, interactive and scripted."""

import json
import os
import pty
import select
import subprocess
import termios

import keel_host
from keel_accounts import password_of
from keel_auth import ALICE, BOB, TOP, AuthTest, Polkit
from keel_client import HANG_GUARD

OK, REFUSED, USAGE, UNREACHABLE = range(4)
ENVIRONMENT = {"PATH": os.environ["PATH"], "TERM": "xterm"}


def as_user(uid):
    return ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups"] if uid else []


class KeelctlTest(AuthTest):
    def setUp(self):
        super().setUp()
        if not keel_host.keelctl:
            self.fail("call this test with the path of keelctl behind that of keeld")

    def auth_command(self, *arguments, password=None, uid=0):
        """Runs keelctl auth; returns its status, standard output and standard error."""
        descriptors, extra = [], []
        if password is not None:
            read, write = os.pipe()
            os.write(write, password.encode() + b"\n")
            os.close(write)
            descriptors, extra = [read], ["--password-fd", str(read)]
        try:
            ended = subprocess.run([*as_user(uid), keel_host.keelctl, "auth", *arguments, *extra],
                                   pass_fds=descriptors,
                                   capture_output=True, text=True, env=ENVIRONMENT,
                                   timeout=HANG_GUARD, check=False)
        finally:
            for descriptor in descriptors:
                os.close(descriptor)
        return ended.returncode, ended.stdout, ended.stderr

    def assertProved(self, result, user):
        status, output, told = result
        self.assertEqual((status, told), (OK, ""))
        self.assertEqual(json.loads(output),
                         {"user": user, "auditSession": self.session(), "authenticated": True})

    def assertRefused(self, result, words, status=REFUSED):
        self.assertEqual(result[:2], (status, ""))
        self.assertIn(words, result[2])
        self.assertEqual(result[2].count("\n"), 1)

    @staticmethod
    def session():
        with open("/proc/self/sessionid") as file:
            session = int(file.read())
        return session if session < 1 << 31 else session - (1 << 32)


class Proofs(KeelctlTest):
    def test_check_and_realm(self):
        self.assertEqual(self.auth_command("check"), (OK, '{"alive":true}\n', ""))
        self.assertEqual(self.auth_command("realm"), (OK, '{"realm":"com.vantor.keeld"}\n', ""))

    def test_by_password(self):
        alices = password_of("alice")
        self.assertEqual(json.loads(self.auth_command("session")[1])["authenticated"], False)
        self.assertEqual(self.auth_command("session")[0], REFUSED)
        self.assertRefused(self.auth_command("password", "alice", password="wrong"), "(error 5)")
        self.assertRefused(self.auth_command("password", "nobody-here", password=alices),
                           "(error 5)")
        self.assertRefused(self.auth_command("password", "bob", password=password_of("bob")),
                           "not in the group admin (error 14)")
        self.assertProved(self.auth_command("password", "alice", password=alices), "alice")
        status, output, _ = self.auth_command("session")
        self.assertEqual((status, json.loads(output)),
                         (OK, {"auditSession": self.session(), "authenticated": True}))
        self.assertEqual(self.auth_command("session", "123456")[0], REFUSED)
        checked = subprocess.run([keel_host.keelctl, "authcheck", "alice"], env=ENVIRONMENT,
                                 capture_output=True, check=False)
        self.assertEqual(checked.returncode, OK)

    def test_by_basic_challenge(self):
        self.assertProved(self.auth_command("basic", "alice", password=password_of("alice")),
                          "alice")
        self.assertRefused(self.auth_command("basic", "alice", password="wrong"), "(error 5)")
        self.assertRefused(self.auth_command("basic", "bob", password=password_of("bob")),
                           "(error 14)")
        self.assertRefused(self.auth_command("basic", "a:b", password="x"), ":", USAGE)

    def test_by_digest_challenge(self):
        self.assertRefused(self.auth_command("digest", "alice", password="of the digest"),
                           "(error 5)")
        for user in ("alice", "bob"):
            subprocess.run([keel_host.keelctl, "digest", "set", user, "--password-fd", "0"],
                           input=b"of the digest\n", check=True)
        self.assertProved(self.auth_command("digest", "alice", password="of the digest"), "alice")
        self.assertRefused(self.auth_command("digest", "alice", password="wrong"), "(error 5)")
        self.assertRefused(self.auth_command("digest", "bob", password="of the digest"),
                           "(error 14)")
        self.assertRefused(self.auth_command("digest", "a:b", password="x"), ":", USAGE)

    def test_by_reference_of_root(self):
        self.assertProved(self.auth_command("reference", "alice"), "alice")
        self.assertRefused(self.auth_command("reference", "bob"), "(error 14)")
        self.assertRefused(self.auth_command("reference", "alice", uid=BOB), "(status -60005)")

    def test_invalid_arguments_are_usage_errors(self):
        for arguments in (["frobnicate"], [], ["session", "x"]):
            self.assertEqual(self.auth_command(*arguments)[0], USAGE)

    def test_without_password_and_terminal_it_is_a_usage_error(self):
        for scheme in ("password", "basic", "digest"):
            with self.subTest(scheme):
                self.assertEqual(self.auth_command(scheme)[0], USAGE)
                self.assertEqual(self.auth_command(scheme, "alice", "--password-fd", "-1")[0],
                                 USAGE)
                self.assertEqual(self.auth_command(scheme, "alice", "--password-fd", "99")[0],
                                 USAGE)
                read, write = os.pipe()
                os.close(write)
                ended = subprocess.run([keel_host.keelctl, "auth", scheme, "alice", "--password-fd",
                                        str(read)], pass_fds=[read],
                                       capture_output=True, text=True, env=ENVIRONMENT, check=False)
                os.close(read)
                self.assertEqual(ended.returncode, USAGE)
                self.assertIn("the input has ended", ended.stderr)

    def test_without_keeld_it_is_unreachable(self):
        self.daemon.stop()
        self.assertRefused(self.auth_command("check"), "keeld is not running", UNREACHABLE)


class Terminal:
    """keelctl auth on a pseudo-terminal."""

    def __init__(self, test, *arguments, uid=0):
        self._test = test
        self._shown = b""
        self.pid, self._terminal = pty.fork()
        if self.pid == 0:
            command = [*as_user(uid), keel_host.keelctl, "auth", *arguments]
            os.execvpe(command[0], command, ENVIRONMENT)
        test.addCleanup(os.close, self._terminal)

    def expect(self, text):
        """Waits until the terminal shows that text."""
        while text.encode() not in self._shown:
            self._read()
        self._shown = self._shown[self._shown.index(text.encode()) + len(text) :]

    def _read(self):
        if not select.select([self._terminal], [], [], HANG_GUARD)[0]:
            self._test.fail(f"nothing more is shown: {self._shown}")
        try:
            data = os.read(self._terminal, 4096)
        except OSError:  # the last process has closed it
            data = b""
        if not data:
            self._test.fail(f"it ended: {self._shown}")
        self._shown += data

    def type_unseen(self, line):
        """Types a password once the terminal's echo is off: earlier input is discarded."""
        while termios.tcgetattr(self._terminal)[3] & termios.ECHO:
            os.sched_yield()
        os.write(self._terminal, line.encode() + b"\n")

    def end(self):
        """Returns the rest of the output and the exit status."""
        while True:
            try:
                data = os.read(self._terminal, 4096)
            except OSError:
                data = b""
            if not data:
                break
            self._shown += data
        return self._shown.decode(), os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


class Terminals(KeelctlTest):
    def test_prompts_for_passwords_without_echo(self):
        terminal = Terminal(self, "password", "alice")
        terminal.expect("Password of alice: ")
        terminal.type_unseen(password_of("alice"))
        shown, status = terminal.end()
        self.assertEqual(status, OK)
        self.assertIn("alice is proved an administrator in audit session", shown)
        self.assertNotIn(password_of("alice"), shown)

    def test_output_on_a_terminal_is_text(self):
        shown, status = Terminal(self, "session", "77").end()
        self.assertEqual((shown.strip(), status),
                         ("no: in audit session 77 nobody was proved an administrator", REFUSED))
        self.assertEqual(Terminal(self, "check").end()[0].strip(), "the auth service is alive")


class Interaction(KeelctlTest):
    """polkit prompts for a proof on the terminal of the requesting process."""

    def setUp(self):
        super().setUp()
        with open(f"{TOP}/packaging/polkit/50-keeld.rules") as file:
            self.polkit = Polkit(rules=file.read()).start()
        self.addCleanup(self.polkit.close)

    def test_an_administrator_proves_it_and_holds_the_right(self):
        self.assertRefused(self.auth_command("reference", "alice", uid=ALICE), "(status -60007)")
        terminal = Terminal(self, "reference", "alice", "--interactive", uid=ALICE)
        terminal.expect("assword: ")
        terminal.type_unseen(password_of("alice"))
        shown, status = terminal.end()
        self.assertEqual(status, OK, shown)
        self.assertIn("alice is proved an administrator", shown)
        self.assertNotIn(password_of("alice"), shown)

    def test_a_wrong_password_gives_no_right(self):
        terminal = Terminal(self, "reference", "alice", "--interactive", uid=ALICE)
        terminal.expect("assword: ")
        terminal.type_unseen("wrong")
        shown, status = terminal.end()
        self.assertEqual(status, REFUSED, shown)
        self.assertIn("no right to manage daemons", shown)


if __name__ == "__main__":
    keel_host.main()
