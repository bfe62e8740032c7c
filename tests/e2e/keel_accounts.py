# SPDX-License-Identifier: Apache-2.0
"""Real accounts on the private host, and proofs by clients of the auth service.

alice is an administrator and bob is not; carol's account has expired, dave's is locked, erin must
change her password first; grace is an administrator by her primary group.
"""

import crypt
import os
import shutil

from keel_client import AUTH
from keel_host import DaemonTest

SERVICE_FILE = "/etc/pam.d/keeld"
OWN_SERVICE_FILE = os.path.join(os.path.dirname(__file__), "../../packaging/pam/keeld")
ADMIN_GROUP = 80
ALWAYS = "19000:0:99999:7:::"

AUTH_FAILED, AUTH_ID_NOT_FOUND, NOT_ADMIN = 5, 6, 14

# uid, primary group, mark in front of the encrypted password, the rest of the entry in /etc/shadow
ACCOUNTS = {
    "alice": (501, 501, "", ALWAYS),
    "bob": (502, 502, "", ALWAYS),
    "carol": (503, ADMIN_GROUP, "", "19000:0:99999:7::1:"),
    "dave": (504, ADMIN_GROUP, "!", ALWAYS),
    "erin": (505, ADMIN_GROUP, "", "0:0:99999:7:::"),
    "grace": (506, ADMIN_GROUP, "", ALWAYS),
}


def password_of(user):
    return f"open sesame, says {user}"


def encrypted(password):
    # Few rounds: it is not the hash that is tested.
    return crypt.crypt(password, "$5$rounds=1000$saltsalt$")


def append(path, line):
    with open(path, "a") as file:
        file.write(line + "\n")


def add_account(name, uid, group, *, mark="", rest=ALWAYS, password=None, remark=""):
    append("/etc/passwd", f"{name}:x:{uid}:{group}:{remark}:/tmp:/bin/sh")
    append("/etc/shadow", f"{name}:{mark}{encrypted(password or password_of(name))}:{rest}")


def change_group(name, *members):
    with open("/etc/group") as file:
        lines = [line for line in file if not line.startswith(f"{name}:")]
    with open("/etc/group", "w") as file:
        file.writelines([*lines, f"{name}:x:{ADMIN_GROUP}:{','.join(members)}\n"])


def add_accounts():
    change_group("admin", "alice")
    for name, (uid, group, mark, rest) in ACCOUNTS.items():
        add_account(name, uid, group, mark=mark, rest=rest)


def install_service(text=None):
    """Installs the PAM service: our own file, or `text`."""
    if text is None:
        shutil.copyfile(OWN_SERVICE_FILE, SERVICE_FILE)
    else:
        with open(SERVICE_FILE, "w") as file:
            file.write(text)


class AccountsTest(DaemonTest):
    """Each case runs a daemon with the PAM service as we install it."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        with open("/etc/passwd") as file:
            if "\nalice:" not in file.read():
                add_accounts()

    def setUp(self):
        install_service()
        super().setUp()

    def auth_client(self):
        return self.client(AUTH, exports=())

    def password_error(self, user, password, client=None):
        """Returns the error of the reply, None on success."""
        client = client or self.auth_client()
        return client.call("authenticateUser:withPassword:andHandler:", user, password)[0]

    def assertAccepted(self, user, password=None):
        self.assertWorked(self.password_error(user, password or password_of(user)))

    def assertRefused(self, user, password=None, code=AUTH_FAILED):
        self.assertError(self.password_error(user,
                                             password_of(user) if password is None else password),
                                             code)

    def no_messages(self):
        """Asserts that no error was logged."""
        self.assertEqual([line for line in self.daemon.log if line.level in ("error", "fault")], [])
