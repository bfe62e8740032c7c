# SPDX-License-Identifier: Apache-2.0
"""Writes docs/performance.md and its plots from measured figures.

usage: page.py FIGURES FOLDER

FIGURES is the file that compare.py wrote. The plots go to FOLDER, the page to FOLDER.md. FOLDER may
hold remarks.md, which becomes part of the page.
"""

import json
import os
import sys

import plot
import systems
from cases import CASES, SERIES
from measure import Measurements
from spread import Spread, number, ratios

INTRODUCTION = """\
# How fast keeld is

`scripts/bench` wrote this page. Anybody can repeat the measurements as root with that one command:
it runs every system beside keeld on the same machine, in rounds, with the same payloads and one
load generator. The figures of every round stay in `build/bench/figures.json`.
"""

METHOD = """\
## How it was measured

- **One load generator** (`bench/load`) speaks the raw protocol of every system: one thread, one
  epoll, one read per wake-up, all publishes that may go out in one write, nothing decoded. It holds
  publisher and subscribers, so the system under test has one of the two processors and the load the
  other. Nothing is pinned, except in the case where everything shares one processor.
- **A publish is outstanding until it was acknowledged and every subscriber has received it**, so
  building a queue wins nothing.
- **The bare relay** (`bench/relay`) is the limit: one thread passes on whatever one read brought,
  with one write to each subscriber, and acknowledges it with one frame. It has no names, retains
  nothing and checks nothing. Its figures are a ceiling.
- **Ratios** to the relay are taken round by round; the table shows their median. Within a round all
  systems are measured one after the other, each started anew, on a throw-away copy of this machine
  with a network of its own.
- **Processor time** is that of all threads of the system's process, from the scheduler
  (`/proc/PID/task/*/schedstat`). It decides wherever the load generator limits a case.
- **Memory** is resident memory, without what the kernel keeps for sockets.

How each system is used:

- **keeld**: `updatePublishedItem`, answered; retains the last value; values from 64 KiB on travel
  as sealed memory files. Its I/O thread has nice -5, as wherever root starts it; all other threads,
  here and of the other systems, have the priority below.
- **Redis**: `SET` and `PUBLISH` in one pipeline, to retain the last value; Unix socket; no
  snapshots, no log.
- **NATS**: `PUB`, and one `PING` after each batch, whose `PONG` acknowledges it; TCP, its only
  transport; retains nothing.
- **mosquitto**: QoS 1, retained, to subscriptions of QoS 0, which need no acknowledgement; Unix
  socket.
- **ZeroMQ**: a proxy of XSUB and XPUB on ipc sockets with unlimited queues; acknowledges nothing,
  retains nothing; an arrival is a finished handshake.
- **dbus-daemon**: a signal with a byte array, and one `Ping` after each batch, whose return
  acknowledges it; retains nothing.
"""

CAUTION = """\
## What the figures do not say

- They are of one machine, with two virtual processors that may be shared with strangers.
  Differences below 15 % are noise. The ratios within one run say more than any figure alone, and
  the processor time for a delivery more than the rate.
- The load generator does not look at what it receives. Clients that do are the limit long before
  keeld is.
- The systems are not of one kind: some are made for networks, for persistence, for clusters, or for
  rules about who may send what. None of that is measured.
- A rate with many outstanding publishes is that of batches: it shows what a publish costs, not how
  soon it arrives. The cases with a fixed rate and with one outstanding show how soon.
- They include waking the other processor, which takes about as long here as keeld's own work.
"""


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def best_other(case, figure, measurements):
    """Returns the fastest system other than relay and keeld."""
    found = []
    for name in systems.ALL:
        spread = Spread(measurements.of(case.name, name, figure))
        if name not in ("relay", "keeld") and spread:
            found.append((spread.median, name))
    return (max if figure.more_is_better else min)(found, default=None)


def glance(measurements):
    rows = []
    for case in CASES:
        for figure in case.figures:
            if figure.goal is None:
                continue
            values = measurements.of(case.name, "keeld", figure)
            relay = measurements.of(case.name, "relay", figure)
            ratio = ratios(values, relay)
            other = best_other(case, figure, measurements)
            met = Spread(values) and ratio and figure.is_met(Spread(values).median, ratio.median)
            rows.append([
                case.title,
                f"{figure.title}, {figure.unit}",
                f"**{number(Spread(values).median)}**" if Spread(values) else "–",
                number(Spread(relay).median) if Spread(relay) else "–",
                number(ratio.median) if ratio else "–",
                f"{systems.ALL[other[1]].title} {number(other[0])}" if other else "–",
                figure.goal_text(),
                "yes" if met else "**no**",
            ])
    return table(["case", "figure", "keeld", "relay", "ratio", "best other", "goal", "met"], rows)


def plot_growth(folder, measurements):
    """Plots the cost of each series; returns the page's text about it."""
    parts = []
    for line in SERIES:
        lines = []
        for figure in line.figures:
            values = {count: measurements.of(line.name, count, figure) for count in line.counts}
            points = [(count, Spread(rounds)) for count, rounds in values.items() if Spread(rounds)]
            lines.append((f"{figure.title}, {figure.unit}", points))
        plot.growth(os.path.join(folder, f"{line.name}.svg"), line.title, line.along, lines)
        parts.append(f"![{line.title}]({os.path.basename(folder)}/{line.name}.svg)\n")
    return "\n".join(parts)


def plot_systems(folder, measurements):
    """Plots every figure of every case, system by system."""
    groups = []
    for case in CASES:
        for figure in case.figures:
            bars = [
                (name, system.title, Spread(measurements.of(case.name, name, figure)))
                for name, system in systems.ALL.items()
                if measurements.applies(figure, name)
            ]
            hint = "more is better" if figure.more_is_better else "less is better"
            groups.append((case.title, f"{figure.title}, {figure.unit}; {hint}", bars))
    plot.panels(os.path.join(folder, "systems.svg"), groups)


def conditions(everything):
    facts = everything["facts"].items()
    return "Measured on:\n\n" + "".join(f"- {name}: {value}\n" for name, value in facts)


def write(figures, folder):
    with open(figures) as file:
        everything = json.load(file)
    measurements = Measurements(build="", seconds_scale=1)
    measurements.rounds = everything["rounds"]
    os.makedirs(folder, exist_ok=True)
    plot_systems(folder, measurements)
    name = os.path.basename(folder)
    parts = [INTRODUCTION, "## At a glance\n\n" + glance(measurements)]
    remarks = os.path.join(folder, "remarks.md")
    if os.path.exists(remarks):
        with open(remarks) as file:
            parts.append(file.read())
    parts += [
        "## Beside other systems\n\nBars are medians of the rounds, whiskers reach from minimum to "
        f"maximum.\n\n![keeld beside other systems]({name}/systems.svg)\n",
        "## How the cost grows\n\nkeeld alone; points are medians, whiskers reach from minimum to "
        "maximum.\n",
        plot_growth(folder, measurements),
        CAUTION,
        METHOD,
        conditions(everything),
    ]
    if everything["failures"]:
        failures = "".join(f"- {what}: {why}\n" for what, why in everything["failures"].items())
        parts.append("## What failed\n\n" + failures)
    with open(f"{folder}.md", "w") as file:
        file.write("\n".join(parts))


if __name__ == "__main__":
    write(sys.argv[1], sys.argv[2].rstrip("/"))
