#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests keelctl's output, errors and exit statuses, on terminals and in scripts."""

import json
import os
import pty
import re
import signal
import subprocess
import termios

import keel_host
from keel_host import NOTIFY_PATH
from keel_keelctl import ENVIRONMENT, KeelctlTest
from keel_values import Date, Error, Raw

OK, REFUSED, USAGE, UNREACHABLE, TIMED_OUT, COMMAND_FAILED, OUTPUT_FAILED = range(7)
USER = 1001


class CommandLine(KeelctlTest):
    def test_help_succeeds(self):
        for arguments in (["--help"], ["publish", "--help"], ["subscribe", "-h"]):
            code, out, told = self.run_keelctl(*arguments)
            self.assertEqual((code, told), (OK, ""))
            for status in ("0", "1", "2", "3", "4", "5", "6", "130", "143"):
                self.assertRegex(out, rf"(?m)^  {status} +\S")

    def test_usage_errors_are_reported_and_do_nothing(self):
        for arguments in (
            [], ["nonsense"], ["publish"], ["publish", "name"], ["publish", "name", "{}", "more"],
            ["publish", "name", "{}", "--nonsense"],
            ["publish", "name", "{"], ["publish", "name", "[1]"], ["publish", "name", "1"],
            ["publish", "name", '"text"'],
            ["publish", "name", ""],
            ["publish", "name", "{} {}"], ["publish", "name", '{"x":{"$date":"never"}}'],
            ["publish", "name", '{"x":{"$data":"%"}}'],
            ["publish", "name", "{}", "--count", "-1"], ["publish", "name", "{}", "--flags", "-1"],
            ["publish", "name", "{}", "--value", "x"],
            ["subscribe"], ["subscribe", "name", "--timeout", "-1"],
            ["subscribe", "name", "--count", "x"], ["update", "name"],
            ["remove"],
            ["authcheck"], ["authcheck", "user", "x"], ["authcheck", "user", "2147483648"],
            ["modules", "more"],
            ["dump", "a", "b"],
        ):
            with self.subTest(arguments):
                code, out, told = self.run_keelctl(*arguments)
                self.assertEqual((code, out), (USAGE, ""), told)
                self.assertTrue(told.startswith("keelctl: "), told)
        self.assertEqual(self.client().dump(), [[], None])

    def test_a_daemon_that_does_not_run_is_unreachable(self):
        self.daemon.stop()
        for arguments in (["dump"], ["publish", "name", "{}"], ["subscribe", "name"], ["modules"],
                          ["authcheck", "root", "3"]):
            self.assertExits(UNREACHABLE, *arguments, told=f".*{NOTIFY_PATH}")

    def test_a_daemon_that_refuses_access_is_unreachable(self):
        os.chmod(NOTIFY_PATH, 0o600)
        self.assertExits(UNREACHABLE, "dump", uid=USER, told=".*")
        self.assertExits(OK, "dump")

    def test_an_unresponsive_daemon_times_out(self):
        self.daemon.pause()
        try:
            self.assertExits(TIMED_OUT, "dump", "--timeout", "0.2", told=".*")
        finally:
            self.daemon.go_on()

    def test_a_timeout_waiting_for_a_daemon_is_unreachable(self):
        self.daemon.stop()
        for command, deed in ((["publish", "weather", "{}"], "publish"),
                              (["subscribe", "weather"], "subscribe to"),
                              (["subscribe", "weather", "--count", "2"], "subscribe to")):
            told = self.assertExits(UNREACHABLE, *command, "--reconnect", "--timeout", "0.2",
                                    told="keeld is not running")
            self.assertIn(f'could not {deed} "weather" within 0.2 s: keeld is not running', told)

    def test_a_timeout_waiting_for_an_answer_times_out(self):
        self.daemon.pause()
        try:
            for command in (["publish", "weather", "{}"], ["subscribe", "weather"]):
                for options in ([], ["--reconnect"]):
                    self.assertExits(TIMED_OUT, *command, *options, "--timeout", "0.2",
                                     told="keeld did not answer .*0.2 s")
        finally:
            self.daemon.go_on()

    def test_an_output_that_cannot_be_written_is_a_failure(self):
        self.client().publish({}, "weather")
        commands = (["dump"], ["dump", "weather", "--data"], ["authcheck", "alice", "3"],
                    ["--help"], ["auth", "realm"])
        with open("/dev/full", "wb") as full:
            for command in commands:
                self.assertExits(OUTPUT_FAILED, *command, stdout=full,
                                 told="the output cannot be written: No space left on device\n")
            self.assertExits(OUTPUT_FAILED, "subscribe", "weather", stdout=full,
                             told="subscribed to weather\nkeelctl: "
                                  "the output cannot be written: No space left on device\n")
        for command in commands:
            closed = subprocess.run(["sh", "-c", 'exec "$@" >&-', "sh", keel_host.keelctl,
                                     *command], env=ENVIRONMENT,
                                    stderr=subprocess.PIPE, check=False)
            self.assertEqual((closed.returncode, closed.stderr),
                             (OUTPUT_FAILED,
                              b"keelctl: the output cannot be written: Bad file descriptor\n"))
        closed = subprocess.run(["sh", "-c", 'exec "$@" >&-', "sh", keel_host.keelctl, "subscribe",
                                 "weather"],
                                env=ENVIRONMENT, stderr=subprocess.PIPE, check=False)
        self.assertEqual(closed.returncode, OUTPUT_FAILED)
        self.assertIn(b"keelctl: the output cannot be written: Bad file descriptor\n",
                      closed.stderr)

    def test_another_directory_can_be_named(self):
        self.assertExits(UNREACHABLE, "dump", "--service-directory", "/run/nowhere",
                         told=".*/run/nowhere/")
        self.assertExits(OK, "dump", "--service-directory", "/run/keeld")


class Questions(KeelctlTest):
    def test_dump_writes_one_line_of_json_for_each_item(self):
        self.assertExits(OK, "dump")
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        publisher.subscribe("hoped for")
        for arguments, with_data in ((["dump", "--data"], True),
                                     (["dump", "_all", "--data", "--json"], True),
                                     (["dump"], False)):
            code, out, told = self.run_keelctl(*arguments)
            self.assertEqual((code, told), (OK, ""))
            entries = {entry["name"]: entry for entry in map(json.loads, out.splitlines())}
            self.assertEqual(set(entries), {"weather", "hoped for"})
            weather, hoped_for = entries["weather"], entries["hoped for"]
            self.assertTrue(weather["publisher"].startswith("<connection "))
            self.assertIsInstance(weather["publishDate"]["$date"], float)
            self.assertEqual((hoped_for["publisher"], hoped_for["publishDate"]), (None, None))
            self.assertEqual([follower["updateDate"] for follower in hoped_for["subscribers"]],
                             [None])
            if with_data:
                self.assertEqual((weather["publishedData"], hoped_for["publishedData"]),
                                 ({"n": 1}, None))
            else:
                self.assertNotIn("publishedData", weather)

    def test_dump_of_a_name_writes_that_item(self):
        publisher = self.client()
        publisher.publish({}, "one")
        publisher.publish({}, "two")
        code, out, _ = self.run_keelctl("dump", "one")
        self.assertEqual((code, len(out.splitlines()), json.loads(out)["name"]), (OK, 1, "one"))

    def test_dump_of_an_unknown_name_is_refused(self):
        self.assertExits(REFUSED, "dump", "nothing", told=r".*nothing not found.*error 11")

    def test_modules_and_administrators(self):
        self.assertExits(OK, "modules")
        self.assertExits(REFUSED, "authcheck", "alice", "3",
                         out='{"user":"alice","auditSession":3,"authenticated":false}\n')
        self.assertExits(REFUSED, "authcheck", "alice", "-1",
                         out='{"user":"alice","auditSession":-1,"authenticated":false}\n')

    def test_any_user_may_query(self):
        self.client().publish({}, "weather")
        code, out, _ = self.run_keelctl("dump", uid=USER)
        self.assertEqual((code, json.loads(out)["name"]), (OK, "weather"))

    def test_output_on_a_terminal_is_a_table(self):
        self.client().publish({"n": 1}, "weather\x1b[31m")
        screen = self.on_terminal("dump")
        self.assertIn("weather", screen)
        self.assertNotIn('{"name"', screen)
        self.assertNotIn("weather\x1b[31m", screen)
        self.assertIn('{"name"', self.on_terminal("dump", "--json"))
        self.assertNotIn("\x1b", self.on_terminal("dump", environment={"NO_COLOR": "1"}))

    def test_times_on_a_terminal_are_local_with_their_offset(self):
        publisher = self.client()
        publisher.publish({}, "weather")
        zone = {"TZ": "IST-5:30"}
        for command, pattern in ((["subscribe", "weather", "--count", "1"],
                                  r"\d\d:\d\d:\d\d\.\d{3} \+0530"),
                                 (["dump"],
                                  r"weather .* \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \+0530")):
            self.assertRegex(self.on_terminal(*command, environment=zone), pattern)

    def test_help_fits_the_terminal(self):
        for columns in (60, 120):
            lines = self.on_terminal("subscribe", "--help", columns=columns).splitlines()
            self.assertLessEqual(max(map(len, lines)), columns)
            self.assertGreater(max(map(len, lines)), columns - 20)

    def on_terminal(self, *arguments, environment=None, columns=200):
        """Returns its output on a terminal."""
        ours, theirs = pty.openpty()
        termios.tcsetwinsize(theirs, (50, columns))
        process = subprocess.Popen([keel_host.keelctl, *arguments],
                                   env=ENVIRONMENT | (environment or {}),
                                   stdin=theirs, stdout=theirs, stderr=theirs)
        os.close(theirs)
        screen = b""
        try:
            while piece := os.read(ours, 1 << 16):
                screen += piece
        except OSError:
            pass  # EIO: the other end is closed
        os.close(ours)
        self.assertEqual(process.wait(), OK)
        return screen.decode()


class Publish(KeelctlTest):
    def test_runs_until_a_signal_and_leaves_the_name(self):
        for number, status in ((signal.SIGTERM, 143), (signal.SIGINT, 130)):
            publisher = self.start_keelctl("publish", "weather", '{"n":1}')
            self.assertEqual(publisher.told(), "published weather")
            entry = self.client().dump("weather", True)[0][0]
            self.assertIn("(keelctl)", entry["publisher"])
            self.assertEqual(entry["publishedData"], {"n": 1})
            self.after_clean_up(lambda: publisher.signal(number))
            self.assertEqual(publisher.end()[:2], (status, ""))
            self.assertEqual(self.client().dump("weather")[0][0]["publisher"], "<unconnected>")

    def test_publishes_each_line_as_a_version(self):
        follower = self.client()
        follower.subscribe("weather")
        publisher = self.start_keelctl("publish", "weather", "-")
        for number, told in ((1, "published weather"), (2, "updated weather"),
                             (3, "updated weather")):
            publisher.write(f'{{"n":{number}}}')
            self.assertEqual(publisher.told(), told)
            self.assertEqual(follower.delivery().item, {"n": number})
        publisher.end_of_input()
        self.assertEqual(follower.deliveries_so_far(), [])
        self.assertNotEqual(follower.dump("weather")[0][0]["publisher"], "<unconnected>")

    def test_ends_after_count_versions(self):
        self.assertExits(OK, "publish", "weather", "-", "--count", "2",
                         text='{"n":1}\n{"n":2}\n{"n":3}\n',
                         told="published weather")
        self.assertEqual(self.client().dump("weather", True)[0][0]["publishedData"], {"n": 2})

    def test_too_few_versions_in_time_are_reported(self):
        publisher = self.start_keelctl("publish", "weather", "-", "--timeout", "0.2")
        self.assertEqual(publisher.told(),
                         "keelctl: no line of standard input came in time: nothing was published")
        self.assertEqual(publisher.end()[0], TIMED_OUT)
        self.assertExits(TIMED_OUT, "publish", "weather", "-", "--timeout", "2", "--count", "3",
                         text='{"n":1}\n{"n":2}\n',
                         told="published weather\nupdated weather\n"
                              "keelctl: 2 of 3 versions were published in time\n")

    def test_succeeds_at_its_timeout(self):
        self.assertExits(OK, "publish", "weather", "{}", "--timeout", "1",
                         told="published weather\n")

    def test_a_daemon_that_does_not_return_is_unreachable(self):
        for command in (["publish", "weather", "{}"], ["subscribe", "weather"]):
            running = self.start_keelctl(*command, "--reconnect", "--timeout", "3")
            self.assertIn("weather", running.told())
            self.daemon.stop()
            code, _, told = running.end()
            self.assertEqual(code, UNREACHABLE)
            self.assertIn("keeld did not come back in time", told)
            self.daemon = self.start(**self.options)

    def test_a_published_name_is_refused(self):
        publisher = self.client()
        publisher.publish({}, "weather")
        self.assertExits(REFUSED, "publish", "weather", "{}",
                         told=".*the key weather has already been published.*error 9")

    def test_update_and_remove_from_another_connection_are_refused(self):
        self.client().publish({}, "weather")
        for command in (["update", "weather", "{}"], ["remove", "weather"]):
            self.assertExits(REFUSED, *command, told=".*error 11")

    def test_notices_that_keeld_ends(self):
        publisher = self.start_keelctl("publish", "weather", "{}")
        self.assertEqual(publisher.told(), "published weather")
        self.daemon.stop()
        self.assertEqual(publisher.end()[0], UNREACHABLE)

    def test_republishes_after_a_reconnection(self):
        publisher = self.start_keelctl("publish", "weather", '{"n":1}', "--reconnect")
        self.assertEqual(publisher.told(), "published weather")
        self.daemon.kill()
        self.daemon = self.start(**self.options)
        follower = self.client()
        follower.subscribe("weather")
        while (item := follower.delivery().item) is None:
            pass
        self.assertEqual(item, {"n": 1})


class Subscribe(KeelctlTest):
    def test_writes_each_event_as_a_line(self):
        subscriber = self.start_keelctl("subscribe", "weather", "door")
        self.assertEqual({subscriber.told(), subscriber.told()},
                         {"subscribed to weather", "subscribed to door"})
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        publisher.publish(None, "door")
        publisher.update({"n": 2}, "weather")
        lines = [subscriber.out() for _ in range(3)]
        self.assertEqual(lines,
                         self.events(("weather", '{"n":1}'), ("door", "null"),
                                     ("weather", '{"n":2}')).splitlines())
        subscriber.signal(signal.SIGTERM)
        self.assertEqual(subscriber.end()[:2], (143, ""))

    def test_ends_after_count_events(self):
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        self.assertExits(OK, "subscribe", "weather", "--count", "1",
                         out=self.events(("weather", '{"n":1}')),
                         told="subscribed to weather")
        publisher.update({"n": 2}, "weather")
        self.assertEqual(publisher.dump("weather")[0][0]["subscribers"], [])

    def test_too_few_events_in_time_are_reported(self):
        self.client().publish({"n": 1}, "weather")
        self.assertExits(TIMED_OUT, "subscribe", "weather", "--count", "2", "--timeout", "0.2",
                         out=self.events(("weather", '{"n":1}')), told="subscribed to weather")

    def test_succeeds_at_its_timeout_without_a_count(self):
        self.assertExits(OK, "subscribe", "weather", "--timeout", "0.1",
                         told="subscribed to weather")

    def test_runs_a_command_for_each_event(self):
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        self.assertExits(OK, "subscribe", "weather", "--count", "1", "--", "sh", "-c",
                         'echo "$KEELCTL_NAME $KEELCTL_EVENT $(cat)"',
                         out='weather data {"n":1}\n', told="subscribed to weather")

    def test_reports_a_failing_command(self):
        self.client().publish({}, "weather")
        told = self.assertExits(COMMAND_FAILED, "subscribe", "weather", "--count", "1", "--", "sh",
                                "-c", "exit 3",
                                told="subscribed")
        self.assertIn("exited with status 3", told)
        told = self.assertExits(COMMAND_FAILED, "subscribe", "weather", "--count", "1", "--",
                                "/no/such/program",
                                told="subscribed")
        self.assertIn("/no/such/program", told)

    def test_ends_quietly_when_its_reader_is_gone(self):
        reading, writing = os.pipe()
        subscriber = self.start_keelctl("subscribe", "weather", stdout=writing)
        os.close(writing)
        self.assertEqual(subscriber.told(), "subscribed to weather")
        os.close(reading)
        publisher = self.client()
        publisher.publish({}, "weather")
        code, _, told = subscriber.end()
        self.assertEqual((code, told), (OK, ""))

    def test_notices_that_keeld_ends(self):
        subscriber = self.start_keelctl("subscribe", "weather")
        self.assertEqual(subscriber.told(), "subscribed to weather")
        self.daemon.stop()
        code, out, told = subscriber.end()
        self.assertEqual((code, out), (UNREACHABLE, ""))
        self.assertIn("closed the connection", told)

    def test_receives_missed_updates_after_a_reconnection(self):
        publisher = self.client()
        publisher.publish({"n": 1}, "weather")
        subscriber = self.start_keelctl("subscribe", "weather", "--reconnect")
        self.assertEqual(json.loads(subscriber.out())["data"], {"n": 1})
        self.daemon.kill()
        self.daemon = self.start(**self.options)
        successor = self.client()
        successor.publish({"n": 2}, "weather")
        while (data := json.loads(subscriber.out())["data"]) is None:
            pass
        self.assertEqual(data, {"n": 2})


class Json(KeelctlTest):
    """Conversion between JSON and published data, both ways."""

    PAIRS = (
        ('{"a":null,"b":true,"c":false,"d":"text","e":[],"f":{},"g":[1,[2]]}',
         {"a": None, "b": True, "c": False, "d": "text", "e": [], "f": {}, "g": [1, [2]]}),
        ('{"i":18446744073709551615,"j":-9223372036854775808,"k":0}',
         {"i": 2**64 - 1, "j": -(2**63), "k": 0}),
        ('{"x":1.5,"y":-0.25}', {"x": 1.5, "y": -0.25}),
        ('{"when":{"$date":1763630400}}', {"when": Date(1763630400)}),
        ('{"bytes":{"$data":"AAH/"}}', {"bytes": b"\0\1\xff"}),
        ('{"wrong":{"$error":{"domain":"d","code":-3,"userInfo":{"k":"v"}}}}',
         {"wrong": Error("d", -3, {"k": "v"})}),
        ('{"inf":{"$real":"Infinity"},"minus":{"$real":"-Infinity"}}',
         {"inf": float("inf"), "minus": float("-inf")}),
        ('{"like one":{"$map":{"$date":1}}}', {"like one": {"$date": 1}}),
        ('{"é":"\\u0000\\u001b"}', {"é": "\0\x1b"}),
    )

    def test_is_published_as_its_value(self):
        follower = self.client()
        follower.subscribe("weather")
        publisher = self.start_keelctl("publish", "weather", "-")
        for text, value in self.PAIRS:
            publisher.write(text)
            self.assertEqual(follower.delivery().item, value)

    def test_is_written_from_published_data(self):
        publisher = self.client()
        publisher.publish({}, "weather")
        subscriber = self.start_keelctl("subscribe", "weather")
        subscriber.out()
        for text, value in self.PAIRS:
            publisher.update(value, "weather")
            self.assertEqual(json.loads(subscriber.out())["data"], json.loads(text))
        publisher.update({"nan": float("nan")}, "weather")
        self.assertEqual(json.loads(subscriber.out())["data"], {"nan": {"$real": "NaN"}})

    def test_the_last_of_duplicate_keys_wins(self):
        publisher = self.client()
        publisher.publish(Raw(b"\xa2\x61a\x01\x61a\x02"), "weather")
        code, out, _ = self.run_keelctl("subscribe", "weather", "--count", "1")
        self.assertEqual((code, json.loads(out)["data"]), (OK, {"a": 2}))

    def test_large_items_round_trip(self):
        text = "x" * 1000000
        follower = self.client()
        follower.subscribe("weather")
        publisher = self.start_keelctl("publish", "weather", "-")
        publisher.write(json.dumps({"text": text}))
        self.assertEqual(follower.delivery().item, {"text": text})
        code, out, _ = self.run_keelctl("subscribe", "weather", "--count", "1")
        self.assertEqual((code, json.loads(out)["data"]), (OK, {"text": text}))

    def test_an_invalid_line_is_reported(self):
        publisher = self.start_keelctl("publish", "weather", "-")
        publisher.write('{"n":1}')
        self.assertEqual(publisher.told(), "published weather")
        publisher.write("{")
        self.assertTrue(re.search("JSON", publisher.told()))


if __name__ == "__main__":
    keel_host.main()
