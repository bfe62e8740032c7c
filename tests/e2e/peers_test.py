#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests clients in separate processes: of other users, in other audit sessions, and dying."""

import os
import re
import socket

import keel_host
from keel_client import EXPORTS, GOODBYE, HELLO, ONE_WAY, REQUEST, Client
from keel_host import NOTIFY_PATH, DaemonTest, skip_or_fail
from keel_values import encode, framed

ALICE, BOB = 1001, 1002
TEXT = re.compile(r"<connection (\d+) pid (\d+) \((.*)\) uid (\d+) session (-?\d+)>")


class PeerTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.asker = self.client()

    def publisher_of(self, name):
        entries, error = self.asker.dump(name)
        self.assertIsNone(error)
        return entries[0]["publisher"]

    def text_of(self, client, name):
        """Returns the number, process, program, user and session of a connection, from the
        publisher in a dump.
        """
        self.assertWorked(client.publish({}, name))
        found = TEXT.fullmatch(self.publisher_of(name))
        self.assertTrue(found, self.publisher_of(name))
        return int(found[1]), int(found[2]), found[3], int(found[4]), int(found[5])


class Identity(PeerTest):
    def test_is_that_of_the_process_and_user_that_connected(self):
        for uid in (ALICE, BOB, 0):
            process = self.process(uid=uid)
            number, pid, program, told_uid, session = self.text_of(process.client(), f"of {uid}")
            self.assertEqual((pid, program, told_uid, session),
                             (process.pid, "python3", uid, process.session))
            self.assertGreater(number, 0)

    def test_two_connections_of_a_process_differ_in_their_number_only(self):
        process = self.process(uid=ALICE)
        first, second = process.client(), process.client()
        texts = [self.text_of(first, "first"), self.text_of(second, "second")]
        self.assertNotEqual(texts[0][0], texts[1][0])
        self.assertEqual(texts[0][1:], texts[1][1:])

    def test_includes_the_audit_session(self):
        if not os.path.exists("/proc/self/sessionid"):
            skip_or_fail(self, "this kernel has no audit sessions")
        sessions = []
        for uid in (ALICE, BOB, ALICE):
            process = self.process(uid=uid, new_session=True)
            text = self.text_of(process.client(), f"name {len(sessions)}")
            self.assertEqual(text[3:], (uid, process.session))
            sessions.append(process.session)
        self.assertEqual(len(set(sessions)), 3)

    def test_does_not_change_with_the_process(self):
        process = self.process()
        client = process.client()
        before = self.text_of(client, "name")
        process.do(os.setresuid, ALICE, ALICE, ALICE)
        self.assertEqual(TEXT.fullmatch(self.publisher_of("name"))[4], "0")
        self.assertWorked(client.update({}, "name"))
        after = self.text_of(process.client(), "other name")
        self.assertEqual((before[3], after[3]), (0, ALICE))

    def test_escapes_an_unusual_program_name(self):
        process = self.process()
        process.do(set_program_name, b"a) uid 0 \n\x1b[")
        client = process.client()
        self.assertWorked(client.publish({}, "name"))
        self.assertTrue(self.publisher_of("name").isprintable())
        self.assertTrue(self.publisher_of("name").endswith(f" uid 0 session {process.session}>"))

    def test_a_connection_whose_maker_is_gone_is_dropped_silently(self):
        """A process connects, leaves the connection to its child and ends before the daemon
        accepts.
        """
        self.daemon.pause()
        ours, theirs = socket.socketpair()
        maker = os.fork()
        if maker == 0:
            ours.close()
            client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            client.connect(NOTIFY_PATH)
            if os.fork() == 0:
                theirs.recv(1)  # until the maker has gone
                heard = b"the daemon said " + client.recv(100)
                theirs.send(heard)
            os._exit(0)
        theirs.close()
        os.waitpid(maker, 0)
        self.daemon.go_on()
        ours.send(b"!")
        self.assertEqual(ours.recv(1000), b"the daemon said ")
        ours.close()


def set_program_name(name):
    with open("/proc/self/comm", "wb") as file:
        file.write(name)


class Users(PeerTest):
    def test_share_the_names(self):
        alice, bob = self.process(uid=ALICE).client(), self.process(uid=BOB).client()
        self.assertWorked(alice.publish({"by": "alice"}, "weather"))
        self.assertWorked(bob.subscribe("weather"))
        self.assertEqual(bob.delivery().item, {"by": "alice"})
        self.assertError(bob.publish({}, "weather"), 9,
                         "the key weather has already been published")

    def test_cannot_change_items_of_others_root_included(self):
        alice = self.process(uid=ALICE).client()
        self.assertWorked(alice.publish({"by": "alice"}, "weather"))
        for other in (self.process(uid=BOB).client(), self.process(uid=ALICE).client(),
                      self.client()):
            self.assertEqual(other.update({}, "weather").code, 11)
            self.assertEqual(other.remove("weather").code, 11)
        self.assertEqual(self.asker.dump("weather", True)[0][0]["publishedData"], {"by": "alice"})

    def test_get_the_same_answers_about_sessions(self):
        alice = self.process(uid=ALICE).client()
        self.assertEqual(alice.auth_check("alice", 3), [False, None])


class KilledProcesses(PeerTest):
    def test_a_publisher_leaves_name_and_data(self):
        publisher = self.process(uid=ALICE)
        self.assertWorked(publisher.client().publish({"n": 1}, "weather"))
        self.assertWorked(self.asker.subscribe("weather"))
        self.assertEqual(self.asker.delivery().item, {"n": 1})
        self.after_clean_up(publisher.kill)
        self.assertEqual(self.asker.deliveries_so_far(), [])
        entry = self.asker.dump("weather", True)[0][0]
        self.assertEqual((entry["publisher"], entry["publishedData"]), ("<unconnected>", {"n": 1}))
        successor = self.process(uid=BOB).client()
        self.assertWorked(successor.publish({"n": 2}, "weather"))
        self.assertEqual(self.asker.delivery().item, {"n": 2})

    def test_all_connections_of_a_process_end_with_it(self):
        process = self.process()
        for number in range(5):
            client = process.client()
            self.assertWorked(client.publish({}, f"published {number}"))
            self.assertWorked(client.subscribe(f"followed {number}"))
        self.after_clean_up(process.kill, 5)
        for entry in self.asker.dump()[0]:
            self.assertEqual((entry["publisher"], entry["subscribers"]), ("<unconnected>", []))

    def test_followers_that_die_during_a_fan_out_do_not_affect_others(self):
        publisher = self.client()
        self.assertWorked(publisher.publish({"n": 0}, "weather"))
        survivors = [self.client() for _ in range(5)]
        victims = [self.process() for _ in range(5)]
        for client in [*survivors, *(victim.client() for victim in victims)]:
            self.assertWorked(client.subscribe("weather"))
        count = 2000
        for number in range(1, count + 1):
            publisher.request("updatePublishedItem:name:withHandler:", {"n": number}, "weather")
            if number % (count // len(victims)) == 0:
                victims[number * len(victims) // count - 1].kill()
        for survivor in survivors:
            self.assertEqual([survivor.delivery().item["n"] for _ in range(count + 1)],
                             list(range(count + 1)))
        self.wait_for_clean_up(len(victims))
        self.assertEqual(len(self.asker.dump("weather")[0][0]["subscribers"]), len(survivors))

    def test_a_publisher_of_5000_names_leaves_them_all(self):
        publisher = self.process()
        count = publisher.do(publish_many, 5000)
        self.assertEqual(count, 5000)
        for number in range(0, 5000, 50):
            self.asker.request("subscribeTo:withFlags:andHandler:", f"name {number}", 0)
        for number in range(0, 5000, 50):
            self.assertEqual(self.asker.delivery().item, {"n": number})
        self.after_clean_up(publisher.kill)
        entries = self.asker.dump("_all", True)[0]
        self.assertEqual(len(entries), 5000)
        self.assertEqual({entry["publisher"] for entry in entries}, {"<unconnected>"})
        self.assertEqual({entry["name"]: entry["publishedData"]["n"] for entry in entries},
                         {f"name {n}": n for n in range(5000)})
        self.assertEqual(self.asker.deliveries_so_far(), [])
        self.assertEqual(self.process().do(publish_many, 5000), 5000)

    def test_a_client_may_die_at_any_byte(self):
        """Ends clients after each byte of a session that publishes, follows and updates."""
        bystander = self.client()
        self.assertWorked(bystander.publish({"n": 0}, "watched"))
        self.assertWorked(self.asker.subscribe("watched"))
        self.assertEqual(self.asker.delivery().item, {"n": 0})
        session = session_bytes()
        for cut in range(len(session)):
            with Client(greet=False) as victim:
                victim.take_hello()
                victim.send_bytes(session[:cut])
            if cut % 50 == 0:
                self.assertWorked(bystander.update({"n": cut}, "watched"))
                self.assertEqual(self.asker.delivery().item, {"n": cut})
        self.wait_for_clean_up(len(session))
        self.assertLessEqual({entry["name"] for entry in self.asker.dump()[0]},
                             {"watched", "p", "s"})
        with Client(greet=False) as survivor:
            survivor.take_hello()
            survivor.last_id = 5  # as many as the session uses
            survivor.send_bytes(session[: session.index(framed(encode([GOODBYE, "done"])))])
            for identifier in range(1, 5):
                self.assertEqual(survivor.results(identifier)[-1], None)
            self.assertEqual(
                {entry["name"]: entry["publishedData"] for entry in survivor.results(5)[0]},
                             {"watched": {"n": cut - cut % 50}, "p": {"n": 2}, "s": "<no data>"})
            self.assertEqual([len(entry["subscribers"]) for entry in survivor.dump("p")[0]
                              + survivor.dump("s")[0]], [1, 0])

    def test_a_process_may_be_killed_while_it_floods(self):
        for _ in range(10):
            process = self.process()
            self.assertWorked(self.asker.subscribe("flood"))
            while self.asker.deliveries_so_far():
                pass
            process.begin(flood, "flood")
            for _ in range(20):
                self.asker.delivery()
            self.after_clean_up(process.kill)
            self.asker.unsubscribe("flood")
            self.asker.deliveries_so_far()
        self.assertWorked(self.client().publish({}, "flood"))


def publish_many(count):
    """Publishes that many names and stays; how many worked."""
    global kept
    kept = Client()
    identifiers = [kept.request("publishItem:name:flags:value:withHandler:", {"n": number},
                                f"name {number}", 0, 0)
                   for number in range(count)]
    return sum(kept.results(identifier) == [None] for identifier in identifiers)


def flood(name):
    client = Client()
    client.publish({}, name)
    while True:
        client.request("updatePublishedItem:name:withHandler:", {"data": b"x" * 1000}, name)


def session_bytes():
    return b"".join(framed(encode(message)) for message in (
        [HELLO, 1, list(EXPORTS), {}],
        [REQUEST, 1, 3, [{"n": 1}, "p", 0, 0]],
        [REQUEST, 2, 1, ["s", 0]],
        [REQUEST, 3, 1, ["p", 0]],
        [REQUEST, 4, 4, [{"n": 2}, "p"]],
        [ONE_WAY, 2, ["s"]],
        [REQUEST, 5, 7, ["_all", True]],
        [GOODBYE, "done"],
    ))


if __name__ == "__main__":
    keel_host.main()
