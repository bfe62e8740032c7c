#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests authorization references: which are valid, and polkit's part in it. With a real polkitd on
a system bus.
"""

import os
import signal
import socket

import keel_auth
import keel_host
from keel_auth import ALICE, BOB, RIGHT, AuthClient, AuthTest, Polkit, form_of, own_form, start_time
from keel_client import REPLY

INVALID_REFERENCE, DENIED, INTERACTION_NOT_ALLOWED, INTERNAL = -60002, -60005, -60007, -60008


class ReferenceTest(AuthTest):
    polkit_options = {}

    def setUp(self):
        super().setUp()
        self.polkit = None
        if self.polkit_options is not None:
            self.polkit = Polkit(**self.polkit_options).start()
            self.addCleanup(self.polkit.close)

    def user(self, uid):
        """Starts a process of that user; returns it and its connection."""
        process = self.process(uid, new_session=True)
        return process, process.client(maker=AuthClient)

    def assertLogged(self, *lines):
        self.assertEqual(self.auth_log(), list(lines))

    def refusal_lines(self, user, why, status):
        return (f"debug authenitcateForUser: auth request with authRef for {user}",
                f"fault authenitcateForUser: {why} error = NSOSStatusErrorDomain error {status}")


UNPACK = "failed to unpack the authRef"
RIGHT_MISSING = "didn't find the correct right in the authRef"


class Rights(ReferenceTest):
    def test_a_holder_of_the_right_is_recorded(self):
        process, client = self.user(ALICE)
        self.assertWorked(client.own_reference("alice"))
        self.assertTrue(client.is_authed(process.session))
        self.assertEqual(self.client().auth_check("alice", process.session), [True, None])
        self.assertLogged("debug authenitcateForUser: auth request with authRef for alice")

    def test_a_process_without_the_right_is_refused(self):
        process, client = self.user(BOB)
        self.assertStatus(client.own_reference("alice"), DENIED)
        self.assertFalse(client.is_authed(process.session))
        self.assertLogged(*self.refusal_lines("alice", RIGHT_MISSING, DENIED))

    def test_the_user_must_be_an_administrator_and_may_be_another(self):
        process, client = self.user(ALICE)
        self.assertNotAdmin(client.own_reference("bob"))
        self.assertNotAdmin(client.own_reference("nobody-here"))
        self.assertNotAdmin(client.own_reference(None))
        self.assertFalse(client.is_authed(process.session))
        self.assertWorked(client.own_reference("grace"))
        self.assertEqual(self.client().auth_check("grace", process.session), [True, None])
        self.assertEqual(self.client().auth_check("alice", process.session), [False, None])

    def test_a_reference_may_be_used_again(self):
        _, client = self.user(ALICE)
        for _ in range(3):
            self.assertWorked(client.own_reference("alice"))


class Forms(ReferenceTest):
    polkit_options = None  # root holds every right

    def setUp(self):
        super().setUp()
        self.root = self.auth()

    @staticmethod
    def wrong_size(size):
        return ("fault authenitcateForUser: authRefext is the wrong size "
                f"(expected 32 got {size})")

    def test_a_form_of_the_process_itself_is_accepted(self):
        self.assertWorked(self.root.reference("alice", own_form()))

    def test_forged_ones_are_refused(self):
        process, bob = self.user(BOB)
        pid, start = process.pid, start_time(process.pid)
        forms = [
            form_of(pid, 0, start),
            form_of(pid, ALICE, start),
            form_of(1, 0, start_time(1)),
            form_of(os.getpid(), 0, start_time(os.getpid())),
            form_of(pid, BOB, start + 1),
            form_of(pid, BOB, 0),
            form_of(0, 0, 0),
            form_of(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFFFFFFFFFF),
            b"KeelRef2" + form_of(pid, BOB, start)[8:],
            bytes(32),
            b"\xff" * 32,
        ]
        for form in forms:
            with self.subTest(form=form):
                self.assertStatus(bob.reference("alice", form), INVALID_REFERENCE)
        # Its own is one, but it does not hold the right.
        self.assertStatus(bob.own_reference("alice"), DENIED)
        self.assertFalse(bob.is_authed(process.session))
        self.assertLogged(*self.refusal_lines("alice", UNPACK, INVALID_REFERENCE) * len(forms),
                          *self.refusal_lines("alice", RIGHT_MISSING, DENIED))

    def test_stolen_ones_are_refused(self):
        _, bob = self.user(BOB)
        self.assertStatus(bob.reference("alice", own_form()), INVALID_REFERENCE)
        # Nor does one of the same user count in another process.
        other = self.process()
        self.assertStatus(other.client(maker=AuthClient).reference("alice", own_form()),
                          INVALID_REFERENCE)

    def test_stale_ones_are_refused_even_if_the_pid_is_reused(self):
        old = self.process()
        stale = old.do(own_form)
        pid, start = old.pid, start_time(old.pid)
        old.kill()
        self.assertStatus(self.root.reference("alice", stale), INVALID_REFERENCE)
        while True:
            with open("/proc/sys/kernel/ns_last_pid", "w") as file:
                file.write(str(pid - 1))
            new = self.process()
            # The kernel counts time in hundredths of a second.
            if new.pid == pid and start_time(pid) != start:
                break
            new.kill()
        client = new.client(maker=AuthClient)
        self.assertStatus(client.reference("alice", stale), INVALID_REFERENCE)
        self.assertWorked(client.own_reference("alice"))

    def test_short_ones_are_a_fault_and_refused(self):
        form = own_form()
        for size in (0, 1, 8, 31):
            self.assertStatus(self.root.reference("alice", form[:size]), INVALID_REFERENCE)
        self.assertStatus(self.root.reference("alice", None), INVALID_REFERENCE)
        expected = []
        for size in (0, 1, 8, 31, 0):
            asked, refused = self.refusal_lines("alice", UNPACK, INVALID_REFERENCE)
            expected += [asked, self.wrong_size(size), refused]
        self.assertLogged(*expected)

    def test_long_ones_are_a_fault_and_their_first_32_bytes_count(self):
        form = own_form()
        for size in (33, 64, 100_000):
            self.assertWorked(self.root.reference("alice", form.ljust(size, b"\0")))
            self.assertStatus(self.root.reference("alice", form.rjust(size, b"\0")),
                              INVALID_REFERENCE)
        expected = []
        for size in (33, 64, 100_000):
            asked, refused = self.refusal_lines("alice", UNPACK, INVALID_REFERENCE)
            wrong = self.wrong_size(size)
            expected += [asked, wrong, asked, wrong, refused]
        self.assertLogged(*expected)


def connect_and_leave(path):
    """Connects to the auth service and leaves the connection to a child, which reports on a socket
    at `path` the result of using the reference of the ended process.
    """
    client = AuthClient()
    form = own_form()
    told = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    told.connect(path)
    if os.fork() != 0:
        return
    parent = os.getppid()
    told.sendall(b"ready")
    told.recv(1)
    assert os.getppid() != parent
    error = client.reference("alice", form)
    told.sendall(str(error and error.code).encode())
    os._exit(0)


class Ended(ReferenceTest):
    """The process that connected has ended and its pid was reused, while a child keeps the
    connection.
    """

    def test_a_process_that_reuses_the_pid_does_not_lend_its_right(self):
        path = "/run/keel-test-told"
        listener = keel_host.listening_socket(path)
        os.chmod(path, 0o666)
        self.addCleanup(listener.close)
        process = self.process(ALICE)
        pid, start = process.pid, start_time(process.pid)
        process.begin(connect_and_leave, path)
        told, _ = listener.accept()
        self.addCleanup(told.close)
        told.recv(5)
        process.kill()
        while True:
            with open("/proc/sys/kernel/ns_last_pid", "w") as file:
                file.write(str(pid - 1))
            new = self.process()
            if new.pid == pid and start_time(pid) != start:
                break
            new.kill()
        told.sendall(b"!")
        # polkit finds that the process was replaced.
        self.assertEqual(int(told.recv(100)), INTERNAL)
        self.daemon.wait_for_log(keel_auth.could_not_say(pid, ALICE, ".*replaced.*"), level="error",
                                 category="runtime")


class WithoutPolkit(ReferenceTest):
    polkit_options = None

    def test_root_alone_holds_the_right(self):
        self.assertWorked(self.auth().own_reference("alice"))
        for uid in (ALICE, BOB):
            self.assertStatus(self.user(uid)[1].own_reference("alice"), DENIED)

    def test_root_alone_holds_the_right_on_a_bus_without_polkit(self):
        keel_host.remove(
            "/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service.away")
        service = "/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service"
        os.rename(service, f"{service}.away")
        self.addCleanup(os.rename, f"{service}.away", service)
        bus = Polkit()
        self.addCleanup(bus.close)
        self.assertStatus(self.user(ALICE)[1].own_reference("alice"), DENIED)
        self.assertWorked(self.auth().own_reference("alice"))


class WithoutARule(ReferenceTest):
    polkit_options = {"rules": None}

    def test_nobody_holds_the_right_without_a_proof(self):
        process, client = self.user(ALICE)
        self.assertStatus(client.own_reference("alice"), INTERACTION_NOT_ALLOWED)
        self.assertFalse(client.is_authed(process.session))
        self.assertWorked(self.auth().own_reference("alice"))


class WithoutThePolicy(ReferenceTest):
    polkit_options = {"policy": False}

    def test_nobody_holds_the_right_and_the_log_says_why(self):
        process, client = self.user(ALICE)
        self.assertStatus(client.own_reference("alice"), INTERNAL)
        self.daemon.wait_for_log(keel_auth.could_not_say(process.pid, ALICE,
                                                         f"Action {RIGHT} is not registered"),
                                                         level="error")


class TroubleTest(ReferenceTest):
    def assertRefusedOnceItWaitedLongEnough(self):
        process, client = self.user(ALICE)
        process.begin(ask_in_vain)
        quick, notify = self.auth(), self.client()
        for number in range(50):
            self.assertWorked(quick.check())
            self.assertWorked(notify.publish({}, f"item {number}"))
        answered_first, status = process.result()
        self.assertEqual(status, INTERNAL)
        self.assertFalse(answered_first)
        self.assertFalse(quick.is_authed(process.session))
        self.daemon.wait_for_log(keel_auth.could_not_say(process.pid, ALICE, "no answer in time"),
                                 level="error",
                                 category="runtime")
        # Root does not depend on it.
        self.assertWorked(quick.own_reference("alice"))


class TroubledPolkit(TroubleTest):
    def test_a_stopped_polkit_grants_nothing(self):
        self.polkit.signal(signal.SIGSTOP)
        self.assertRefusedOnceItWaitedLongEnough()
        self.polkit.signal(signal.SIGCONT)
        self.assertWorked(self.user(ALICE)[1].own_reference("alice"))

    def test_a_stopped_bus_grants_nothing(self):
        os.kill(self.polkit.bus.pid, signal.SIGSTOP)
        self.assertRefusedOnceItWaitedLongEnough()

    def test_a_killed_polkit_is_restarted_by_the_bus(self):
        self.polkit.kill()
        self.assertWorked(self.user(ALICE)[1].own_reference("alice"))
        self.assertStatus(self.user(BOB)[1].own_reference("alice"), DENIED)


class EndlessRule(TroubleTest):
    polkit_options = {"rules": "polkit.addRule(function(action, subject) { while (true) {} });"}

    def test_grants_nothing(self):
        self.assertRefusedOnceItWaitedLongEnough()


def ask_in_vain():
    """Requests the right with a probe behind it on the same connection; returns whether the probe
    was answered first, and the status.
    """
    client = AuthClient()
    asked = client.request("authenticateForUser:using:withHandler:", "alice", own_form())
    probe = client.request("authServiceCheckWithHandler:")
    error = client.results(asked)[0]
    client.results(probe)
    replies = [message.fields[1] for message in client.history if message.kind == REPLY]
    return replies.index(probe) < replies.index(asked), error and error.code


if __name__ == "__main__":
    keel_host.main()
