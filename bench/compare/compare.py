# SPDX-License-Identifier: Apache-2.0
"""Measures keeld beside other systems and prints the figures. Run by scripts/bench on a private
host: everything that it starts, it ends.
"""

import argparse
import json
import os
import resource
import sys

import machine
import systems
from cases import CASES, SERIES
from measure import Measurements, load_average
from spread import Spread, number, ratios


def arguments():
    names = [case.name for case in CASES + SERIES]
    parser = argparse.ArgumentParser(prog="bench",
                                     description="Measures keeld beside other systems.")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--revision", default="", help=argparse.SUPPRESS)
    parser.add_argument("--figures", type=int, help=argparse.SUPPRESS)  # a descriptor
    parser.add_argument("--rounds", type=int, default=5,
                        help="how often everything is measured (5)")
    parser.add_argument("--quick", action="store_true",
                        help="one short round, to see that it works")
    parser.add_argument("--systems", default=",".join(systems.ALL),
                        help="only these, separated by commas")
    parser.add_argument("cases", nargs="*", metavar="CASE",
                        help=f"only these of: {', '.join(names)}")
    given = parser.parse_args()
    unknown = set(given.cases) - set(names)
    if unknown:
        parser.error(f"no case is called {', '.join(sorted(unknown))}")
    if given.quick:
        given.rounds = 1
    return given


def measure_round(given, measurements, cases, series):
    for case in cases:
        print(f"{case.title}", flush=True)
        for name in given.systems.split(","):
            result = measurements.run(case, name, name, case.options, case.one_processor)
            show(name, case, result)
    for line in series:
        print(f"{line.title}", flush=True)
        for count in line.counts[:2] if given.quick else line.counts:
            result = measurements.run(line, count, "keeld", line.make_options(count))
            show(f"{count:,} {line.along}", line, result)


def show(label, case, result):
    if result is not None:
        figures = (f"{figure.title} {number(result[figure.key] * figure.scale)} {figure.unit}"
                   for figure in case.figures)
        print(f"  {label}: {'; '.join(figures)}", flush=True)


def show_summary(given, measurements, cases):
    print("\nMedian (minimum–maximum), and the ratio to the relay:")
    for case in cases:
        for figure in case.figures:
            print(f"\n{case.title}: {figure.title}, {figure.unit}")
            relay = measurements.of(case.name, "relay", figure)
            for name in given.systems.split(","):
                values = measurements.of(case.name, name, figure)
                ratio = ratios(values, relay)
                of_relay = number(ratio.median) if ratio else "–"
                print(f"  {name:10} {Spread(values).text():>30}   {of_relay}")


def main():
    given = arguments()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    chosen = set(given.cases)
    cases = [case for case in CASES if not chosen or case.name in chosen]
    series = [line for line in SERIES if not chosen or line.name in chosen]
    facts = machine.describe(given.build, given.revision)
    facts["rounds"] = str(given.rounds)
    facts["priority"] = f"nice {os.getpriority(os.PRIO_PROCESS, 0)}"

    measurements = Measurements(given.build, 0.3 if given.quick else 1)
    loads = []
    for turn in range(given.rounds):
        loads.append(number(load_average()))
        print(f"\n== round {turn + 1} of {given.rounds}, load average {load_average():.2f} ==",
              flush=True)
        measure_round(given, measurements, cases, series)
    facts["load average before each round"] = ", ".join(loads)
    show_summary(given, measurements, cases)
    if given.figures:
        is_whole = not (chosen or given.quick) and given.rounds >= 5 and given.systems == ",".join(
            systems.ALL)
        everything = {"is_whole": is_whole, "facts": facts, "rounds": measurements.rounds,
                      "failures": measurements.failures}
        with open(given.figures, "w") as file:
            json.dump(everything, file, indent=1)
            file.write("\n")
    return 1 if measurements.failures else 0


if __name__ == "__main__":
    sys.exit(main())
