#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the auth service under attack: an attacker delays no other client and leaves nothing
behind.
"""

import os
import re
import signal

import keel_host
from keel_accounts import password_of
from keel_auth import (ALICE, BOB, AuthClient, AuthTest, HeldUpPasswords, Polkit, answer_to, basic,
                       own_form, parameters_of,
                       set_digest_password)
from keel_client import REPLY, Code
from keel_host import Bystanders
from keel_processes import OtherProcess

CONNECTIONS = 200
CHALLENGES = 10_000
ALICES = password_of("alice")
INVALIDATED = "AuthListenerDelgate: connection is invalidated"


def try_passwords(count, password):
    """Connections that each try a password; returns the codes of the errors, once all have come."""
    clients = [AuthClient() for _ in range(count)]
    asked = [client.ask_password("alice", password) for client in clients]
    codes = [client.results(number)[0].code for client, number in zip(clients, asked)]
    for client in clients:
        client.close()
    return codes


class Passwords(AuthTest):
    def test_attempts_on_200_connections_do_not_delay_others(self):
        attackers = [self.process(ALICE), self.process(ALICE)]
        friend = self.process(BOB, new_session=True)
        bystanders = Bystanders(self)
        quick = self.auth()
        proving = friend.client(maker=AuthClient)
        with HeldUpPasswords(of="alice") as gate:
            for attacker in attackers:
                attacker.begin(try_passwords, CONNECTIONS // len(attackers), "wrong")
            self.daemon.wait_for_log("AuthListenerDelgate: AuthService is ready", CONNECTIONS + 2)
            gate.wait_until_held_up()
            for _ in range(100):
                bystanders.step()
                self.assertWorked(quick.check())
                self.assertFalse(quick.is_authed(friend.session))
            # Not even the password of another user is delayed.
            self.assertNotAdmin(proving.password("bob", password_of("bob")))
            self.assertEqual(gate.released, 0)
            self.assertEqual(len(self.daemon.logged(INVALIDATED)), 0)
            gate.release()
            for attacker in attackers:
                self.assertEqual(attacker.result(), [5] * (CONNECTIONS // len(attackers)))
        bystanders.step()
        self.assertFalse(quick.is_authed(-1))
        self.assertWorked(proving.password("alice", ALICES))
        self.assertTrue(quick.is_authed(friend.session))

    def test_pipelined_requests_are_answered_in_order(self):
        client = self.auth()
        # None of these reaches an account: such names and passwords are invalid.
        asked = [client.ask_password("a/b", "x") for _ in range(2000)]
        for number in asked:
            self.assertFailed(client.results(number)[0])
        self.assertWorked(client.check())


class Challenges(AuthTest):
    def test_ten_thousand_take_bounded_memory_and_end_with_the_connection(self):
        attacker, other = self.auth(), self.auth()
        first = self.measured_bytes()
        ids = self.open(attacker, CHALLENGES)
        self.assertEqual(len(set(ids)), CHALLENGES)
        # No more than each is charged.
        self.assertGrownLess(first, CHALLENGES * 1024)
        self.assertWorked(other.check())
        self.assertError(other.validate("x", ids[0])[2], 6)
        # All are as good as one.
        self.assertWorked(attacker.validate(basic("alice", ALICES), ids[-1])[2])
        self.assertWorked(attacker.validate(basic("alice", ALICES), ids[CHALLENGES // 2])[2])
        self.assertFailed(attacker.validate("nonsense", ids[0])[2])
        self.assertError(attacker.validate("nonsense", ids[0])[2], 6)
        attacker.close()
        self.daemon.wait_for_log(INVALIDATED)
        # As many again, and again, find the memory of the first, or what of it is not free yet.
        # Kept, it would be five times that.
        for number in range(2, 6):
            again = self.auth()
            self.open(again, CHALLENGES)
            again.close()
            self.daemon.wait_for_log(INVALIDATED, number)
        self.assertGrownLess(first, 2 * CHALLENGES * 1024)

    def assertGrownLess(self, before, allowed):
        # A challenge is many small things, around each of which a sanitizer keeps a lot.
        if keel_host.memory_factor() == 1:
            self.assertMemoryWithin(before, allowed)

    @staticmethod
    def open(client, count):
        """Opens challenges, half digest and half basic; returns their IDs."""
        ids = []
        for start in ("authDigestStartWithHandler:", "authBasicStartWithHandler:"):
            asked = [client.request(start) for _ in range(count // 2)]
            ids += [client.results(number)[1] for number in asked]
        return ids

    def measured_bytes(self):
        """Returns the daemon's memory once it has served each kind of request."""
        client = self.auth()
        for start in (client.start_basic, client.start_digest):
            client.validate("nonsense", start()[1])
        return self.daemon.resident_bytes()

    def test_a_user_over_quota_is_refused(self):
        attacker = self.process(BOB)
        opened, code = attacker.do(open_challenges_until_refused)
        self.assertEqual(code, Code.overQuota)
        self.assertGreater(opened, CHALLENGES)
        # Others are not concerned, nor is what needs no memory.
        self.assertWorked(self.auth().start_digest()[2])
        self.assertWorked(self.process(ALICE).client(maker=AuthClient).start_digest()[2])
        self.assertWorked(attacker.do(probe))
        # What leavers held is there again. Were it a single challenge less each time, there would
        # soon be too few.
        room, rounds = 30, 20
        self.assertEqual(attacker.do(answer_challenges, room), [5] * room)
        witness = self.auth()
        descriptors = self.descriptor_count()
        for _ in range(rounds):
            leaver = self.process(BOB)
            with HeldUpPasswords(of="bob") as gate:
                leaver.do(begin_answer, "basic", "bob", 20)
                gate.wait_until_held_up()
                leaver.kill()
            # The lines of a user who floods the daemon are limited: none says that this one ended.
            while self.descriptor_count() > descriptors:
                self.assertWorked(witness.check())

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.daemon.pid}/fd"))


def open_challenges_until_refused():
    """Returns their number and the code of the refusal. Sends the last ones one at a time, since
    pending requests are charged, too.
    """
    client = AuthClient()
    kept.append(client)
    opened = 0
    for together in (1000, 1):
        refused = False
        while not refused:
            answers = [client.answer(number) for number in [
                client.request("authBasicStartWithHandler:") for _ in range(together)]]
            opened += sum(answer.kind == REPLY for answer in answers)
            refused = any(answer.kind != REPLY for answer in answers)
    return opened, answers[0].fields[2]


def answer_challenges(count):
    """Consumes open challenges of the process's first connection with wrong answers; returns the
    codes of the errors.
    """
    client = kept[0]
    ids = [message.fields[2][1] for message in client.history if message.kind == REPLY][-count:]
    return [client.validate("nonsense", auth_id)[2].code for auth_id in ids]


def probe():
    client = AuthClient()
    error = client.check()
    client.close()
    return error


def begin_answer(scheme, user, challenges=1):
    """Opens challenges, and sends the right answer to the last of them."""
    client = AuthClient()
    kept.append(client)
    for _ in range(challenges):
        text, auth_id, error = client.start_basic() if scheme == "basic" else client.start_digest()
        assert error is None, error
    password = password_of(user)
    answer = basic(user,
                   password) if scheme == "basic" else answer_to(parameters_of(text.split("\n")[0]),
                                                                 user, password)
    client.request("authValidate:andID:withHandler:", answer, auth_id)


def close_all():
    while kept:
        kept.pop().close()


def begin_reference(user):
    client = AuthClient()
    kept.append(client)
    client.request("authenticateForUser:using:withHandler:", user, own_form())


kept = []


class HeldUpPolkit:
    """A context in which polkit answers no question about a right."""

    def __init__(self, polkit, daemon):
        self._polkit = polkit
        self._daemon = daemon
        self._asked = 0

    def __enter__(self):
        self._polkit.signal(signal.SIGSTOP)
        return self

    def wait_until_held_up(self, count):
        self._asked += count
        self._daemon.wait_for_log(
            re.compile("authenitcateForUser: auth request with authRef for .*"), self._asked)

    def __exit__(self, *_):
        self._polkit.signal(signal.SIGCONT)


class Leavers(AuthTest):
    """Clients that leave during a request."""

    ROUNDS = 20

    def test_a_client_may_leave_at_any_step(self):
        steps = [
            lambda client: client.ask_password("alice", "wrong"),
            lambda client: client.ask_password("nobody-here", "wrong"),
            lambda client: client.request("authenticateForUser:using:withHandler:", "alice",
                                          b"x" * 32),
            lambda client: client.request("authGetDefaultRealm:"),
            lambda client: client.request("authDigestStartWithHandler:"),
            lambda client: client.validate("nonsense", client.start_basic()[1]),
            lambda client: client.request("authValidate:andID:withHandler:",
                                          basic("alice", "wrong"), client.start_basic()[1]),
            lambda client: client.request("isAuthedASID:withHandler:", -1),
            lambda client: client.send_bytes(b"\x50\x00\x00\x00\x84\x01"),
            lambda client: None,
        ]
        stays = self.auth()
        stays.check()
        descriptors = self.daemon.descriptor_count()
        for _ in range(self.ROUNDS):
            for step in steps:
                client = AuthClient()
                step(client)
                client.close()
        AuthClient(greet=False).close()
        self.daemon.wait_for_log(INVALIDATED, self.ROUNDS * len(steps) + 1)
        self.assertFalse(stays.is_authed(-1))
        # Checks that were under way have ended with the invalidation behind them; so have their
        # descriptors.
        self.assertEqual(self.daemon.descriptor_count(), descriptors)

    def test_leaving_during_a_password_check_records_only_the_proof(self):
        right, wrong = self.process(ALICE, new_session=True), self.process(ALICE, new_session=True)
        session, other_session = right.session, wrong.session
        with HeldUpPasswords() as gate:
            right.client(maker=AuthClient).ask_password("alice", ALICES)
            wrong.client(maker=AuthClient).ask_password("alice", "wrong")
            gate.wait_until_held_up(2)
            right.kill()
            wrong.kill()
            gate.release()
            self.daemon.wait_for_log(INVALIDATED, 2)
        stays = self.auth()
        # A proof holds in the session of its process and in no other.
        self.assertTrue(stays.is_authed(session))
        self.assertFalse(stays.is_authed(other_session))
        self.assertFalse(stays.is_authed(-1))

    def leaving(self, held_up, *what, leave=OtherProcess.kill):
        """Has alice and bob leave during a correct attempt that `held_up` delays; returns alice's
        session and bob's.
        """
        users = {"alice": self.process(ALICE, new_session=True),
                 "bob": self.process(BOB, new_session=True)}
        sessions = [process.session for process in users.values()]
        descriptors = self.daemon.descriptor_count()
        with held_up as gate:
            for user, process in users.items():
                process.do(*what, user)
            gate.wait_until_held_up(len(users))
            ended = len(self.daemon.logged(INVALIDATED))
            for process in users.values():
                leave(process)
        self.daemon.wait_for_log(INVALIDATED, ended + len(users))
        self.assertEqual(self.daemon.descriptor_count(), descriptors)
        return sessions

    def assertRecorded(self, alices_session, bobs_session):
        """Asserts that only alice is proved, in her session: bob is no administrator."""
        stays = self.auth()
        self.assertTrue(stays.is_authed(alices_session))
        self.assertEqual(self.client().auth_check("alice", alices_session), [True, None])
        self.assertFalse(stays.is_authed(bobs_session))
        self.assertFalse(stays.is_authed(-1))

    def test_leaving_during_a_basic_check_records_only_the_proof(self):
        self.assertRecorded(*self.leaving(HeldUpPasswords(), begin_answer, "basic"))

    def test_leaving_during_a_digest_check_records_only_the_proof(self):
        for user in ("alice", "bob"):
            set_digest_password(user, password_of(user))
        self.assertRecorded(*self.leaving(HeldUpPasswords(question="account"), begin_answer,
                                          "digest"))

    def test_leaving_during_a_polkit_check_records_only_the_proof(self):
        polkit = Polkit().start()
        self.addCleanup(polkit.close)
        held_up = HeldUpPolkit(polkit, self.daemon)
        self.assertRecorded(*self.leaving(held_up, begin_reference,
                                          leave=lambda process: process.do(close_all)))
        # polkit cannot say anything of a process that is gone.
        for session in self.leaving(held_up, begin_reference):
            self.assertFalse(self.auth().is_authed(session))

    def test_checks_in_flight_do_not_delay_termination(self):
        with HeldUpPasswords() as gate:
            self.auth().ask_password("alice", ALICES)
            gate.wait_until_held_up()
            self.assertEqual(self.daemon.stop(), 0)


class Floods(AuthTest):
    def test_a_flood_of_requests_does_not_delay_others(self):
        flooder, other = self.auth(), self.auth()
        asked = [flooder.request("authServiceCheckWithHandler:") for _ in range(20_000)]
        bystanders = Bystanders(self)
        for _ in range(20):
            bystanders.step()
            self.assertWorked(other.check())
        for number in asked:
            self.assertWorked(flooder.results(number)[0])

    def test_a_flood_of_references_is_refused(self):
        client = self.process(BOB).client(maker=AuthClient)
        asked = [client.request("authenticateForUser:using:withHandler:", "alice", own_form())
                 for _ in range(500)]
        for number in asked:
            self.assertStatus(client.results(number)[0], -60002)


if __name__ == "__main__":
    keel_host.main()
