# SPDX-License-Identifier: Apache-2.0
"""Writes docs/performance.md and its plots from measured figures: usage page.py FOLDER, which holds figures.json, and may hold
remarks.md, which becomes part of the page."""

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

Measured by `scripts/bench`, which anybody can repeat as root with one command: it runs every system beside keeld on the same
machine, in turns, with the same payloads and one load generator. This page is its output.
"""

METHOD = """\
## How it was measured

- **One load generator** (`bench/load`) speaks the raw protocol of every system: one thread, one epoll, one read per wake-up, all
  publishes that may go out in one write, nothing decoded. Publisher and subscribers live in it together, so that a system has
  one of the two processors and the load the other. Nothing is pinned, but where all runs on one processor.
- **A publish is outstanding until it was acknowledged and every subscriber has got it**, so that nobody wins by building a queue.
- **The bare relay** (`bench/relay`) is the limit: one thread passes on all that one read brought, with one write to each
  subscriber, and acknowledges it with one frame. It has no names, keeps nothing, checks nothing. Its figures are a ceiling.
- **Ratios** to the relay are taken round by round; the table shows their median. Within a round all systems are measured one
  after the other, each started anew, on a throw-away copy of this machine with a network of its own.
- **Processor time** is that of all threads of the system's process, from the scheduler (`/proc/PID/task/*/schedstat`). Where
  the load generator is what limits a case, it decides.
- **Memory** is what is resident; what the kernel keeps for sockets is not in it.

| system | how it is used |
|---|---|
| keeld | `updatePublishedItem`, answered; retains the last value; from 64 KiB on values travel as sealed memory files; its I/O thread has nice -5, as wherever root starts it, all others that of the table above |
| Redis | `SET` and `PUBLISH` in one pipeline, since the last value is to be kept; Unix socket; no snapshots, no log |
| NATS | `PUB`, and one `PING` after what goes out together, whose `PONG` acknowledges; TCP, the only thing it has; retains nothing |
| mosquitto | QoS 1, retained, to subscriptions of QoS 0, which need no acknowledgement; Unix socket |
| ZeroMQ | a proxy of XSUB and XPUB on ipc sockets without limits to its queues; acknowledges nothing, retains nothing; an arrival is a finished handshake |
| dbus-daemon | a signal with a byte array, and one `Ping` after what goes out together, whose return acknowledges; retains nothing |
"""

CAUTION = """\
## What the figures do not say

- They are of one machine, with two virtual processors that may be shared with strangers. Differences below 15 % are noise. The
  ratios within one run say more than any figure alone, and the processor time for a delivery more than the rate.
- The load generator does not look at what it gets. Clients that do will be the limit long before keeld is.
- The systems are not of one kind: some are made for networks, for persistence, for clusters, or for rules about who may send
  what. None of that is measured. What is used of each stands above.
- A rate with many outstanding publishes is that of batches: it shows what a publish costs, not how soon it arrives. How soon is
  shown by the cases with a fixed rate and with one outstanding.
- Waking the other processor takes about as long here as keeld's own work; on hardware of one's own it is shorter.
"""


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def best_other(case, figure, measurements):
    """Who comes first without relay and keeld."""
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


def full_tables(measurements):
    parts = []
    for case in CASES:
        head = ["system"]
        for figure in case.figures:
            head += [f"{figure.title}, {figure.unit}", "of the relay"]
        rows = []
        for name, system in systems.ALL.items():
            row = [system.title]
            for figure in case.figures:
                values = measurements.of(case.name, name, figure)
                ratio = ratios(values, measurements.of(case.name, "relay", figure))
                row += [Spread(values).text(), number(ratio.median) if ratio else "–"]
            rows.append(row)
        parts.append(f"### {case.title}\n\n" + table(head, rows))
    return "\n".join(parts)


def series_parts(folder, measurements):
    parts = []
    for line in SERIES:
        points = {
            figure.key: [(count, Spread(measurements.of(line.name, count, figure))) for count in line.counts]
            for figure in line.figures
        }
        plot.growth(
            os.path.join(folder, f"{line.name}.svg"),
            line.title,
            line.along,
            [(f"{figure.title}, {figure.unit}", [point for point in points[figure.key] if point[1]]) for figure in line.figures],
        )
        head = [line.along, *(f"{figure.title}, {figure.unit}" for figure in line.figures)]
        rows = [
            [f"{count:,}", *(points[figure.key][place][1].text() for figure in line.figures)]
            for place, count in enumerate(line.counts)
        ]
        name = os.path.basename(folder)
        parts.append(f"### {line.title}\n\n![{line.title}]({name}/{line.name}.svg)\n\n" + table(head, rows))
    return "\n".join(parts)


def plot_glance(folder, measurements):
    groups = []
    for case in CASES:
        figure = case.figures[0]
        bars = [(name, system.title, Spread(measurements.of(case.name, name, figure))) for name, system in systems.ALL.items()]
        hint = "more is better" if figure.more_is_better else "less is better"
        groups.append((case.title, f"{figure.title}, {figure.unit}; {hint}", bars))
    plot.panels(os.path.join(folder, "glance.svg"), groups)


def write(folder):
    with open(os.path.join(folder, "figures.json")) as file:
        everything = json.load(file)
    measurements = Measurements(build="", seconds_scale=1)
    measurements.rounds = everything["rounds"]
    plot_glance(folder, measurements)
    name = os.path.basename(folder)
    parts = [
        INTRODUCTION,
        table(["what", "which"], [[key, value] for key, value in everything["facts"].items()]),
        f"## At a glance\n\n![keeld beside other systems]({name}/glance.svg)\n\n" + glance(measurements),
    ]
    remarks = os.path.join(folder, "remarks.md")
    if os.path.exists(remarks):
        with open(remarks) as file:
            parts.append(file.read())
    parts += [
        CAUTION,
        METHOD,
        "## How its cost grows\n\nkeeld alone; the whole run is the median of the rounds, with minimum and maximum.\n",
        series_parts(folder, measurements),
        "## All figures\n\nMedian (minimum–maximum) of the rounds, and the ratio to the relay.\n",
        full_tables(measurements),
    ]
    if everything["failures"]:
        rows = [[what, why] for what, why in everything["failures"].items()]
        parts.append("## What failed\n\n" + table(["run", "why"], rows))
    with open(f"{folder}.md", "w") as file:
        file.write("\n".join(parts))


if __name__ == "__main__":
    write(sys.argv[1].rstrip("/"))
