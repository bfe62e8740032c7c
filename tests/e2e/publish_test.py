#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests publish, update, remove, subscribe and unsubscribe over the wire."""

import re

import keel_host
from keel_client import CLIENT_INFO, ONE_WAY, REPLY, REQUEST, UPDATE, Client
from keel_host import DaemonTest
from keel_values import Error, encode, framed

MOST = (1 << 64) - 1


class NotifyTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.publisher = self.client()
        self.follower = self.client()

    def assertDelivered(self, client, name, item):
        delivery = client.delivery()
        self.assertEqual(tuple(delivery), (name, item, 0, None))

    def assertNothingDelivered(self, client):
        self.assertEqual(client.deliveries_so_far(), [])

    def entry(self, name, with_data=True):
        entries, error = self.client().dump(name, with_data)
        self.assertIsNone(error)
        self.assertEqual(len(entries), 1)
        return entries[0]


class Publish(NotifyTest):
    def test_a_new_name_is_published(self):
        self.assertWorked(self.publisher.publish({"degrees": -3}, "weather"))
        self.assertEqual(self.entry("weather")["publishedData"], {"degrees": -3})

    def test_a_name_already_published_on_this_connection_is_a_duplicate_without_description(self):
        self.assertWorked(self.publisher.publish({"kept": True}, "weather"))
        self.assertEqual(self.publisher.publish({"kept": False}, "weather"),
                         Error("KLNErrorDomain", 9, None))
        self.assertEqual(self.entry("weather")["publishedData"], {"kept": True})

    def test_a_name_published_on_another_connection_is_a_duplicate_with_description(self):
        self.assertWorked(self.publisher.publish({"kept": True}, "weather"))
        self.follower.subscribe("weather")
        self.assertDelivered(self.follower, "weather", {"kept": True})
        other = self.client()
        self.assertError(other.publish({}, "weather"), 9,
                         "the key weather has already been published")
        self.assertNothingDelivered(self.follower)
        self.assertEqual(self.entry("weather")["publishedData"], {"kept": True})
        self.assertWorked(self.publisher.update({"still": "mine"}, "weather"))
        self.assertEqual(other.update({}, "weather").code, 11)

    def test_a_null_name_is_refused(self):
        self.assertEqual(self.publisher.publish({}, None), Error("KLNErrorDomain", 12, None))
        self.assertEqual(self.publisher.publish(None, None), Error("KLNErrorDomain", 12, None))
        self.assertEqual(self.client().dump(), [[], None])

    def test_an_empty_name_is_a_name(self):
        self.assertWorked(self.publisher.publish({"of": "nothing"}, ""))
        self.assertWorked(self.follower.subscribe(""))
        self.assertDelivered(self.follower, "", {"of": "nothing"})

    def test_a_null_item_is_an_item(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertWorked(self.publisher.publish(None, "weather"))
        self.assertDelivered(self.follower, "weather", None)
        self.assertEqual(self.entry("weather")["publishedData"], "<no data>")
        self.assertNotEqual(self.entry("weather")["publishDate"], "<never published>")

    def test_flags_and_value_have_no_effect(self):
        for place, (flags,
                    value) in enumerate([(0, 0), (1, -1), (MOST, (1 << 63) - 1),
                                         (1 << 63, -(1 << 63)), (0x5555, 42)]):
            name = f"name {place}"
            self.assertWorked(self.publisher.publish({"n": place}, name, flags, value))
            self.assertWorked(self.follower.subscribe(name, flags))
            self.assertDelivered(self.follower, name, {"n": place})
            self.assertWorked(self.publisher.update({"n": -1}, name))
            self.assertDelivered(self.follower, name, {"n": -1})
            self.assertEqual(self.client().publish({}, name, flags, value).code, 9)
            self.assertWorked(self.publisher.remove(name))

    def test_a_withdrawn_name_can_be_published_again(self):
        for number in range(3):
            self.assertWorked(self.publisher.publish({"n": number}, "weather"))
            self.assertWorked(self.publisher.remove("weather"))
        self.assertWorked(self.client().publish({}, "weather"))

    def test_its_own_follower_is_notified_before_the_reply(self):
        self.assertWorked(self.publisher.subscribe("weather"))
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.publisher.update({"n": 2}, "weather"))
        kinds = [message.kind for message in self.publisher.history[1:]]
        self.assertEqual(kinds, [REPLY, ONE_WAY, REPLY, ONE_WAY, REPLY])
        self.assertDelivered(self.publisher, "weather", {"n": 1})
        self.assertDelivered(self.publisher, "weather", {"n": 2})


class Update(NotifyTest):
    def setUp(self):
        super().setUp()
        self.assertWorked(self.publisher.publish({"n": 0}, "weather"))

    def test_reaches_every_follower_in_order(self):
        followers = [self.client() for _ in range(5)]
        for follower in followers:
            self.assertWorked(follower.subscribe("weather"))
            self.assertDelivered(follower, "weather", {"n": 0})
        for number in range(1, 101):
            self.publisher.request("updatePublishedItem:name:withHandler:", {"n": number},
                                   "weather")
        for follower in followers:
            for number in range(1, 101):
                self.assertDelivered(follower, "weather", {"n": number})

    def test_an_equal_value_is_delivered_and_dated_too(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 0})
        before = self.entry("weather")["publishDate"].seconds
        for _ in range(2):
            self.assertWorked(self.publisher.update({"n": 0}, "weather"))
            self.assertDelivered(self.follower, "weather", {"n": 0})
        self.assertGreater(self.entry("weather")["publishDate"].seconds, before)

    def test_null_is_allowed(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 0})
        self.assertWorked(self.publisher.update(None, "weather"))
        self.assertDelivered(self.follower, "weather", None)

    def test_of_a_name_that_another_connection_publishes_is_not_found(self):
        self.assertEqual(self.follower.update({}, "weather"), Error("KLNErrorDomain", 11, None))
        self.assertEqual(self.entry("weather")["publishedData"], {"n": 0})

    def test_of_an_unknown_or_null_name_is_not_found(self):
        self.assertEqual(self.publisher.update({}, "unknown"), Error("KLNErrorDomain", 11, None))
        self.assertEqual(self.publisher.update({}, None), Error("KLNErrorDomain", 11, None))
        self.assertEqual(self.client().dump("unknown")[1].code, 11)

    def test_of_a_followed_name_is_not_found(self):
        self.assertWorked(self.follower.subscribe("hoped for"))
        self.assertEqual(self.follower.update({}, "hoped for").code, 11)
        self.assertEqual(self.entry("hoped for")["publishedData"], "<no data>")


class PipelinedUpdates(NotifyTest):
    """The daemon reads many at once; at its default log level they form batches."""

    COUNT = 10_000

    def setUp(self):
        super().setUp()
        self.assertWorked(self.publisher.publish(None, "weather"))
        self.followers = [self.client() for _ in range(3)]
        for follower in self.followers:
            self.assertWorked(follower.subscribe("weather"))
            self.assertDelivered(follower, "weather", None)
        # Sizes vary; some values exceed what is copied into a batch, some updates carry no data.
        self.items = [
            None if n % 1001 == 1000
            else {"n": n, "text": "x" * (6000 if n % 997 == 996 else n % 90)}
            for n in range(self.COUNT)
        ]

    def send_updates(self):
        """Sends all updates before it waits for a reply, and returns their request ids."""
        index = self.publisher.selectors.index("updatePublishedItem:name:withHandler:")
        first = self.publisher.last_id + 1
        self.publisher.last_id += self.COUNT
        self.publisher.send_bytes(b"".join(
            framed(encode([REQUEST, first + n, index, [item, "weather"]]))
            for n, item in enumerate(self.items)))
        return range(first, first + self.COUNT)

    def assertAllDelivered(self):
        for follower in self.followers:
            for item in self.items:
                self.assertDelivered(follower, "weather", item)
            self.assertNothingDelivered(follower)
        self.assertEqual(self.entry("weather")["publishedData"], self.items[-1])
        self.assertLogged()

    def assertLogged(self):
        self.assertFalse(self.daemon.logged(re.compile(".*"), category="notification"))

    def test_reach_every_follower_and_are_answered_in_order(self):
        start = len(self.publisher.history)
        requests = self.send_updates()
        for request in requests:
            self.assertEqual(self.publisher.results(request), [None])
        received = [message.fields[:2] for message in self.publisher.history[start:]]
        self.assertEqual(received, [[REPLY, request] for request in requests])
        self.assertAllDelivered()

    def test_reach_their_own_publisher_before_each_reply(self):
        self.assertWorked(self.publisher.subscribe("weather"))
        self.assertDelivered(self.publisher, "weather", None)
        start = len(self.publisher.history)
        requests = self.send_updates()
        self.assertEqual(self.publisher.results(requests[-1]), [None])
        expected = []
        for request, item in zip(requests, self.items):
            expected += [[ONE_WAY, 0, ["weather", item, 0, None]], [REPLY, request, [None]]]
        received = [message.fields for message in self.publisher.history[start:]]
        self.assertEqual(len(received), len(expected))
        for place, (message, wanted) in enumerate(zip(received, expected)):
            self.assertEqual(message, wanted, place)
        self.assertAllDelivered()


class PipelinedUpdatesWithDebugLines(PipelinedUpdates):
    """The same promises hold where each update is logged, and travels alone."""

    log = "debug"

    def assertLogged(self):
        self.assertTrue(self.daemon.logged(re.compile(".*"), "debug", "notification"))


class Remove(NotifyTest):
    def setUp(self):
        super().setUp()
        self.assertWorked(self.publisher.publish({"n": 0}, "weather"))

    def test_without_followers_forgets_the_name(self):
        self.assertWorked(self.publisher.remove("weather"))
        self.assertEqual(self.client().dump(), [[], None])
        self.assertEqual(self.publisher.update({}, "weather").code, 11)
        self.assertEqual(self.publisher.remove("weather").code, 11)

    def test_with_followers_keeps_the_name_and_notifies_none(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 0})
        self.assertWorked(self.publisher.remove("weather"))
        self.assertNothingDelivered(self.follower)
        self.assertEqual(self.publisher.update({}, "weather").code, 11)
        late = self.client()
        self.assertWorked(late.subscribe("weather"))
        self.assertDelivered(late, "weather", {"n": 0})
        taker = self.client()
        self.assertWorked(taker.publish({"n": 1}, "weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.assertDelivered(late, "weather", {"n": 1})

    def test_of_a_name_not_published_by_the_client_is_not_found(self):
        for name in ("weather", "unknown", None):
            self.assertEqual(self.follower.remove(name), Error("KLNErrorDomain", 11, None))
        self.assertEqual(self.entry("weather")["publishedData"], {"n": 0})

    def test_after_the_last_follower_left_forgets_the_name(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.follower.unsubscribe("weather")
        self.follower.dump("")
        self.assertWorked(self.publisher.remove("weather"))
        self.assertEqual(self.client().dump(), [[], None])


class Subscribe(NotifyTest):
    def test_to_a_published_name_is_answered_before_its_data_arrives(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.assertNothingDelivered(self.follower)
        self.assertEqual([message.kind for message in self.follower.history[1:3]], [REPLY, ONE_WAY])

    def test_to_an_unpublished_name_receives_nothing_until_it_is_published(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertNothingDelivered(self.follower)
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})

    def test_to_a_name_without_data_yet_gets_null(self):
        self.assertWorked(self.follower.subscribe("weather"))
        other = self.client()
        self.assertWorked(other.subscribe("weather"))
        self.assertDelivered(other, "weather", None)
        self.assertNothingDelivered(self.follower)

    def test_twice_is_a_duplicate_and_the_first_stays(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.assertEqual(self.follower.subscribe("weather"), Error("KLNErrorDomain", 9, None))
        self.assertNothingDelivered(self.follower)
        self.assertWorked(self.publisher.update({"n": 2}, "weather"))
        self.assertDelivered(self.follower, "weather", {"n": 2})
        self.assertNothingDelivered(self.follower)
        self.assertEqual(len(self.entry("weather")["subscribers"]), 1)

    def test_from_two_connections_of_one_process_works_for_both(self):
        other = self.client()
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertWorked(other.subscribe("weather"))
        self.assertDelivered(other, "weather", None)
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.assertDelivered(other, "weather", {"n": 1})

    def test_to_null_is_refused(self):
        self.assertEqual(self.follower.subscribe(None), Error("KLNErrorDomain", 12, None))
        self.assertEqual(self.client().dump(), [[], None])

    def test_to_a_null_name_is_answered_ahead_of_queued_requests(self):
        first = self.follower.request("subscribeTo:withFlags:andHandler:", "weather", 0)
        refused = self.follower.request("subscribeTo:withFlags:andHandler:", None, 0)
        self.assertEqual(self.follower.results(refused)[1].code, 12)
        self.assertEqual(self.follower.results(first), [None, None])

    def test_to_the_reserved_name_of_dumps_is_an_ordinary_subscription(self):
        self.assertWorked(self.follower.subscribe("_all"))
        self.assertWorked(self.publisher.publish({}, "weather"))
        self.assertNothingDelivered(self.follower)
        self.assertWorked(self.publisher.publish({"n": 1}, "_all"))
        self.assertDelivered(self.follower, "_all", {"n": 1})

    def test_by_a_client_that_exports_nothing_works_and_delivers_nothing(self):
        deaf = self.client(exports=[])
        self.assertWorked(deaf.subscribe("weather"))
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertNothingDelivered(deaf)
        self.assertEqual(len(self.entry("weather")["subscribers"]), 1)
        self.assertWorked(self.publisher.update({"n": 2}, "weather"))
        self.assertNothingDelivered(deaf)

    def test_deliveries_use_the_method_index_of_the_clients_hello(self):
        unusual = self.client(exports=["somethingElse:", CLIENT_INFO, UPDATE])
        self.assertWorked(unusual.subscribe("weather"))
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertDelivered(unusual, "weather", {"n": 1})
        self.assertEqual(unusual.history[-1].fields[1], 2)


class Unsubscribe(NotifyTest):
    def test_ends_the_deliveries(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.follower.unsubscribe("weather")
        self.assertNothingDelivered(self.follower)
        self.assertWorked(self.publisher.update({"n": 2}, "weather"))
        self.assertNothingDelivered(self.follower)
        self.assertEqual(self.entry("weather")["subscribers"], [])

    def test_from_a_name_not_followed_does_nothing(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        other = self.client()
        self.assertWorked(other.subscribe("weather"))
        for name in ("weather", "unknown", "", None):
            self.follower.unsubscribe(name)
        self.assertNothingDelivered(self.follower)
        # the hello, and the answer that nothing more would come
        self.assertEqual(len(self.follower.history), 2)
        self.assertWorked(self.publisher.update({"n": 2}, "weather"))
        self.assertDelivered(other, "weather", {"n": 1})
        self.assertDelivered(other, "weather", {"n": 2})

    def test_and_following_again_works(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        for _ in range(3):
            self.assertWorked(self.follower.subscribe("weather"))
            self.assertDelivered(self.follower, "weather", {"n": 1})
            self.follower.unsubscribe("weather")
        self.assertNothingDelivered(self.follower)

    def test_keeps_an_unpublished_name_known(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.follower.unsubscribe("weather")
        self.follower.dump("")
        self.assertEqual(self.entry("weather")["subscribers"], [])
        late = self.client()
        self.assertWorked(late.subscribe("weather"))
        self.assertDelivered(late, "weather", None)


class TheEndOfAConnection(NotifyTest):
    def test_of_a_follower_ends_its_subscriptions(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.end_of(self.follower)
        self.assertEqual(self.entry("weather")["subscribers"], [])
        self.assertWorked(self.publisher.publish({}, "weather"))

    def test_of_a_publisher_keeps_name_and_data_and_notifies_none(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.end_of(self.publisher)
        self.assertNothingDelivered(self.follower)
        late = self.client()
        self.assertWorked(late.subscribe("weather"))
        self.assertDelivered(late, "weather", {"n": 1})
        self.assertEqual(late.update({}, "weather").code, 11)
        self.assertEqual(late.remove("weather").code, 11)

    def test_of_a_publisher_leaves_its_followers_to_the_next(self):
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.end_of(self.publisher)
        for number in (2, 3):
            with Client() as publisher:
                self.assertWorked(publisher.publish({"n": number}, "weather"))
                self.assertDelivered(self.follower, "weather", {"n": number})
                self.assertWorked(publisher.update({"n": -number}, "weather"))
                self.assertDelivered(self.follower, "weather", {"n": -number})
                self.end_of(publisher)
        self.assertNothingDelivered(self.follower)

    def test_of_a_publisher_that_follows_itself(self):
        self.assertWorked(self.publisher.subscribe("weather"))
        self.assertWorked(self.publisher.publish({"n": 1}, "weather"))
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})
        self.end_of(self.publisher)
        self.assertNothingDelivered(self.follower)
        self.assertEqual(len(self.entry("weather")["subscribers"]), 1)

    def test_with_requests_in_flight_does_not_affect_others(self):
        self.assertWorked(self.follower.subscribe("weather"))
        for number in range(200):
            self.publisher.request("publishItem:name:flags:value:withHandler:", {},
                                   f"name {number}", 0, 0)
        self.end_of(self.publisher)
        self.assertWorked(self.client().publish({"n": 1}, "weather"))
        self.assertDelivered(self.follower, "weather", {"n": 1})


class SideQuestions(NotifyTest):
    def test_no_user_is_authenticated_at_first(self):
        for user, asid in (("root", 0), ("alice", 3), ("", -1), (None, 2147483647),
                           ("alice", -2147483648)):
            self.assertEqual(self.follower.auth_check(user, asid), [False, None])

    def test_without_modules_the_module_table_is_empty(self):
        self.assertEqual(self.follower.module_table(), {})


if __name__ == "__main__":
    keel_host.main()
