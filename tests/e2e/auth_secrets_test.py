#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests that no password is left in the daemon's memory or log once its attempt is over, by
searching the memory.
"""

import base64
import os
import shutil
import subprocess

import keel_host
from keel_auth import AuthTest, basic, set_password
from keel_client import REQUEST
from keel_values import encode, framed

# The end of every password, after a unique text. Repeated, since the first bytes of freed memory
# are reused; with a period of 3, so that its base64 has a period of 4.
TAIL = "Q7w" * 12
TRACES = [tail.encode() * 2 for tail in ("Q7w", "UTd3", "N3dR", "d1E3")]
# Found there, or the search is no search.
CONTROL = "a-text-that-is-published-and-stays"

USER_AND_PASSWORD = "authenticateUser:withPassword:andHandler:"


class Secrets(AuthTest):
    log = "debug"

    def setUp(self):
        super().setUp()
        if not shutil.which("gcore"):
            keel_host.skip_or_fail(self, "this machine has no gcore")
        if keel_host.memory_factor() > 1:
            self.skipTest("sanitizers keep copies of what is freed")
        self.secrets = []

    def secret(self, text):
        """Returns a unique password."""
        self.secrets.append(text.encode())
        return f"{text}-{TAIL}"

    def assertLeftNowhere(self):
        control = self.client()
        self.assertWorked(control.publish({"text": CONTROL}, "control"))
        subprocess.run(["gcore", "-o", "/tmp/core", str(self.daemon.pid)], check=True,
                       stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        name = f"/tmp/core.{self.daemon.pid}"
        with open(name, "rb") as file:
            core = file.read()
        os.unlink(name)
        self.assertIn(CONTROL.encode(), core)
        self.assertEqual([trace for trace in self.secrets + TRACES if trace in core], [])
        for line in self.daemon.lines:
            self.assertEqual([trace for trace in self.secrets + TRACES if trace in line.encode()],
                             [])

    def test_of_password_requests(self):
        client = self.auth()
        self.assertFailed(client.password("alice", self.secret("wrong-word")))
        self.assertFailed(client.password("nobody-here", self.secret("of-nobody")))
        right = self.secret("right-word")
        set_password("alice", right)
        self.assertWorked(client.password("alice", right))
        self.assertFailed(client.password("alice", self.secret("long-word") + "y" * 5000))
        self.assertLeftNowhere()

    def test_of_basic_answers(self):
        client = self.auth()
        right = self.secret("right-answer")
        set_password("alice", right)
        for password in (self.secret("wrong-answer"), right):
            _, auth_id, _ = client.start_basic()
            client.validate(basic("alice", password), auth_id)
        _, auth_id, _ = client.start_digest()
        client.validate(basic("alice", self.secret("wrong-scheme")), auth_id)
        client.validate(basic("alice", self.secret("no-challenge")), "myob-unknown")
        self.secrets += [base64.b64encode(secret)[:12] for secret in self.secrets]
        self.assertLeftNowhere()

    def test_of_split_and_undecodable_messages(self):
        client = self.auth()
        client.failure(client.request(USER_AND_PASSWORD, self.secret("too-few")))
        client.failure(client.request("authServiceCheckWithHandler:", self.secret("too-many")))
        for size in (100, 5_000, 200_000):
            client.last_id += 1
            whole = framed(encode([REQUEST, client.last_id, 1,
                                   ["alice", self.secret(f"in-parts-{size}") + "x" * size]]))
            for start in range(0, len(whole), size // 7):
                client.send_bytes(whole[start : start + size // 7])
                other = self.auth()
                self.assertWorked(other.check())
                other.close()
            self.assertFailed(client.results(client.last_id)[0])
        self.assertLeftNowhere()

    def test_of_clients_that_leave_early(self):
        cut = self.auth()
        cut.send_bytes(
            framed(encode([REQUEST, 1, 1, ["alice", self.secret("cut-off"), "more"]]))[:-3])
        cut.close()
        gone = self.auth()
        gone.ask_password("alice", self.secret("not-waited-for"))
        gone.close()
        self.daemon.wait_for_log("AuthListenerDelgate: connection is invalidated", 2)
        self.assertLeftNowhere()


if __name__ == "__main__":
    keel_host.main()
