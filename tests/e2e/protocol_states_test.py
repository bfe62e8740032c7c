#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the daemon against each row of the tables of a name's states in docs/protocol.md."""

import itertools

import keel_host
from keel_client import HELLO, REPLY
from keel_host import DaemonTest
from keel_page import PAGE
from keel_values import Date

STATES = PAGE.table("the name is", "call", "by", "error", "delivered", "the name is then")
SHOWN = PAGE.table("the name is", "`publisher`", "`publishDate`", "`publishedData`")
ERRORS = PAGE.table("call", "null name", "9", "10", "11", "13")

NEW = {"new": True}
CALLS = {
    "`subscribeTo`": lambda client, name: client.subscribe(name),
    "`unsubscribeFrom`": lambda client, name: client.unsubscribe(name),
    "`publishItem`": lambda client, name: client.publish(NEW, name),
    "`updatePublishedItem`": lambda client, name: client.update(NEW, name),
    "`removePublishedItemForName`": lambda client, name: client.remove(name),
    "`dumpNotification`": lambda client, name: client.dump(name)[1],
}
# Meaning of the cells of `by`: the caller, and the number of followers.
BOTH, ONE, NOBODY = 2, 1, 0
CALLERS = {
    "anyone": [("another", BOTH), ("another", NOBODY)],
    "anyone else": [("another", BOTH), ("another", NOBODY)],
    "anyone, the last publisher too": [
        ("another", BOTH), ("another", NOBODY), ("publisher", BOTH), ("publisher", NOBODY),
    ],
    "a follower": [("follower", BOTH)],
    "the last follower": [("follower", ONE)],
    "the publisher": [("publisher", BOTH), ("publisher", NOBODY)],
    "the publisher, if the name is followed": [("publisher", BOTH), ("publisher", ONE)],
    "the publisher, if it is not": [("publisher", NOBODY)],
}


class StatesTest(DaemonTest):
    def setUp(self):
        super().setUp()
        names = ("publisher", "follower", "second follower", "another")
        self.clients = {who: self.client() for who in names}
        self.asker = self.client()
        self.numbers = itertools.count()

    def name_in(self, state, data, followers):
        """Returns a new name in that state with that many followers, all deliveries read."""
        name = f"name {next(self.numbers)}"
        following = [self.clients["follower"], self.clients["second follower"]]
        if state not in ("unknown", "awaited"):
            self.assertWorked(self.clients["publisher"].publish(data, name))
        if state != "unknown":
            for follower in following:
                self.assertWorked(follower.subscribe(name))
        if state == "orphaned, withdrawn":
            self.assertWorked(self.clients["publisher"].remove(name))
        if state == "orphaned by the end of a connection":
            self.end_of_publisher()
        if state != "unknown":
            for follower in following[followers:]:
                follower.unsubscribe(name)
        for client in self.clients.values():
            client.deliveries_so_far()
        return name

    def end_of_publisher(self):
        self.end_of(self.clients["publisher"])
        self.clients["publisher"] = self.client()

    def entry(self, name):
        entries, error = self.asker.dump(name, True)
        self.assertEqual((len(entries), error), (1, None))
        return entries[0]

    def states_named(self, state):
        """Returns every path to that state."""
        ways = ["orphaned, withdrawn", "orphaned by the end of a connection"]
        return ways if state == "orphaned" else [state]


class Calls(StatesTest):
    def cases(self):
        for row in STATES:
            for state in self.states_named(row[0]):
                for who, followers in CALLERS[row[2]]:
                    # An unknown name has no followers.
                    if state == "unknown" and followers:
                        continue
                    for data in ({"n": 1}, None):
                        yield row, state, who, followers, data

    def test_calls_match_their_row(self):
        for (_, call, _, error, delivered, then), state, who, followers, data in self.cases():
            with self.subTest(state=state, call=call, who=who, followers=followers, data=data):
                name = self.name_in(state, data, followers)
                caller = self.clients[who]
                if call == "(end of the connection)":
                    self.end_of_publisher()
                else:
                    answer = CALLS[call](caller, name)
                    code = int(error) if error.isdigit() else None
                    self.assertEqual(answer and answer.code, code)
                self.assertDelivered(name, delivered, caller, followers, data)
                stores = call in ("`publishItem`", "`updatePublishedItem`") and error == "null"
                stored = NEW if stores else data
                self.assertNameIs(name, then, stored)

    def assertDelivered(self, name, delivered, caller, followers, data):
        to_caller, to_followers = {
            "nothing": ([], []),
            "null, to the caller": ([None], []),
            "the data, to the caller": ([data], []),
            "the item, to every follower": ([], [NEW]),
        }[delivered]
        following = [self.clients["follower"], self.clients["second follower"]][:followers]
        for client in self.clients.values():
            wanted = to_followers if client in following else to_caller if client is caller else []
            self.assertEqual([tuple(delivery) for delivery in client.deliveries_so_far()],
                             [(name, item, 0, None) for item in wanted])

    def assertNameIs(self, name, state, data):
        """Determines the state from a dump and from publishing by another client."""
        if state == "unknown":
            self.assertEqual(self.asker.dump(name)[1].code, 11)
            return
        entry = self.entry(name)
        self.assertEqual(entry["publishDate"] == "<never published>", state == "awaited")
        has_none = state == "awaited" or data is None
        self.assertEqual(entry["publishedData"], "<no data>" if has_none else data)
        error = self.asker.publish({}, name)
        self.assertEqual(error and error.code, 9 if state == "published" else None)

    def test_the_end_of_a_followers_connection_unsubscribes(self):
        for state in ("awaited", "published", "orphaned, withdrawn"):
            name = self.name_in(state, {"n": 1}, ONE)
            before = self.entry(name)
            self.assertEqual(len(before["subscribers"]), 1)
            self.end_of(self.clients["follower"])
            self.clients["follower"] = self.client()
            self.assertEqual(self.entry(name), before | {"subscribers": []})

    def test_an_unpublished_name_can_become_unknown_again(self):
        for state in ("awaited", "orphaned, withdrawn", "orphaned by the end of a connection"):
            name = self.name_in(state, {"n": 1}, NOBODY)
            self.assertWorked(self.clients["another"].publish(None, name))
            self.assertWorked(self.clients["another"].remove(name))
            self.assertEqual(self.asker.dump(name)[1].code, 11)


class Dumps(StatesTest):
    def text_of(self, who):
        """Returns the text of that connection in dumps."""
        name = f"name {next(self.numbers)}"
        self.assertWorked(self.clients[who].publish({}, name))
        return self.entry(name)["publisher"]

    def assertShown(self, state, shown, name, data, publisher, date):
        if shown[0] == "(no entry, error 11)":
            entries, error = self.asker.dump(name, True)
            self.assertEqual((entries, error.code), ([], 11))
            return
        entry = self.entry(name)
        shown_data = "<no data>" if data is None else data
        cells = {
            "`<unconnected>`": "<unconnected>",
            "the publisher": publisher,
            "the last publisher until its connection ends, then `<unconnected>`": publisher,
            "`<never published>`": "<never published>",
            "of the last publication or update": date,
            "`<no data>`": "<no data>",
            "the data, or `<no data>` for null": shown_data,
            "the last data, or `<no data>` for null": shown_data,
        }
        self.assertEqual([entry["publisher"], entry["publishDate"], entry["publishedData"]],
                         [cells[cell] for cell in shown])

    def test_dumps_match_the_row_of_the_state(self):
        for state, *shown in SHOWN:
            for data in ({"n": 1}, None):
                with self.subTest(state=state, data=data):
                    publisher = self.text_of("publisher")
                    name = self.name_in("published", data, BOTH)
                    date = self.entry(name)["publishDate"]
                    self.assertIsInstance(date, Date)
                    if state == "orphaned, withdrawn":
                        self.assertWorked(self.clients["publisher"].remove(name))
                    elif state == "orphaned by the end of a connection":
                        self.end_of_publisher()
                    elif state != "published":
                        name = self.name_in(state, data, BOTH)
                    self.assertShown(state, shown, name, data, publisher, date)
                    if "until its connection ends" in shown[0]:
                        self.end_of_publisher()
                        then = ["`<unconnected>`", *shown[1:]]
                        self.assertShown(state, then, name, data, publisher, date)

    def test_show_the_date_of_the_last_update(self):
        name = self.name_in("published", {"n": 1}, BOTH)
        published = self.entry(name)["publishDate"]
        self.assertWorked(self.clients["publisher"].update({"n": 1}, name))
        updated = self.entry(name)["publishDate"]
        self.assertGreater(updated.seconds, published.seconds)
        self.assertWorked(self.clients["publisher"].remove(name))
        self.assertEqual(self.entry(name)["publishDate"], updated)


class Errors(StatesTest):
    def test_of_a_null_name_are_those_of_the_table(self):
        self.assertEqual({row[0] for row in ERRORS}, set(CALLS))
        for call, null_name, *_ in ERRORS:
            with self.subTest(call):
                error = CALLS[call](self.clients["another"], None)
                code = None if null_name == "ignored" else int(null_name)
                self.assertEqual(error and error.code, code)

    def test_of_a_null_name_leave_nothing_behind(self):
        for call in CALLS.values():
            call(self.clients["another"], None)
        self.assertEqual(self.asker.dump(), [[], None])
        kinds = {message.kind for message in self.clients["another"].history}
        self.assertEqual(kinds, {HELLO, REPLY})

    def test_have_a_description_where_the_page_says_so(self):
        name = self.name_in("published", {}, BOTH)
        self.assertIsNotNone(self.clients["another"].publish({}, name).user_info)
        self.assertIsNotNone(self.asker.dump("unknown")[1].user_info)
        publisher, follower, another = (
            self.clients[who] for who in ("publisher", "follower", "another"))
        for error in (publisher.publish({}, name), follower.subscribe(name),
                      another.update({}, name), another.remove(name),
                      another.subscribe(None), another.publish({}, None)):
            self.assertIsNone(error.user_info)


if __name__ == "__main__":
    keel_host.main()
