#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests large values, as files and inline, in both directions, and invalid files."""

import fcntl
import os
import socket
import struct

import keel_host
from keel_client import AUTH, FRAME_LIMIT, IN_FILE_LEAST, ONE_WAY, REQUEST, Client, Code
from keel_host import DaemonTest
from keel_values import InFile, Raw, encode, framed, sealed_file

PUBLISH = "publishItem:name:flags:value:withHandler:"
UPDATE_ITEM = "updatePublishedItem:name:withHandler:"
SEALS = {"write": fcntl.F_SEAL_WRITE, "grow": fcntl.F_SEAL_GROW, "shrink": fcntl.F_SEAL_SHRINK}
ALL_SEALS = sum(SEALS.values()) | fcntl.F_SEAL_SEAL
F_SEAL_FUTURE_WRITE = 0x10
UNCLAIMED_MOST = 8


def item_of(size, fill=b"\0"):
    """Returns an encoded item of exactly that size."""
    key = encode("picture")
    for head, form in ((b"\x59", ">H"), (b"\x5a", ">I")):
        filling = size - 1 - len(key) - 1 - struct.calcsize(form)
        if filling >> (8 * struct.calcsize(form)) == 0 and filling >= (
            256 if form == ">H" else 65536):
            return b"\xa1" + key + head + struct.pack(form, filling) + fill * filling
    raise ValueError(size)


class LargeValueTest(DaemonTest):
    def setUp(self):
        super().setUp()
        self.sender = self.client()

    def send_in_file(self, client, content, name, size=None, seals=ALL_SEALS, selector=UPDATE_ITEM):
        """Sends `content` as a file and returns the request's id."""
        file = sealed_file(content, seals)
        try:
            more = [0, 0] if selector == PUBLISH else []
            return client.request(selector, InFile(len(content) if size is None else size), name,
                                  *more, files=[file])
        finally:
            os.close(file)


class ToTheDaemon(LargeValueTest):
    def test_a_value_in_a_file_equals_the_inline_value(self):
        item = item_of(70014)
        follower = self.client()
        self.assertWorked(follower.subscribe("camera"))
        self.assertEqual(self.sender.results(self.send_in_file(self.sender, item, "camera",
                                                               selector=PUBLISH)), [None])
        self.assertEqual(follower.delivery().raw_item, item)
        item = item_of(70014, b"\1")
        self.assertEqual(self.sender.results(self.send_in_file(self.sender, item, "camera")),
                         [None])
        self.assertEqual(follower.delivery().raw_item, item)

    def test_a_value_of_16_mebibytes_in_a_file_works_and_one_byte_more_is_refused(self):
        self.assertWorked(self.sender.publish({}, "camera"))
        follower = self.client(descriptors=True)
        self.assertWorked(follower.subscribe("camera"))
        follower.delivery()
        identifier = self.send_in_file(self.sender, item_of(FRAME_LIMIT + 1, b"\1"), "camera")
        self.assertEqual(self.sender.failure(identifier), Code.wrongArguments)
        item = item_of(FRAME_LIMIT, b"\2")
        self.assertEqual(self.sender.results(self.send_in_file(self.sender, item, "camera")),
                         [None])
        self.assertEqual(follower.delivery().raw_item, item)

    def test_a_frame_of_16_mebibytes_works_and_one_byte_more_is_refused(self):
        self.assertWorked(self.sender.publish({}, "camera"))
        follower = self.client()
        self.assertWorked(follower.subscribe("camera"))
        follower.delivery()
        around = len(encode([REQUEST, 1000, 4, [Raw(b""), "camera"]]))
        for size, taken in ((FRAME_LIMIT, True), (FRAME_LIMIT + 1, False), (FRAME_LIMIT, True)):
            item = item_of(size - around, bytes([taken]))
            self.sender.last_id = max(self.sender.last_id, 999)
            identifier = self.sender.request(UPDATE_ITEM, Raw(item), "camera")
            if taken:
                self.assertEqual(self.sender.results(identifier), [None])
                self.assertEqual(follower.delivery().raw_item, item)
            else:
                self.assertEqual(self.sender.failure(identifier), Code.tooLarge)
        self.assertEqual(follower.deliveries_so_far(), [])

    def test_a_too_large_frame_is_skipped_whatever_its_content(self):
        for first, identifier in ((encode([REQUEST, 2**64 - 1, 4, []])[:-1], 2**64 - 1),
                                  (b"\x83\x02\x02", None),
                                  (b"\0\0\0\0", None)):
            with self.client() as client:
                client.send_bytes(struct.pack("<I", FRAME_LIMIT + 1) + first
                                  + bytes(FRAME_LIMIT + 1 - len(first)))
                self.assertEqual(client.failure(identifier), Code.tooLarge)
                client.send([ONE_WAY, 99, []])
                self.assertEqual(client.failure(None), Code.unknownMethod)

    def test_superseded_large_values_are_released(self):
        self.assertWorked(self.sender.publish({}, "camera"))
        before = self.daemon.descriptor_count()
        for number in range(300):
            identifier = self.send_in_file(self.sender,
                                           item_of(IN_FILE_LEAST, bytes([number % 256])), "camera")
            self.assertEqual(self.sender.results(identifier), [None])
        self.assertLessEqual(self.daemon.descriptor_count(), before + 1)

    def test_pipelined_requests_keep_their_files_in_order(self):
        follower = self.client()
        self.assertWorked(follower.subscribe("camera"))
        self.assertWorked(self.sender.publish({}, "camera"))
        follower.delivery()
        for number in range(1, 51):
            self.send_in_file(self.sender, item_of(IN_FILE_LEAST + 100 + number, bytes([number])),
                              "camera")
        for number in range(1, 51):
            self.assertEqual(follower.delivery().raw_item,
                             item_of(IN_FILE_LEAST + 100 + number, bytes([number])))


    def test_a_value_in_a_file_may_be_small(self):
        follower = self.client(descriptors=True)
        self.assertWorked(follower.subscribe("camera"))
        self.assertEqual(self.sender.results(self.send_in_file(self.sender, b"\xa0", "camera",
                                                               selector=PUBLISH)), [None])
        delivery = follower.delivery()
        self.assertEqual((delivery.item, delivery.from_file), ({}, False))


class FromTheDaemon(LargeValueTest):
    def setUp(self):
        super().setUp()
        self.with_files = self.client(descriptors=True)
        self.inline = self.client()
        for client in (self.with_files, self.inline):
            self.assertWorked(client.subscribe("camera"))
        self.assertWorked(self.sender.publish({}, "camera"))
        for client in (self.with_files, self.inline):
            while client.delivery().item is None:
                pass

    def assertDelivered(self, item, in_file):
        delivery = self.with_files.delivery()
        self.assertEqual(delivery.raw_item, item)
        self.assertEqual(delivery.from_file, in_file)
        delivery = self.inline.delivery()
        self.assertEqual(delivery.raw_item, item)
        self.assertFalse(delivery.from_file)

    def test_values_from_64_kibibytes_on_are_sent_as_files(self):
        for size, in_file in ((IN_FILE_LEAST - 1, False), (IN_FILE_LEAST, True),
                              (IN_FILE_LEAST + 1, True), (5 << 20, True)):
            self.assertWorked(self.sender.update(Raw(item_of(size, b"\3")), "camera"))
            self.assertDelivered(item_of(size, b"\3"), in_file)

    def test_a_value_received_as_a_file_is_sent_as_one(self):
        item = item_of(IN_FILE_LEAST)
        self.assertEqual(self.sender.results(self.send_in_file(self.sender, item, "camera")),
                         [None])
        self.assertDelivered(item, in_file=True)
        late = self.client(descriptors=True)
        self.assertWorked(late.subscribe("camera"))
        self.assertEqual(late.delivery().raw_item, item)

    def test_a_large_dump_is_sent_as_a_file(self):
        self.assertWorked(self.sender.update(Raw(item_of(IN_FILE_LEAST)), "camera"))
        for client, files in ((self.with_files, 1), (self.inline, 0)):
            identifier = client.request("dumpNotification:withData:andHandler:", "_all", True)
            answer = client.answer(identifier)
            self.assertEqual(answer.files_taken, files)
            self.assertTrue(answer.raw_arguments[0].endswith(item_of(IN_FILE_LEAST)))

    def test_a_dump_larger_than_a_clients_frame_arrives(self):
        publishers = [self.client() for _ in range(3)]
        for number, publisher in enumerate(publishers):
            identifier = self.send_in_file(publisher, item_of(8 << 20, bytes([number])),
                                           f"camera {number}", selector=PUBLISH)
            self.assertEqual(publisher.results(identifier), [None])
        for client in (self.with_files, self.inline):
            entries, error = client.dump("_all", True)
            self.assertIsNone(error)
            self.assertEqual(
                {entry["name"]: entry["publishedData"]["picture"][:1] for entry in entries
                 if entry["name"] != "camera"},
                {f"camera {number}": bytes([number]) for number in range(3)},
            )

    def test_an_option_of_false_means_inline(self):
        client = self.client(options={"descriptors": False})
        self.assertWorked(self.sender.update(Raw(item_of(IN_FILE_LEAST)), "camera"))
        self.assertWorked(client.subscribe("camera"))
        self.assertFalse(client.delivery().from_file)


class BadFiles(LargeValueTest):
    """Anything but a sealed file of the exact size and right kind is refused, changes nothing and
    leaves no descriptor open.
    """

    def setUp(self):
        super().setUp()
        self.assertWorked(self.sender.publish({"kept": True}, "camera"))
        self.follower = self.client()
        self.assertWorked(self.follower.subscribe("camera"))
        self.follower.delivery()
        self.own_client()  # counted in
        self.open_before = self.daemon.descriptor_count()
        self.item = item_of(70014)

    def tearDown(self):
        # After a refusal the connection and the item are unchanged.
        self.assertWorked(self.sender.update({"n": 2}, "camera"))
        self.assertEqual([delivery.item for delivery in self.follower.deliveries_so_far()],
                         [{"n": 2}])
        self.assertEqual(self.daemon.descriptor_count(), self.open_before)

    def assertRefused(self, identifier):
        self.assertEqual(self.sender.failure(identifier), Code.wrongArguments)

    def request_with(self, *files, size=70014):
        return self.sender.request(UPDATE_ITEM, InFile(size), "camera", files=files)

    def test_without_a_seal_is_refused(self):
        self.assertRefused(self.send_in_file(self.sender, self.item, "camera", seals=0))
        for missing in SEALS.values():
            self.assertRefused(self.send_in_file(self.sender, self.item, "camera",
                                                 seals=sum(SEALS.values()) - missing))
        future = sum(SEALS.values()) - fcntl.F_SEAL_WRITE + F_SEAL_FUTURE_WRITE
        self.assertRefused(self.send_in_file(self.sender, self.item, "camera", seals=future))

    def test_of_another_size_is_refused(self):
        for size in (0, 1, 70013, 70015, FRAME_LIMIT, FRAME_LIMIT + 1, 2**63, 2**64 - 1):
            self.assertRefused(self.send_in_file(self.sender, self.item, "camera", size=size))

    def test_another_kind_of_file_ends_the_connection(self):
        reading, writing = os.pipe()
        ordinary = os.open("/var/ordinary", os.O_RDWR | os.O_CREAT)
        os.write(ordinary, self.item)
        ours, theirs = socket.socketpair()
        others = [os.open("/dev/null", os.O_RDWR), os.open("/dev/zero", os.O_RDWR),
                  os.open("/", os.O_RDONLY), os.eventfd(0),
                  os.open("/var/ordinary", os.O_PATH), os.open("/proc/self/status", os.O_RDONLY),
                  ours.detach(),
                  theirs.detach(),
                  os.open("/proc/self/exe", os.O_RDONLY), os.pidfd_open(os.getpid())]
        for file in (reading, writing, ordinary, *others):
            with self.subTest(os.readlink(f"/proc/self/fd/{file}")):
                client = self.client()
                self.assertWorked(client.publish({}, "mine"))
                self.after_clean_up(lambda: self.send_and_end(client, UPDATE_ITEM,
                                                              [InFile(70014), "mine"], [file]))
            os.close(file)

    def send_and_end(self, client, selector, arguments, files):
        client.request(selector, *arguments, files=files)
        self.assertTrue(client.end())

    def test_invalid_content_is_refused(self):
        deep = b"\xa1\x60" + 65 * b"\x81" + b"\x00"
        padding = encode("x" * 70000)
        for content in (b"\x80", b"\x81" + padding, padding, self.item + b"\0", self.item[:-1],
                        b"\xa2\x61a" + padding, b"",
                        b"\xa2\x61a" + padding + b"\x61b\xd9\xca\x1e\x1a\x00\x01\x11\x7e",
                        b"\xa2\x61a" + padding + deep[1:],
                        b"\xbf\x61a" + padding + b"\xff", b"\xa1\x61a" + padding[:-1] + b"\xff",
                        b"\xa1\x01" + padding):
            self.assertRefused(self.send_in_file(self.sender, content, "camera"))

    def test_a_missing_file_is_refused(self):
        self.assertRefused(self.request_with())

    def test_an_unclaimed_file_ends_the_connection(self):
        file = self.file(sealed_file(self.item))
        for selector, arguments, count in (
            ("getModuleTableWithHandler:", [], 1),
            (UPDATE_ITEM, [{}, "mine"], 1),
            (UPDATE_ITEM, [InFile(70014), "mine"], 2),
            (UPDATE_ITEM, [InFile(70014), "mine"], UNCLAIMED_MOST + 1),
        ):
            client = self.client()
            self.assertWorked(client.publish({}, "mine"))
            self.after_clean_up(lambda: self.send_and_end(client, selector, arguments,
                                                          [file] * count))

    def test_to_the_auth_service_ends_the_connection(self):
        file = self.file(sealed_file(self.item))
        client = Client(AUTH, exports=())
        self.send_and_end(client, "authServiceCheckWithHandler:", [], [file])
        client.close()

    def test_a_tag_outside_an_argument_is_refused(self):
        file = sealed_file(self.item)
        for arguments in ([InFile(70014), InFile(70014)], [{}, InFile(70014)], [InFile(70014)],
                          [InFile(70014), "camera", 1]):
            count = sum(isinstance(argument, InFile) for argument in arguments)
            self.assertRefused(self.sender.request(UPDATE_ITEM, *arguments, files=[file] * count))
        self.assertRefused(self.sender.request("subscribeTo:withFlags:andHandler:", InFile(70014),
                                               0, files=[file]))
        os.close(file)

    def test_the_file_of_a_refused_message_is_closed(self):
        other = sealed_file(item_of(70014, b"\1"))
        file = sealed_file(self.item)
        self.sender.last_id += 1
        self.sender.send([REQUEST, self.sender.last_id, 99, [InFile(70014)]], files=[other])
        self.assertEqual(self.sender.failure(self.sender.last_id), Code.unknownMethod)
        self.sender.send([REQUEST, 1, 4, [InFile(70014), "camera"]], files=[other])
        self.assertEqual(self.sender.failure(1), Code.badRequestId)
        self.assertEqual(self.sender.results(self.request_with(file)), [None])
        self.assertEqual(self.follower.delivery().raw_item, self.item)
        os.close(file)
        os.close(other)

    def test_a_file_behind_other_messages_stays_with_its_own(self):
        # Both messages come in one read: one that is refused, and one that waits for its turn, with
        # the file behind it.
        file = self.file(sealed_file(self.item))
        for method, arguments in ((99, []), (7, ["_all", False])):
            first = self.sender.last_id + 1
            self.sender.last_id += 2
            second = [REQUEST, self.sender.last_id, 4, [InFile(70014), "camera"]]
            self.daemon.pause()
            self.sender.send([REQUEST, first, method, arguments])
            self.sender.send(second, files=[file])
            self.daemon.go_on()
            self.sender.answer(first)
            self.assertEqual(self.sender.results(self.sender.last_id), [None])
            self.assertEqual(self.follower.delivery().raw_item, self.item)

    def test_a_sealed_file_cannot_be_changed_by_its_sender(self):
        file = sealed_file(self.item)
        self.assertEqual(self.sender.results(self.request_with(file)), [None])
        for change in (lambda: os.ftruncate(file, 0), lambda: os.ftruncate(file, 1 << 20),
                       lambda: os.pwrite(file, b"x", 0)):
            self.assertRaises(PermissionError, change)
        self.assertEqual(self.follower.delivery().raw_item, self.item)
        os.close(file)

    def test_the_descriptor_arrives_with_the_first_byte_of_a_split_frame(self):
        """Sends the descriptor with the first byte and the rest of the frame byte by byte."""
        file = sealed_file(self.item)
        self.sender.last_id += 1
        frame = framed(encode([REQUEST, self.sender.last_id, 4, [InFile(70014), "camera"]]))
        self.sender.send_bytes(frame[:1], files=[file])
        os.close(file)
        for place in range(1, len(frame)):
            self.sender.send_bytes(frame[place : place + 1])
        self.assertEqual(self.sender.results(self.sender.last_id), [None])
        self.assertEqual(self.follower.delivery().raw_item, self.item)


    def test_files_of_an_incomplete_frame_are_closed_with_the_connection(self):
        file = self.file(sealed_file(self.item))
        for count in (1, UNCLAIMED_MOST):
            client = self.client()
            client.send_bytes(b"\x20\0\0\0\x84\x01", files=[file] * count)
            self.end_of(client)


if __name__ == "__main__":
    keel_host.main()
