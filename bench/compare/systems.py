# SPDX-License-Identifier: Apache-2.0
"""The systems that are compared: how each one is started, without persistence, in a folder of its
own.
"""

import os
import signal
import socket
import subprocess
import time

CONNECTIONS = 18000  # more than any case makes
STARTING_SECONDS = 20


class System:
    """A running system. As a context manager it is stopped at the end of the block."""

    name = ""
    title = ""
    answers = True  # whether a publisher is told anything

    def __init__(self, build, folder, one_processor=False):
        self.build = build
        self.folder = folder
        self.address = os.path.join(folder, "socket")
        self.prefix = ["taskset", "--cpu-list", "0"] if one_processor else []
        self.process = None

    def command(self):
        raise NotImplementedError

    def load_options(self):
        return []

    def version(self):
        return ""

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def __enter__(self):
        with open(os.path.join(self.folder, "output"), "w") as output:
            self.process = subprocess.Popen(self.prefix + self.command(), stdout=output,
                                            stderr=output, cwd=self.folder)
        try:
            self.await_listening()
        except BaseException:
            self.__exit__()
            raise
        return self

    def await_listening(self):
        end = time.monotonic() + STARTING_SECONDS
        while not self.is_listening():
            if self.process.poll() is not None or time.monotonic() > end:
                with open(os.path.join(self.folder, "output")) as output:
                    raise RuntimeError(f"{self.name} did not start: {output.read().strip()}")
            time.sleep(0.02)

    def is_listening(self):
        family, address = socket.AF_UNIX, self.address
        if not address.startswith("/"):
            family, address = socket.AF_INET, ("127.0.0.1", int(address))
        with socket.socket(family) as probe:
            return probe.connect_ex(address) == 0

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def first_line(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return (done.stdout + done.stderr).strip().split("\n")[0]


class Relay(System):
    name, title = "relay", "bare relay"

    def command(self):
        return [f"{self.build}/bench/relay/keel-relay", self.address]


class Keeld(System):
    name, title = "keeld", "keeld"

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.address = "/run/keeld/com.vantor.keeld.notify"
        os.makedirs("/private/var", exist_ok=True)

    def command(self):
        return [f"{self.build}/daemon/keeld"]


class Redis(System):
    name, title = "redis", "Redis"

    def command(self):
        path = self.write(
            "redis.conf",
            f"port 0\nunixsocket {self.address}\nsave ''\nappendonly no\nmaxclients {CONNECTIONS}\n"
            "client-output-buffer-limit pubsub 0 0 0\ntcp-backlog 4096\n",
        )
        return [f"{self.build}/servers/redis-server", path]

    def version(self):
        return first_line(f"{self.build}/servers/redis-server", "--version")


class Nats(System):
    name, title = "nats", "NATS"

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.address = "4222"

    def command(self):
        path = self.write(
            "nats.conf",
            f"host: 127.0.0.1\nport: {self.address}\nmax_connections: {CONNECTIONS}\n"
            "max_payload: 8MB\nmax_pending: 1GB\nmax_subscriptions: 0\nwrite_deadline: '60s'\n",
        )
        return [f"{self.build}/servers/nats-server", "--config", path]

    def version(self):
        return first_line(f"{self.build}/servers/nats-server", "--version")


class Mosquitto(System):
    name, title = "mosquitto", "mosquitto"

    def command(self):
        path = self.write(
            "mosquitto.conf",
            f"listener 0 {self.address}\nuser root\nallow_anonymous true\npersistence false\n"
            "max_inflight_messages 0\nmax_queued_messages 0\nmax_connections -1\nlog_type error\n",
        )
        return [f"{self.build}/servers/mosquitto", "-c", path]

    def version(self):
        return first_line(f"{self.build}/servers/mosquitto", "-h")


class Zeromq(System):
    name, title = "zeromq", "ZeroMQ"
    answers = False

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.publishers = os.path.join(self.folder, "publishers")

    def command(self):
        return [f"{self.build}/bench/zeromq/keel-zeromq-proxy", f"ipc://{self.publishers}",
                f"ipc://{self.address}"]

    def load_options(self):
        return ["--publishers", self.publishers]

    def version(self):
        return "libzmq " + first_line("pkg-config", "--modversion", "libzmq")


class Dbus(System):
    name, title = "dbus", "dbus-daemon"

    LIMITS = (
        "max_incoming_bytes max_incoming_unix_fds max_outgoing_bytes max_outgoing_unix_fds "
        "max_message_size max_completed_connections max_incomplete_connections "
        "max_connections_per_user max_names_per_connection max_match_rules_per_connection "
        "max_replies_per_connection"
    ).split()

    def command(self):
        limits = "\n".join(f'<limit name="{name}">1000000000</limit>' for name in self.LIMITS)
        path = self.write(
            "bus.conf",
            '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"\n'
            ' "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">\n'
            f"<busconfig><type>session</type><listen>unix:path={self.address}</listen>"
            "<auth>EXTERNAL</auth>\n"
            '<policy context="default"><allow send_destination="*" eavesdrop="true"/>'
            f'<allow eavesdrop="true"/><allow own="*"/></policy>\n{limits}</busconfig>\n',
        )
        return ["dbus-daemon", f"--config-file={path}", "--nofork", "--nopidfile", "--nosyslog"]

    def version(self):
        return first_line("dbus-daemon", "--version")


ALL = {system.name: system for system in (Relay, Keeld, Redis, Nats, Mosquitto, Zeromq, Dbus)}
