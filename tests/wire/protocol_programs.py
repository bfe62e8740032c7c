# SPDX-License-Identifier: Apache-2.0
"""Runs the programs of docs/protocol.md against fakes of the daemon that send the page's examples.
Each function yields the faults.
"""

import contextlib
import fcntl
import io
import os
import socket
import struct
import tempfile
import threading

import cbor2

SEALS = fcntl.F_SEAL_WRITE | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_SEAL
NOTIFY_PATH = "/run/keeld/com.vantor.keeld.notify"
AUTH_PATH = "/run/keeld/com.vantor.keeld.auth"
# Only a program that sends too little ever waits this long; then both sides end.
PATIENCE = 20


def framed(message):
    body = cbor2.dumps(message)
    return struct.pack("<I", len(body)) + body


@contextlib.contextmanager
def stand_in(serve):
    """Yields the path of a socket and calls `serve` with its first connection, on another thread.
    """
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    with tempfile.TemporaryDirectory() as folder, listener:
        path = folder + "/service"
        listener.bind(path)
        listener.listen()

        def accept():
            peer, _ = listener.accept()
            peer.settimeout(PATIENCE)
            with peer, contextlib.suppress(TimeoutError):
                serve(peer)

        daemon = threading.Thread(target=accept, daemon=True)
        daemon.start()
        yield path
        daemon.join()


def outcome_of(program, names, path, stand_in_path):
    """Runs a program that connects to `path`; returns its output and its exception."""
    printed = io.StringIO()
    problem = None
    try:
        with contextlib.redirect_stdout(printed):
            exec(program.replace(path, stand_in_path), names)
    except (Exception, SystemExit) as raised:
        problem = raised
    return printed.getvalue(), problem


def first_client(program, daemons, wanted):
    """Sends `wanted` behind the first of the daemon's frames, then prints the others."""
    received = []

    def serve(peer):
        peer.sendall(daemons[0])
        for frame in wanted:
            received.append(peer.recv(len(frame), socket.MSG_WAITALL))
            if received[-1] != frame:
                return
        for frame in (*daemons[1:], framed([5, "enough"])):
            peer.sendall(frame)

    if NOTIFY_PATH not in program:
        yield "the first program does not connect to the notify service"
        return
    with stand_in(serve) as path:
        printed, problem = outcome_of(program, {}, NOTIFY_PATH, path)
    if problem:
        yield f"the first program ended with {problem!r}"
    if received != wanted:
        yield f"the first program sent {[frame.hex() for frame in received]}"
    if "Tegel" not in printed or "enough" not in printed:
        yield f"the first program printed {printed}"


def sealed_sender(program, item, wanted):
    """Returns the bytes from the socket and the content of the file."""
    sender, receiver = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    with sender, receiver:
        names = {}
        exec(program, names)
        names["send_sealed"](sender, 5, 3, item, ["camera", 0, 0])
        sender.close()
        frame, files, _, _ = socket.recv_fds(receiver, 65536, 8)
    if frame != wanted or len(files) != 1:
        yield f"the sender of files sent {frame.hex()} and {len(files)} files"
        return
    with open(files[0], "rb") as file:
        if fcntl.fcntl(file, fcntl.F_GET_SEALS) != SEALS:
            yield "the file of the sender of files is not sealed"
        if os.pread(file.fileno(), 1 << 20, 0) != cbor2.dumps(item):
            yield "the file of the sender of files does not hold the item"


def receiver_of_files(program, item):
    """Messages with and without files, split anywhere and several in one write."""
    content = cbor2.dumps(item)
    in_file = cbor2.CBORTag(51742, len(content))

    def messages_with(large):
        return [[3, 1, [None, None]], [2, 0, ["camera", large, 0, None]],
                [2, 0, ["camera", None, 0, None]], [3, 2, [large, None]], [5, "enough"]]

    messages, wanted = messages_with(in_file), messages_with(item)
    names = {}
    exec(program, names)
    for cut in (1, 3, 7, 1000):
        sender, daemon = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        with sender, daemon:
            for message in messages:
                frame = framed(message)
                has_file = isinstance(message[-1], list) and in_file in message[-1]
                files = [sealed_file(content)] if has_file else []
                sent = socket.send_fds(sender, [frame[:cut]], files)
                sender.sendall(frame[sent:])
                for file in files:
                    os.close(file)
            open_before = len(os.listdir("/proc/self/fd"))
            receiver = names["Receiver"](daemon)
            received = [receiver.receive() for _ in messages]
            if received != wanted:
                yield f"the receiver of files received {received!r:.500}"
            # None was open for the receiver yet.
            if len(os.listdir("/proc/self/fd")) != open_before:
                yield "the receiver of files leaves files open"


def sealed_file(content):
    file = os.memfd_create("value", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    os.write(file, content)
    fcntl.fcntl(file, fcntl.F_ADD_SEALS, SEALS)
    return file


def reference_maker(program, pattern):
    """A reference to the process that runs it, matching `pattern`."""
    names = {}
    exec(program, names)
    made = names["own_reference"]()
    pid, uid, start = struct.unpack("<IIQ", made[8:24])
    boot_seconds = start / os.sysconf("SC_CLK_TCK")
    with open("/proc/uptime") as file:
        uptime = float(file.read().split()[0])
    if (made[:8] + made[24:], pid, uid) != (pattern[:8] + pattern[24:], os.getpid(), os.getuid()):
        yield f"the maker of references made {made.hex()}"
    if not 0 < boot_seconds <= uptime:
        yield f"the maker of references says that its process began at {boot_seconds} s"


def digest_answerer(program, challenge, answer, cnonce):
    names = {}
    exec(program, names)
    made = names["digest_answer"](challenge, "alice", "open sesame", cnonce)
    if made != answer:
        yield f"the answer to a digest challenge is {made}"
    drawn = {names["digest_answer"](challenge, "alice", "open sesame") for _ in range(2)}
    if len(drawn) != 2:
        yield "the answers to a digest challenge use the same cnonce"


def helpers_of(first_program):
    """Returns the functions of the first program by name."""
    names = {}
    exec(first_program[: first_program.index("daemon = ")], names)
    return names


def login(program, names, selectors, cnonce, requests, replies):
    """The last program, with the functions of others in `names`: asks what the exchange asks."""
    received = []

    def serve(peer):
        peer.sendall(framed([0, 1, selectors, {"descriptors": True}]))
        for frame, answer in zip(requests, (b"", *replies)):
            received.append(peer.recv(len(frame), socket.MSG_WAITALL))
            peer.sendall(answer)

    # The one of the exchange, every time.
    answer_of = names["digest_answer"]
    names["digest_answer"] = lambda *arguments: answer_of(*arguments, cnonce)
    with stand_in(serve) as path:
        printed, problem = outcome_of(program, names, AUTH_PATH, path)
    if problem:
        yield f"the program of an authentication ended with {problem!r}"
    if received != requests:
        yield f"the program of an authentication sent {[frame.hex() for frame in received]}"
    if printed != "alice is an administrator\n":
        yield f"the program of an authentication printed {printed!r}"
