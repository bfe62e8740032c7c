#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests passwords of real accounts with real PAM, and misbehaving PAM modules."""

import os
import re
import select
import signal
import sys

import keel_accounts
import keel_auth
import keel_host
from keel_accounts import (
    ADMIN_GROUP, AUTH_FAILED, NOT_ADMIN, SERVICE_FILE, AccountsTest, add_account, change_group,
    install_service, password_of,
)
from keel_client import AUTH, HANG_GUARD

MODULE = next((argument for argument in sys.argv[1:] if argument.endswith(".so")), "")
REPORT = "/run/report"
HANGING = "/run/hanging"


def service(*lines):
    install_service("".join(f"{line}\n" for line in lines))


def own_module(*task):
    return f"required {MODULE} {' '.join(task)}"


def helpers():
    """Returns the pids of keel-pam and its children."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/stat") as file:
                stat = file.read()
            # A zombie is not running.
            if "(keel-pam) " in stat and "(keel-pam) Z" not in stat:
                found.append(int(pid))
        except FileNotFoundError:
            pass
    return found


def await_end(pid):
    try:
        handle = os.pidfd_open(pid)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([handle], [], [], HANG_GUARD)[0])
    finally:
        os.close(handle)


class Accounts(AccountsTest):
    log = "runtime=debug,auth=debug"

    def test_an_administrators_password_is_accepted(self):
        self.assertAccepted("alice")
        self.no_messages()

    def test_a_wrong_password_is_refused_and_not_logged(self):
        self.assertRefused("alice", "wrong")
        self.assertEqual([line for line in self.daemon.log if line.category == "auth"], [])

    def test_an_unknown_user_is_refused_and_not_logged(self):
        self.assertRefused("nobody-of-that-name", password_of("alice"))
        self.assertEqual([line for line in self.daemon.log if line.category == "auth"], [])

    def test_another_user_is_not_admin_if_the_password_is_right(self):
        self.assertRefused("bob", code=NOT_ADMIN)
        self.assertRefused("bob", "wrong", code=AUTH_FAILED)

    def test_expired_locked_and_to_be_changed_accounts_are_refused(self):
        for user in ("carol", "dave", "erin"):
            with self.subTest(user):
                self.assertRefused(user)
        self.no_messages()

    def test_an_empty_password_is_refused_even_for_an_account_without_one(self):
        keel_accounts.append("/etc/passwd", "frank:x:510:80::/tmp:/bin/sh")
        keel_accounts.append("/etc/shadow", "frank::19000:0:99999:7:::")
        service("auth required pam_unix.so nullok", "account required pam_unix.so")
        self.assertRefused("frank", "")
        self.assertRefused("alice", "")
        self.assertRefused("root", "")

    def test_invalid_names_and_passwords_are_refused(self):
        for user in ("", "alice\0", "alice\n", "/alice", "a" * 256):
            self.assertRefused(user, password_of("alice"))
        for password in (password_of("alice") + "\0", password_of("alice") + "\0x"):
            self.assertRefused("alice", password)
        self.no_messages()

    def test_passwords_of_511_bytes_work_and_longer_ones_are_refused(self):
        longest = "p" * 511
        add_account("henry", 511, ADMIN_GROUP, password=longest)
        self.assertAccepted("henry", longest)
        self.assertRefused("henry", longest + "p")

    def test_passwords_are_any_text(self):
        password = "pässwörd \u2603 \n\x01 'quoted' $HOME"
        add_account("ida", 512, ADMIN_GROUP, password=password)
        self.assertAccepted("ida", password)

    def test_a_changed_password_takes_effect_immediately(self):
        add_account("jack", 513, ADMIN_GROUP, password="old")
        self.assertAccepted("jack", "old")
        with open("/etc/shadow") as file:
            text = file.read()
        with open("/etc/shadow", "w") as file:
            file.write(re.sub("(?m)^jack:[^:]*", lambda _: f"jack:{keel_accounts.encrypted('new')}",
                              text))
        self.assertRefused("jack", "old")
        self.assertAccepted("jack", "new")


class Administrators(AccountsTest):
    def test_the_primary_group_counts(self):
        self.assertAccepted("grace")

    def test_the_group_is_looked_up_each_time(self):
        self.addCleanup(change_group, "admin", "alice")
        client = self.auth_client()
        self.assertError(self.password_error("bob", password_of("bob"), client), NOT_ADMIN)
        change_group("admin", "alice", "bob")
        self.assertWorked(self.password_error("bob", password_of("bob"), client))
        change_group("admin")
        self.assertError(self.password_error("alice", password_of("alice"), client), NOT_ADMIN)

    def test_without_the_group_there_are_no_administrators(self):
        self.addCleanup(change_group, "admin", "alice")
        change_group("administrators", "alice")
        with open("/etc/group") as file:
            lines = [line for line in file if not line.startswith("admin:")]
        with open("/etc/group", "w") as file:
            file.writelines(lines)
        self.assertRefused("alice", code=NOT_ADMIN)

    def test_an_entry_larger_than_the_usual_buffer_works(self):
        add_account("kate", 514, ADMIN_GROUP, remark="r" * 3000)
        self.assertAccepted("kate")

    def test_a_group_of_very_many_members_works(self):
        self.addCleanup(change_group, "admin", "alice")
        change_group("admin", *(f"member{number}" for number in range(3000)), "bob")
        self.assertAccepted("bob")


class Service(AccountsTest):
    def test_without_its_file_all_are_refused_whatever_the_fallback(self):
        os.unlink(SERVICE_FILE)
        with open("/etc/pam.d/other", "w") as file:
            file.write("auth required pam_permit.so\naccount required pam_permit.so\n")
        self.assertRefused("alice")
        self.assertRefused("bob", "anything")
        said = ("there is no PAM service keeld; install the file /etc/pam.d/keeld, "
                "until then all passwords are refused")
        self.assertEqual(self.daemon.times_logged(said, 1, "error", "auth"), 1)
        install_service()
        self.assertAccepted("alice")
        os.unlink(SERVICE_FILE)
        self.assertRefused("alice")
        self.assertEqual(self.daemon.times_logged(said, 2), 2)

    def test_an_unusable_service_refuses_all(self):
        with open("/etc/pam.d/other", "w") as file:
            file.write("auth required pam_permit.so\naccount required pam_permit.so\n")
        for text in ("nonsense\n", "", "auth required pam_unix.so\n",
                     "account required pam_permit.so\n",
                     f"auth required {MODULE}.missing\naccount required pam_permit.so\n"):
            with self.subTest(text):
                install_service(text)
                self.assertRefused("alice")
        said = re.compile("PAM cannot be queried; fix /etc/pam.d/keeld, .*")
        self.assertEqual(self.daemon.times_logged(said, 1, "error"), 1)

    def test_included_files_must_have_the_rules(self):
        """PAM uses the fallback service for a facility without rules."""
        with open("/etc/pam.d/other", "w") as file:
            file.write("auth required pam_permit.so\naccount required pam_permit.so\n")
        part = "/etc/pam.d/keeld-part"
        self.addCleanup(keel_host.remove, part)
        unix = ("auth required pam_unix.so", "account required pam_unix.so")
        services = {kind: [("@include keeld-part",), (f"{kind} include keeld-part", other),
                           (f"{kind} substack keeld-part", other)]
                    for kind, other in (("auth", unix[1]), ("account", unix[0]))}
        for kind, texts in services.items():
            for text in texts:
                with self.subTest(text):
                    service(*text)
                    with open(part, "w") as file:
                        file.write(
                            "".join(f"{rule}\n" for rule in unix if not rule.startswith(kind)))
                    self.assertRefused("carol" if kind == "account" else "alice",
                                       password_of("carol") if kind == "account" else "wrong")
                    self.assertRefused("alice")
                    with open(part, "w") as file:
                        file.write("".join(f"{rule}\n" for rule in unix))
                    self.assertAccepted("alice")
        service(f"@include {part}")
        self.assertRefused("alice")

    def test_account_management_decides(self):
        service("auth required pam_permit.so", "account required pam_deny.so")
        self.assertRefused("alice")
        service("auth required pam_permit.so", "account required pam_permit.so")
        self.assertAccepted("alice")

    def test_refusals_are_not_delayed_by_pam(self):
        """The module requests a delay of an hour from its caller."""
        service("auth optional pam_faildelay.so delay=3600000000", "auth required pam_unix.so",
                "account required pam_unix.so")
        self.assertRefused("alice", "wrong")
        self.no_messages()


class AskingUser(AccountsTest):
    """PAM_RUSER names the user who tries a password."""

    def setUp(self):
        super().setUp()
        keel_host.remove(REPORT)

    def asker(self):
        with open(REPORT) as file:
            return file.read()

    def try_as(self, uid, user, password):
        client = self.process(uid=uid).client(AUTH, exports=())
        return client.call("authenticateUser:withPassword:andHandler:", user, password)[0]

    def test_is_named_when_a_password_is_refused(self):
        service(
            f"auth {own_module('asker', REPORT)}",
            "auth required pam_unix.so",
            "account required pam_unix.so",
        )
        self.assertError(self.try_as(502, "alice", "wrong"), AUTH_FAILED)
        self.assertEqual(self.asker(), "bob -\n")

    def test_is_a_uid_without_an_account(self):
        service(
            f"auth {own_module('asker', REPORT)}",
            "auth required pam_unix.so",
            "account required pam_unix.so",
        )
        self.assertError(self.try_as(4711, "alice", "wrong"), AUTH_FAILED)
        self.assertEqual(self.asker(), "4711 -\n")

    def test_is_named_for_account_management_and_basic_challenges(self):
        service("auth required pam_unix.so", f"account {own_module('asker', REPORT)}")
        client = self.process(uid=502).client(AUTH, exports=())
        challenge, auth_id, error = client.call("authBasicStartWithHandler:")
        self.assertWorked(error)
        answer = keel_auth.basic("alice", password_of("alice"))
        self.assertWorked(client.call("authValidate:andID:withHandler:", answer, auth_id)[2])
        self.assertEqual(self.asker(), "bob -\n")


class BadModules(AccountsTest):
    log = "debug"

    def setUp(self):
        super().setUp()
        keel_host.remove(HANGING)

    def await_hanging(self):
        client = self.auth_client()
        while not os.path.exists(HANGING):
            self.assertWorked(client.call("authServiceCheckWithHandler:")[0])

    def tearDown(self):
        """Asserts that they left no process and no descriptor behind."""
        self.auth_client()
        self.assertTrue(self.daemon.running)
        self.assertTrue(all(await_end(pid) for pid in helpers()))

    def test_a_hanging_module_is_killed_and_delays_no_others(self):
        service(f"auth {own_module('hang', HANGING)}", "account required pam_permit.so")
        waiting = self.auth_client()
        request = waiting.request("authenticateUser:withPassword:andHandler:", "alice",
                                  password_of("alice"))
        self.await_hanging()
        hanging = helpers()
        self.assertEqual(len(hanging), 1)
        install_service()
        self.assertAccepted("alice")
        # A process that has answered may take a moment to end.
        self.assertTrue(all(await_end(pid) for pid in helpers() if pid not in hanging))
        self.assertEqual(helpers(), hanging)
        self.assertError(waiting.results(request)[0], AUTH_FAILED)
        self.daemon.wait_for_log(
            re.compile("keel-pam did not answer within 8000 ms and was killed; .*"), level="error")

    def test_a_crashing_module_is_a_refusal(self):
        service(f"auth {own_module('crash')}", "account required pam_permit.so")
        self.assertRefused("alice")
        self.daemon.wait_for_log(re.compile("keel-pam was killed by signal 11; .*"), level="error")

    def test_an_exiting_module_is_a_refusal(self):
        service(f"auth {own_module('exit')}", "account required pam_permit.so")
        self.assertRefused("alice")
        self.daemon.wait_for_log(re.compile("keel-pam exited without an answer; .*"), level="error")

    def test_a_leaking_module_leaves_nothing_behind(self):
        client = self.auth_client()
        self.assertWorked(self.password_error("alice", password_of("alice"), client))
        before = self.daemon.descriptor_count()
        service(f"auth {own_module('leak')}", f"auth {own_module('crash')}",
                "account required pam_permit.so")
        self.assertError(self.password_error("alice", password_of("alice"), client), AUTH_FAILED)
        service(f"auth {own_module('leak')}", "account required pam_permit.so")
        self.assertWorked(self.password_error("alice", password_of("alice"), client))
        self.assertEqual(self.daemon.descriptor_count(), before)
        self.assertTrue(all(await_end(pid) for pid in helpers()))

    def test_a_leaking_module_leaves_nothing_behind_even_if_sigchld_was_ignored(self):
        """keeld inherits the signal as ignored if its parent ignores it."""
        self.daemon.stop()
        self.daemon = self.start(before_exec=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        service(f"auth {own_module('leak')}", f"auth {own_module('crash')}",
                "account required pam_permit.so")
        self.assertRefused("alice")
        self.assertTrue(all(await_end(pid) for pid in helpers()))

    def test_a_substituted_user_is_a_refusal(self):
        service(f"auth {own_module('rename', 'bob')}", "account required pam_permit.so")
        self.assertRefused("alice")
        service(f"auth {own_module('rename', 'alice')}", "account required pam_permit.so")
        self.assertAccepted("alice")

    def test_a_second_prompt_is_a_refusal(self):
        service(f"auth {own_module('prompt')}", "account required pam_permit.so")
        self.assertRefused("alice")

    def test_the_helper_ends_with_the_daemon(self):
        service(f"auth {own_module('hang', HANGING)}", "account required pam_permit.so")
        self.auth_client().request("authenticateUser:withPassword:andHandler:", "alice",
                                   password_of("alice"))
        self.await_hanging()
        running = helpers()
        self.assertEqual(len(running), 1)
        self.daemon.kill()
        self.assertTrue(await_end(running[0]))
        self.daemon = self.start()

    def test_without_the_helper_all_are_refused(self):
        helper = os.path.join(os.path.dirname(keel_host.keeld), "../libexec/keeld/keel-pam")
        helper = os.path.realpath(helper)
        os.rename(helper, f"{helper}.away")
        self.addCleanup(os.rename, f"{helper}.away", helper)
        self.assertRefused("alice")
        self.daemon.wait_for_log(re.compile(f"cannot run {helper}: No such file or directory; .*"),
                                 level="error")


class Secrets(AccountsTest):
    log = "debug"
    SECRET = "a secret that stands nowhere else: 8c1b2e"
    WRONG = "another that stands nowhere else: 5d07aa"

    def setUp(self):
        super().setUp()
        if "\nlucy:" not in open("/etc/passwd").read():
            add_account("lucy", 515, ADMIN_GROUP, password=self.SECRET)

    def test_the_helper_exposes_nothing_and_inherits_nothing(self):
        service(f"auth {own_module('report', REPORT)}", "auth required pam_unix.so",
                "account required pam_unix.so")
        self.assertAccepted("lucy", self.SECRET)
        with open(REPORT, "rb") as file:
            text = file.read()
        self.assertNotIn(self.SECRET.encode(), text)
        parts = dict(re.findall(r"== (\w+)\n(.*?)(?=== |\Z)", text.decode(), re.DOTALL))
        self.assertRegex(parts["cmdline"], r"\A/[^\0]*/libexec/keeld/keel-pam\0\n\Z")
        self.assertEqual(parts["environ"], "\n")
        self.assertRegex(parts["limits"], r"Max core file size +0 +0 ")
        self.assertEqual(parts["process"], "dumpable 0\nleader 1\n")
        status = dict(line.split(":\t", 1) for line in parts["status"].splitlines()
                      if ":\t" in line)
        c_library_own = 3 << 31  # signals 32 and 33
        # A sanitizer in the process catches some.
        names = ("SigBlk", "SigIgn",
                 "SigCgt") if keel_host.memory_factor() == 1 else ("SigBlk", "SigIgn")
        self.assertEqual({int(status[name], 16) & ~c_library_own for name in names}, {0})
        descriptors = dict(line.split(" ", 1) for line in parts["descriptors"].splitlines())
        report = next(number for number, path in descriptors.items() if path == REPORT)
        del descriptors[report]
        self.assertEqual([descriptors[number] for number in "012"], ["/dev/null"] * 3)
        self.assertRegex(descriptors["3"], r"socket:\[\d+\]")
        self.assertEqual(len(descriptors), 4)

    def test_are_neither_logged_nor_left_in_memory(self):
        if keel_host.memory_factor() > 1:
            self.skipTest("a sanitizer keeps what is freed, and needs too much memory to search")
        client = self.auth_client()
        self.assertWorked(self.password_error("lucy", self.SECRET, client))
        self.assertError(self.password_error("lucy", self.WRONG, client), AUTH_FAILED)
        self.assertIn(b"lucy", self.memory())  # as it was recorded: the search finds what is there
        for secret in (self.SECRET, self.WRONG):
            self.assertEqual([line for line in self.daemon.lines if secret in line], [])
            self.assertNotIn(secret.encode(), self.memory())

    def memory(self):
        """Returns all writable memory of the daemon."""
        found = bytearray()
        with open(f"/proc/{self.daemon.pid}/maps") as maps, open(f"/proc/{self.daemon.pid}/mem",
                                                                 "rb", buffering=0) as memory:
            for line in maps:
                span, rights = line.split()[:2]
                if not rights.startswith("rw"):
                    continue
                start, end = (int(place, 16) for place in span.split("-"))
                memory.seek(start)
                try:
                    found += memory.read(end - start)
                except OSError:
                    pass  # a guard page, or what the kernel shows to nobody
        return bytes(found)


if __name__ == "__main__":
    keel_host.main()
