# SPDX-License-Identifier: Apache-2.0
"""The auth service for the end-to-end tests: a client, delayed password checks, and polkit on a
private system bus.
"""

import base64
import contextlib
import functools
import hashlib
import os
import re
import select
import shutil
import struct
import subprocess

from keel_accounts import ACCOUNTS, OWN_SERVICE_FILE, AccountsTest, encrypted, install_service
from keel_client import AUTH, HANG_GUARD, Client

ALICE, BOB = ACCOUNTS["alice"][0], ACCOUNTS["bob"][0]
REALM = "com.vantor.keeld"
RIGHT = "com.vantor.ServiceManagement.daemons.modify"
TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))


class AuthClient(Client):
    """A connection to the auth service. Each method returns the results of the reply, the error
    last or alone.
    """

    def __init__(self, **options):
        super().__init__(AUTH, exports=[], **options)

    def check(self):
        return self.call("authServiceCheckWithHandler:")[0]

    def password(self, user, password):
        return self.call("authenticateUser:withPassword:andHandler:", user, password)[0]

    def ask_password(self, user, password):
        """Sends the request and returns its id."""
        return self.request("authenticateUser:withPassword:andHandler:", user, password)

    def reference(self, user, form):
        return self.call("authenticateForUser:using:withHandler:", user, form)[0]

    def own_reference(self, user):
        """Proves with the form of the process that owns this connection."""
        return self.reference(user, own_form())

    def realm(self):
        return self.call("authGetDefaultRealm:")

    def start_basic(self):
        return self.call("authBasicStartWithHandler:")

    def start_digest(self):
        return self.call("authDigestStartWithHandler:")

    def validate(self, answer, auth_id):
        return self.call("authValidate:andID:withHandler:", answer, auth_id)

    def is_authed(self, session):
        return self.call("isAuthedASID:withHandler:", session)[0]

    def answered_so_far(self):
        """Returns true if the answer has arrived; does not wait."""
        self._read()
        return any(self._answers.values())


# ---- authorization references --------------------------------------------------------------------


def start_time(pid):
    with open(f"/proc/{pid}/stat") as file:
        return int(file.read().rpartition(")")[2].split()[19])


def form_of(pid, uid, start):
    return b"KeelRef1" + struct.pack("<IIQ", pid, uid, start) + b"1feRleeK"


def own_form():
    return form_of(os.getpid(), os.getuid(), start_time(os.getpid()))


def basic(user, password):
    """Returns the answer to a basic challenge."""
    return "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


def could_not_say(pid, uid, why):
    """Returns the pattern of the error of a right that polkit failed to check."""
    return re.compile(
        f"polkit could not say whether pid {pid} \\(uid {uid}\\) "
        f"holds the right {re.escape(RIGHT)}: {why}")


# ---- digest challenges ---------------------------------------------------------------------------

HASHES = {"MD5": hashlib.md5, "SHA-256": hashlib.sha256}


def parameters_of(text):
    """Parses the parameters of a challenge or response: NAME=TOKEN or NAME="QUOTED"."""
    return {name: quoted or token
            for name, quoted, token in re.findall(r'([\w-]+)=(?:"([^"]*)"|([^",\s]+))', text)}


def proof(challenge, user, password, method, uri="/", cnonce="0a4f113b"):
    """RFC 7616, sections 3.4.1 to 3.4.3."""
    digest = lambda *parts: HASHES[challenge["algorithm"]](":".join(parts).encode()).hexdigest()
    return digest(digest(user, challenge["realm"], password), challenge["nonce"], "00000001",
                  cnonce, "auth", digest(method, uri))


def answer_to(challenge, user, password, **changes):
    values = {
        "username": user, "realm": challenge["realm"], "nonce": challenge["nonce"], "uri": "/",
        "response": proof(challenge, user, password, "GET"), "opaque": challenge["opaque"],
        "cnonce": "0a4f113b", **changes,
    }
    return f'Digest algorithm={challenge["algorithm"]}, qop=auth, nc=00000001, ' + ", ".join(
        f'{name}="{value}"' for name, value in values.items())


def set_digest_password(user, password):
    """Writes digest credentials as keelctl digest set does."""
    folder = "/etc/keeld"
    os.makedirs(folder, mode=0o755, exist_ok=True)
    with open(f"{folder}/digest", "a", opener=functools.partial(os.open, mode=0o600)) as file:
        digest = hashlib.sha256(f"{user}:{REALM}:{password}".encode()).hexdigest()
        file.write(f"{user}:{REALM}:{digest}\n")


# ---- passwords -----------------------------------------------------------------------------------


def set_password(user, password):
    with open("/etc/shadow") as file:
        lines = [line.split(":") for line in file]
    with open("/etc/shadow", "w") as file:
        for fields in lines:
            if fields[0] == user:
                fields[1] = encrypted(password)
            file.write(":".join(fields))


class HeldUpPasswords:
    """A context in which every password check, or those of one user, blocks until release() or
    until it is killed. With the question "account" it blocks every check whether an account may be
    used, which digest challenges need.
    """

    _GATE = "/run/keel-test-gate"
    _WAITER = "/run/keel-test-wait"
    _ARRIVALS = "/run/keel-test-arrivals"

    def __init__(self, of="*", question="auth"):
        self._user = of
        self._question = question
        self.released = 0

    def __enter__(self):
        os.mkfifo(self._GATE, 0o600)
        os.mkfifo(self._ARRIVALS, 0o600)
        # Opened for both directions, so that neither end blocks in open(2).
        self._arrivals = os.open(self._ARRIVALS, os.O_RDWR)
        self._gate = None
        with open(self._WAITER, "w") as file:
            file.write(f"""#!/bin/sh
case $PAM_USER in
  {self._user}) echo >{self._ARRIVALS} && read line <{self._GATE} ;;
esac
""")
        os.chmod(self._WAITER, 0o755)
        with open(OWN_SERVICE_FILE) as file:
            install_service(
                f"{self._question} optional pam_exec.so quiet {self._WAITER}\n{file.read()}")
        return self

    def wait_until_held_up(self, count=1):
        """Waits until that many more checks have reached the gate."""
        for _ in range(count):
            if not select.select([self._arrivals], [], [], HANG_GUARD)[0]:
                raise AssertionError("no check has come to the gate")
            os.read(self._arrivals, 1)

    def release(self):
        """Releases all pending and later checks."""
        if self._gate is None:
            self.released += 1
            install_service()
            # A line per waiting check, also for checks that arrive later.
            self._gate = os.open(self._GATE, os.O_RDWR | os.O_NONBLOCK)
            os.write(self._gate, b"\n" * 4096)

    def __exit__(self, *_):
        self.release()
        os.close(self._gate)
        os.close(self._arrivals)
        os.unlink(self._GATE)
        os.unlink(self._ARRIVALS)


# ---- polkit --------------------------------------------------------------------------------------


class Polkit:
    """A system bus with a polkitd and the policy of this source tree. Administrators hold the right
    unless other rules are given.
    """

    RULES = "/etc/polkit-1/rules.d/40-keel-test.rules"
    POLICY = "com.vantor.ServiceManagement.policy"
    BUS = "/run/dbus/system_bus_socket"
    ADMINISTRATORS_HOLD_IT = f"""
polkit.addRule(function(action, subject) {{
    if (action.id == "{RIGHT}")
        return subject.isInGroup("admin") ? polkit.Result.YES : polkit.Result.NO;
}});
"""

    def __init__(self, rules=ADMINISTRATORS_HOLD_IT, policy=True):
        if rules:
            with open(self.RULES, "w") as file:
                file.write(rules)
        installed = f"/usr/share/polkit-1/actions/{self.POLICY}"
        if policy:
            shutil.copy(f"{TOP}/packaging/polkit/{self.POLICY}", installed)
        os.makedirs(os.path.dirname(self.BUS), exist_ok=True)
        output, written = os.pipe()
        self.bus = subprocess.Popen(["dbus-daemon", "--system", "--nofork", "--nopidfile",
                                     "--nosyslog", f"--print-address={written}"],
                                    pass_fds=[written], stderr=subprocess.DEVNULL)
        os.close(written)
        with open(output) as file:
            file.readline()  # it is ready
        self.daemon = None

    def start(self):
        """Starts polkitd; returns when it answers on the bus."""
        self.daemon = subprocess.Popen(["/usr/lib/polkit-1/polkitd"], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        subprocess.run(["pkaction", "--action-id", RIGHT], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=HANG_GUARD, check=False)
        return self

    def signal(self, number):
        os.kill(self.daemon.pid, number)

    def kill(self):
        self.daemon.kill()
        self.daemon.wait()

    def close(self):
        for process in (self.daemon, self.bus):
            if process:
                process.kill()
                process.wait()
        for path in (self.RULES, self.BUS, f"/usr/share/polkit-1/actions/{self.POLICY}"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)


# ---- cases ---------------------------------------------------------------------------------------


class AuthTest(AccountsTest):
    log = "runtime=debug,auth=debug"

    def auth(self, **options):
        client = AuthClient(**options)
        self.addCleanup(client.close)
        return client

    def assertFailed(self, error):
        self.assertError(error, 5)

    def assertNotAdmin(self, error):
        self.assertError(error, 14)

    def assertStatus(self, error, status):
        self.assertError(error, status, domain="NSOSStatusErrorDomain")

    def auth_log(self):
        """Ends the daemon; returns its log of the category auth, as levels and texts."""
        self.assertEqual(self.daemon.stop(), 0)
        return [f"{line.level} {line.text}" for line in self.daemon.log if line.category == "auth"]
