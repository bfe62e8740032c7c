#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests the daemon against docs/protocol.md: its bad frames, its bytes and its programs."""

import contextlib
import io
import re
import socket

import keel_host
from keel_accounts import AccountsTest, password_of
from keel_auth import Polkit, set_digest_password, set_password
from keel_client import AUTH, HELLO, NOTIFY, REPLY, REQUEST, Client, Code, Ended
from keel_host import DaemonTest
from keel_page import PAGE, helpers_of
from keel_values import Date, Raw, decode, encode, framed, sealed_file

VALIDATE = "authValidate:andID:withHandler:"
BEHIND_A_HELLO, IN_PLACE_OF_A_HELLO = PAGE.tables("frame", "answer", "why")


class BadFrames(DaemonTest):
    def assertAnswered(self, client, frame, answer):
        """Asserts that this is the only answer to the frame."""
        before = len(client.history)
        with contextlib.suppress(Ended):
            client.send_bytes(bytes.fromhex(frame.strip("`")))
        if answer == "goodbye":
            self.assertTrue(client.end())
            return
        wanted = 0
        if answer != "none":
            code, identifier = re.fullmatch(r"failure (\d), id (null|\d+)", answer).groups()
            identifier = None if identifier == "null" else int(identifier)
            self.assertEqual(client.failure(identifier), int(code))
            wanted = 1
        # Of a frame that is skipped the rest is still to come.
        if "failure 4" not in answer:
            client.last_id = 1
            self.assertEqual(client.module_table(), {})
            self.assertEqual(len(client.history), before + wanted + 1)

    def test_are_answered_as_the_page_says(self):
        for frame, answer, why in BEHIND_A_HELLO:
            with self.subTest(why), self.client() as client:
                self.assertAnswered(client, frame, answer)

    def test_also_instead_of_a_hello(self):
        for frame, answer, why in IN_PLACE_OF_A_HELLO:
            with self.subTest(why), self.client(greet=False) as client:
                client.take_hello()
                self.assertAnswered(client, frame, answer)

    def test_are_checked_in_the_order_of_the_page(self):
        malformed = Raw(b"\x18\x01")
        for message, code in (
            ([REQUEST, 0, 99, []], Code.badRequestId),
            ([REQUEST, 0, "x", []], Code.badRequestId),
            ([REQUEST, 1, "x", []], Code.undecodable),
            ([REQUEST, 1, 99, [malformed]], Code.unknownMethod),
            ([REQUEST, 1, 6, [malformed]], Code.undecodable),
            ([REQUEST, 1, 3, [0, malformed]], Code.undecodable),
        ):
            with self.subTest(message=message), self.client() as client:
                client.send(message)
                self.assertEqual(client.failure(message[1]), code)


class Session(AccountsTest):
    """Sends the client's frames of the page and compares the answers."""

    def assertReceives(self, client, *names):
        for name in names:
            with self.subTest(name):
                wanted = PAGE.example(name)
                self.assertEqual(client.recv(len(wanted), socket.MSG_WAITALL).hex(), wanted.hex())

    def connection(self, service):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(client.close)
        client.settimeout(keel_host.HANG_GUARD)
        client.connect(f"/run/keeld/{service}")
        return client

    def test_with_the_notify_service(self):
        publisher = self.client()
        item = PAGE.example("delivery").split(b"weather", 1)[1].removesuffix(b"\x00\xf6")
        self.assertWorked(publisher.publish(Raw(item), "weather"))
        client = self.connection(NOTIFY)
        client.sendall(PAGE.example("client-hello"))
        self.assertReceives(client, "daemon-hello")
        client.sendall(PAGE.example("subscribe-request"))
        self.assertReceives(client, "subscribe-reply", "delivery")
        for step in ("publish", "refused"):
            client.sendall(PAGE.example(f"{step}-request"))
            self.assertReceives(client, f"{step}-reply")
        client.sendall(PAGE.example("unknown-request"))
        self.assertReceives(client, "failure")
        file = self.file(sealed_file(encode({"picture": bytes(70000)})))
        socket.send_fds(client, [PAGE.example("sealed-request")], [file])
        self.assertEqual(decode(client.recv(64)[4:]), [REPLY, 5, [None]])
        client.sendall(PAGE.example("unsubscribe") + PAGE.example("goodbye"))
        self.assertEqual(client.recv(1), b"")
        (entry,), _ = publisher.dump("camera", True)
        self.assertEqual(entry["publishedData"], {"picture": bytes(70000)})

    def test_with_the_auth_service(self):
        set_password("alice", "open sesame")
        client = self.connection(AUTH)
        client.sendall(PAGE.example("auth-hello"))
        other = self.auth_client()
        hello = framed(encode([HELLO, 1, other.selectors, {"descriptors": True}]))
        self.assertEqual(client.recv(len(hello), socket.MSG_WAITALL), hello)
        client.sendall(PAGE.example("auth-password-request"))
        self.assertReceives(client, "auth-password-accepted")
        client.sendall(PAGE.example("auth-password-request-wrong"))
        self.assertReceives(client, "auth-password-reply")
        self.assertTrue(other.call("isAuthedASID:withHandler:", -1)[0])


class Programs(AccountsTest):
    def output_of(self, program, names):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            exec(program, names)
        return printed.getvalue()

    def test_the_first_client_prints_what_comes(self):
        publisher = self.client()
        self.assertWorked(publisher.publish({"measured": Date(-3)}, "weather"))
        program = PAGE.program("until a goodbye")
        shown = "    print(message)\n"
        program = program.replace(shown, shown + "    if message[0] == 2: break\n")
        printed = self.output_of(program, {})
        wanted = "[3, 1, [None, None]]\n[2, 0, ['weather', {'measured': datetime.datetime(1969, "
        self.assertEqual(printed[: len(wanted)], wanted)

    def test_those_for_files_pass_one_on(self):
        names = {}
        exec(PAGE.program("send_sealed"), names)
        exec(PAGE.program("class Receiver"), names)
        sender, follower = self.client(), self.client(descriptors=True)
        self.assertWorked(follower.subscribe("camera"))
        sender.socket.setblocking(True)
        names["send_sealed"](sender.socket, 1, 3, {"picture": bytes(70000)}, ["camera", 0, 0])
        sender.last_id = 1
        self.assertEqual(sender.results(1), [None])
        follower.socket.setblocking(True)
        receiver = names["Receiver"](follower.socket)
        self.assertEqual(receiver.receive(), [2, 0, ["camera", {"picture": bytes(70000)}, 0, None]])
        self.assertEqual(list(receiver.files), [])
        self.assertWorked(sender.update({"small": True}, "camera"))
        self.assertEqual(receiver.receive(), [2, 0, ["camera", {"small": True}, 0, None]])

    def test_a_reference_stands_for_the_process_that_made_it(self):
        polkit = Polkit().start()
        self.addCleanup(polkit.close)
        names = {}
        exec(PAGE.program("own_reference"), names)
        with Client(AUTH, exports=()) as client:
            selector = "authenticateForUser:using:withHandler:"
            self.assertWorked(client.call(selector, "alice", names["own_reference"]())[0])

    def test_a_digest_authentication_succeeds(self):
        set_digest_password("alice", "open sesame")
        program = PAGE.program('selectors.index("authDigestStartWithHandler:")')
        names = helpers_of(PAGE.program("until a goodbye"))
        exec(PAGE.program("def digest_answer"), names)
        self.assertEqual(self.output_of(program, names), "alice is an administrator\n")
        names["daemon"].close()

    def test_a_digest_exchange_looks_as_the_page_shows_it(self):
        set_digest_password("alice", "open sesame")
        shown = PAGE.exchange("digest")
        names = {}
        exec(PAGE.program("def digest_answer"), names)
        with Client(AUTH, exports=()) as client:
            challenge, identifier, error = client.call("authDigestStartWithHandler:")
            self.assertWorked(error)
            answer = names["digest_answer"](challenge, "alice", "open sesame")
            response, user, error = client.call(VALIDATE, answer, identifier)
        self.assertEqual((user, error), ("alice", None))
        random = r'(nonce|opaque|cnonce|rspauth|response)="[0-9a-f]+"'
        for text, name in ((challenge, "challenge"), (answer, "answer"), (response, "response")):
            self.assertEqual(re.sub(random, r"\1", text), re.sub(random, r"\1", shown[name]))

    def test_the_password_of_an_account_answers_no_digest_challenge(self):
        names = {}
        exec(PAGE.program("def digest_answer"), names)
        with Client(AUTH, exports=()) as client:
            challenge, identifier, _ = client.call("authDigestStartWithHandler:")
            answer = names["digest_answer"](challenge, "grace", password_of("grace"))
            self.assertError(client.call(VALIDATE, answer, identifier)[2], 5)


if __name__ == "__main__":
    keel_host.main()
