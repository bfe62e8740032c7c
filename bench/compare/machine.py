# SPDX-License-Identifier: Apache-2.0
"""Describes the machine that was measured."""

import datetime
import os
import platform
import subprocess

import systems


def value_of(path, key):
    with open(path) as file:
        for line in file:
            if line.startswith(key):
                return line.split(":", 1)[1].strip()
    return "unknown"


def describe(build, revision):
    """Returns facts by name, for the page."""
    with open("/etc/os-release") as file:
        release = dict(line.strip().split("=", 1) for line in file if "=" in line)
    compiler = subprocess.run(["g++", "--version"], capture_output=True, text=True,
                              check=False).stdout.split("\n")[0]
    virtual = "hypervisor" in value_of("/proc/cpuinfo", "flags")
    facts = {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "revision": revision,
        "processors": f"{os.cpu_count()} × {value_of('/proc/cpuinfo', 'model name')}"
                      f"{', virtual' if virtual else ''}",
        "memory": f"{int(value_of('/proc/meminfo', 'MemTotal').split()[0]) / (1 << 20):.0f} GiB",
        "system": f"{release['PRETTY_NAME'].strip(chr(34))}, Linux {platform.release()}",
        "compiler": compiler,
    }
    for system in systems.ALL.values():
        version = system(build, folder="").version()
        if version:
            facts[system.title] = version
    return facts
