#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the log messages that clients cause: texts, levels, categories and order."""

import os
import re

import keel_host
from keel_client import GOODBYE, ONE_WAY
from keel_host import DaemonTest

# In expected lines: @ stands for the text of a connection, # for an address.
PLACEHOLDERS = {"@": r"<connection \d+ pid \d+ \(python3\) uid 0 session -?\d+>",
                "#": "0x[0-9a-f]+"}
PID = os.getpid()
ALREADY = "already subscribed to"


def session_of_this_process():
    try:
        with open("/proc/self/sessionid") as file:
            session = int(file.read())
    except FileNotFoundError:
        return -1
    return session if session < 1 << 31 else session - (1 << 32)


class LogTest(DaemonTest):
    log = "debug"

    def assertLogged(self, *expected, category="notification"):
        """Ends the daemon and compares its log of that category with the given levels and texts."""
        self.assertEqual(self.daemon.stop(), 0)
        lines = [f"{line.level} {line.text}" for line in self.daemon.log
                 if line.category == category]
        self.assertEqual(len(lines), len(expected), "\n".join(lines))
        for line, text in zip(lines, expected):
            pattern = re.escape(text)
            for placeholder, stands_for in PLACEHOLDERS.items():
                pattern = pattern.replace(re.escape(placeholder), stands_for)
            self.assertRegex(line, rf"\A{pattern}\Z")


class Requests(LogTest):
    def setUp(self):
        super().setUp()
        self.one = self.client()

    def test_publish_update_and_remove(self):
        self.one.publish({}, "weather")
        self.one.publish({}, "weather")
        self.client().publish({}, "weather")
        self.one.publish({}, None)
        self.one.update({}, "weather")
        self.one.update({}, "unknown")
        self.one.update({}, None)
        self.one.remove("unknown")
        self.one.remove("weather")
        self.assertLogged(
            "debug NotificationHandler we have a publish request: weather from @",
            "debug NotificationHandler we have a publish request: weather from @",
            "error NotificationHandler we don't allow duplicate publications weather",
            "debug NotificationHandler we have a publish request: weather from @",
            "debug NotificationHandler we have a publish request: (null) from @",
            "debug updatePublishedItem: updating weather from @",
            "debug updatePublishedItem: updating unknown from @",
            "error updatePublishedItem: item : unknown not found",
            "debug updatePublishedItem: updating (null) from @",
            "error updatePublishedItem: item : (null) not found",
            "debug removePublishedItemForName weather ",
        )

    def test_subscribe_and_unsubscribe(self):
        self.one.subscribe("weather")
        self.one.subscribe("weather")
        self.one.subscribe(None)
        for name in ("weather", "weather", None):
            self.one.unsubscribe(name)
            self.one.dump("")
        self.assertLogged(
            "debug NotificationHandler we have a subscription request: weather",
            "debug NotificationHandler subscribing weather with #",
            "debug NotificationHandler we have a subscription request: weather",
            f"default NotificationHandler: subscribeTo: {ALREADY} weather subscription #",
            "debug NotificationHandler we have a subscription request: (null)",
            "debug unsubscribeFrom weather",
            "debug unsubscribeFrom weather subscription #",
            "debug unsubscribeFrom weather",
            "error unsubscribeFrom weather failed to find subscription",
            "debug unsubscribeFrom (null)",
            "error unsubscribeFrom (null) failed to find subscription",
        )

    def test_a_subscription_keeps_its_address(self):
        self.one.subscribe("weather")
        self.one.subscribe("weather")
        self.one.unsubscribe("weather")
        self.one.dump("")
        self.daemon.stop()
        addresses = [found.group() for line in self.daemon.log
                     if (found := re.search("0x[0-9a-f]+", line.text))]
        self.assertEqual(len(addresses), 3)
        self.assertEqual(len(set(addresses)), 1)

    def test_deliveries(self):
        self.one.subscribe("weather")
        self.one.publish({}, "weather")
        self.one.update({}, "weather")
        delivered = (
            "debug updateWithData: weather",
            "debug updateWithData: weather behavior",
            "debug updateWithData: weather behavior notification sent",
        )
        self.assertLogged(
            "debug NotificationHandler we have a subscription request: weather",
            "debug NotificationHandler subscribing weather with #",
            "debug NotificationHandler we have a publish request: weather from @",
            *delivered,
            "debug updatePublishedItem: updating weather from @",
            *delivered,
        )

    def test_dumps_and_queries_log_nothing(self):
        for name in ("_all", "unknown", None):
            self.one.dump(name, True)
        self.one.auth_check("alice", 3)
        self.one.module_table()
        self.assertLogged()

    def test_at_the_default_level_only_refusals_are_logged(self):
        self.daemon.stop()
        self.daemon = self.start(log="runtime=debug")
        one = self.client()
        one.publish({}, "weather")
        one.publish({}, "weather")
        one.subscribe("weather")
        one.subscribe("weather")
        one.unsubscribe("unknown")
        one.update({}, "unknown")
        self.assertLogged(
            "error NotificationHandler we don't allow duplicate publications weather",
            f"default NotificationHandler: subscribeTo: {ALREADY} weather subscription #",
            "error unsubscribeFrom unknown failed to find subscription",
            "error updatePublishedItem: item : unknown not found",
        )


class Connections(LogTest):
    ACCEPTED = (f"debug New Notification Service Connection received from {PID}",
                "debug NotifyListenerDelgate: Notify service is ready")
    STARTED = ("debug Auth listener created", "debug Notify listener created",
               "debug up and running")
    ENDED = ("default signal handler: received SIGTERM, shutting down",)

    def test_each_is_logged_with_its_process(self):
        other = self.process()
        other.client()
        self.client()
        self.assertLogged(
            *self.STARTED,
            f"debug New Notification Service Connection received from {other.pid}",
            "debug NotifyListenerDelgate: Notify service is ready",
            *self.ACCEPTED,
            *self.ENDED,
            category="runtime",
        )

    def test_ends_are_logged_and_cleaned_up_in_order(self):
        publisher, follower = self.client(), self.client()
        publisher.subscribe("followed")
        publisher.publish({}, "weather")
        follower.subscribe("weather")
        follower.delivery()
        self.end_of(publisher)
        self.daemon.stop()
        texts = [line.text for line in self.daemon.log if line.category == "notification"]
        session = session_of_this_process()
        first = texts.index(f"NotifyService  connection from ({PID}){session} invalidated")
        self.assertEqual(
            texts[first:],
            [
                f"NotifyService  connection from ({PID}){session} invalidated",
                "NotifyService unsubscribing",
                "behavior connectionIsInvalid: unsubscribing from followed",
                "NotifyService unpublishing",
                "updateWithError: weather",
                "SubscriberBehavior:updateWithError: weather",
                "SubscriberBehavior:updateWithError: ignoring errPublisherDisconnected(8)",
            ],
        )
        self.assertEqual({line.level for line in self.daemon.log}, {"debug", "default"})

    def test_ends_are_logged_with_the_gone_process(self):
        other = self.process(new_session=True)
        pid, session = other.pid, other.session
        other.client()
        self.after_clean_up(other.kill)
        self.assertTrue(self.daemon.logged(f"Dispatcher: connection from {pid} is invalidated",
                                           "debug", "runtime"))
        self.daemon.wait_for_log(f"NotifyService  connection from ({pid}){session} invalidated",
                                 level="debug",
                                 category="notification")

    def test_a_bad_message_interrupts_and_is_logged_once(self):
        one = self.client()
        for _ in range(3):
            one.send([ONE_WAY, 99, []])
            one.failure(None)
        self.assertLogged(
            *self.STARTED,
            *self.ACCEPTED,
            "error @ sent what cannot be served: there is no method 99",
            *(f"debug Dispatcher: plugin connection from {PID} interrupted "
              "(unserialized object?)",) * 3,
            *self.ENDED,
            category="runtime",
        )
        session = session_of_this_process()
        interrupted = f"NotifyService connection from ({PID}){session} interrupted"
        self.assertEqual(len(self.daemon.logged(interrupted, "debug", "notification")), 3)

    def test_a_goodbye_of_a_client_is_no_fault(self):
        one = self.client()
        self.after_clean_up(lambda: one.send([GOODBYE, "done"]))
        self.daemon.stop()
        self.assertEqual([line for line in self.daemon.log if line.level == "error"], [])


if __name__ == "__main__":
    keel_host.main()
