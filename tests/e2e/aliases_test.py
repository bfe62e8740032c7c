#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests user names that NSS resolves to another account, with real NSS and real PAM."""

import shutil
import sys
import sysconfig

import keel_host
from keel_accounts import change_group, install_service, password_of
from keel_auth import (ALICE, AuthClient, AuthTest, answer_to, basic, parameters_of,
                       set_digest_password)

NSS_MODULE, PAM_MODULE = ([argument for argument in sys.argv[1:] if argument.endswith(".so")]
                          + ["", ""])[:2]
ALIASES = "/etc/keel-aliases"
SWITCH = "/etc/nsswitch.conf"
# The alias, and the account's own name.
NAMES = {"Alice.Liddell": "alice", "robert@example": "bob", "dave@example": "dave"}
ALIAS, BOBS_ALIAS, LOCKED_ALIAS = NAMES
UNIX = "auth required pam_unix.so\naccount required pam_unix.so\n"


def switch(shadow="files keeltest"):
    """Resolves account names through the aliases, too; also for passwords, unless told otherwise.
    """
    with open(SWITCH, "w") as file:
        file.write(f"passwd: files keeltest\nshadow: {shadow}\ngroup: files\n")


class Aliases(AuthTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        libraries = f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}"
        shutil.copyfile(NSS_MODULE, f"{libraries}/libnss_keeltest.so.2")
        with open(ALIASES, "w") as file:
            file.writelines(f"{alias} {account}\n" for alias, account in NAMES.items())

    def setUp(self):
        switch()
        super().setUp()
        self.other = self.process(ALICE, new_session=True)
        self.auth_client = self.other.client(maker=AuthClient)

    def assertRecorded(self, *names):
        """Asserts that exactly these aliases and account names are recorded in the session."""
        asker = self.client()
        known = [name for name in (*NAMES, *NAMES.values())
                 if asker.auth_check(name, self.other.session)[0]]
        self.assertEqual(known, list(names))

    def digest(self, user, password):
        challenge, auth_id, _ = self.auth_client.start_digest()
        parameters = parameters_of(challenge.splitlines()[0])
        return self.auth_client.validate(answer_to(parameters, user, password), auth_id)[1:]

    def test_the_system_resolves_them(self):
        client = self.auth_client
        self.assertNotAdmin(client.password(BOBS_ALIAS, password_of("bob")))
        self.assertFailed(client.password(BOBS_ALIAS, password_of("alice")))
        self.assertFailed(client.password(LOCKED_ALIAS, password_of("dave")))
        self.assertFailed(client.password("no.alias", password_of("alice")))
        self.assertRecorded()

    def test_membership_is_the_accounts_and_the_alias_is_recorded(self):
        self.assertWorked(self.auth_client.password(ALIAS, password_of("alice")))
        self.assertRecorded(ALIAS)

    def test_group_membership_of_the_alias_does_not_count(self):
        self.addCleanup(change_group, "admin", "alice")
        change_group("admin", ALIAS)
        self.assertNotAdmin(self.auth_client.password(ALIAS, password_of("alice")))
        self.assertRecorded()

    def test_challenges_accept_aliases(self):
        _, auth_id, _ = self.auth_client.start_basic()
        self.assertEqual(self.auth_client.validate(basic(ALIAS, password_of("alice")), auth_id)[1:],
                         [ALIAS, None])
        self.assertRecorded(ALIAS)
        _, auth_id, _ = self.auth_client.start_basic()
        user, error = self.auth_client.validate(basic(BOBS_ALIAS, password_of("bob")), auth_id)[1:]
        self.assertEqual(user, BOBS_ALIAS)
        self.assertNotAdmin(error)
        self.assertRecorded(ALIAS)

    def test_an_alias_may_have_digest_passwords(self):
        set_digest_password(ALIAS, "of the alias")
        self.assertEqual(self.digest(ALIAS, "of the alias"), [ALIAS, None])
        self.assertRecorded(ALIAS)

    def test_an_alias_of_a_locked_account_is_locked(self):
        set_digest_password(ALIAS, "of the alias")
        set_digest_password(LOCKED_ALIAS, "of the alias")
        install_service("auth required pam_unix.so\naccount required pam_permit.so\n")
        for shadow in ("files keeltest", "files"):
            switch(shadow)
            with self.subTest(shadow):
                self.assertFailed(self.digest(LOCKED_ALIAS, "of the alias")[1])
                self.assertWorked(self.digest(ALIAS, "of the alias")[1])
        self.assertRecorded(ALIAS)

    def test_a_pam_module_may_substitute_the_accounts_own_name(self):
        install_service(f"auth required {PAM_MODULE} rename alice\n{UNIX}")
        self.assertWorked(self.auth_client.password(ALIAS, password_of("alice")))
        self.assertFailed(self.auth_client.password(ALIAS, password_of("bob")))
        self.assertRecorded(ALIAS)

    def test_a_pam_module_may_not_substitute_another_account(self):
        install_service(f"auth required {PAM_MODULE} rename alice\n{UNIX}")
        self.assertFailed(self.auth_client.password(BOBS_ALIAS, password_of("alice")))
        self.assertFailed(self.auth_client.password("no.alias", password_of("alice")))
        self.assertRecorded()


if __name__ == "__main__":
    keel_host.main()
