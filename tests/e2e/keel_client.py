# SPDX-License-Identifier: Apache-2.0
"""A client of keeld's services, written from docs/protocol.md alone: a second opinion on the wire.

It decodes strictly: whatever the daemon sends that the page does not allow raises Malformed. It never waits without reading, and
no wait lasts longer than HANG_GUARD, which no working daemon comes near.
"""

import collections
import enum
import fcntl
import mmap
import os
import select
import socket
import struct
import time
from dataclasses import dataclass, field

import cbor2

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
DESCRIPTION = "NSLocalizedDescription"
HANG_GUARD = float(__import__("os").environ.get("HANG","60"))


class Code(enum.IntEnum):
    """Why a message could not be served."""

    undecodable = 1
    unknownMethod = 2
    wrongArguments = 3
    tooLarge = 4
    badRequestId = 5
    unanswered = 6
    unsendable = 7


class Malformed(Exception):
    """The daemon broke a rule of the wire."""


class Ended(Exception):
    """The connection ended; `goodbye` is the daemon's last text, None when it gave none."""

    def __init__(self, goodbye):
        super().__init__(f"the connection ended, goodbye {goodbye!r}")
        self.goodbye = goodbye


class Hung(Exception):
    """Nothing came for so long that nothing will."""


class Refused(Exception):
    """A request was answered with a failure."""

    def __init__(self, code, text):
        super().__init__(f"failure {code}: {text}")
        self.code = code
        self.text = text


# ---- values ----------------------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Date:
    seconds: object  # int or float, as on the wire


@dataclass(frozen=True)
class Error:
    domain: str
    code: int
    user_info: object = None

    @property
    def description(self):
        return None if self.user_info is None else self.user_info.get(DESCRIPTION)


@dataclass(frozen=True)
class InFile:
    size: int


@dataclass(frozen=True)
class Raw:
    """Bytes that stand for a value in what is encoded."""

    encoded: bytes


def _encode_ours(encoder, value):
    if isinstance(value, Raw):
        encoder.write(value.encoded)
    elif isinstance(value, Date):
        encoder.encode(cbor2.CBORTag(1, value.seconds))
    elif isinstance(value, Error):
        encoder.encode(cbor2.CBORTag(51741, [value.domain, value.code, value.user_info]))
    elif isinstance(value, InFile):
        encoder.encode(cbor2.CBORTag(51742, value.size))
    else:
        raise TypeError(f"{type(value)} has no place on the wire")


def encode(value):
    return cbor2.dumps(value, default=_encode_ours)


class _Reader:
    """Decodes one value after the other out of bytes, under the page's rules."""

    _DEEPEST = 80  # arrays and dictionaries: a reply, its results, an argument of a dump

    def __init__(self, data):
        self.data = data
        self.at = 0

    def take(self, size):
        if size > len(self.data) - self.at:
            raise Malformed("a value is longer than its frame")
        self.at += size
        return self.data[self.at - size : self.at]

    def head(self):
        first = self.take(1)[0]
        major, short = first >> 5, first & 31
        if short < 24:
            return major, short, short
        if short > 27:
            raise Malformed("an indefinite length")
        size = 1 << (short - 24)
        value = int.from_bytes(self.take(size), "big")
        if major != 7 and value < (24 if size == 1 else 1 << (4 * size)):
            raise Malformed("a head that is not in its shortest form")
        return major, short, value

    def value(self, depth=0, whole_argument=False):
        major, short, value = self.head()
        if major == 0:
            return value
        if major == 1:
            if value >= 1 << 63:
                raise Malformed("an integer below -2^63")
            return -1 - value
        if major == 2:
            return bytes(self.take(value))
        if major == 3:
            return self._text(value)
        if major == 6:
            return self._tagged(value, depth, whole_argument)
        if major == 7:
            return self._simple(short, value)
        if depth >= self._DEEPEST:
            raise Malformed("nested too deeply")
        if major == 4:
            return [self.value(depth + 1, whole_argument=depth == 1) for _ in range(value)]
        return {self._key(): self.value(depth + 1) for _ in range(value)}

    def _text(self, size):
        try:
            return bytes(self.take(size)).decode("utf-8", "strict")
        except UnicodeDecodeError as problem:
            raise Malformed(f"a text that is not UTF-8: {problem}") from None

    def _key(self):
        major, _, size = self.head()
        if major != 3:
            raise Malformed("a key that is no text")
        return self._text(size)

    def _tagged(self, tag, depth, whole_argument):
        content = self.value(depth)
        if tag == 1 and isinstance(content, (int, float)) and not isinstance(content, bool):
            return Date(content)
        if tag == 51741 and isinstance(content, list) and len(content) == 3:
            return Error(*content)
        if tag == 51742 and whole_argument and isinstance(content, int):
            return InFile(content)
        raise Malformed(f"tag {tag} where it may not stand")

    @staticmethod
    def _simple(short, value):
        if short in (20, 21, 22):
            return {20: False, 21: True, 22: None}[short]
        if short in (25, 26, 27):
            return struct.unpack({25: ">e", 26: ">f", 27: ">d"}[short], value.to_bytes(1 << (short - 24), "big"))[0]
        raise Malformed(f"simple value {value}")


def decode(data):
    """The one value that `data` holds."""
    reader = _Reader(data)
    value = reader.value()
    if reader.at != len(data):
        raise Malformed("bytes behind the value")
    return value


def split(data):
    """The encoded items of the array that `data` holds."""
    reader = _Reader(data)
    major, _, count = reader.head()
    if major != 4:
        raise Malformed("no array")
    items = []
    for _ in range(count):
        start = reader.at
        reader.value(depth=1, whole_argument=True)
        items.append(bytes(data[start : reader.at]))
    return items


def framed(body):
    return struct.pack("<I", len(body)) + body


def sealed_file(content, seals=fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_SEAL):
    """A memory file that holds `content`, as a large value travels. The caller closes it."""
    file = os.memfd_create("value", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    with open(file, "wb", closefd=False) as stream:
        stream.write(content)
    if seals:
        fcntl.fcntl(file, fcntl.F_ADD_SEALS, seals)
    return file


def _content_of(file, size):
    needed = fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK
    if fcntl.fcntl(file, fcntl.F_GET_SEALS) & needed != needed:
        raise Malformed("a file that is not sealed")
    if os.fstat(file).st_size != size:
        raise Malformed("a file of another size than its tag says")
    with mmap.mmap(file, size, mmap.MAP_SHARED, mmap.PROT_READ) as mapped:
        return bytes(mapped)


# ---- messages --------------------------------------------------------------------------------------------------------------


@dataclass
class Message:
    """One frame of the daemon's. Values that came as files stand in `fields` and `raw_arguments` as if they had come inline."""

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
                content = _content_of(file, value.size)
                os.close(file)
                message.files_taken += 1
                message.raw_arguments[place] = content
                fields[-1][place] = decode(content)
    return message


# ---- the client ------------------------------------------------------------------------------------------------------------


class Client:
    """One connection. Every method that waits reads whatever comes meanwhile; `history` keeps all of it in order."""

    def __init__(self, service=NOTIFY, *, exports=EXPORTS, descriptors=False, options=None, greet=True, path=None):
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
            self.send([HELLO, 1, self.exports, {"descriptors": True} if options is None and descriptors else options or {}])
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
        """Sends all of `data`, the files with its first byte, and reads meanwhile. Raises Ended when the daemon closed."""
        left = memoryview(data)
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, struct.pack(f"{len(files)}i", *files))] if files else []
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
        """One read; what it completes goes to the inbox."""
        try:
            data, ancillary, flags, _ = self.socket.recvmsg(1 << 20, socket.CMSG_SPACE(64 * 4), socket.MSG_CMSG_CLOEXEC)
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
        if (message.kind == HELLO) == bool(self.history) and (self.history or message.kind != GOODBYE):
            raise Malformed("the first frame, and no other, must be the hello, or the goodbye to one who is turned away")
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
        """The oldest message of that inbox, as soon as there is one."""
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
        """The reply or failure with that id; None: the failure without one."""
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
        """The code of the failure with that id."""
        message = self.answer(identifier)
        if message.kind != FAILURE:
            raise AssertionError(f"a reply where a failure was due: {message.fields}")
        return Code(message.fields[2])

    def end(self):
        """Reads to the end of the connection and returns the goodbye's text, None when there was none."""
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
        """The entries and the error."""
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
        """All that were sent before the answer to a request that is made now: then no other is under way."""
        self.dump("")
        return [self.delivery() for _ in range(len(self._calls))]
