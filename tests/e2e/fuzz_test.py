#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Mutates valid sessions: thousands of them, with bytes, items and frames changed, removed,
duplicated and swapped.

Each is a function of KEEL_FUZZ_SEED (a fixed number unless given) and its own number, both of which
a failure names.
"""

import collections
import os
import random
import socket
import struct

import keel_host
from keel_client import EXPORTS, FAILURE, GOODBYE, HELLO, ONE_WAY, REPLY, REQUEST, Client, Ended
from keel_host import Bystanders, DaemonTest
from keel_values import Date, Error, InFile, decode, encode, framed, sealed_file

SEED = int(os.environ.get("KEEL_FUZZ_SEED", "20261121"))
SESSIONS = int(os.environ.get("KEEL_FUZZ_SESSIONS", "3000"))
STEP = 100  # sessions between two looks at everything else
LAST = 2**64 - 1  # the id of the request behind a session
MOST_PADDING = 1 << 20
MEMORY = 64 << 20

VALUES = [None, True, False, 0, 1, 23, 24, 255, 256, 2**31, 2**32, 2**53, 2**63, 2**64 - 1, -1,
          -(2**63), 0.0, 1.5,
          float("inf"), float("nan"), "", "a", "_all", "x" * 300, b"", b"\0" * 70, [], [[]], {},
          {"a": 1}, {"": {"": []}},
          Date(0), Date(1.5), Error("d", 9), Error("d", -1, {"x": None}),
          InFile(0), InFile(70014), InFile(2**63)]

NAMES = ["a", "b", "c", "", "_all", "\0"]


def item(random):
    return {random.choice(["a", "b", ""]): random.choice(VALUES[:-3])
            for _ in range(random.randrange(4))}


def name(random):
    return random.choice([*NAMES, None])


def requests(random):
    """Returns the messages of a valid session, without ids."""
    for _ in range(random.randrange(1, 12)):
        yield random.choice([
            lambda: [REQUEST, 3,
                     [item(random), name(random), random.getrandbits(64), random.getrandbits(63)]],
            lambda: [REQUEST, 4, [item(random), name(random)]],
            lambda: [REQUEST, 1, [name(random), random.getrandbits(64)]],
            lambda: [ONE_WAY, 2, [name(random)]],
            lambda: [REQUEST, 5, [name(random)]],
            lambda: [REQUEST, 0, [name(random), random.randrange(-(2**31), 2**31)]],
            lambda: [REQUEST, 6, []],
            lambda: [REQUEST, 7, ["x" + (name(random) or ""), random.random() < 0.5]],
        ])()


def session(random):
    messages = [[HELLO, 1, list(EXPORTS[: random.randrange(3)]), {}]]
    for identifier, message in enumerate(requests(random), start=1):
        messages.append([REQUEST, identifier, *message[1:]] if message[0] == REQUEST else message)
    return messages


def changed_value(random, value):
    """Returns the value with a part replaced."""
    if isinstance(value, list) and value and random.random() < 0.8:
        place = random.randrange(len(value))
        what = random.random()
        if what < 0.1:
            return value[:place] + value[place + 1 :]
        if what < 0.2:
            return [*value, random.choice(VALUES)]
        return [*value[:place], changed_value(random, value[place]), *value[place + 1 :]]
    return random.choice(VALUES)


def changed_bytes(random, data):
    data = bytearray(data)
    for _ in range(random.choice([1, 1, 1, 2, 5, 30])):
        place = random.randrange(len(data) + 1)
        what = random.random()
        if what < 0.4 and place < len(data):
            data[place] ^= 1 << random.randrange(8)
        elif what < 0.6 and place < len(data):
            data[place] = random.choice([0, 0x1B, 0x3B, 0x5B, 0x7B, 0x9B, 0xBB, 0xDB, 0xF6, 0xFB,
                                         0xFF, random.randrange(256)])
        elif what < 0.75:
            data[place:place] = random.randbytes(random.choice([1, 1, 2, 9]))
        elif what < 0.9:
            del data[place : place + random.choice([1, 1, 2, 9])]
        else:
            data[place:place] = data[place : place + 20]
    return bytes(data)


def mutated(random, messages):
    """Returns the bytes of a session, mutated."""
    bodies = [encode(message) for message in messages]
    what = random.random()
    # most keep their hello, else nothing behind it is looked at
    first = 0 if random.random() < 0.1 else 1
    if len(bodies) == 1:
        first = 0
    if what < 0.35:
        for _ in range(random.choice([1, 1, 3])):
            place = random.randrange(first, len(bodies))
            bodies[place] = changed_bytes(random, bodies[place])
    elif what < 0.7:
        for _ in range(random.choice([1, 1, 3])):
            place = random.randrange(first, len(bodies))
            bodies[place] = encode(changed_value(random, messages[place]))
    elif what < 0.8:
        place = random.randrange(first, len(bodies))
        bodies[place:place] = [bodies[random.randrange(len(bodies))]
                               for _ in range(random.randrange(1, 4))]
        if random.random() < 0.3:
            rest = bodies[first:]
            random.shuffle(rest)
            bodies[first:] = rest
    elif what < 0.9:
        bodies[first:first] = [random.randbytes(random.choice([0, 1, 2, 5, 50, 500]))
                               for _ in range(3)]
    else:
        stream = b"".join(map(framed, bodies))
        keep = 4 + len(bodies[0]) if first else 0
        return stream[:keep] + changed_bytes(random, stream[keep:])
    return b"".join(map(framed, bodies))


def padding(data):
    """Returns the missing bytes of the last frame; None if they are too many."""
    padded = bytearray(data)
    at = 0
    while at < len(padded):
        padded += bytes(max(0, at + 4 - len(padded)))
        at += 4 + struct.unpack_from("<I", padded, at)[0]
        if at - len(data) > MOST_PADDING:
            return None
        if at > len(padded):
            padded += bytes(at - len(padded))
    return bytes(padded[len(data) :])


def ids_sent(data):
    """Returns how often each request id may be answered: once per frame that could be a request
    with it.
    """
    ids = collections.Counter()
    at = 0
    while at + 4 <= len(data):
        size = struct.unpack_from("<I", data, at)[0]
        body = data[at + 4 : at + 4 + size]
        at += 4 + size
        if len(body) > 2:
            # wherever the id begins; a mangled head may shift it
            for head in range(min(len(body), 12)):
                try:
                    value = decode(
                        body[head : head + {24: 2, 25: 3, 26: 5, 27: 9}.get(body[head] & 31, 1)])
                except Exception:
                    continue
                if isinstance(value, int) and not isinstance(value, bool):
                    ids[value] += 1
    return ids


class Fuzz(DaemonTest):
    log = "error,runtime=debug"

    def setUp(self):
        super().setUp()
        self.bystanders = Bystanders(self)
        self.settled = 0
        self.files_kept = 0  # at most, in published items

    def run_session(self, data, number, files=()):
        """Sends the bytes and waits until the daemon has read all of them; the client validates the
        daemon's messages. Every other session ends with a request, the rest with a half-close.
        """
        with Client(greet=False) as client:
            client.take_hello()
            rest = padding(data)
            try:
                client.send_bytes(data, files)
                if number % 2 == 0 and rest is not None:
                    client.send_bytes(rest + framed(encode([REQUEST, LAST, 7, ["", False]])))
                    client.answer(LAST)
                else:
                    client.socket.shutdown(socket.SHUT_WR)
                    client.end()
            except (Ended, BrokenPipeError):
                client.end()
        return client

    def check_answers(self, client, data):
        answered = collections.Counter(message.fields[1] for message in client.history
                                       if message.kind in (REPLY, FAILURE))
        may_be = ids_sent(data)
        may_be[LAST] += 1
        del answered[None]
        for identifier, count in answered.items():
            self.assertLessEqual(count, may_be[identifier], f"answers with the id {identifier}")
        kinds = [message.kind for message in client.history]
        self.assertLessEqual(kinds.count(GOODBYE), 1)

    def look_around(self, count):
        """Asserts that other clients are unaffected, nothing is retained, and each connection has
        logged at most one line of each kind.
        """
        self.bystanders.step()
        self.wait_for_clean_up(count)
        if self.settled == 0:
            self.settled = self.daemon.resident_bytes()
            self.open = self.daemon.descriptor_count()
        self.assertMemoryWithin(self.settled, MEMORY)
        self.assertLessEqual(self.daemon.descriptor_count(), self.open + self.files_kept)
        errors = collections.Counter((line.text.split(">")[0], line.text.split(">")[1][:8])
                                     for line in self.daemon.log
                                     if line.level == "error"
                                     and line.text.startswith("<connection "))
        self.assertFalse([which for which, times in errors.items() if times > 1])

    def test_changed_sessions(self):
        for number in range(SESSIONS):
            generator = random.Random(f"{SEED} {number}")
            data = mutated(generator, session(generator))
            with self.subTest(seed=SEED, session=number, data=data.hex()):
                self.check_answers(self.run_session(data, number), data)
            if number % STEP == STEP - 1:
                self.look_around(number + 1)

    def test_unchanged_sessions_receive_every_answer(self):
        """Validates the generator: without mutations every request has its reply."""
        for number in range(STEP):
            messages = session(random.Random(f"{SEED} good {number}"))
            asked = [message[1] for message in messages if message[0] == REQUEST]
            client = self.run_session(b"".join(framed(encode(message)) for message in messages), 1)
            answered = [message.fields[1] for message in client.history if message.kind == REPLY]
            self.assertEqual(sorted(answered), asked, f"{SEED} good {number}")
        self.look_around(STEP)

    def test_random_bytes(self):
        for number in range(SESSIONS // 10):
            generator = random.Random(f"{SEED} bytes {number}")
            data = generator.randbytes(generator.choice([1, 3, 4, 5, 100, 5000]))
            if generator.random() < 0.5:
                data = framed(encode([HELLO, 1, [], {}])) + data
            with self.subTest(seed=SEED, session=number, data=data.hex()):
                self.run_session(data, number)
            if number % STEP == STEP - 1:
                self.look_around(number + 1)

    def test_sessions_with_files(self):
        """Mutated sessions with valid and invalid descriptors."""
        self.files_kept = len(NAMES)
        good = self.file(sealed_file(encode({"picture": b"\0" * 70000})))
        empty = self.file(sealed_file(b"", seals=0))
        null = self.file(os.open("/dev/null", os.O_RDWR))
        for number in range(SESSIONS // 5):
            generator = random.Random(f"{SEED} files {number}")
            messages = session(generator)
            for message in messages[1:]:
                if message[0] == REQUEST and message[2] in (3, 4) and generator.random() < 0.7:
                    message[3][0] = InFile(generator.choice([70014, 70014, 0, 2**32]))
            data = mutated(generator, messages)
            files = [generator.choice([good, good, good, empty, null])
                     for _ in range(generator.choice([1, 1, 1, 2, 8, 20]))]
            with self.subTest(seed=SEED, session=number, data=data.hex()):
                self.run_session(data, number, files)
            if number % STEP == STEP - 1:
                self.look_around(number + 1)


if __name__ == "__main__":
    keel_host.main()
