# SPDX-License-Identifier: Apache-2.0
"""A client of keeld's services, written from docs/protocol.md alone: an independent implementation
of the wire protocol.

Whatever the daemon sends that the page does not allow raises Malformed. It never waits without
reading, and no wait lasts longer than HANG_GUARD, which no working daemon comes near.
"""

import collections
import enum
import os
import select
import socket
import struct
import time
from dataclasses import dataclass, field

from keel_values import InFile, Malformed, content_of, decode, encode, framed, split

NOTIFY = "com.vantor.keeld.notify"
AUTH = "com.vantor.keeld.auth"
DIRECTORY = "/run/keeld"

UPDATE = "updateSubscriptionFor:withItem:flags:error:"
CLIENT_INFO = "getClientInfoViaHandler:"
EXPORTS = (UPDATE, CLIENT_INFO)

HELLO, REQUEST, ONE_WAY, REPLY, FAILURE, GOODBYE = range(6)

DOMAIN = "KLNErrorDomain"
FRAME_LIMIT = 16 << 20
FRAME_LIMIT_OF_DAEMON = 1 << 30
IN_FILE_LEAST = 64 << 10
HANG_GUARD = float(os.environ.get("KEEL_HANG_GUARD", "60"))  # seconds


class Code(enum.IntEnum):
    """Codes of failures."""

    undecodable = 1
    unknownMethod = 2
    wrongArguments = 3
    tooLarge = 4
    badRequestId = 5
    unanswered = 6
    unsendable = 7
    overQuota = 8


class Ended(Exception):
    """The connection ended; `goodbye` is the daemon's reason, None without one."""

    def __init__(self, goodbye):
        super().__init__(f"the connection ended, goodbye {goodbye!r}")
        self.goodbye = goodbye


class Hung(Exception):
    """The hang guard expired."""


class Refused(Exception):
    """A request was answered with a failure."""

    def __init__(self, code, text):
        super().__init__(f"failure {code}: {text}")
        self.code = code
        self.text = text


# ---- messages ------------------------------------------------------------------------------------


@dataclass
class Message:
    """A frame of the daemon. Values received as files are in `fields` and `raw_arguments` as if
    they were inline.
    """

    fields: list
    raw_arguments: list = field(default_factory=list)  # each encoded, of a call or a reply
    files_taken: int = 0

    @property
    def kind(self):
        return self.fields[0]


@dataclass
class Delivery:
    name: str
    item: object
    flags: int
    error: object
    raw_item: bytes
    from_file: bool

    def __iter__(self):  # name, item, flags, error = delivery
        return iter((self.name, self.item, self.flags, self.error))


_SHAPES = {
    HELLO: (int, int, list, dict),
    REQUEST: (int, int, int, list),
    ONE_WAY: (int, int, list),
    REPLY: (int, int, list),
    FAILURE: (int, (int, type(None)), int, str),
    GOODBYE: (int, str),
}


def _message_of(body, files):
    fields = decode(body)
    shape = _SHAPES.get(fields[0] if isinstance(fields, list) and fields else None)
    if shape is None or len(fields) != len(shape) or not all(map(isinstance, fields, shape)):
        raise Malformed(f"no message: {fields!r:.200}")
    message = Message(fields)
    if message.kind in (REQUEST, ONE_WAY, REPLY):
        message.raw_arguments = split(split(body)[-1])
        for place, value in enumerate(fields[-1]):
            if isinstance(value, InFile):
                if not files:
                    raise Malformed("a large value without its file")
                file = files.popleft()
                content = content_of(file, value.size)
                os.close(file)
                message.files_taken += 1
                message.raw_arguments[place] = content
                fields[-1][place] = decode(content)
    return message


# ---- the client ----------------------------------------------------------------------------------


class Client:
    """A connection. Every method that waits reads all messages meanwhile; `history` keeps them in
    order.
    """

    def __init__(self, service=NOTIFY, *, exports=EXPORTS, descriptors=False, options=None,
                 greet=True, path=None):
        self.exports = list(exports)
        self.takes_descriptors = descriptors
        self.history = []
        self.ended = False
        self.goodbye_text = None
        self.selectors = []
        self.last_id = 0
        self.cut_off = False  # the connection ended within a frame
        self._answers = collections.defaultdict(collections.deque)  # by id
        self._calls = collections.deque()
        self._others = collections.deque()
        self._buffer = bytearray()
        self._files = collections.deque()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path or f"{DIRECTORY}/{service}")
        self.socket.setblocking(False)
        if greet:
            self.send([HELLO, 1, self.exports,
                       {"descriptors": True} if options is None and descriptors else options or {}])
            self.take_hello()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()
        while self._files:
            os.close(self._files.popleft())

    # -- bytes

    def send_bytes(self, data, files=()):
        """Sends all of `data`, the files with its first byte, and reads meanwhile. Raises Ended if
        the daemon closed the connection.
        """
        left = memoryview(data)
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS,
                   struct.pack(f"{len(files)}i", *files))] if files else []
        deadline = time.monotonic() + HANG_GUARD
        while left:
            if self.ended:
                raise Ended(self.goodbye_text)
            ready = self._poll(select.POLLIN | select.POLLOUT, deadline)
            if ready & select.POLLIN:
                self._read()
            if ready & (select.POLLOUT | select.POLLHUP | select.POLLERR) and not self.ended:
                try:
                    left = left[self.socket.sendmsg([left], rights) :]
                    rights = []
                except BlockingIOError:
                    pass
                except (BrokenPipeError, ConnectionResetError):
                    self._read_to_end()
                    raise Ended(self.goodbye_text) from None

    def send_frame(self, body, files=()):
        self.send_bytes(framed(body), files)

    def send(self, message, files=()):
        self.send_frame(encode(message), files)

    def _poll(self, events, deadline):
        poll = select.poll()
        poll.register(self.socket, events)
        ready = poll.poll(max(0.0, deadline - time.monotonic()) * 1000)
        if not ready:
            raise Hung(f"nothing came for {HANG_GUARD} s")
        return ready[0][1]

    def _read(self):
        """Reads once and puts completed messages into the inbox."""
        try:
            data, ancillary, flags, _ = self.socket.recvmsg(1 << 20, socket.CMSG_SPACE(64 * 4),
                                                            socket.MSG_CMSG_CLOEXEC)
        except BlockingIOError:
            return
        except ConnectionResetError:
            data, ancillary, flags = b"", [], 0
        if flags & socket.MSG_CTRUNC:
            raise Malformed("more descriptors in a message than fit")
        for level, kind, payload in ancillary:
            if (level, kind) != (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                raise Malformed("ancillary data that is no descriptor")
            self._files.extend(struct.unpack(f"{len(payload) // 4}i", payload))
            if not self.takes_descriptors:
                raise Malformed("a descriptor for a client that takes none")
        if not data:
            self._end()
        self._buffer += data
        self._take_frames()

    def _end(self):
        self.ended = True
        self.cut_off = bool(self._buffer)

    def _read_to_end(self):
        deadline = time.monotonic() + HANG_GUARD
        while not self.ended:
            self._poll(select.POLLIN, deadline)
            self._read()

    def _take_frames(self):
        start = 0
        while len(self._buffer) - start >= 4:
            size = struct.unpack_from("<I", self._buffer, start)[0]
            if size > FRAME_LIMIT_OF_DAEMON:
                raise Malformed(f"a frame of {size} bytes")
            if len(self._buffer) - start - 4 < size:
                break
            body = bytes(memoryview(self._buffer)[start + 4 : start + 4 + size])
            start += 4 + size
            self._accept(body)
        del self._buffer[:start]

    def _accept(self, body):
        if self.goodbye_text is not None:
            raise Malformed("a frame behind the goodbye")
        message = _message_of(body, self._files)
        if (message.kind == HELLO) == bool(self.history) and (self.history
                                                              or message.kind != GOODBYE):
            raise Malformed(
                "the first frame, and no other, must be the hello, or the goodbye of a refusal")
        if message.kind == GOODBYE:
            self.goodbye_text = message.fields[1]
        self.history.append(message)
        if message.kind in (REPLY, FAILURE):
            self._answers[message.fields[1]].append(message)
        elif message.kind == ONE_WAY:
            self._calls.append(message)
        else:
            self._others.append(message)

    # -- messages

    def _take(self, inbox):
        """Waits for the oldest message of that inbox and returns it."""
        deadline = time.monotonic() + HANG_GUARD
        while not inbox:
            if self.ended:
                raise Ended(self.goodbye_text)
            self._poll(select.POLLIN, deadline)
            self._read()
        return inbox.popleft()

    def take_hello(self):
        message = self._take(self._others)
        if message.kind == GOODBYE:
            raise Ended(self.end())
        _, version, self.selectors, options = message.fields
        if version != 1 or options.get("descriptors") is not True:
            raise Malformed(f"an unexpected hello: version {version}, {options}")

    def request(self, selector, *arguments, files=()):
        """Sends a request and returns its id."""
        self.last_id += 1
        self.send([REQUEST, self.last_id, self.selectors.index(selector), list(arguments)], files)
        return self.last_id

    def tell(self, selector, *arguments):
        self.send([ONE_WAY, self.selectors.index(selector), list(arguments)])

    def answer(self, identifier):
        """Returns the reply or failure with that id; None selects the failure without one."""
        message = self._take(self._answers[identifier])
        if not self._answers[identifier]:
            del self._answers[identifier]
        return message

    def results(self, identifier):
        message = self.answer(identifier)
        if message.kind == FAILURE:
            raise Refused(*message.fields[2:])
        return message.fields[2]

    def call(self, selector, *arguments, files=()):
        return self.results(self.request(selector, *arguments, files=files))

    def failure(self, identifier):
        """Returns the code of the failure with that id."""
        message = self.answer(identifier)
        if message.kind != FAILURE:
            raise AssertionError(f"a reply where a failure was due: {message.fields}")
        return Code(message.fields[2])

    def end(self):
        """Reads to the end of the connection and returns the goodbye's text, None without one."""
        self._read_to_end()
        return self.goodbye_text

    # -- the notify service; each returns the error of the reply

    def subscribe(self, name, flags=0):
        dictionary, error = self.call("subscribeTo:withFlags:andHandler:", name, flags)
        if dictionary is not None:
            raise Malformed("the dictionary of a subscription's reply is not null")
        return error

    def unsubscribe(self, name):
        self.tell("unsubscribeFrom:", name)

    def publish(self, item, name, flags=0, value=0):
        return self.call("publishItem:name:flags:value:withHandler:", item, name, flags, value)[0]

    def update(self, item, name):
        return self.call("updatePublishedItem:name:withHandler:", item, name)[0]

    def remove(self, name):
        return self.call("removePublishedItemForName:withHandler:", name)[0]

    def dump(self, name="_all", with_data=False):
        """Returns the entries and the error."""
        return self.call("dumpNotification:withData:andHandler:", name, with_data)

    def auth_check(self, user, asid):
        return self.call("authCheckForUser:andASID:withHandler:", user, asid)

    def module_table(self):
        return self.call("getModuleTableWithHandler:")[0]

    def delivery(self):
        message = self._take(self._calls)
        if self.exports[message.fields[1]] != UPDATE:
            raise Malformed(f"a call of {self.exports[message.fields[1]]}")
        name, item, flags, error = message.fields[2]
        return Delivery(name, item, flags, error, message.raw_arguments[1], message.files_taken > 0)

    def deliveries_so_far(self):
        """Returns all deliveries sent before the answer to a new request: none is in flight then.
        """
        self.dump("")
        return self.deliveries_that_came()

    def deliveries_that_came(self):
        return [self.delivery() for _ in range(len(self._calls))]
