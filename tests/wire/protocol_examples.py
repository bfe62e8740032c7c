#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Keeps docs/protocol.md true.

    protocol_examples.py PAGE            makes every example anew and compares; exits 1 on any difference
    protocol_examples.py --write PAGE    puts the examples into the page

What is checked: the bytes and annotations behind each "<!-- example: NAME -->"; that the page's tables name the selectors of
protocols/*.h in their order; that every example matches the page's grammar; and that the page's programs, run against the bytes
of the examples, send and understand exactly those.
"""

import contextlib
import fcntl
import io
import os
import re
import socket
import struct
import sys
import tempfile
import threading
from pathlib import Path

import cbor2

from cbor_walk import MAP, describe, parse
from cddl_subset import Grammar

PROTOCOLS = Path(__file__).resolve().parents[2] / "protocols"
BYTES_PER_LINE = 16
HEX_COLUMNS = 62


def selectors_of(header):
    found = re.findall(r'xpc::Method<"([^"]+)"', (PROTOCOLS / header).read_text())
    if not found:
        raise SystemExit(f"{header} declares no methods")
    return found


NOTIFY = selectors_of("notify_proxy.h")
SUBSCRIBER = selectors_of("subscriber_proxy.h")
AUTH = selectors_of("auth_proxy.h")


# The messages. A label says what an item is: a text, in which %s stands for the item's own description, or such a text and the
# labels of its children.

HELLO, REQUEST, ONE_WAY, REPLY, FAILURE, GOODBYE = range(6)


def hello(selectors, options):
    labels = ["kind %s: hello", "version %s", ("selectors: %s", ["%s"] * len(selectors)), "options: %s"]
    return [HELLO, 1, selectors, options], ("%s", labels)


def request(identifier, selector, table=NOTIFY, **arguments):
    labels = ["kind %s: request", "id %s", f"method %s: {selector}", argument_labels(arguments)]
    return [REQUEST, identifier, table.index(selector), list(arguments.values())], ("%s", labels)


def one_way(selectors, selector, **arguments):
    labels = ["kind %s: one-way", f"method %s: {selector}", argument_labels(arguments)]
    return [ONE_WAY, selectors.index(selector), list(arguments.values())], ("%s", labels)


def argument_labels(arguments):
    return ("arguments: %s", [f"{name} %s" for name in arguments])


def reply(identifier, **results):
    labels = ["kind %s: reply", "id %s", ("results: %s", [f"{name} %s" for name in results])]
    return [REPLY, identifier, list(results.values())], ("%s", labels)


def failure(identifier, code, meaning, text):
    return [FAILURE, identifier, code, text], ("%s", ["kind %s: failure", "id %s", f"code %s: {meaning}", "text %s"])


def goodbye(text):
    return [GOODBYE, text], ("%s", ["kind %s: goodbye", "text %s"])


MEASURED = cbor2.CBORTag(1, 1795253400.25)
WEATHER = {"place": "Tegel", "degrees": -3.5, "measured": MEASURED, "wind": {"from": "NW", "kmh": 14}}
PICTURE = {"picture": bytes(70000)}
# Of process 4711 of user 501, which began 1,234,567 hundredths of a second after the machine.
REFERENCE = b"KeelRef1" + struct.pack("<IIQ", 4711, 501, 1234567) + b"1feRleeK"


def error(code, description):
    return cbor2.CBORTag(51741, ["KLNErrorDomain", code, {"NSLocalizedDescription": description}])


FRAMES = {
    "client-hello": hello(SUBSCRIBER[:1], {}),
    "daemon-hello": hello(NOTIFY, {"descriptors": True}),
    "subscribe-request": request(1, "subscribeTo:withFlags:andHandler:", name="weather", flags=0),
    "subscribe-reply": reply(1, dictionary=None, error=None),
    "delivery": one_way(SUBSCRIBER, SUBSCRIBER[0], name="weather", item=WEATHER, flags=0, error=None),
    "publish-request": request(
        2, "publishItem:name:flags:value:withHandler:", item={"open": True}, name="door", flags=0, value=0
    ),
    "publish-reply": reply(2, error=None),
    "refused-request": request(3, "publishItem:name:flags:value:withHandler:", item={}, name="weather", flags=0, value=0),
    "refused-reply": reply(3, error=error(9, "the key weather has already been published")),
    "unknown-request": (
        [REQUEST, 4, 99, []],
        ("%s", ["kind %s: request", "id %s", "method %s: the daemon has none there", "arguments: %s"]),
    ),
    "failure": failure(4, 2, "unknownMethod", "no method 99"),
    "unsubscribe": one_way(NOTIFY, "unsubscribeFrom:", name="weather"),
    "goodbye": goodbye("done"),
    "sealed-request": request(
        5,
        "publishItem:name:flags:value:withHandler:",
        item=cbor2.CBORTag(51742, len(cbor2.dumps(PICTURE))),
        name="camera",
        flags=0,
        value=0,
    ),
    "auth-hello": hello([], {}),
    "auth-password-request": request(
        1, "authenticateUser:withPassword:andHandler:", AUTH, user="alice", password="open sesame"
    ),
    "auth-password-reply": reply(1, error=cbor2.CBORTag(51741, ["KLNErrorDomain", 5, None])),
    "auth-reference-request": request(2, "authenticateForUser:using:withHandler:", AUTH, user="alice", reference=REFERENCE),
    "auth-reference-reply": reply(2, error=cbor2.CBORTag(51741, ["NSOSStatusErrorDomain", -60005, None])),
}

# Items outside a frame.
ITEMS = {
    "date-whole": (cbor2.CBORTag(1, 1795253400), "2026-11-21T09:30:00Z"),
    "date-fraction": (MEASURED, "a quarter of a second later"),
    "error": (error(11, "door not found"), None),
    "error-bare": (cbor2.CBORTag(51741, ["KLNErrorDomain", 12, None]), None),
    "sealed-content": (PICTURE, None),
}


# From messages to the page's text.


def frame_bytes(message):
    body = cbor2.dumps(message)
    return struct.pack("<I", len(body)) + body


def lines_of(node, label="%s", depth=0):
    text, child_labels = label if isinstance(label, tuple) else (label, [])
    pieces = [node.encoded[at : at + BYTES_PER_LINE] for at in range(0, len(node.encoded), BYTES_PER_LINE)]
    omitted = 0
    if len(pieces) > 8:
        omitted = sum(map(len, pieces[1:]))
        pieces = pieces[:1]
    for place, piece in enumerate(pieces):
        note = text.replace("%s", describe(node)) if place == 0 else ""
        yield f"{'  ' * depth + piece.hex(' '):{HEX_COLUMNS}}{note}".rstrip()
    if omitted:
        yield "  " * depth + f"... {omitted:,} more bytes {node.encoded[-1]:02x}"
    for place, child in enumerate(node.children):
        # A member's value stands deeper than its key.
        child_depth = depth + 1 + (node.major == MAP and place % 2)
        yield from lines_of(child, child_labels[place] if place < len(child_labels) else "%s", child_depth)


def frame_text(message, label):
    frame = frame_bytes(message)
    node = parse(frame[4:])
    length = f"{frame[:4].hex(' '):{HEX_COLUMNS}}length {len(frame) - 4}"
    return "\n".join([length, *lines_of(node, label), ""])


def item_text(value, note):
    lines = list(lines_of(parse(cbor2.dumps(value))))
    return "\n".join([f"{lines[0]}{': ' + note if note else ''}", *lines[1:], ""])


def examples():
    made = {name: frame_text(*frame) for name, frame in FRAMES.items()}
    made.update({name: item_text(*item) for name, item in ITEMS.items()})
    return made


# What is compared.

EXAMPLE = re.compile(r"(<!-- example: ([\w-]+) -->\n```text\n)((?:(?!```).*\n)*)(```\n)")


def compare_examples(page):
    wanted = examples()
    standing = {match[2]: match[3] for match in EXAMPLE.finditer(page)}
    count = len(EXAMPLE.findall(page))
    if count != len(standing) or count != page.count("<!-- example:"):
        yield "an example stands twice, or is no block of text"
    for name in sorted(wanted.keys() ^ standing.keys()):
        yield f"example {name}: {'not in the page' if name in wanted else 'nobody makes it'}"
    for name in wanted.keys() & standing.keys():
        if wanted[name] != standing[name]:
            yield f"example {name} differs; it has to be\n{wanted[name]}"


def compare_tables(page):
    rows = re.findall(r"^\| (\d+) \| `([^`]+:)`", page, re.MULTILINE)
    wanted = [(str(place), selector) for table in (NOTIFY, SUBSCRIBER, AUTH) for place, selector in enumerate(table)]
    if rows != wanted:
        yield f"the tables of methods are {rows}, protocols/ says {wanted}"


def compare_grammar(page):
    grammar = Grammar(re.search(r"```cddl\n(.*?)```", page, re.DOTALL)[1])
    pending = {}
    for name, (message, _) in FRAMES.items():
        node = parse(cbor2.dumps(message))
        if not grammar.matches(node, "message"):
            yield f"example {name} is no message of the grammar"
        items, rule = items_and_rule(message, node, pending, AUTH if name.startswith("auth-") else NOTIFY)
        if rule and not grammar.matches(items, rule):
            yield f"example {name} is no {rule} of the grammar"
    for name, (value, _) in ITEMS.items():
        if not grammar.matches(parse(cbor2.dumps(value)), "value"):
            yield f"example {name} is no value of the grammar"
    for bad in (cbor2.dumps([REQUEST, 1, 0]), cbor2.dumps([6]), cbor2.dumps([GOODBYE, 1]), cbor2.dumps([REPLY, -1, []])):
        if grammar.matches(parse(bad), "message"):
            yield f"the grammar takes {bad.hex()} for a message"
    for selector in NOTIFY + SUBSCRIBER + AUTH:
        if selector.split(":")[0] + "-arguments" not in grammar.rules():
            yield f"the grammar lacks the arguments of {selector}"


def items_and_rule(message, node, pending, table):
    """The arguments or results of a message, and the name of the rule for them."""
    kind = message[0]
    if kind == REQUEST and message[2] < len(table):
        pending[message[1]] = table[message[2]].split(":")[0]
        return node.children[3], pending[message[1]] + "-arguments"
    if kind == REPLY:
        return node.children[2], pending[message[1]] + "-results"
    if kind == ONE_WAY:
        is_delivery = len(message[2]) == 4
        selector = (SUBSCRIBER if is_delivery else NOTIFY)[message[1]]
        return node.children[2], selector.split(":")[0] + "-arguments"
    return node, None


# The page's programs.


FIRST_CLIENT_SENDS = [frame_bytes(FRAMES[name][0]) for name in ("client-hello", "subscribe-request")]


def run_first_client(program):
    """The first program against a daemon that says what the examples say, then goodbye."""
    if "/run/keeld/com.vantor.keeld.notify" not in program:
        yield "the first program does not connect to the notify service"
        return
    received = []
    printed = io.StringIO()
    with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(folder + "/service")
        listener.listen()
        daemon = threading.Thread(target=serve_first_client, args=(listener, received), daemon=True)
        daemon.start()
        try:
            with contextlib.redirect_stdout(printed):
                exec(program.replace("/run/keeld/com.vantor.keeld.notify", folder + "/service"), {})
        except (Exception, SystemExit) as problem:
            yield f"the first program ended with {problem!r}"
        daemon.join()
    if received != FIRST_CLIENT_SENDS:
        yield f"the first program sent {[frame.hex() for frame in received]}"
    if "Tegel" not in printed.getvalue() or "enough" not in printed.getvalue():
        yield f"the first program printed {printed.getvalue()}"


def serve_first_client(listener, received):
    peer, _ = listener.accept()
    # Only a program that sends too little ever waits this long; then both sides end.
    peer.settimeout(20)
    with peer, contextlib.suppress(TimeoutError):
        peer.sendall(frame_bytes(FRAMES["daemon-hello"][0]))
        for wanted in FIRST_CLIENT_SENDS:
            received.append(peer.recv(len(wanted), socket.MSG_WAITALL))
            if received[-1] != wanted:
                return
        for name in ("subscribe-reply", "delivery"):
            peer.sendall(frame_bytes(FRAMES[name][0]))
        peer.sendall(frame_bytes([GOODBYE, "enough"]))


def run_sealed_sender(program):
    """The second program's function: what comes out of the socket, and what the file holds."""
    sender, receiver = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    with sender, receiver:
        names = {}
        exec(program, names)
        names["send_sealed"](sender, 5, 3, PICTURE, ["camera", 0, 0])
        sender.close()
        frame, files, _, _ = socket.recv_fds(receiver, 65536, 8)
    if frame != frame_bytes(FRAMES["sealed-request"][0]) or len(files) != 1:
        yield f"the second program sent {frame.hex()} and {len(files)} files"
        return
    with open(files[0], "rb") as file:
        seals = fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_SEAL
        if fcntl.fcntl(file, fcntl.F_GET_SEALS) != seals:
            yield "the second program's file is not sealed"
        if os.pread(file.fileno(), 1 << 20, 0) != cbor2.dumps(PICTURE):
            yield "the second program's file does not hold the item"


def run_reference_maker(program):
    """The third program's function: a reference to the process that runs it."""
    names = {}
    exec(program, names)
    made = names["own_reference"]()
    pid, uid, start = struct.unpack("<IIQ", made[8:24])
    boot_seconds = start / os.sysconf("SC_CLK_TCK")
    with open("/proc/uptime") as file:
        uptime = float(file.read().split()[0])
    if (made[:8] + made[24:], pid, uid) != (REFERENCE[:8] + REFERENCE[24:], os.getpid(), os.getuid()):
        yield f"the third program made {made.hex()}"
    if not 0 < boot_seconds <= uptime:
        yield f"the third program's process began at {boot_seconds} s"


def compare_programs(page):
    programs = re.findall(r"```python\n(.*?)```", page, re.DOTALL)
    if len(programs) != 3:
        yield f"the page has {len(programs)} programs instead of 3"
        return
    yield from run_first_client(programs[0])
    yield from run_sealed_sender(programs[1])
    yield from run_reference_maker(programs[2])


def main(arguments):
    write = arguments[:1] == ["--write"]
    if len(arguments) != 1 + write:
        raise SystemExit(__doc__)
    path = Path(arguments[-1])
    page = path.read_text()
    if write:
        made = examples()
        path.write_text(EXAMPLE.sub(lambda match: match[1] + made.get(match[2], match[3]) + match[4], page))
        return 0
    differences = []
    for comparison in (compare_examples, compare_tables, compare_grammar, compare_programs):
        differences.extend(comparison(page))
    for difference in differences:
        print(f"{path}: {difference}", file=sys.stderr)
    if not differences:
        print(f"{path}: {len(FRAMES) + len(ITEMS)} examples, 3 programs, the tables and the grammar are as they should be")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
