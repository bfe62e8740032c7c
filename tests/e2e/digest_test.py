#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests digest and basic challenges with ordinary HTTP clients and with answers computed here."""

import base64
import functools
import hashlib
import http.server
import os
import pty
import re
import select
import subprocess
import threading
import urllib.error
import urllib.request

import keel_accounts
import keel_host
import requests
import requests.auth
from keel_accounts import AUTH_FAILED, AUTH_ID_NOT_FOUND, NOT_ADMIN, AccountsTest, password_of
from keel_auth import HASHES, REALM, answer_to, parameters_of, proof
from keel_client import AUTH, HANG_GUARD, Client

FILE = "/etc/keeld/digest"
START = {"digest": "authDigestStartWithHandler:", "basic": "authBasicStartWithHandler:"}
VALIDATE = "authValidate:andID:withHandler:"


def digest_password_of(user):
    return f"hakuna matata, {user}"


def keelctl(*arguments, password=None, **options):
    """Runs keelctl digest; the password is given through a pipe."""
    fds, extra = (), []
    if password is not None:
        reading, writing = os.pipe()
        os.write(writing, password.encode() + b"\n")
        os.close(writing)
        fds, extra = (reading,), ["--password-fd", str(reading)]
    try:
        return subprocess.run([keel_host.keelctl, "digest", *arguments, *extra], pass_fds=fds,
                              capture_output=True, text=True,
                              timeout=HANG_GUARD, **options)
    finally:
        for descriptor in fds:
            os.close(descriptor)


class WebServer:
    """An HTTP server that authenticates with the auth service: it forwards the challenge and its
    answer.
    """

    def __init__(self, scheme, fields_of):
        """`fields_of` makes the header fields of the challenge's lines."""
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                answer = self.headers.get("Authorization")
                server.answers.append(answer)
                if not answer:
                    return self.challenge()
                # An answer in the scheme basic belongs to no challenge, and many are sent without
                # one.
                nonce = parameters_of(answer).get(
                    "nonce") if scheme == "digest" else server.start()[1]
                response, user, error = server.client.call(VALIDATE, answer,
                                                           server.identifiers.pop(nonce, "none"))
                if error:
                    return self.challenge() if error.code == AUTH_ID_NOT_FOUND else self.reply(
                        403, [], f"code {error.code}")
                self.reply(200, [("Authentication-Info", response)] if response else [], user)

            def challenge(self):
                text, _ = server.start()
                self.reply(401,
                           [("WWW-Authenticate", field) for field in fields_of(text.split("\n"))],
                           "")

            def reply(self, status, fields, body):
                self.send_response(status)
                for name, value in [*fields, ("Content-Length", str(len(body.encode())))]:
                    self.send_header(name, value)
                self.end_headers()
                self.wfile.write(body.encode())

            def log_message(self, *_):
                pass

        self.identifiers = {}
        self.answers = []
        self.client = Client(AUTH, exports=())
        self._server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self._server.server_port}/some/path?query=1"
        self._thread = threading.Thread(target=self._server.serve_forever,
                                        kwargs={"poll_interval": 0.01})
        self._scheme = scheme
        self._thread.start()

    def start(self):
        """Returns a challenge's text and the key of its ID: the nonce, or in the scheme basic the
        ID itself.
        """
        text, identifier, _ = self.client.call(START[self._scheme])
        key = parameters_of(text).get("nonce", identifier)
        self.identifiers[key] = identifier
        return text, key

    def close(self):
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
        self.client.close()


# Each yields the status and the body.


def curl(url, user, password, scheme):
    config = f'user = "{user}:{password}"\n'  # not an argument, as people should have it
    done = subprocess.run(["curl", "--silent", f"--{scheme}", "--config", "-", "--noproxy", "*",
                           "--write-out", "\n%{http_code}", url],
                          input=config, capture_output=True, text=True, timeout=HANG_GUARD,
                          check=True)
    body, _, status = done.stdout.rpartition("\n")
    return int(status), body


def with_requests(url, user, password, scheme):
    kind = {"digest": requests.auth.HTTPDigestAuth, "basic": requests.auth.HTTPBasicAuth}[scheme]
    with requests.Session() as session:
        session.trust_env = False
        reply = session.get(url, auth=kind(user, password), timeout=HANG_GUARD)
    return reply.status_code, reply.text


def with_urllib(url, user, password, scheme):
    kind = {"digest": urllib.request.HTTPDigestAuthHandler,
            "basic": urllib.request.HTTPBasicAuthHandler}[scheme]
    known = urllib.request.HTTPPasswordMgrWithDefaultRealm()
    known.add_password(None, url, user, password)
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}), kind(known))
    try:
        with opener.open(url, timeout=HANG_GUARD) as reply:
            return reply.status, reply.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


class ChallengeTest(AccountsTest):
    def setUp(self):
        super().setUp()
        keel_host.remove(os.path.dirname(FILE))
        for user in ("alice", "bob", "carol", "dave", "erin"):
            self.set(user)

    def set(self, user, password=None):
        done = keelctl("set", user, password=password or digest_password_of(user))
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def server(self, scheme, fields_of=lambda lines: lines):
        server = WebServer(scheme, fields_of)
        self.addCleanup(server.close)
        return server

    def challenge(self, client, algorithm="SHA-256", scheme="digest"):
        """Returns the parameters of a challenge and its ID."""
        text, identifier, error = client.call(START[scheme])
        self.assertWorked(error)
        offered = [parameters_of(line) for line in text.split("\n")]
        return next(challenge for challenge in offered
                    if challenge.get("algorithm") in (algorithm, None)), identifier

    def validated(self, user, password=None, algorithm="SHA-256", **changes):
        """Answers a new challenge; returns response, user's name and code."""
        client = self.auth_client()
        challenge, identifier = self.challenge(client, algorithm)
        answer = answer_to(challenge, user, password or digest_password_of(user), **changes)
        response, name, error = client.call(VALIDATE, answer, identifier)
        return response, name, error and error.code

    def assertRejected(self, *arguments, **options):
        self.assertEqual(self.validated(*arguments, **options), (None, None, AUTH_FAILED))


class HttpClients(ChallengeTest):
    """Ordinary clients understand the challenges, and keeld accepts their answers."""

    def assertLetIn(self, get, scheme, fields_of=lambda lines: lines, password=digest_password_of):
        server = self.server(scheme, fields_of)
        self.assertEqual(get(server.url, "alice", password("alice"), scheme), (200, "alice"))
        self.assertEqual(get(server.url, "alice", "wrong", scheme), (403, f"code {AUTH_FAILED}"))
        self.assertEqual(get(server.url, "bob", password("bob"), scheme),
                         (403, f"code {NOT_ADMIN}"))
        return server

    def test_curl(self):
        server = self.assertLetIn(curl, "digest")
        sent = parameters_of(server.answers[1])
        self.assertEqual((sent["algorithm"], sent["userhash"]), ("SHA-256", "true"))
        self.assertEqual(sent["username"], hashlib.sha256(f"alice:{REALM}".encode()).hexdigest())

    def test_curl_with_md5(self):
        server = self.assertLetIn(curl, "digest", lambda lines: lines[1:])
        self.assertEqual(parameters_of(server.answers[1])["algorithm"], "MD5")

    def test_requests(self):
        for first in (0, 1):
            self.assertLetIn(with_requests, "digest", lambda lines: lines[first : first + 1])

    def test_requests_with_both_challenges_in_one_field(self):
        self.assertLetIn(with_requests, "digest")

    def test_urllib(self):
        self.assertLetIn(with_urllib, "digest", lambda lines: lines[1:])

    def test_basic(self):
        for get in (curl, with_requests, with_urllib):
            self.assertLetIn(get, "basic", password=password_of)


class Digest(ChallengeTest):
    def test_every_algorithm_is_accepted_and_answered(self):
        for algorithm in HASHES:
            client = self.auth_client()
            challenge, identifier = self.challenge(client, algorithm)
            password = digest_password_of("alice")
            response, name, error = client.call(VALIDATE, answer_to(challenge, "alice", password),
                                                identifier)
            self.assertEqual((name, error), ("alice", None))
            self.assertEqual(parameters_of(response), {
                "qop": "auth", "nc": "00000001", "cnonce": "0a4f113b",
                "rspauth": proof(challenge, "alice", password, "")})

    def test_another_user_gets_the_response_too(self):
        response, name, code = self.validated("bob")
        self.assertEqual((name, code), ("bob", NOT_ADMIN))
        self.assertIn("rspauth", response)

    def test_challenges_differ_and_share_the_realm(self):
        client = self.auth_client()
        realm = client.call("authGetDefaultRealm:")[0]
        self.assertEqual(realm, REALM)
        challenges = [self.challenge(client)[0] for _ in range(50)]
        self.assertEqual({challenge["realm"] for challenge in challenges}, {realm})
        self.assertEqual(len({challenge["nonce"] for challenge in challenges}), 50)
        self.assertEqual(len({challenge["opaque"] for challenge in challenges}), 50)

    def test_wrong_passwords_and_unknown_users_are_rejected(self):
        self.assertRejected("alice", "wrong")
        self.assertRejected("alice", password_of("alice"))  # that of the account
        self.assertRejected("nobody-of-that-name")
        self.assertRejected("grace")  # an account without digest credentials

    def test_an_answer_is_valid_once_and_for_its_challenge_only(self):
        client = self.auth_client()
        challenge, identifier = self.challenge(client)
        other, other_identifier = self.challenge(client)
        answer = answer_to(challenge, "alice", digest_password_of("alice"))
        self.assertError(client.call(VALIDATE, answer, other_identifier)[2], AUTH_FAILED)
        self.assertError(client.call(VALIDATE,
                                     answer_to(other, "alice", digest_password_of("alice")),
                                     other_identifier)[2],
                         AUTH_ID_NOT_FOUND)
        self.assertWorked(client.call(VALIDATE, answer, identifier)[2])
        self.assertError(client.call(VALIDATE, answer, identifier)[2], AUTH_ID_NOT_FOUND)

    def test_a_changed_answer_is_rejected(self):
        for changes in ({"uri": "/other"}, {"realm": "other"}, {"nonce": "0" * 48}, {"opaque": "0"},
                        {"cnonce": "1"},
                        {"username": "bob"}, {"qop": "auth"}, {"userhash": "true"}):
            with self.subTest(changes):
                self.assertRejected("alice", **changes)

    def test_expired_locked_and_to_be_changed_accounts_are_rejected(self):
        for user in ("carol", "dave", "erin"):
            with self.subTest(user):
                self.assertRejected(user)

    def test_an_account_needs_no_password(self):
        keel_accounts.append("/etc/passwd", f"mary:x:516:{keel_accounts.ADMIN_GROUP}::/tmp:/bin/sh")
        keel_accounts.append("/etc/shadow", "mary:*:19000:0:99999:7:::")
        self.set("mary")
        self.assertEqual(self.validated("mary")[1:], ("mary", None))

    def test_an_account_that_is_gone_is_rejected(self):
        self.set("nobody-of-that-name")
        self.assertRejected("nobody-of-that-name")

    def test_changed_credentials_take_effect_immediately(self):
        self.set("alice", "new")
        self.assertRejected("alice")
        self.assertEqual(self.validated("alice", "new")[2], None)
        self.assertEqual(keelctl("remove", "alice").returncode, 0)
        self.assertRejected("alice", "new")

    def test_credentials_readable_by_others_are_ignored(self):
        os.chmod(FILE, 0o640)
        self.assertRejected("alice")
        self.assertRejected("alice")
        said = re.compile("all answers to digest challenges are refused: .*")
        self.assertEqual(self.daemon.times_logged(said, 1, "error", "auth"), 1)
        os.chmod(FILE, 0o600)
        self.assertEqual(self.validated("alice")[2], None)

    def test_without_the_pam_service_everybody_is_rejected(self):
        os.unlink("/etc/pam.d/keeld")
        self.assertRejected("alice")


class Basic(ChallengeTest):
    def answered(self, user, password=None):
        client = self.auth_client()
        text, identifier, error = client.call(START["basic"])
        self.assertWorked(error)
        self.assertEqual(text, f'Basic realm="{REALM}", charset="UTF-8"')
        credentials = base64.b64encode(f"{user}:{password or password_of(user)}".encode()).decode()
        response, name, error = client.call(VALIDATE, f"Basic {credentials}", identifier)
        return response, name, error and error.code

    def test_the_accounts_password_is_accepted(self):
        self.assertEqual(self.answered("alice"), (None, "alice", None))

    def test_all_others_are_rejected(self):
        for user, password in (("alice", "wrong"), ("alice", digest_password_of("alice")),
                               ("nobody-of-that-name", "x"),
                               ("carol", None), ("dave", None), ("erin", None)):
            with self.subTest(user):
                self.assertEqual(self.answered(user, password), (None, None, AUTH_FAILED))

    def test_another_user_is_not_admin(self):
        self.assertEqual(self.answered("bob"), (None, "bob", NOT_ADMIN))


class Keelctl(ChallengeTest):
    def test_prompts_twice_without_echo(self):
        shown, status = self.type("a new one", "a new one")
        self.assertEqual(shown, f"Digest password of alice in {REALM}: \r\nOnce more: \r\n")
        self.assertEqual(status, 0)
        self.assertEqual(self.validated("alice", "a new one")[2], None)

    def test_two_different_passwords_change_nothing(self):
        shown, status = self.type("one", "another")
        self.assertIn("keelctl: the two differ; nothing was changed", shown)
        self.assertEqual(status, 2)
        self.assertEqual(self.validated("alice")[2], None)

    def test_without_a_terminal_it_names_the_option(self):
        done = keelctl("set", "alice", start_new_session=True, stdin=subprocess.DEVNULL)
        self.assertEqual(done.returncode, 2)
        self.assertEqual(done.stderr,
                         "keelctl: there is no terminal to ask for the password on; "
                         "give it with --password-fd\n")

    def test_other_users_cannot_change_anything(self):
        for arguments in (("set", "alice"), ("remove", "alice"), ("list",)):
            done = keelctl(*arguments, password="x" if arguments[0] == "set" else None, user=501)
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stderr, r"keelctl: .*/etc/keeld/digest.*|keelctl: .*/etc/keeld.*")
        self.assertEqual(self.validated("alice")[2], None)

    def test_a_signal_at_the_prompt_restores_the_echo(self):
        def type_interrupt(terminal, _):
            os.write(terminal, b"\x03")

        _, status = self.on_terminal(type_interrupt, check_echo=True)
        self.assertEqual(status, 130)

    def type(self, *lines):
        typed = list(lines)
        return self.on_terminal(lambda terminal,
                                _: os.write(terminal, typed.pop(0).encode() + b"\n"))

    def on_terminal(self, answer, check_echo=False):
        """Runs keelctl digest set alice on a pseudo-terminal; `answer` is called for each prompt.
        Returns its output and its status.
        """
        import termios

        pid, terminal = pty.fork()
        if pid == 0:
            os.execv(keel_host.keelctl, [keel_host.keelctl, "digest", "set", "alice"])
        shown = b""
        prompts = 0
        echo = functools.partial(lambda: bool(termios.tcgetattr(terminal)[3] & termios.ECHO))
        while select.select([terminal], [], [], HANG_GUARD)[0]:
            try:
                data = os.read(terminal, 1 << 12)
            except OSError:  # everybody over there has ended
                break
            shown += data
            if shown.count(b": ") > prompts and shown.endswith(b": "):
                prompts += 1
                self.assertFalse(echo())
                answer(terminal, prompts)
                if check_echo:
                    _, status = os.waitpid(pid, 0)
                    self.assertTrue(echo())
                    os.close(terminal)
                    return shown.decode(), os.waitstatus_to_exitcode(status)
        os.close(terminal)
        _, status = os.waitpid(pid, 0)
        return shown.decode(), os.waitstatus_to_exitcode(status)


if __name__ == "__main__":
    keel_host.main()
