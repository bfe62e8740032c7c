#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the diagnostic dump of names, publishers and followers."""

import os
import re

import keel_host
from keel_client import ONE_WAY, REPLY, REQUEST, Client, framed
from keel_host import DaemonTest
from keel_values import Date, Error, encode


class Dump(DaemonTest):
    def setUp(self):
        super().setUp()
        self.asker = self.client()

    def entry(self, name, with_data=True):
        entries, error = self.asker.dump(name, with_data)
        self.assertIsNone(error)
        self.assertEqual(len(entries), 1)
        self.assertEqual(entries[0]["name"], name)
        return entries[0]

    def assertDateBetween(self, date, earliest, latest):
        self.assertIsInstance(date, Date)
        self.assertLessEqual(earliest.seconds, date.seconds)
        self.assertLessEqual(date.seconds, latest.seconds)

    def now(self):
        """Returns the daemon's present time."""
        with Client() as client:
            client.publish({}, "what time is it")
            date = client.dump("what time is it")[0][0]["publishDate"]
            client.remove("what time is it")
        return date

    def test_of_all_with_nothing_published_is_empty_and_no_error(self):
        for with_data in (False, True):
            self.assertEqual(self.asker.dump("_all", with_data), [[], None])

    def test_of_an_unknown_name_is_empty_with_an_error_that_names_it(self):
        for name in ("weather", "", "_ALL", "_all ", "é"):
            entries, error = self.asker.dump(name)
            self.assertEqual((entries, error),
                             ([],
                              Error("KLNErrorDomain", 11,
                                    {"NSLocalizedDescription": f"{name} not found"})))

    def test_of_a_null_name_is_not_found(self):
        entries, error = self.asker.dump(None, True)
        self.assertEqual(entries, [])
        self.assertError(error, 11, "(null) not found")

    def test_of_a_published_name(self):
        earliest = self.now()
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        entry = self.entry("weather")
        self.assertEqual(list(entry),
                         ["name", "publisher", "publishDate", "subscribers", "publishedData"])
        self.assertRegex(entry["publisher"],
                         rf"\A<connection \d+ pid {os.getpid()} \(python3\) uid 0 session -?\d+>\Z")
        self.assertDateBetween(entry["publishDate"], earliest, self.now())
        self.assertEqual(entry["subscribers"], [])
        self.assertEqual(entry["publishedData"], {"n": 1})

    def test_without_data_omits_the_data(self):
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        self.asker.subscribe("hoped for")
        for name in ("weather", "hoped for"):
            self.assertNotIn("publishedData", self.entry(name, with_data=False))
        for entry in self.asker.dump("_all", False)[0]:
            self.assertNotIn("publishedData", entry)

    def test_of_an_unpublished_name_has_placeholders(self):
        follower = self.client()
        follower.subscribe("weather")
        entry = self.entry("weather")
        self.assertEqual(entry["publisher"], "<unconnected>")
        self.assertEqual(entry["publishDate"], "<never published>")
        self.assertEqual(entry["publishedData"], "<no data>")
        self.assertEqual(len(entry["subscribers"]), 1)
        self.assertEqual(list(entry["subscribers"][0]), ["subscriber", "updateDate"])
        self.assertEqual(entry["subscribers"][0]["updateDate"], "<never updated>")
        self.assertRegex(entry["subscribers"][0]["subscriber"],
                         r"\A<connection \d+ pid \d+ \(.*\) uid 0 session -?\d+>\Z")

    def test_has_the_date_of_each_followers_last_update(self):
        followers = [self.client() for _ in range(3)]
        for follower in followers:
            follower.subscribe("weather")
        for follower in followers[1:]:
            follower.delivery()  # null: the name was known, but had no data
        dates = [entry["updateDate"] for entry in self.entry("weather")["subscribers"]]
        self.assertEqual(dates.count("<never updated>"), 1)
        earliest = self.now()
        publisher = self.client()
        publisher.publish({}, "weather")
        entry = self.entry("weather")
        latest = self.now()
        self.assertEqual(len({follower["subscriber"] for follower in entry["subscribers"]}), 3)
        for follower in entry["subscribers"]:
            self.assertDateBetween(follower["updateDate"], earliest, latest)

    def test_changes_no_date(self):
        follower = self.client()
        follower.publish({}, "weather")
        follower.subscribe("weather")
        follower.delivery()
        self.assertEqual(self.entry("weather"), self.entry("weather"))

    def test_equal_updates_change_the_date(self):
        follower, publisher = self.client(), self.client()
        follower.subscribe("weather")
        publisher.publish({"n": 1}, "weather")
        dates = []
        for _ in range(3):
            self.assertWorked(publisher.update({"n": 1}, "weather"))
            entry = self.entry("weather")
            dates.append((entry["publishDate"].seconds,
                          entry["subscribers"][0]["updateDate"].seconds))
            self.assertEqual(follower.delivery().item, {"n": 1})
        for earlier, later in zip(dates, dates[1:]):
            self.assertLess(earlier[0], later[0])
            self.assertLess(earlier[1], later[1])

    def test_of_a_withdrawn_name_with_followers_keeps_data_date_and_publisher(self):
        publisher = self.client()
        self.asker.subscribe("weather")
        publisher.publish({"n": 1}, "weather")
        before = self.entry("weather")
        publisher.remove("weather")
        # The connection that published it last is still there.
        self.assertEqual(self.entry("weather"), before)

    def test_of_a_name_whose_publisher_is_gone(self):
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        date = self.entry("weather")["publishDate"]
        self.end_of(publisher)
        entry = self.entry("weather")
        self.assertEqual(entry["publisher"], "<unconnected>")
        self.assertEqual(entry["publishDate"], date)
        self.assertEqual(entry["publishedData"], {"n": 1})
        successor = self.client()
        successor.publish(None, "weather")
        entry = self.entry("weather")
        self.assertNotEqual(entry["publisher"], "<unconnected>")
        self.assertGreater(entry["publishDate"].seconds, date.seconds)
        self.assertEqual(entry["publishedData"], "<no data>")

    def test_of_all_lists_each_name_once(self):
        publisher = self.client()
        names = {f"name {number}" for number in range(500)} | {"", "\0", "é", "e\u0301",
                                                               "<no data>"}
        for name in names:
            self.assertWorked(publisher.publish({"of": name}, name))
        entries, error = self.asker.dump("_all", True)
        self.assertIsNone(error)
        self.assertEqual(len(entries), len(names))
        self.assertEqual({entry["name"]: entry["publishedData"] for entry in entries},
                         {name: {"of": name} for name in names})

    def test_of_all_includes_an_item_of_the_reserved_name(self):
        publisher = self.client()
        publisher.publish({}, "_all")
        publisher.publish({}, "weather")
        self.assertEqual({entry["name"] for entry in self.asker.dump("_all")[0]},
                         {"_all", "weather"})

    def test_texts_of_connections_are_stable_and_differ(self):
        clients = [self.client() for _ in range(3)]
        for number, client in enumerate(clients):
            client.publish({}, f"name {number}")
        texts = [self.entry(f"name {number}")["publisher"] for number in range(3)]
        self.assertEqual(len(set(texts)), 3)
        clients[0].update({}, "name 0")
        self.assertEqual(self.entry("name 0")["publisher"], texts[0])
        numbers = [int(re.match(r"<connection (\d+) ", text).group(1)) for text in texts]
        self.assertEqual(numbers, sorted(numbers))

    def test_is_a_snapshot(self):
        """Runs a dump in slices while every item is updated, in the order of the names."""
        names = [f"name {number:03}" for number in range(300)]
        publisher = self.client()
        for name in names:
            self.assertWorked(publisher.publish({"version": 0}, name))
            self.assertWorked(self.asker.subscribe(name))
        settled = self.entries_by_name()
        for version in range(1, 11):
            # Both are there when the daemon looks again, the one or the other first.
            self.daemon.pause()
            if version % 2:
                dump = self.asker.request("dumpNotification:withData:andHandler:", "_all", True)
            updates = self.send_updates(publisher, names, {"version": version})
            if not version % 2:
                dump = self.asker.request("dumpNotification:withData:andHandler:", "_all", True)
            self.daemon.go_on()
            entries, error = self.asker.results(dump)
            self.assertIsNone(error)
            for identifier in updates:
                self.assertEqual(publisher.results(identifier), [None])
            shown = {entry["name"]: entry for entry in entries}
            self.assertEqual(sorted(shown), names)
            before, settled = settled, self.entries_by_name()
            # At one moment some of the names, the first ones, had been updated, each with all that
            # belongs to it.
            updated = sum(entry["publishedData"] == {"version": version} for entry in entries)
            for place, name in enumerate(names):
                self.assertEqual(shown[name], (settled if place < updated else before)[name])
            # Those updates had been delivered.
            history = self.asker.history
            answer = next(place for place, message in enumerate(history) if message.kind == REPLY
                          and message.fields[1] == dump)
            delivered = [message.fields[2][0] for message in history[:answer]
                         if message.kind == ONE_WAY
                         and message.fields[2][1] == {"version": version}]
            self.assertEqual(delivered[:updated], names[:updated])

    @staticmethod
    def send_updates(publisher, names, item):
        """Sends all with one system call, since an unread socket holds few messages, however small.
        Returns the requests' ids.
        """
        method = publisher.selectors.index("updatePublishedItem:name:withHandler:")
        identifiers = range(publisher.last_id + 1, publisher.last_id + 1 + len(names))
        publisher.last_id += len(names)
        publisher.send_bytes(b"".join(framed(encode([REQUEST, identifier, method, [item, name]]))
                                      for identifier, name in zip(identifiers, names)))
        return identifiers

    def entries_by_name(self):
        return {entry["name"]: entry for entry in self.asker.dump("_all", True)[0]}

    def test_is_queued_with_the_requests_of_its_connection(self):
        identifiers = []
        for number in range(50):
            identifiers.append(self.asker.request("publishItem:name:flags:value:withHandler:",
                                                  {"n": number}, f"name {number}",
                                                  0, 0))
            identifiers.append(self.asker.request("dumpNotification:withData:andHandler:", "_all",
                                                  False))
        for number, identifier in enumerate(identifiers):
            results = self.asker.results(identifier)
            if number % 2:
                self.assertEqual(len(results[0]), number // 2 + 1)
        answered = [message.fields[1] for message in self.asker.history if message.kind == 3]
        self.assertEqual(answered, identifiers)


if __name__ == "__main__":
    keel_host.main()
