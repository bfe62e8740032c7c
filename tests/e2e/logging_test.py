#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests keeld's log outputs and levels, and that a reader that does not read never blocks the
daemon.
"""

import fcntl
import os
import re
import signal

import keel_host
from keel_client import AUTH, HELLO, NOTIFY, Client
from keel_host import DaemonTest, Journal

SHUTTING_DOWN = "signal handler: received SIGTERM, shutting down"
REFUSED = "NotificationHandler we don't allow duplicate publications name"
# Each debug request is a message; far more than any queue on the way holds.
MANY = 20000


class LogTest(DaemonTest):
    log = "debug"

    def setUp(self):
        self.daemons = []

    def flood_the_log(self, client, count=MANY):
        """Makes `count` messages of the debug level, and waits until keeld has come past them."""
        for start in range(0, count, 1000):
            for _ in range(start, min(start + 1000, count)):
                client.unsubscribe("nothing")
            client.dump("nothing")


class Levels(LogTest):
    def levels_of(self, setting):
        """Returns the categories and levels logged, under that setting, for a refused publication
        and the end.
        """
        daemon = self.start_silent(log=setting)
        client = self.client()
        client.publish({}, "name")
        client.publish({}, "name")
        self.assertEqual(daemon.stop(), 0)
        return {(line.category, line.level) for line in daemon.log}

    def test_without_a_setting_ordinary_progress_is_not_logged(self):
        self.assertEqual(self.levels_of(None),
                         {("daemon", "default"), ("notification", "error"), ("runtime", "default")})

    def test_a_plain_level_applies_to_all_categories(self):
        self.assertEqual(self.levels_of("error"), {("notification", "error")})
        self.assertEqual(self.levels_of("fault"), set())
        self.assertEqual(
            self.levels_of("debug"),
            {
                ("daemon", "default"), ("notification", "debug"), ("notification", "error"),
                ("runtime", "debug"),
                ("runtime", "default"), ("startup", "debug"),
            },
        )

    def test_a_category_may_have_its_own_level(self):
        self.assertEqual(
            self.levels_of("fault,notification=debug"),
            {("notification", "debug"), ("notification", "error")})

    def test_invalid_entries_are_named_and_the_others_apply(self):
        daemon = self.start(log="chatty,runtime=debug,notification=loud")
        line = daemon.wait_for_log("KEELD_LOG: not understood: chatty,notification=loud")
        self.assertEqual((line.level, line.category), ("error", "runtime"))
        self.assertWorked(self.client().publish({}, "name"))
        self.assertFalse([line for line in daemon.log if line.category == "notification"])


def unsubscribe_often(name, count):
    """Causes `count` lines of level error."""
    client = Client()
    for _ in range(count):
        client.unsubscribe(name)
    client.dump("nothing")
    client.close()


def cause_lines_of_all_kinds():
    """Sends valid, invalid and malformed requests to both services."""
    one, other = Client(), Client()
    for _ in range(2):
        one.subscribe("weather")
        other.publish({}, "weather")
    for name in ("weather", "unknown", None):
        other.update({}, name)
        one.unsubscribe(name)
        other.remove(name)
    one.send_frame(b"nonsense")
    other.subscribe("weather")
    one.publish({}, "weather")
    one.dump("_all")
    with Client(exports=()) as deaf:  # exports no method that receives updates
        deaf.subscribe("weather")
        one.update({}, "weather")
        one.dump("weather")
    auth = Client(AUTH, exports=())
    auth.call("authDigestStartWithHandler:")
    auth.call("authBasicStartWithHandler:")
    auth.call("authValidate:andID:withHandler:", "answer", "unknown")
    auth.call("authenticateForUser:using:withHandler:", "alice", b"short")
    auth.send_frame(b"nonsense")
    auth.call("authServiceCheckWithHandler:")
    for service in (NOTIFY, AUTH):
        twice = Client(service, exports=())
        twice.send([HELLO, 1, [], {}])
        twice.end()
    for client in (one, other, auth):
        client.close()


class Limits(LogTest):
    LEFT_OUT = re.compile(r"(\d+) lines? caused by uid 501 (?:was|were) left out")

    def test_lines_of_one_user_are_limited_and_counted(self):
        daemon = self.start(log="runtime=debug")
        noisy, quiet = self.process(uid=501), self.process(uid=502)
        noisy.do(unsubscribe_often, "noise", MANY)
        quiet.do(unsubscribe_often, "fault", 1)
        daemon.wait_for_log("unsubscribeFrom fault failed to find subscription", level="error")
        daemon.wait_for_log(self.LEFT_OUT, level="error", category="notification")
        self.assertEqual(daemon.stop(), 0)
        written = len(daemon.logged("unsubscribeFrom noise failed to find subscription"))
        users = {".*noise.*|.*left out": 501, ".*fault.*": 502, "up and running": None}
        for text, uid in users.items():
            self.assertEqual({line.uid for line in daemon.logged(re.compile(text))}, {uid}, text)
        self.assertGreaterEqual(written, 100)
        self.assertLess(written, MANY // 2)
        left_out = sum(
            int(self.LEFT_OUT.fullmatch(line.text).group(1))
            for line in daemon.logged(self.LEFT_OUT)
        )
        self.assertEqual(written + left_out, MANY)

    def test_every_line_that_a_client_causes_names_its_user(self):
        daemon = self.start()
        before = len(daemon.log)
        self.process(uid=501).do(cause_lines_of_all_kinds)
        daemon.wait_for_log(re.compile("Dispatcher: connection from .* is invalidated"), 4)
        daemon.wait_for_log("AuthListenerDelgate: connection is invalidated", 2)
        self.assertEqual(daemon.stop(), 0)
        lines = [line for line in daemon.log[before:] if line.text != SHUTTING_DOWN]
        self.assertGreater(len({line.text for line in lines}), 40)
        self.assertEqual([line for line in lines if line.uid != 501], [])

    def test_roots_lines_are_not_limited(self):
        daemon = self.start(log="runtime=debug")
        unsubscribe_often("mine", 1000)
        daemon.wait_for_log("unsubscribeFrom mine failed to find subscription", 1000)


class StandardError(LogTest):
    def test_messages_are_lines_that_cannot_disturb_a_terminal(self):
        daemon = self.start()
        client = self.client()
        client.publish({}, "bell \a, escape \x1b[31m, line\nand nul \0")
        client.publish({}, "n" * 5000)
        client.dump("")
        daemon.stop()
        for line in daemon.lines:
            self.assertRegex(line, keel_host.LOG_LINE)
            self.assertTrue(line.isprintable(), line)
            self.assertLess(len(line), 1200)
        self.assertTrue(
            [line for line in daemon.lines if "line\\x0aand" in line or "line\\nand" in line])

    def stuck_daemon(self):
        """Starts a daemon whose standard error is an unread pipe; returns both."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        daemon = self.start_silent(stderr=writing)
        os.close(writing)
        return daemon, reading

    def test_a_full_pipe_does_not_block_the_daemon(self):
        self.daemon, _ = self.stuck_daemon()
        client = self.client()
        before = self.daemon.resident_bytes()
        self.flood_the_log(client)
        for _ in range(1000):
            client.unsubscribe("x" * 100000)
        self.assertWorked(client.publish({}, "name"))
        self.assertMemoryWithin(before, 32 << 20)
        self.assertEqual(self.daemon.stop(), 0)

    def test_losses_are_reported_once_it_is_read_again(self):
        daemon, reading = self.stuck_daemon()
        client = self.client()
        self.flood_the_log(client)
        text = b""
        while b"lost" not in text:
            piece = os.read(reading, 1 << 16)
            self.assertTrue(piece, "the daemon ended")
            text += piece
        lines = text.decode().split("\n")
        at = next(place for place, line in enumerate(lines) if "lost" in line)
        lost = re.search(r"\d+", keel_host.LOG_LINE.match(lines[at]).group(4))
        self.assertGreater(int(lost.group()), 0)
        self.assertLess(int(lost.group()), 5 * MANY)

    def test_a_reader_that_is_gone_is_harmless(self):
        reading, writing = os.pipe()
        daemon = self.start_silent(stderr=writing)
        os.close(writing)
        os.close(reading)
        client = self.client()
        self.flood_the_log(client, 2000)
        self.assertWorked(client.publish({}, "name"))
        self.assertEqual(daemon.stop(), 0)

    def test_a_closed_one_is_never_a_clients_socket(self):
        daemon = self.start_silent(before_exec=lambda: os.close(2))
        # one of their sockets is what standard error would have been
        clients = [self.client() for _ in range(10)]
        for number, client in enumerate(clients):
            self.assertWorked(client.publish({}, f"name {number}"))
            self.assertEqual(client.deliveries_so_far(), [])
        self.assertEqual(daemon.stop(), 0)


class InTheJournal(LogTest):
    def setUp(self):
        super().setUp()
        self.journal = Journal()
        self.addCleanup(self.journal.close)

    def start_in_journal(self):
        daemon = self.start(journal=True, ready=False)
        entries = self.journal.until("up and running")
        return daemon, entries

    def test_a_message_is_an_entry_with_its_fields(self):
        daemon, entries = self.start_in_journal()
        self.assertEqual({entry["SUBSYSTEM"] for entry in entries}, {"com.vantor.keeld"})
        self.assertEqual({(entry["CATEGORY"], entry["PRIORITY"]) for entry in entries},
                         {("startup", "7"), ("runtime", "7"), ("daemon", "5")})
        client = self.client()
        client.publish({}, "name")
        client.publish({}, "name")
        entry = self.journal.until(REFUSED)[-1]
        self.assertEqual((entry["PRIORITY"], entry["CATEGORY"]), ("3", "notification"))
        daemon.signal(signal.SIGTERM)
        entry = self.journal.until(SHUTTING_DOWN)[-1]
        self.assertEqual((entry["PRIORITY"], entry["CATEGORY"]), ("5", "runtime"))
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.lines, [])

    def test_texts_are_escaped_and_not_truncated(self):
        """`journalctl --output=cat` prints them as they are: a name must not forge a line."""
        self.start_in_journal()
        long = "long " * 300
        self.client().subscribe("line\nforged \a, é \u202e" + long)
        self.journal.until(
            "NotificationHandler we have a subscription request: "
            f"line\\nforged \\x07, é \\u202e{long}"
        )

    def test_an_entry_names_the_user_who_caused_it(self):
        daemon, entries = self.start_in_journal()
        self.assertFalse([entry for entry in entries if "KEEL_UID" in entry])
        self.process(uid=501).do(unsubscribe_often, "name", 1)
        entry = self.journal.until("unsubscribeFrom name failed to find subscription")[-1]
        self.assertEqual(entry["KEEL_UID"], "501")
        daemon.signal(signal.SIGTERM)
        self.assertNotIn("KEEL_UID", self.journal.until(SHUTTING_DOWN)[-1])

    def test_is_used_only_when_standard_error_is_connected_to_it(self):
        daemon = self.start(environment={"JOURNAL_STREAM": "1:2"})
        self.assertTrue(daemon.logged("up and running"))

    def test_a_stopped_journal_does_not_block_the_daemon(self):
        daemon, _ = self.start_in_journal()
        client = self.client()
        self.flood_the_log(client)
        self.assertWorked(client.publish({}, "name"))
        self.assertEqual(daemon.stop(), 0)

    def test_losses_are_reported_once_the_journal_continues(self):
        self.start_in_journal()
        self.flood_the_log(self.client())
        while "lost" not in (entry := self.journal.next())["MESSAGE"]:
            pass
        self.assertGreater(int(re.search(r"\d+", entry["MESSAGE"]).group()), 0)

    def test_a_journal_that_is_gone_does_not_block_the_daemon(self):
        daemon, _ = self.start_in_journal()
        self.journal.close()
        client = self.client()
        self.flood_the_log(client, 2000)
        self.assertWorked(client.publish({}, "name"))
        self.assertEqual(daemon.stop(), 0)
        self.journal = Journal()


if __name__ == "__main__":
    keel_host.main()
