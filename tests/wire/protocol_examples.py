#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the examples of docs/protocol.md against the code.

    protocol_examples.py PAGE            rebuilds every example and compares; exits 1 if one differs
    protocol_examples.py --write PAGE    writes the examples into the page

Checks the bytes and annotations behind each "<!-- example: NAME -->" and the texts behind each
"<!-- exchange: NAME -->"; that the page's tables list the selectors of protocols/*.h in order, and
that its bad frames have the right length; that every example matches the page's grammar; and that
the page's programs, run against the bytes of the examples, send and understand exactly those.
tests/e2e/protocol_page_test.py checks the page against the daemon.
"""

import datetime
import hashlib
import re
import struct
import sys
from pathlib import Path

import cbor2
import protocol_programs

from cbor_walk import MAP, describe, parse
from cddl_subset import Grammar
from protocol_page import EXAMPLE, Page, folded

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


# The messages. A label says what an item is: a text, in which %s stands for the item's own
# description, or such a text and the labels of its children.

HELLO, REQUEST, ONE_WAY, REPLY, FAILURE, GOODBYE = range(6)


def hello(selectors, options):
    labels = ["kind %s: hello", "version %s", ("selectors: %s", ["%s"] * len(selectors)),
              "options: %s"]
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
    return [FAILURE, identifier, code, text], ("%s",
                                               ["kind %s: failure", "id %s", f"code %s: {meaning}",
                                                "text %s"])


def goodbye(text):
    return [GOODBYE, text], ("%s", ["kind %s: goodbye", "text %s"])


MEASURED = cbor2.CBORTag(1, 1795253400.25)
WEATHER = {"place": "Tegel", "degrees": -3.5, "measured": MEASURED,
           "wind": {"from": "NW", "kmh": 14}}
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
    "delivery": one_way(SUBSCRIBER, SUBSCRIBER[0], name="weather", item=WEATHER, flags=0,
                        error=None),
    "publish-request": request(
        2, "publishItem:name:flags:value:withHandler:", item={"open": True}, name="door", flags=0,
        value=0
    ),
    "publish-reply": reply(2, error=None),
    "refused-request": request(3, "publishItem:name:flags:value:withHandler:", item={},
                               name="weather", flags=0, value=0),
    "refused-reply": reply(3, error=error(9, "the key weather has already been published")),
    "unknown-request": (
        [REQUEST, 4, 99, []],
        ("%s",
         ["kind %s: request", "id %s", "method %s: the daemon has none there", "arguments: %s"]),
    ),
    "failure": failure(4, 2, "unknownMethod", "there is no method 99"),
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
    "auth-password-accepted": reply(1, error=None),
    "auth-password-request-wrong": request(
        2, "authenticateUser:withPassword:andHandler:", AUTH, user="alice", password="open says me"
    ),
    "auth-password-reply": reply(2, error=cbor2.CBORTag(51741, ["KLNErrorDomain", 5, None])),
    "auth-reference-request": request(3, "authenticateForUser:using:withHandler:", AUTH,
                                      user="alice", reference=REFERENCE),
    "auth-reference-reply": reply(3,
                                  error=cbor2.CBORTag(51741,
                                                      ["NSOSStatusErrorDomain", -60005, None])),
}

# Items outside a frame.
ITEMS = {
    "date-whole": (cbor2.CBORTag(1, 1795253400), "2026-11-21T09:30:00Z"),
    "date-fraction": (MEASURED, "a quarter of a second later"),
    "error": (error(11, "door not found"), None),
    "error-bare": (cbor2.CBORTag(51741, ["KLNErrorDomain", 12, None]), None),
    "sealed-content": (PICTURE, None),
}


# The exchange of a digest challenge (RFC 7616), worked out here for alice's password "open sesame".

NONCE, OPAQUE, CNONCE = "5b" * 24, "c7" * 24, "0a4f113b"
AUTH_ID = "myob-k3EvXb0sTq9uMZ1yLr7PcAf5WjGhDo2N"


def digest_line(algorithm):
    return (
        f'Digest realm="com.vantor.keeld", qop="auth", algorithm={algorithm}, nonce="{NONCE}", '
        f'opaque="{OPAQUE}", charset=UTF-8, userhash=true'
    )


def digest_proof(method):
    digest = lambda text: hashlib.sha256(text.encode()).hexdigest()
    secret, of_request = digest("alice:com.vantor.keeld:open sesame"), digest(f"{method}:/")
    return digest(f"{secret}:{NONCE}:00000001:{CNONCE}:auth:{of_request}")


DIGEST = {
    "challenge": digest_line("SHA-256") + "\n" + digest_line("MD5"),
    "answer": (
        f'Digest username="alice", realm="com.vantor.keeld", nonce="{NONCE}", opaque="{OPAQUE}", '
        f'algorithm=SHA-256, qop=auth, nc=00000001, cnonce="{CNONCE}", uri="/", '
        f'response="{digest_proof("GET")}"'
    ),
    "response": f'qop=auth, rspauth="{digest_proof("")}", cnonce="{CNONCE}", nc=00000001',
}
DIGEST_REQUESTS = [
    request(1, "authDigestStartWithHandler:", AUTH)[0],
    request(2, "authValidate:andID:withHandler:", AUTH, answer=DIGEST["answer"], authID=AUTH_ID)[0],
]
DIGEST_REPLIES = [
    reply(1, challenge=DIGEST["challenge"], authID=AUTH_ID, error=None)[0],
    reply(2, response=DIGEST["response"], user="alice", error=None)[0],
]


def digest_exchange():
    messages = (
        f'C  [1, 1, {DIGEST_REQUESTS[0][2]}, []]',
        f'D  [3, 1, [challenge, "{AUTH_ID}", null]]',
        f'C  [1, 2, {DIGEST_REQUESTS[1][2]}, [answer, "{AUTH_ID}"]]',
        'D  [3, 2, [response, "alice", null]]',
    )
    parts = [f"\n{name}:\n{folded(text)}" for name, text in DIGEST.items()]
    return "\n".join(messages) + "\n" + "".join(parts)


# From messages to the page's text.


def frame_bytes(message):
    body = cbor2.dumps(message)
    return struct.pack("<I", len(body)) + body


def lines_of(node, label="%s", depth=0):
    text, child_labels = label if isinstance(label, tuple) else (label, [])
    pieces = [node.encoded[at : at + BYTES_PER_LINE]
              for at in range(0, len(node.encoded), BYTES_PER_LINE)]
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
        yield from lines_of(child, child_labels[place] if place < len(child_labels) else "%s",
                            child_depth)


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
    made["digest"] = digest_exchange()
    return made


# The checks.

def compare_examples(page):
    wanted = examples()
    standing = {match[2]: match[3] for match in EXAMPLE.finditer(page)}
    count = len(EXAMPLE.findall(page))
    if count != len(standing) or count != len(re.findall("<!-- ex", page)):
        yield "an example stands twice, or is no block of text"
    for name in sorted(wanted.keys() ^ standing.keys()):
        yield f"example {name}: {'not in the page' if name in wanted else 'nobody makes it'}"
    for name in wanted.keys() & standing.keys():
        if wanted[name] != standing[name]:
            yield f"example {name} differs; it has to be\n{wanted[name]}"


def compare_tables(page):
    rows = re.findall(r"^\| (\d+) \| `([^`]+:)`", page, re.MULTILINE)
    wanted = [(str(place), selector) for table in (NOTIFY, SUBSCRIBER, AUTH)
              for place, selector in enumerate(table)]
    if rows != wanted:
        yield f"the tables of methods are {rows}, protocols/ says {wanted}"


def compare_grammar(page):
    grammar = Grammar(re.search(r"```cddl\n(.*?)```", page, re.DOTALL)[1])
    pending = {}
    for name, (message, _) in FRAMES.items():
        node = parse(cbor2.dumps(message))
        if not grammar.matches(node, "message"):
            yield f"example {name} is no message of the grammar"
        items, rule = items_and_rule(message, node, pending,
                                     AUTH if name.startswith("auth-") else NOTIFY)
        if rule and not grammar.matches(items, rule):
            yield f"example {name} is no {rule} of the grammar"
    for name, (value, _) in ITEMS.items():
        if not grammar.matches(parse(cbor2.dumps(value)), "value"):
            yield f"example {name} is no value of the grammar"
    for bad in (cbor2.dumps([REQUEST, 1, 0]), cbor2.dumps([6]), cbor2.dumps([GOODBYE, 1]),
                cbor2.dumps([REPLY, -1, []])):
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


def compare_reader(page):
    """Checks that parsing the page yields what was written to it."""
    read = Page(page)
    for name, (message, _) in FRAMES.items():
        if read.example(name) != frame_bytes(message):
            yield f"example {name} is read as {read.example(name).hex()}"
    if read.exchange("digest") != DIGEST:
        yield f"the exchange is read as {read.exchange('digest')}"


def compare_dates(_):
    """Checks the page's statement about cbor2 and dates."""
    whole, fraction = (cbor2.dumps(ITEMS[name][0]) for name in ("date-whole", "date-fraction"))
    moment = datetime.datetime(2026, 11, 21, 9, 30, tzinfo=datetime.timezone.utc)
    if (cbor2.loads(whole), cbor2.loads(fraction)) != (moment, moment.replace(microsecond=250000)):
        yield "cbor2 decodes dates to something else"
    if cbor2.dumps(moment)[0] != 0xC0 or cbor2.dumps(moment, datetime_as_timestamp=True) != whole:
        yield "cbor2 encodes dates in another way"
    try:
        cbor2.dumps(moment.replace(tzinfo=None), datetime_as_timestamp=True)
        yield "cbor2 encodes naive dates"
    except cbor2.CBOREncodeError:
        pass
    for seconds in (10**12, -(10**12), 2**64 - 1, 1e300):
        try:
            cbor2.loads(cbor2.dumps(cbor2.CBORTag(1, seconds)))
            yield f"cbor2 decodes the date {seconds}"
        except (OverflowError, OSError, ValueError):
            pass


def compare_bad_frames(page):
    tables = Page(page).tables("frame", "answer", "why")
    if len(tables) != 2:
        yield f"{len(tables)} tables of bad frames"
    for frame, _, why in sum(tables, []):
        data = bytes.fromhex(frame.strip("`"))
        size = struct.unpack("<I", data[:4])[0]
        # Of frames that are too long the beginning is enough.
        if size != len(data) - 4 and size <= 1 << 16:
            yield f"the bad frame {frame} ({why}) has the length {size}"


def compare_programs(page):
    page = Page(page)
    frames = {name: frame_bytes(message) for name, (message, _) in FRAMES.items()}
    first, sender, receiver, reference, digest, login = page.programs()
    yield from protocol_programs.first_client(
        first,
        [frames["daemon-hello"], frames["subscribe-reply"], frames["delivery"]],
        [frames["client-hello"], frames["subscribe-request"]],
    )
    yield from protocol_programs.sealed_sender(sender, PICTURE, frames["sealed-request"])
    yield from protocol_programs.receiver_of_files(receiver, PICTURE)
    yield from protocol_programs.reference_maker(reference, REFERENCE)
    yield from protocol_programs.digest_answerer(
        digest, DIGEST["challenge"], DIGEST["answer"], CNONCE
    )
    names = protocol_programs.helpers_of(first)
    exec(digest, names)
    requests = [frames["auth-hello"], *map(frame_bytes, DIGEST_REQUESTS)]
    replies = list(map(frame_bytes, DIGEST_REPLIES))
    yield from protocol_programs.login(login, names, AUTH, CNONCE, requests, replies)


def main(arguments):
    write = arguments[:1] == ["--write"]
    if len(arguments) != 1 + write:
        raise SystemExit(__doc__)
    path = Path(arguments[-1])
    page = path.read_text()
    if write:
        made = examples()
        path.write_text(
            EXAMPLE.sub(lambda match: match[1] + made.get(match[2], match[3]) + match[4], page))
        return 0
    differences = []
    comparisons = (
        compare_examples,
        compare_reader,
        compare_dates,
        compare_tables,
        compare_bad_frames,
        compare_grammar,
        compare_programs,
    )
    for comparison in comparisons:
        differences.extend(comparison(page))
    for difference in differences:
        print(f"{path}: {difference}", file=sys.stderr)
    if not differences:
        print(
            f"{path}: {len(examples())} examples, programs, tables and grammar are correct")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
