#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Tests keeld's start, its refusals to start, and its end."""

import ctypes
import errno
import os
import re
import resource
import select
import signal
import socket
import stat
import struct
import subprocess

import keel_host
from keel_client import AUTH, DIRECTORY, HANG_GUARD, NOTIFY, Client, Ended
from keel_host import AUTH_PATH, LOCK_DIRECTORY, NOTIFY_PATH, DaemonTest, listening_socket, remove

USER = 1001
SHUTTING_DOWN = "signal handler: received SIGTERM, shutting down"


class StartTest(DaemonTest):
    """setUp() starts no daemon: each case starts its own."""

    def setUp(self):
        self.daemons = []
        self.addCleanup(os.makedirs, "/private/var", exist_ok=True)
        self.addCleanup(remove, "/private/var")
        self.addCleanup(remove, DIRECTORY)

    def failing(self, status, **options):
        """Starts a daemon that must exit with that status."""
        daemon = self.start(ready=False, **options)
        daemon.expected_status = status
        self.assertEqual(daemon.wait(), status)
        return daemon


class Root(StartTest):
    def assertRefused(self, **options):
        daemon = self.failing(1, arguments=["bin/some daemon"], **options)
        self.assertEqual(
            daemon.lines,
            ["bin/some daemon must be executed as root.",
             "See the man pages for bin/some daemon, su, and sudo."],
        )
        self.assertFalse(os.path.lexists(LOCK_DIRECTORY))
        self.assertFalse(os.path.lexists(NOTIFY_PATH))

    def test_other_users_are_refused(self):
        self.assertRefused(before_exec=lambda: os.setresuid(USER, USER, USER))

    def test_a_real_user_other_than_root_is_refused_whatever_the_effective_one(self):
        self.assertRefused(before_exec=lambda: os.setresuid(USER, 0, 0))

    def test_the_effective_user_is_ignored(self):
        if keel_host.memory_factor() > 1:
            self.skipTest("a sanitizer cannot look at a process of two users")
        daemon = self.failing(2, before_exec=lambda: os.setresuid(0, USER, USER))
        self.assertTrue(
            daemon.logged("Failed to create the lock dir at /private/var/keeld errno = 13"))


class LockDirectory(StartTest):
    def test_is_created(self):
        self.start()
        status = os.lstat(LOCK_DIRECTORY)
        self.assertTrue(stat.S_ISDIR(status.st_mode))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o755)

    def test_an_existing_one_is_not_changed(self):
        os.mkdir(LOCK_DIRECTORY)
        os.chmod(LOCK_DIRECTORY, 0o700)
        self.start()
        self.assertEqual(stat.S_IMODE(os.lstat(LOCK_DIRECTORY).st_mode), 0o700)

    def test_may_be_a_file(self):
        with open(LOCK_DIRECTORY, "w") as file:
            file.write("mine")
        self.start()
        with open(LOCK_DIRECTORY) as file:
            self.assertEqual(file.read(), "mine")

    def test_may_be_a_dangling_link(self):
        os.symlink("/nowhere", LOCK_DIRECTORY)
        self.start()
        self.assertEqual(os.readlink(LOCK_DIRECTORY), "/nowhere")

    def assertStartFails(self, number):
        daemon = self.failing(2)
        self.assertEqual([line.text for line in daemon.log],
                         [f"Failed to create the lock dir at /private/var/keeld errno = {number}"])
        self.assertEqual(daemon.log[0][:2], ("error", "runtime"))
        self.assertFalse(os.path.lexists(NOTIFY_PATH))

    def test_a_missing_parent_fails_the_start(self):
        remove("/private/var")
        self.assertStartFails(2)

    def test_a_parent_that_is_a_file_fails_the_start(self):
        remove("/private/var")
        with open("/private/var", "w"):
            pass
        self.assertStartFails(20)


class Banner(StartTest):
    def test_is_readable_in_the_process(self):
        daemon = self.start()
        with open(f"/proc/{daemon.pid}/mem", "rb", buffering=0) as memory:
            memory.seek(self.load_address(daemon) + self.section("keel_crash_info"))
            version, message = struct.unpack("<QQ", memory.read(16))
            memory.seek(message)
            text = memory.read(256)
        self.assertEqual(version, 5)
        self.assertRegex(text, rb"\A\* Calder Version \d+\.\d+\.\d+ \*\0+\Z")

    @staticmethod
    def section(name):
        """Returns the address of a section in the program (ELF, 64 bits)."""
        with open(keel_host.keeld, "rb") as file:
            program = file.read()
        table, size, count, names_at = (
            struct.unpack_from("<Q", program, 40)[0],
            *struct.unpack_from("<HHH", program, 58),
        )
        headers = [struct.unpack_from("<IIQQQQ", program, table + place * size)
                   for place in range(count)]
        names = headers[names_at][4]
        for header in headers:
            start = names + header[0]
            if program[start : program.index(b"\0", start)].decode() == name:
                return header[3]
        raise AssertionError(f"no section {name}")

    @staticmethod
    def load_address(daemon):
        with open(f"/proc/{daemon.pid}/maps") as maps:
            return int(next(line for line in maps
                            if line.rstrip().endswith(keel_host.keeld)).split("-")[0], 16)


class Cores(StartTest):
    """The kernel dumps the core of a process only if a process without CAP_SYS_PTRACE may read its
    memory.
    """

    @staticmethod
    def drop_privilege_to_debug():
        set_bounding_capability, debug = 24, 19
        if ctypes.CDLL(None, use_errno=True).prctl(set_bounding_capability, debug, 0, 0, 0) != 0:
            raise OSError(ctypes.get_errno(), "prctl")

    def can_be_looked_into(self, pid):
        opening = ["sh", "-c", f": < /proc/{pid}/mem"]
        return subprocess.run(opening, preexec_fn=self.drop_privilege_to_debug,
                              capture_output=True).returncode == 0

    def test_are_never_written(self):
        other = subprocess.Popen(["sleep", "infinity"], preexec_fn=self.drop_privilege_to_debug)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.assertTrue(self.can_be_looked_into(other.pid))
        daemon = self.start(before_exec=self.drop_privilege_to_debug)
        self.assertFalse(self.can_be_looked_into(daemon.pid))


class Priority(StartTest):
    """The I/O thread has a higher priority unless the administrator chose one."""

    def priorities(self, daemon):
        """Returns the priorities of the threads. The I/O thread has set its own once it serves."""
        self.client().module_table()
        return keel_host.thread_priorities(daemon.pid)

    def test_is_that_of_one_thread(self):
        priorities = self.priorities(self.start())
        self.assertEqual(priorities.pop("keel-io"), {keel_host.preferred_priority()})
        self.assertEqual(set().union(*priorities.values()), {0})

    def test_a_chosen_priority_is_kept(self):
        priorities = self.priorities(self.start(before_exec=lambda: os.nice(3)))
        self.assertEqual(set().union(*priorities.values()), {3})

    def test_a_refused_priority_is_harmless(self):
        def drop_privilege():
            set_bounding_capability, nice = 24, 23
            if ctypes.CDLL(None, use_errno=True).prctl(set_bounding_capability, nice, 0, 0, 0) != 0:
                raise OSError(ctypes.get_errno(), "prctl")

        priorities = self.priorities(self.start(before_exec=drop_privilege))
        self.assertEqual(set().union(*priorities.values()), {0})


class Threads(StartTest):
    """Limits the number of threads: each has a stack of 8 GiB, so the address space allows no more.
    """

    STACK = 8 << 30
    # The logging thread, the I/O thread, one each for requests, checks and the closing of
    # descriptors.
    NEEDED = 5
    SIGNALS = 2

    def setUp(self):
        super().setUp()
        if keel_host.memory_factor() > 1:
            self.skipTest("a sanitizer needs all addresses")

    def limited_to(self, count):
        def limit():
            resource.setrlimit(resource.RLIMIT_STACK, (self.STACK, self.STACK))
            resource.setrlimit(resource.RLIMIT_AS, (count * self.STACK + (self.STACK >> 1),) * 2)

        return limit

    def test_a_required_thread_that_fails_to_start_fails_the_start(self):
        for count in range(self.NEEDED):
            with self.subTest(count=count):
                daemon = self.failing(4, before_exec=self.limited_to(count))
                self.assertIn("cannot start ", daemon.lines[-1])
                self.assertFalse(os.path.lexists(AUTH_PATH))

    def test_later_threads_are_optional(self):
        self.daemon = self.start(before_exec=self.limited_to(self.NEEDED + self.SIGNALS))
        method = "authenticateUser:withPassword:andHandler:"
        clients = [self.client(AUTH, exports=()) for _ in range(3)]
        requests = [client.request(method, "nobody-of-that-name", "wrong") for client in clients]
        for client, request in zip(clients, requests):
            self.assertEqual(client.results(request)[0].code, 5)
        # A descriptor that no client may pass is closed, too.
        hostile = self.client()
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        hostile.request("subscribeTo:withFlags:andHandler:", "name", 0, files=[writing])
        os.close(writing)
        hostile.end()
        self.assertTrue(select.select([reading], [], [], HANG_GUARD)[0])
        self.assertEqual(os.read(reading, 1), b"")


class Sockets(StartTest):
    def test_any_user_may_connect(self):
        self.start()
        for path in (AUTH_PATH, NOTIFY_PATH):
            self.assertEqual(stat.S_IMODE(os.lstat(path).st_mode), 0o666)
        self.assertEqual(stat.S_IMODE(os.lstat(DIRECTORY).st_mode), 0o755)

    def test_a_stale_socket_is_replaced(self):
        os.mkdir(DIRECTORY)
        listening_socket(NOTIFY_PATH).close()
        self.assertTrue(stat.S_ISSOCK(os.lstat(NOTIFY_PATH).st_mode))
        self.start()
        self.assertWorked(self.client().publish({}, "name"))

    def test_a_killed_daemon_restarts_empty(self):
        first = self.start()
        old = self.client()
        self.assertWorked(old.publish({"kept": False}, "name"))
        first.kill()
        self.assertIsNone(old.end())
        self.assertTrue(os.path.lexists(NOTIFY_PATH))
        self.start()
        new = self.client()
        self.assertEqual(new.dump(), [[], None])
        self.assertWorked(new.publish({}, "name"))

    def test_a_second_daemon_is_refused_without_effect_on_the_first(self):
        first = self.start()
        client = self.client()
        self.assertWorked(client.publish({"of": 1}, "name"))
        before = os.lstat(NOTIFY_PATH).st_ino
        second = self.failing(3)
        line = second.wait_for_log(re.compile(f"cannot serve {re.escape(AUTH)}: .*"), level="error",
                                   category="runtime")
        self.assertIn(f"{AUTH_PATH} is served by another process already; stop that one first",
                      line.text)
        self.assertFalse(second.logged("up and running"))
        self.assertEqual(os.lstat(NOTIFY_PATH).st_ino, before)
        self.assertWorked(client.update({"of": 2}, "name"))
        self.assertEqual(len(self.client().dump("name")[0]), 1)
        self.assertTrue(first.running)

    def test_a_directory_writable_by_others_is_refused(self):
        os.mkdir(DIRECTORY)
        os.chmod(DIRECTORY, 0o777)
        daemon = self.failing(3)
        daemon.wait_for_log(re.compile(f".*{DIRECTORY} must belong to uid 0 .*"), level="error")

    def test_a_directory_of_another_user_is_refused(self):
        os.mkdir(DIRECTORY)
        os.chown(DIRECTORY, USER, USER)
        daemon = self.failing(3)
        daemon.wait_for_log(re.compile(f".*{DIRECTORY} must belong to uid 0 .*"), level="error")


class SocketActivation(StartTest):
    PATH = "/run/elsewhere/socket"

    def setUp(self):
        super().setUp()
        self.handed = listening_socket(self.PATH)
        self.addCleanup(self.handed.close)
        self.addCleanup(remove, os.path.dirname(self.PATH))

    def test_a_passed_socket_is_used_and_not_removed(self):
        early = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)  # before anybody accepts
        self.addCleanup(early.close)
        early.connect(self.PATH)
        daemon = self.start(sockets={NOTIFY: self.handed})
        self.assertWorked(self.client(path=self.PATH).publish({}, "name"))
        self.assertFalse(os.path.lexists(NOTIFY_PATH))
        self.assertNotEqual(early.recv(4), b"")
        self.assertEqual(daemon.stop(), 0)
        self.assertTrue(stat.S_ISSOCK(os.lstat(self.PATH).st_mode))
        waiting = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)  # for the next daemon
        self.addCleanup(waiting.close)
        waiting.connect(self.PATH)

    def test_a_passed_socket_at_the_default_path_is_not_removed(self):
        handed = listening_socket(NOTIFY_PATH)
        self.addCleanup(handed.close)
        daemon = self.start(sockets={NOTIFY: handed})
        self.assertEqual(self.client().dump(), [[], None])
        self.assertEqual(daemon.stop(), 0)
        self.assertTrue(stat.S_ISSOCK(os.lstat(NOTIFY_PATH).st_mode))

    def test_a_passed_socket_serves_the_next_daemon(self):
        self.assertEqual(self.start(sockets={NOTIFY: self.handed}).stop(), 0)
        self.start(sockets={NOTIFY: self.handed})
        self.assertEqual(self.client(path=self.PATH).dump(), [[], None])

    def test_a_passed_socket_is_found_behind_others(self):
        other = listening_socket("/run/elsewhere/other")
        self.addCleanup(other.close)
        self.start(sockets={"com.vantor.other": other, NOTIFY: self.handed})
        self.assertWorked(self.client(path=self.PATH).publish({}, "name"))

    def test_a_socket_under_another_name_is_ignored(self):
        self.start(sockets={"com.vantor.other": self.handed})
        self.assertWorked(self.client().publish({}, "name"))

    def test_sockets_for_another_process_are_ignored(self):
        self.start(environment={"LISTEN_FDS": "1", "LISTEN_FDNAMES": NOTIFY, "LISTEN_PID": "1"})
        self.assertWorked(self.client().publish({}, "name"))


def deny_signal_sources():
    """Makes signalfd(2), and it alone, fail in this process as if there were no descriptors left.
    """
    load_number, equal, answer, allow, fail = 0x20, 0x15, 0x06, 0x7FFF0000, 0x00050000
    number = {"x86_64": 289, "aarch64": 74}[os.uname().machine]
    filters = [(load_number, 0, 0, 0), (equal, 0, 1, number), (answer, 0, 0, fail | errno.EMFILE),
               (answer, 0, 0, allow)]
    code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *each) for each in filters))
    program = struct.pack("@HP", len(filters), ctypes.addressof(code))
    set_seccomp, by_filter = 22, 2
    if ctypes.CDLL(None, use_errno=True).prctl(set_seccomp, by_filter, program) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


class Signals(StartTest):
    def test_the_start_continues_without_signal_sources(self):
        daemon = self.start(before_exec=deny_signal_sources)
        self.assertEqual([line for line in daemon.log if line.level in ("error", "fault")], [])
        client = self.client()
        self.assertWorked(client.publish({}, "name"))
        # Without a source a signal has no effect.
        for number in (signal.SIGHUP, signal.SIGTERM):
            daemon.signal(number)
            self.assertWorked(client.update({"after": int(number)}, "name"))
        self.assertWorked(self.client().publish({}, "another"))
        self.assertEqual([line.text for line in daemon.log if line.text == SHUTTING_DOWN], [])
        daemon.kill()

    def test_the_start_is_logged_in_order(self):
        daemon = self.start()
        told = [line.text for line in daemon.log if line.level == "debug"
                and line.category == "runtime"]
        self.assertEqual(told[-3:],
                         ["Auth listener created", "Notify listener created", "up and running"])
        level, category, text = next(line for line in daemon.log if line.level != "debug")
        self.assertEqual((level, category), ("default", "daemon"))
        self.assertRegex(text, r"\Akeeld \d+\.\d+\.\d+ is running \(build id [0-9a-f]+\)\Z")
        self.assertEqual(len([line for line in daemon.log if line.level != "debug"]), 1)

    def test_sighup_does_nothing(self):
        daemon = self.start()
        client = self.client()
        self.assertWorked(client.publish({}, "name"))
        for _ in range(3):
            daemon.signal(signal.SIGHUP)
        self.assertWorked(client.remove("name"))
        self.assertTrue(daemon.running)
        self.assertEqual(daemon.stop(), 0)
        self.assertEqual(
            [line.text for line in daemon.log if line.category == "runtime"],
            [
                "Auth listener created",
                "Notify listener created",
                "up and running",
                f"New Notification Service Connection received from {os.getpid()}",
                "NotifyListenerDelgate: Notify service is ready",
                SHUTTING_DOWN,
            ],
        )

    def test_sigterm_ends_it_cleanly(self):
        daemon = self.start()
        client = self.client()
        self.assertWorked(client.publish({}, "name"))
        daemon.signal(signal.SIGTERM)
        client.end()
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(daemon.logged(SHUTTING_DOWN), [("default", "runtime", SHUTTING_DOWN)])
        self.assertFalse(os.path.lexists(NOTIFY_PATH))
        self.assertFalse(os.path.lexists(AUTH_PATH))
        self.start()

    def test_sigterm_ends_it_even_if_its_manager_reads_nothing(self):
        path = "/run/unread"
        self.addCleanup(remove, path)
        with socket.socket(socket.AF_UNIX,
                           socket.SOCK_DGRAM) as manager, socket.socket(
                               socket.AF_UNIX, socket.SOCK_DGRAM) as other:
            manager.bind(path)
            daemon = self.start(environment={"NOTIFY_SOCKET": path})
            self.assertEqual(manager.recv(100), b"READY=1")
            other.connect(path)
            other.setblocking(False)
            with self.assertRaises(BlockingIOError):
                while True:
                    other.send(b"x")
            self.assertEqual(daemon.stop(), 0)

    def test_sigterm_works_from_the_first_moment_on(self):
        daemon = self.start_silent(log=None)
        self.client()
        daemon.signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual([line.category for line in daemon.log], ["daemon", "runtime"])
        self.assertEqual(daemon.log[-1].text, SHUTTING_DOWN)
        self.assertEqual(len(daemon.lines), 2)

    def test_sigterm_during_the_start_is_not_lost(self):
        def terminate_ourselves():
            signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
            os.kill(os.getpid(), signal.SIGTERM)

        daemon = self.start(before_exec=terminate_ourselves, ready=False)
        self.assertEqual(daemon.wait(), 0)
        self.assertTrue(daemon.logged(SHUTTING_DOWN))

    def test_sigterm_during_a_flood_of_requests(self):
        daemon = self.start()
        listener = self.client()
        flooders = [self.process() for _ in range(4)]
        for number, flooder in enumerate(flooders):
            self.assertWorked(listener.subscribe(f"flood {number}"))
            flooder.begin(flood, f"flood {number}")
        seen = set()
        while len(seen) < len(flooders):
            seen.add(listener.delivery().name)
        daemon.signal(signal.SIGTERM)
        for flooder in flooders:
            flooder.result()
        listener.end()
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(len(daemon.logged(SHUTTING_DOWN)), 1)
        self.assertFalse(os.path.lexists(NOTIFY_PATH))
        self.assertFalse(os.path.lexists(AUTH_PATH))


def flood(name):
    """Updates a name until the daemon ends."""
    client = Client()
    try:
        client.publish({}, name)
        while True:
            client.request("updatePublishedItem:name:withHandler:", {"data": b"x" * 1000}, name)
    except Ended:
        return 0


if __name__ == "__main__":
    keel_host.main()
