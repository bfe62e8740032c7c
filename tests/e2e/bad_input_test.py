#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests forbidden messages: each gets the failure or goodbye of the protocol, and no other client
is affected.
"""

import re
import struct

import keel_host
from keel_client import EXPORTS, FAILURE, GOODBYE, HELLO, ONE_WAY, REPLY, REQUEST, Code, Ended
from keel_host import Bystanders, DaemonTest
from keel_values import Error, Raw, encode, framed

GIBIBYTE = 1 << 30
ABOVE = 1000  # an id above all that the cases use
HELLO_LIMIT = 64 << 10
SERVED = re.compile(r"<connection .*> sent what cannot be served: .*")
DROPPED = re.compile(r"<connection .*> dropped: .*")


class BadInputTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.bystanders = Bystanders(self)

    def tearDown(self):
        self.bystanders.step()


class Messages(BadInputTest):
    """Asserts that after a failure the connection is usable and nothing has changed."""

    def setUp(self):
        super().setUp()
        self.sender = self.client()

    def assertFails(self, body, codes, identifiers=(None,)):
        """Asserts that the frame, on a new connection, is answered with exactly one failure, and
        that the connection stays usable.
        """
        with self.subTest(body[:60].hex()), self.client() as sender:
            sender.send_frame(body)
            sender.last_id = ABOVE
            self.assertEqual(sender.dump("nothing")[1].code, 11)
            self.assertEqual([message.kind for message in sender.history], [HELLO, FAILURE, REPLY])
            _, identifier, code, text = sender.history[1].fields
            self.assertIn(code, codes, text)
            self.assertIn(identifier, identifiers)
            self.assertTrue(text, "a failure without a text")
        self.bystanders.step()

    def test_bytes_that_are_no_message_are_undecodable(self):
        for body in (
            b"", b"\0", b"\xff", b"\xf6", b"\x80", b"\xa0", b"\x60", b"\x81", b"\x82\x02",
            b"\x9f\xff", b"\xc1\x00", b"hello",
            b"\x9b" + 8 * b"\xff", b"\x84\x01", bytes(range(256)), 64 * b"\xff", 1000 * b"\0",
            b"\x83\x18\x02\x02\x80", b"\xbf\xff", 100000 * b"\x81", 100000 * b"\xc1",
            100000 * b"\xa1\x60",
        ):
            self.assertFails(body, [Code.undecodable])

    def test_unknown_kinds_are_undecodable(self):
        for kind in (6, 7, 23, 24, 255, 2**32, 2**64 - 1, -1, "1", None, [1], 1.0, True):
            self.assertFails(encode([kind, 1, 2, []]), [Code.undecodable])

    def test_wrong_lengths_are_undecodable(self):
        for message in ([], [1], [1, 50], [1, 50, 7], [1, 50, 7, [], None], [2], [2, 2],
                        [2, 2, ["x"], None],
                        [1, 50, 7, [], [], []]):
            self.assertFails(encode(message), [Code.undecodable], (None, 50))

    def test_wrong_types_are_undecodable(self):
        for message in ([1, -1, 6, []], [1, "1", 6, []], [1, None, 6, []], [1, 1.0, 6, []],
                        [1, [1], 6, []], [2, -1, []],
                        [2, "unsubscribeFrom:", []],
                        [2, None, []], [2, 2.0, []], [2, 2, {}], [2, 2, None], [2, 2, "name"]):
            self.assertFails(encode(message), [Code.undecodable])
        for message in ([1, 50, -1, []], [1, 50, "getModuleTableWithHandler:", []], [1, 50, 6, {}],
                        [1, 50, 6, None],
                        [1, 50, 6, 0]):
            self.assertFails(encode(message), [Code.undecodable], (None, 50))

    def test_truncated_messages_are_undecodable(self):
        whole = encode([REQUEST, 50, 3, [{"key": [1, 2.5, "text", b"bytes", None]}, "name", 0, 0]])
        for cut in range(len(whole)):
            self.assertFails(whole[:cut], [Code.undecodable], (None, 50))
        self.assertEqual(self.sender.dump("name")[1].code, 11)

    def test_trailing_bytes_are_undecodable(self):
        whole = encode([REQUEST, 50, 3, [{}, "name", 0, 0]])
        for more in (b"\0", b"\xff", whole):
            self.assertFails(whole + more, [Code.undecodable], (50,))
        self.assertEqual(self.sender.dump("name")[1].code, 11)

    def test_failures_of_unknown_methods_carry_the_request_id(self):
        for identifier, method in ((1, 100), (ABOVE, 2**64 - 1)):
            self.assertFails(encode([REQUEST, identifier, method, []]), [Code.unknownMethod],
                             (identifier,))
        self.assertFails(encode([ONE_WAY, 99, [1, 2, 3]]), [Code.unknownMethod])

    def test_a_reused_request_id_is_refused(self):
        self.sender.last_id = 10
        self.assertWorked(self.sender.publish({}, "name"))
        for identifier in (11, 10, 1, 0):
            body = encode([REQUEST, identifier, 3, [{}, f"never {identifier}", 0, 0]])
            self.sender.send_frame(body)
            self.assertEqual(self.sender.failure(identifier), Code.badRequestId)
            self.assertEqual(self.sender.dump(f"never {identifier}")[1].code, 11)

    def test_a_refused_request_consumes_its_id(self):
        self.sender.send([REQUEST, 10, 99, []])
        self.assertEqual(self.sender.failure(10), Code.unknownMethod)
        self.sender.send([REQUEST, 10, 6, []])
        self.assertEqual(self.sender.failure(10), Code.badRequestId)
        self.sender.send([REQUEST, 11, 6, []])
        self.assertEqual(self.sender.results(11), [{}])

    def test_after_the_largest_id_only_one_way_messages_are_accepted(self):
        self.sender.send([REQUEST, 2**64 - 1, 6, []])
        self.assertEqual(self.sender.results(2**64 - 1), [{}])
        self.sender.send([REQUEST, 2**64 - 1, 6, []])
        self.assertEqual(self.sender.failure(2**64 - 1), Code.badRequestId)
        self.sender.send([ONE_WAY, 99, []])
        self.assertEqual(self.sender.failure(None), Code.unknownMethod)

    def test_unexpected_answers_are_ignored(self):
        for message in ([REPLY, 1, []], [REPLY, 2**64 - 1, [None, {}, "x"]],
                        [FAILURE, 1, 1, "what"], [FAILURE, None, 99, ""]):
            self.sender.send(message)
        self.assertEqual(self.sender.dump(), [self.sender.dump()[0], None])
        self.assertEqual({message.kind for message in self.sender.history[1:]}, {REPLY})

    def test_bad_messages_are_logged_once_per_connection(self):
        for count in range(1, 4):
            sender = self.client()
            for _ in range(500):
                sender.send_frame(b"")
            for _ in range(500):
                self.assertEqual(sender.failure(None), Code.undecodable)
            self.after_clean_up(sender.close)
            self.assertEqual(len(self.daemon.logged(SERVED, "error")), count)


class Endings(BadInputTest):
    """Tests messages that end a connection with a goodbye and one line in the log."""

    def assertDropped(self, data, greet=False):
        client = self.client(greet=greet)
        before = len(self.daemon.logged(DROPPED, "error"))
        try:
            client.send_bytes(data)
        except Ended:
            pass
        self.assertTrue(client.end(), f"no goodbye for {data[:40].hex()}")
        self.daemon.wait_for_log(DROPPED, before + 1, level="error")
        self.assertEqual(len(self.daemon.logged(SERVED)), 0)
        self.bystanders.step()
        self.assertEqual(len(self.daemon.logged(DROPPED)), before + 1)

    def test_a_frame_of_more_than_a_gibibyte(self):
        for length in (GIBIBYTE + 1, 1 << 31, (1 << 32) - 1):
            self.assertDropped(struct.pack("<I", length), greet=True)
            self.assertDropped(struct.pack("<I", length))

    def test_a_missing_hello(self):
        for message in ([REQUEST, 1, 6, []], [ONE_WAY, 2, ["name"]], [REPLY, 1, []],
                        [FAILURE, None, 1, "x"], [6], []):
            self.assertDropped(framed(encode(message)))

    def test_an_undecodable_hello(self):
        good = encode([HELLO, 1, list(EXPORTS), {"descriptors": False}])
        for body in (b"", b"\0", b"\xff", good[:-1], good + b"\0", encode([HELLO]),
                     encode([HELLO, 1]), encode([HELLO, 1, []]),
                     encode([HELLO, 1, [], {}, 0]), encode([HELLO, 1, [], []]),
                     encode([HELLO, 1, {}, {}]),
                     encode([HELLO, 1, [1], {}]),
                     encode([HELLO, 1, [None], {}]), encode([HELLO, 1, [b"x"], {}]),
                     encode([HELLO, 1, None, {}]),
                     encode([HELLO, "1", [], {}]), encode([HELLO, -1, [], {}]),
                     encode([HELLO, None, [], {}]),
                     encode([HELLO, 1, [], {1: 2}]), encode([HELLO, 1, [], None]),
                     encode([HELLO, 1, [], {"descriptors": 1}]),
                     encode([HELLO, 1, [], {"x": Raw(66 * b"\x81" + b"\0")}]),
                     encode([HELLO, 1, [Raw(b"\x62\xc3\x28")], {}]),
                     b"\x84\x00\x01" + 1000 * b"\x81", b"\x84\x18\x00\x01\x80\xa0"):
            with self.subTest(body[:60].hex()):
                self.assertDropped(framed(body))

    def test_another_version(self):
        for version in (0, 2, 255, 2**64 - 1):
            self.assertDropped(framed(encode([HELLO, version, list(EXPORTS), {}])))

    def test_a_second_hello(self):
        self.assertDropped(framed(encode([HELLO, 1, list(EXPORTS), {}])), greet=True)
        self.assertDropped(framed(encode([HELLO, 2, [], {}])), greet=True)

    def hello_of(self, size):
        """Returns a hello frame of that size, without the length."""
        message = encode([HELLO, 1, list(EXPORTS), {"x": b""}])
        filling = size - len(message) - 2
        return encode([HELLO, 1, list(EXPORTS), {"x": bytes(filling)}])

    def test_a_too_long_hello(self):
        body = self.hello_of(HELLO_LIMIT)
        self.assertEqual(len(body), HELLO_LIMIT)
        client = self.client(greet=False)
        client.send_frame(body)
        client.take_hello()
        self.assertEqual(client.module_table(), {})
        # The length is enough.
        self.assertDropped(struct.pack("<I", HELLO_LIMIT + 1))
        self.assertDropped(framed(self.hello_of(HELLO_LIMIT + 1)))
        self.assertDropped(framed(self.hello_of(1 << 20)))
        self.assertDropped(struct.pack("<I", 16 << 20) + bytes(HELLO_LIMIT + 1))

    def test_unknown_options_and_selectors_are_ignored(self):
        for exports, options in (([], {"zip": True, "": None, "descriptors": False}),
                                 (["a:", "a:", ""], {"deep": [[[{}]]]}),
                                 ([str(number) for number in range(5000)], {})):
            client = self.client(exports=exports, options=options)
            self.assertEqual(client.module_table(), {})

    def test_a_clients_goodbye_ends_the_connection_silently(self):
        client = self.client()
        self.assertWorked(client.publish({}, "name"))
        client.send([GOODBYE, "done"])
        client.end()
        self.assertFalse(self.daemon.logged(DROPPED))


class Silence(BadInputTest):
    def test_an_incomplete_frame_delays_nothing_and_costs_nothing(self):
        halves = [b"", b"\x10", b"\x10\0\0\0", b"\x10\0\0\0\x84",
                  struct.pack("<I", 16 << 20) + bytes(100),
                  struct.pack("<I", GIBIBYTE) + bytes(100)]
        before = self.daemon.resident_bytes()
        silent = []
        for half in halves * 20:
            silent.append(self.client())
            silent[-1].send_bytes(half)
        silent += [self.client(greet=False) for _ in range(20)]
        for _ in range(20):
            self.bystanders.step()
        # A length alone makes it allocate nothing.
        self.assertMemoryWithin(before, 32 << 20)
        self.after_clean_up(lambda: [client.close() for client in silent], len(silent))

    def test_a_frame_may_arrive_byte_by_byte(self):
        client = self.client(greet=False)
        for byte in framed(encode([HELLO, 1, list(EXPORTS), {}])) + framed(
            encode([REQUEST, 1, 6, []])):
            client.send_bytes(bytes([byte]))
        client.take_hello()
        self.assertEqual(client.results(1), [{}])

    def test_many_frames_may_arrive_in_one_write(self):
        client = self.client()
        client.send_bytes(b"".join(framed(encode([REQUEST, number, 4, [{}, "unknown"]]))
                                   for number in range(1, 5001)))
        for number in range(1, 5001):
            self.assertEqual(client.results(number), [Error("KLNErrorDomain", 11)])

    def test_a_skipped_frame_may_arrive_in_pieces(self):
        client = self.client()
        size = (16 << 20) + 1
        client.send_bytes(struct.pack("<I", size) + b"\x84\x01\x07")
        left = size - 3
        while left:
            piece = min(left, 1 << 20)
            client.send_bytes(bytes(piece))
            left -= piece
            self.bystanders.step()
        self.assertEqual(client.failure(7), Code.tooLarge)
        client.last_id = 7
        self.assertEqual(client.module_table(), {})
        self.assertMemoryWithin(0, 200 << 20)


if __name__ == "__main__":
    keel_host.main()
