#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the auth service with real accounts: passwords, sessions, challenges and texts."""

import keel_host
from keel_accounts import change_group, password_of
from keel_auth import ALICE, BOB, AuthClient, AuthTest, HeldUpPasswords, basic
from keel_client import AUTH, ONE_WAY, REPLY, Client, Code

ALICES, BOBS = password_of("alice"), password_of("bob")
SELECTORS = [
    "authServiceCheckWithHandler:",
    "authenticateUser:withPassword:andHandler:",
    "authenticateForUser:using:withHandler:",
    "authGetDefaultRealm:",
    "authBasicStartWithHandler:",
    "authDigestStartWithHandler:",
    "authValidate:andID:withHandler:",
    "isAuthedASID:withHandler:",
]


class Service(AuthTest):
    def test_lists_its_methods_in_order(self):
        self.assertEqual(self.auth().selectors, SELECTORS)

    def test_answers_that_it_is_alive(self):
        self.assertWorked(self.auth().check())

    def test_any_user_may_connect(self):
        other = self.process(BOB).client(maker=AuthClient)
        self.assertWorked(other.check())
        self.assertFalse(other.is_authed(3))

    def test_two_connections_of_one_process_have_their_own_handlers(self):
        first, second = self.auth(), self.auth()
        _, auth_id, _ = first.start_basic()
        answer = basic("alice", ALICES)
        self.assertError(second.validate(answer, auth_id)[2], 6)
        self.assertWorked(first.validate(answer, auth_id)[2])

    def test_makes_no_calls_to_its_clients(self):
        client = Client(AUTH)
        self.addCleanup(client.close)
        client.call("authServiceCheckWithHandler:")
        self.assertEqual(len(client.history), 2)

    def test_a_message_that_cannot_be_served_is_refused_and_the_connection_stays(self):
        client = self.auth()
        self.assertEqual(client.failure(client.request(SELECTORS[1], "alice")), Code.wrongArguments)
        client.send([ONE_WAY, 0, []])
        self.assertEqual(client.failure(None), Code.wrongArguments)
        # An answer to nothing.
        client.send([REPLY, 7, []])
        self.assertWorked(client.check())
        client.send([1, client.last_id, 0, []])
        self.assertEqual(client.failure(client.last_id), Code.badRequestId)


class Passwords(AuthTest):
    def test_an_administrators_password_is_accepted(self):
        client = self.auth()
        self.assertWorked(client.password("alice", ALICES))
        self.assertEqual(self.auth_log(), [])

    def test_wrong_ones_are_refused_and_not_logged(self):
        client = self.auth()
        for user, password in (("alice", "wrong"), ("alice", ""), ("alice", ALICES + "\0"),
                               ("alice", "x" * 5000),
                               ("nobody-here", ALICES), ("", ""), ("ali\0ce", ALICES),
                               ("bob", ALICES),
                               (None, ALICES), ("alice", None), ("carol", password_of("carol")),
                               ("dave", password_of("dave"))):
            with self.subTest(user=user, password=password):
                self.assertFailed(client.password(user, password))
        self.assertFalse(client.is_authed(-1))
        self.assertEqual(self.auth_log(), [])

    def test_the_password_of_another_user_is_refused(self):
        client = self.auth()
        self.assertNotAdmin(client.password("bob", BOBS))
        self.assertFalse(client.is_authed(-1))
        self.assertEqual(self.auth_log(), ["debug user is not in admin group"])

    def test_the_group_is_looked_up_each_time(self):
        self.addCleanup(change_group, "admin", "alice")
        client = self.auth()
        self.assertNotAdmin(client.password("bob", BOBS))
        change_group("admin", "alice", "bob")
        self.assertWorked(client.password("bob", BOBS))
        change_group("admin")
        self.assertNotAdmin(client.password("bob", BOBS))
        self.assertNotAdmin(client.password("alice", ALICES))

    def test_a_pending_check_delays_only_its_own_connection(self):
        slow, quick = self.auth(), self.auth()
        with HeldUpPasswords() as gate:
            first = slow.ask_password("alice", ALICES)
            behind = slow.request("authServiceCheckWithHandler:")
            for _ in range(50):
                self.assertWorked(quick.check())
            self.assertFalse(slow.answered_so_far())
            gate.release()
            self.assertEqual(slow.results(first), [None])
            self.assertEqual(slow.results(behind), [None])
        # In the order of the requests.
        self.assertEqual([message.fields[1] for message in slow.history if message.kind == REPLY],
                         [first, behind])


class Sessions(AuthTest):
    def test_a_proof_holds_in_the_processs_session_only(self):
        first = self.process(ALICE, new_session=True)
        second = self.process(BOB, new_session=True)
        self.assertNotEqual(first.session, second.session)
        self.assertGreater(first.session, 0)
        one, two = first.client(maker=AuthClient), second.client(maker=AuthClient)
        self.assertWorked(one.password("alice", ALICES))
        for asking in (one, two, self.auth()):
            self.assertTrue(asking.is_authed(first.session))
            self.assertFalse(asking.is_authed(second.session))
            self.assertFalse(asking.is_authed(-1))
        # The user of a session need not be the administrator who was proved.
        self.assertWorked(two.password("alice", ALICES))
        self.assertTrue(one.is_authed(second.session))

    def test_the_notify_service_confirms_the_proof(self):
        other = self.process(ALICE, new_session=True)
        notify = self.client()
        self.assertEqual(notify.auth_check("alice", other.session), [False, None])
        self.assertWorked(other.client(maker=AuthClient).password("alice", ALICES))
        self.assertEqual(notify.auth_check("alice", other.session), [True, None])
        self.assertEqual(notify.auth_check("Alice", other.session), [False, None])
        self.assertEqual(notify.auth_check("bob", other.session), [False, None])
        self.assertEqual(notify.auth_check("alice", other.session + 1), [False, None])

    def test_processes_without_a_session_share_one(self):
        unset = self.process(BOB)
        if unset.session != -1:
            keel_host.skip_or_fail(self, "this test was started in an audit session")
        self.assertFalse(self.auth().is_authed(-1))
        self.assertWorked(unset.client(maker=AuthClient).password("alice", ALICES))
        self.assertTrue(self.auth().is_authed(-1))
        self.assertEqual(self.client().auth_check("alice", -1), [True, None])

    def test_a_proof_outlives_the_connection(self):
        other = self.process(ALICE, new_session=True)
        session = other.session
        self.assertWorked(other.client(maker=AuthClient).password("alice", ALICES))
        other.kill()
        self.daemon.wait_for_log("AuthListenerDelgate: connection is invalidated")
        self.assertTrue(self.auth().is_authed(session))

    def test_any_session_may_be_queried(self):
        client = self.auth()
        for session in (0, 1, -1, 2147483647, -2147483648):
            self.assertFalse(client.is_authed(session))
        self.assertEqual(client.failure(client.request(SELECTORS[7], 1 << 31)), Code.wrongArguments)


class Challenges(AuthTest):
    def test_challenges_have_distinct_ids(self):
        client = self.auth()
        ids = {client.start_basic()[1] for _ in range(200)} | {client.start_digest()[1]
                                                               for _ in range(200)}
        self.assertEqual(len(ids), 400)
        for auth_id in ids:
            self.assertRegex(auth_id, r"\Amyob-[a-zA-Z0-9]{32}\Z")

    def test_a_basic_challenge_is_answered_once(self):
        client = self.auth()
        challenge, auth_id, error = client.start_basic()
        self.assertWorked(error)
        self.assertIn(f'realm="{client.realm()[0]}"', challenge)
        response, user, error = client.validate(basic("alice", ALICES), auth_id)
        self.assertWorked(error)
        self.assertEqual(user, "alice")
        self.assertEqual(client.validate(basic("alice", ALICES), auth_id)[:2], [None, None])
        self.assertError(client.validate(basic("alice", ALICES), auth_id)[2], 6)

    def test_a_wrong_answer_consumes_the_challenge(self):
        client = self.auth()
        for start in (client.start_basic, client.start_digest):
            _, auth_id, _ = start()
            self.assertEqual(client.validate("nonsense", auth_id)[:2], [None, None])
            self.assertError(client.validate(basic("alice", ALICES), auth_id)[2], 6)

    def test_a_right_answer_of_no_administrator_returns_the_name(self):
        client = self.auth()
        _, auth_id, _ = client.start_basic()
        response, user, error = client.validate(basic("bob", BOBS), auth_id)
        self.assertEqual(user, "bob")
        self.assertNotAdmin(error)
        self.assertFalse(client.is_authed(-1))


class Texts(AuthTest):
    def runtime_log(self):
        self.daemon.stop()
        return [line.text for line in self.daemon.log if line.category == "runtime"
                and line.level == "debug"]

    def test_of_a_connection(self):
        other = self.process(ALICE, new_session=True)
        session = other.session
        client = other.client(maker=AuthClient)
        client.send([ONE_WAY, 99, []])
        client.failure(None)
        client.close()
        self.daemon.wait_for_log(f"AuthService connection from {session} invalidated")
        self.assertEqual(
            self.runtime_log(),
            [
                "Auth listener created",
                "Notify listener created",
                "up and running",
                f"New Auth Service Connection received from {other.pid}",
                "AuthListenerDelgate: AuthService is ready",
                "AuthListenerDelgate: plugin disconnected",
                f"AuthService connection from {session} interrupted",
                "AuthListenerDelgate: connection is invalidated",
                f"AuthService connection from {session} invalidated",
            ],
        )

    def test_of_challenges_and_the_realm(self):
        client = self.auth()
        realm, error = client.realm()
        self.assertWorked(error)
        digest_id, basic_id = client.start_digest()[1], client.start_basic()[1]
        client.validate("nonsense", digest_id)
        client.validate(basic("bob", BOBS), basic_id)
        client.validate("nonsense", "myob-unknown")
        client.validate(None, None)
        self.assertEqual(
            self.auth_log(),
            [
                f"debug authGetDefaultRealm: returning {realm}",
                f"debug authDigestStartWithHandler starting auth for {digest_id}",
                f"debug authBasicStartWithHandler starting auth for {basic_id}",
                f"debug authValidate: validating auth for {digest_id}",
                f"debug authValidate: validating auth for {basic_id}",
                "debug user is not in admin group",
                "debug authValidate: validating auth for myob-unknown",
                "debug authValidate: validating auth for (null)",
            ],
        )


if __name__ == "__main__":
    keel_host.main()
