#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests which names and data are passed on unchanged, distinguished, and refused."""

import struct

import keel_host
from keel_client import FAILURE, ONE_WAY, REQUEST, Code
from keel_host import DaemonTest
from keel_values import Date, Error, Malformed, Raw, decode, encode

PUBLISH = "publishItem:name:flags:value:withHandler:"


def head(major, value):
    """Returns a CBOR head in its shortest form."""
    if value < 24:
        return bytes([major << 5 | value])
    for short, (size, form) in enumerate((("B", 1), ("H", 2), ("I", 4), ("Q", 8)), start=24):
        if value < 1 << (8 * form):
            return bytes([major << 5 | short]) + struct.pack(">" + size, value)
    raise ValueError(value)


def text(characters):
    data = characters if isinstance(characters, bytes) else characters.encode()
    return head(3, len(data)) + data


def dictionary(*pairs):
    """Encodes a dictionary of encoded values, keeping order and duplicates."""
    return head(5, len(pairs)) + b"".join(text(key) + value for key, value in pairs)


def nested(depth, kind="array"):
    """Returns an encoded value of that depth."""
    if depth == 0:
        return b"\x00"
    inner = nested(depth - 1, kind)
    return head(4, 1) + inner if kind == "array" else dictionary(("", inner))


def in_dictionary(value):
    return dictionary(("value", value))


def error_bytes(domain=b"\x61d", code=b"\x01", user_info=b"\xf6", count=3, tag=b"\xd9\xca\x1d"):
    return tag + head(4, count) + domain + code + user_info


NAN = struct.pack(">d", float("nan"))
PASSED_ON = {
    "nothing": dictionary(),
    "keys in no order": dictionary(("z", b"\x01"), ("a", b"\x02"), ("", b"\x03"), ("aa", b"\x04")),
    "a key twice": dictionary(("a", b"\x01"), ("b", b"\x02"), ("a", b"\x03"), ("a", b"\x03")),
    "a key with nul": dictionary(("\0", b"\x01"), ("\0\0", b"\x02")),
    "floats of 16 bits": dictionary(*((str(n), b"\xf9" + value) for n, value in enumerate(
        (b"\x3e\x00", b"\x00\x00", b"\x80\x00", b"\x00\x01", b"\x7c\x00", b"\xfc\x00", b"\x7e\x00",
         b"\x7e\x01",
         b"\xfd\xff")))),
    "floats of 32 bits": dictionary(*((str(n), b"\xfa" + value) for n, value in enumerate(
        (b"\x3f\xc0\x00\x00", b"\x00\x00\x00\x01", b"\x7f\x80\x00\x00", b"\x7f\xc0\x00\x01",
         b"\x80\x00\x00\x00")))),
    "floats of 64 bits": dictionary(*((str(n), b"\xfb" + value) for n, value in enumerate(
        (struct.pack(">d", 1.5), struct.pack(">d", 5e-324), struct.pack(">d", float("-inf")), NAN,
         b"\x7f\xf0" + 5 * b"\0" + b"\1")))),
    "integers at the limits": dictionary(*((str(n), encode(n)) for n in (
        0, 23, 24, 255, 256, 65535, 65536, 2**32 - 1, 2**32, 2**63 - 1, 2**63, 2**64 - 1,
        -1, -24, -25, -256, -257, -65536, -65537, -(2**32), -(2**32) - 1, -(2**63)))),
    "bytes": dictionary(("none", b"\x40"), ("all", encode(bytes(range(256))))),
    "texts": dictionary(("none", text("")), ("nul", text("a\0b")), ("last", text("\U0010ffff")),
                        ("before surrogates", text("\ud7ff")),
                        ("behind them", text("\ue000")), ("no characters", text("\ufffe\uffff")),
                        ("mark", text("\ufeff"))),
    "simple values": dictionary(("false", b"\xf4"), ("true", b"\xf5"), ("null", b"\xf6")),
    "dates": dictionary(("whole", b"\xc1\x1a\x6b\x01\x64\x98"), ("before", b"\xc1\x20"),
                        ("half", b"\xc1\xf9\x38\x00"),
                        ("fraction", b"\xc1\xfb\x41\xda\xc0\x59\x26\x10\x00\x00"),
                        ("far", b"\xc1\x1b" + 8 * b"\xff")),
    "errors": dictionary(("bare", error_bytes()), ("least", error_bytes(code=encode(-(2**63)))),
                         ("most", error_bytes(code=encode(2**63 - 1))),
                         ("full",
                          error_bytes(user_info=dictionary(("x", error_bytes()), ("x", b"\xf6"))))),
    "64 deep in arrays": in_dictionary(nested(63)),
    "64 deep in dictionaries": nested(64, "dictionary"),
    "64 deep in an error": in_dictionary(error_bytes(user_info=nested(62, "dictionary"))),
    "a thousand keys": dictionary(*((str(n), b"\x00") for n in range(1000))),
}

REFUSED = {
    "65 deep in arrays": in_dictionary(nested(64)),
    "65 deep in dictionaries": nested(65, "dictionary"),
    "65 deep in an error": in_dictionary(error_bytes(user_info=nested(63, "dictionary"))),
    "deeper than any stack": in_dictionary(100000 * b"\x81" + b"\x00"),
    "tags within tags": in_dictionary(100000 * b"\xc1" + b"\x00"),
    "a dictionary of indefinite length": b"\xbf\x61a\x01\xff",
    "an array of indefinite length": in_dictionary(b"\x9f\x01\xff"),
    "a text of indefinite length": in_dictionary(b"\x7f\x61a\xff"),
    "bytes of indefinite length": in_dictionary(b"\x5f\x41a\xff"),
    "a break alone": in_dictionary(b"\xff"),
    "a longer head for an integer": in_dictionary(b"\x18\x17"),
    "a longer head for a negative integer": in_dictionary(b"\x39\x00\xff"),
    "a longer head for a length": in_dictionary(b"\x78\x01a"),
    "a longer head for a count": b"\xb8\x01\x61a\x00",
    "a longer head for a tag": in_dictionary(b"\xd8\x01\x00"),
    "an integer below all": in_dictionary(b"\x3b\x80" + 7 * b"\0"),
    "a great integer": in_dictionary(b"\xc2\x49\x01" + 8 * b"\0"),
    "undefined": in_dictionary(b"\xf7"),
    "a simple value": in_dictionary(b"\xe0"),
    "a simple value of two bytes": in_dictionary(b"\xf8\x20"),
    "a reserved head": in_dictionary(b"\x1c"),
    "a key that is a number": b"\xa1\x01\x01",
    "a key that is null": b"\xa1\xf6\x01",
    "a key of bytes": b"\xa1\x41a\x01",
    "a surrogate": in_dictionary(text(b"\xed\xa0\x80")),
    "a surrogate in a key": dictionary((b"\xed\xbf\xbf", b"\x00")),
    "an overlong form": in_dictionary(text(b"\xc0\x80")),
    "beyond Unicode": in_dictionary(text(b"\xf4\x90\x80\x80")),
    "half a character": in_dictionary(text(b"a\xc3")),
    "a lone continuation": in_dictionary(text(b"\x80")),
    "a date that is no number": in_dictionary(b"\xc1\xf9\x7e\x00"),
    "a date without end": in_dictionary(b"\xc1\xfb\x7f\xf0" + 6 * b"\0"),
    "a date that is a text": in_dictionary(b"\xc1\x611"),
    "a date that is true": in_dictionary(b"\xc1\xf5"),
    "a date within a date": in_dictionary(b"\xc1\xc1\x00"),
    "a date as text": in_dictionary(b"\xc0" + text("2026-11-21T09:30:00Z")),
    "a tag of CBOR itself": in_dictionary(b"\xd9\xd9\xf7\xa0"),
    "an error of two": in_dictionary(error_bytes(user_info=b"", count=2)),
    "an error of four": in_dictionary(error_bytes(user_info=b"\xf6\xf6", count=4)),
    "an error without domain": in_dictionary(error_bytes(domain=b"\xf6")),
    "an error with a text for a code": in_dictionary(error_bytes(code=b"\x611")),
    "an error with too great a code": in_dictionary(error_bytes(code=encode(2**63))),
    "an error whose user info is an array": in_dictionary(error_bytes(user_info=b"\x80")),
    "an error that is no array": in_dictionary(b"\xd9\xca\x1d\xf6"),
    "a large value within another": in_dictionary(b"\xd9\xca\x1e\x1a\x00\x01\x11\x7e"),
    "fewer pairs than announced": b"\xa2\x61a\x00",
    "more than any memory holds": b"\xbb\x7f" + 7 * b"\xff",
    "an array longer than its frame": in_dictionary(b"\x9b\x7f" + 7 * b"\xff"),
    "a text longer than its frame": in_dictionary(b"\x7b\x7f" + 7 * b"\xff"),
}


class ValueTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.sender = self.client()
        self.follower = self.client()


class Data(ValueTest):
    def test_is_delivered_unchanged(self):
        for what, item in PASSED_ON.items():
            with self.subTest(what):
                self.assertWorked(self.follower.subscribe(what))
                self.assertWorked(self.sender.publish(Raw(item), what))
                self.assertEqual(self.follower.delivery().raw_item, item)
                self.assertWorked(self.sender.update(Raw(item), what))
                self.assertEqual(self.follower.delivery().raw_item, item)
                late = self.client()
                self.assertWorked(late.subscribe(what))
                self.assertEqual(late.delivery().raw_item, item)

    def test_is_dumped_unchanged(self):
        for what, item in PASSED_ON.items():
            with self.subTest(what):
                self.assertWorked(self.sender.publish(Raw(item), what))
                identifier = self.sender.request("dumpNotification:withData:andHandler:", what,
                                                 True)
                entries = self.sender.answer(identifier).raw_arguments[0]
                self.assertTrue(entries.endswith(text("publishedData") + item), entries.hex())

    def test_invalid_data_is_refused_without_effect(self):
        for what, item in REFUSED.items():
            with self.subTest(what):
                identifier = self.sender.request(PUBLISH, Raw(item), what, 0, 0)
                self.assertEqual(self.sender.failure(identifier), Code.undecodable)
                self.assertError(self.sender.dump(what)[1], 11, f"{what} not found")
        self.assertWorked(self.sender.publish({}, "still here"))

    def test_invalid_data_does_not_change_the_item(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertWorked(self.sender.publish({"n": 1}, "weather"))
        for item in REFUSED.values():
            identifier = self.sender.request("updatePublishedItem:name:withHandler:", Raw(item),
                                             "weather")
            self.sender.failure(identifier)
        self.assertWorked(self.sender.update({"n": 2}, "weather"))
        self.assertEqual([delivery.item for delivery in self.follower.deliveries_so_far()],
                         [{"n": 1}, {"n": 2}])


class Names(ValueTest):
    def test_are_compared_byte_by_byte(self):
        names = ["", "\0", "\0\0", " ", "a", "A", "a ", "\u00e9", "e\u0301", "\n", "\x1b[31m",
                 "\x7f", "\ufeff", "\ufeffa",
                 "\U0001f600",
                 "(null)", "<no data>", "a\0b", "a\0c", "%s%n%@", "../../etc/passwd"]
        for number, name in enumerate(names):
            self.assertWorked(self.sender.publish({"n": number}, name))
        for number, name in enumerate(names):
            self.assertWorked(self.follower.subscribe(name))
            delivery = self.follower.delivery()
            self.assertEqual((delivery.name, delivery.item), (name, {"n": number}))
        self.assertEqual({entry["name"] for entry in self.sender.dump()[0]}, set(names))
        for name in names:
            self.assertWorked(self.sender.remove(name))

    def test_may_be_a_mebibyte_long(self):
        names = ["n" * (1 << 20), "n" * ((1 << 20) - 1) + "m", "n" * ((1 << 20) + 1)]
        for number, name in enumerate(names):
            self.assertWorked(self.sender.publish({"n": number}, name))
            self.assertWorked(self.follower.subscribe(name))
            delivery = self.follower.delivery()
            self.assertEqual((delivery.name, delivery.item), (name, {"n": number}))
        error = self.client().publish({}, names[0])
        self.assertError(error, 9, f"the key {names[0]} has already been published")
        self.assertEqual(self.sender.dump("x" + names[0])[1].description, f"x{names[0]} not found")

    def test_that_are_not_text_are_refused(self):
        for name in (1, b"weather", ["weather"], {}, True, 1.5, Date(1), Error("d", 1)):
            identifier = self.sender.request(PUBLISH, {}, name, 0, 0)
            self.assertEqual(self.sender.failure(identifier), Code.wrongArguments, name)
        for name in (b"\xed\xa0\x80", b"\xc0\x80", b"\xff", b"a\xc3"):
            identifier = self.sender.request(PUBLISH, {}, Raw(text(name)), 0, 0)
            self.assertEqual(self.sender.failure(identifier), Code.undecodable)
        self.assertEqual(self.sender.dump(), [[], None])


# For each method: its kind, good arguments, and for each of them what must be refused in its place.
NO_TEXT = [0, b"", [], {}, False, 1.0, Date(0), Error("d", 1)]
NO_DICTIONARY = [0, b"", [], "", False, 1.0, Date(0), Error("d", 1)]
NO_U64 = [None, -1, "0", b"", [], False, 0.0, Date(0), Raw(b"\xc2\x49\x01" + 8 * b"\0")]
NO_I64 = [None, 2**63, Raw(b"\x3b\x80" + 7 * b"\0"), "0", True, 0.0, Date(0)]
NO_I32 = [None, 2**31, -(2**31) - 1, 2**32, 2**64 - 1, "0", False, 0.0]
NO_BOOL = [None, 0, 1, "true", [], 1.0]
METHODS = {
    "authCheckForUser:andASID:withHandler:": (REQUEST, ["user", 0], [NO_TEXT, NO_I32]),
    "subscribeTo:withFlags:andHandler:": (REQUEST, ["name", 0], [NO_TEXT, NO_U64]),
    "unsubscribeFrom:": (ONE_WAY, ["name"], [NO_TEXT]),
    PUBLISH: (REQUEST, [{}, "name", 0, 0], [NO_DICTIONARY, NO_TEXT, NO_U64, NO_I64]),
    "updatePublishedItem:name:withHandler:": (REQUEST, [{}, "name"], [NO_DICTIONARY, NO_TEXT]),
    "removePublishedItemForName:withHandler:": (REQUEST, ["name"], [NO_TEXT]),
    "getModuleTableWithHandler:": (REQUEST, [], []),
    "dumpNotification:withData:andHandler:": (REQUEST, ["name", False], [NO_TEXT, NO_BOOL]),
}


class Arguments(ValueTest):
    def outcome(self, kind, selector, arguments):
        """Returns the code of the failure that answers the call, None if it is served."""
        place = self.sender.selectors.index(selector)
        if kind == REQUEST:
            identifier = self.sender.request(selector, *arguments)
            answer = self.sender.answer(identifier)
        else:
            self.sender.send([ONE_WAY, place, arguments])
            self.sender.dump("")  # behind it
            failures = [message for message in self.sender.history if message.kind == FAILURE
                        and message.fields[1] is None]
            answer = self.sender.answer(None) if len(failures) > self.failures_taken else None
            self.failures_taken = len(failures)
        return Code(answer.fields[2]) if answer and answer.kind == FAILURE else None

    def setUp(self):
        super().setUp()
        self.failures_taken = 0

    def test_all_methods_exist(self):
        self.assertEqual(self.sender.selectors[: len(METHODS)], list(METHODS))

    def test_matching_ones_are_accepted(self):
        for selector, (kind, arguments, _) in METHODS.items():
            self.assertIsNone(self.outcome(kind, selector, arguments), selector)

    def test_of_a_wrong_type_are_refused(self):
        for selector, (kind, arguments, wrong) in METHODS.items():
            for place, values in enumerate(wrong):
                for value in values:
                    with self.subTest(selector, place=place, value=value):
                        changed = [*arguments[:place], value, *arguments[place + 1 :]]
                        expected = Code.undecodable if isinstance(value,
                                                                  Raw) else Code.wrongArguments
                        self.assertEqual(self.outcome(kind, selector, changed), expected)

    def test_in_a_wrong_number_are_refused(self):
        for selector, (kind, arguments, _) in METHODS.items():
            with self.subTest(selector):
                self.assertEqual(self.outcome(kind, selector, [*arguments, None]),
                                 Code.wrongArguments)
                if arguments:
                    self.assertEqual(self.outcome(kind, selector, arguments[:-1]),
                                     Code.wrongArguments)

    def test_of_the_other_kind_of_call_are_refused(self):
        for selector, (kind, arguments, _) in METHODS.items():
            other = ONE_WAY if kind == REQUEST else REQUEST
            self.assertEqual(self.outcome(other, selector, arguments), Code.wrongArguments,
                             selector)

    def test_numbers_at_their_limits_are_accepted(self):
        for asid in (2**31 - 1, -(2**31)):
            self.assertEqual(self.sender.auth_check("user", asid), [False, None])
        for flags, value in ((2**64 - 1, 2**63 - 1), (0, -(2**63))):
            self.assertWorked(self.sender.publish({}, f"{flags} {value}", flags, value))

    def test_of_an_unknown_method_are_refused(self):
        place = len(self.sender.selectors)
        for method in (place, place + 1, 255, 256, 2**32, 2**64 - 1):
            self.sender.last_id += 1
            self.sender.send([REQUEST, self.sender.last_id, method, []])
            self.assertEqual(self.sender.failure(self.sender.last_id), Code.unknownMethod)
            self.sender.send([ONE_WAY, method, []])
            self.assertEqual(self.sender.failure(None), Code.unknownMethod)

    def test_refused_leave_the_connection_usable(self):
        self.assertWorked(self.follower.subscribe("weather"))
        self.assertWorked(self.sender.publish({"n": 1}, "weather"))
        for selector, (kind, arguments, _) in METHODS.items():
            self.outcome(kind, selector, [*arguments, None])
        self.assertWorked(self.sender.update({"n": 2}, "weather"))
        self.assertEqual([delivery.item for delivery in self.follower.deliveries_so_far()],
                         [{"n": 1}, {"n": 2}])


class Decoding(ValueTest):
    def test_decodes_these_examples(self):
        """Tests the client's own decoder, on which all tests above depend."""
        for what, item in PASSED_ON.items():
            self.assertIsInstance(decode(item), dict, what)
        for what, item in REFUSED.items():
            if not what.startswith(("65", "deeper", "tags", "an error", "a date")):
                self.assertRaises(Malformed, decode, item)


if __name__ == "__main__":
    keel_host.main()
