# SPDX-License-Identifier: Apache-2.0
"""Decodes CBOR into nodes that keep their bytes, so that they can be annotated.

Independent of cbor2 on purpose: what the one encodes, the other has to read the same way.
"""

import struct
from dataclasses import dataclass, field

UNSIGNED, NEGATIVE, BYTES, TEXT, ARRAY, MAP, TAG, SIMPLE = range(8)
_SIMPLE_VALUES = {20: False, 21: True, 22: None}
_FLOAT_FORMATS = {25: ">e", 26: ">f", 27: ">d"}


@dataclass
class Node:
    """An item. `value` is its number, text, bytes, boolean, null or float; of a container its
    count; of a tag its number.
    """

    major: int
    value: object
    encoded: bytes  # without the children
    children: list = field(default_factory=list)  # of a map: key, value, key, value ...


def parse(data):
    """Decodes the single item in `data`."""
    node, end = _item(data, 0)
    if end != len(data):
        raise ValueError("bytes follow the item")
    return node


def _item(data, at):
    major, information = data[at] >> 5, data[at] & 31
    if major == SIMPLE:
        return _simple(data, at, information)
    head_end = at + 1
    argument = information
    if information >= 24:
        if information > 27:
            raise ValueError("a head is reserved, or of indefinite length")
        head_end += 1 << (information - 24)
        argument = int.from_bytes(data[at + 1 : head_end], "big")
        if argument < (24, 1 << 8, 1 << 16, 1 << 32)[information - 24]:
            raise ValueError("a head is not in its shortest form")
    if major in (BYTES, TEXT):
        end = head_end + argument
        content = data[head_end:end]
        return Node(major, content.decode() if major == TEXT else content, data[at:end]), end
    value = -1 - argument if major == NEGATIVE else argument
    node = Node(major, value, data[at:head_end])
    for _ in range({ARRAY: argument, MAP: 2 * argument, TAG: 1}.get(major, 0)):
        child, head_end = _item(data, head_end)
        node.children.append(child)
    return node, head_end


def _simple(data, at, information):
    if information in _SIMPLE_VALUES:
        return Node(SIMPLE, _SIMPLE_VALUES[information], data[at : at + 1]), at + 1
    form = _FLOAT_FORMATS[information]
    end = at + 1 + struct.calcsize(form)
    return Node(SIMPLE, struct.unpack(form, data[at + 1 : end])[0], data[at:end]), end


def describe(node):
    match node.major:
        case 2:
            return f"{len(node.value):,} bytes"
        case 3:
            return f'"{node.value}"'
        case 4:
            return f"array of {node.value}"
        case 5:
            return f"map of {node.value}"
        case 6:
            return f"tag {node.value}"
    words = {None: "null", True: "true", False: "false"}
    is_number = isinstance(node.value, (int, float)) and not isinstance(node.value, bool)
    return str(node.value) if is_number else words[node.value]
