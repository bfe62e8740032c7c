# SPDX-License-Identifier: Apache-2.0
"""The values of keeld's wire protocol, written from docs/protocol.md alone: an independent
implementation of the encoding.

It decodes strictly: what the page does not allow raises Malformed.
"""

import fcntl
import mmap
import os
import struct
from dataclasses import dataclass

import cbor2

DESCRIPTION = "NSLocalizedDescription"


class Malformed(Exception):
    """The daemon violated the wire protocol."""


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
    """Bytes that are encoded verbatim."""

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
            return struct.unpack({25: ">e", 26: ">f", 27: ">d"}[short],
                                 value.to_bytes(1 << (short - 24), "big"))[0]
        raise Malformed(f"simple value {value}")


def decode(data):
    """Decodes the single value in `data`."""
    reader = _Reader(data)
    value = reader.value()
    if reader.at != len(data):
        raise Malformed("bytes behind the value")
    return value


def split(data):
    """Returns the encoded items of the array in `data`."""
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


def sealed_file(content,
                seals=fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK
                | fcntl.F_SEAL_SEAL):
    """Returns a memory file with `content`, as large values are sent. The caller closes it."""
    file = os.memfd_create("value", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    with open(file, "wb", closefd=False) as stream:
        stream.write(content)
    if seals:
        fcntl.fcntl(file, fcntl.F_ADD_SEALS, seals)
    return file


def content_of(file, size):
    needed = fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK
    if fcntl.fcntl(file, fcntl.F_GET_SEALS) & needed != needed:
        raise Malformed("a file that is not sealed")
    if os.fstat(file).st_size != size:
        raise Malformed("a file of another size than its tag says")
    with mmap.mmap(file, size, mmap.MAP_SHARED, mmap.PROT_READ) as mapped:
        return bytes(mapped)
