#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Measures sieges on a private host and prints a table of them. Called by scripts/siege."""

import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))

import keel_host  # noqa: E402
from keel_siege import MEBIBYTE, QUIET_SECONDS, Siege  # noqa: E402

# What is measured unless cases are named. Behind a colon: how many connections instead of the usual
# number.
CASES = """
    rest burn
    files:20 files:100 files:300 large-frames skips unsubscribes requests bad-frames fan-out
    auth digests references drip auth-drip
    deaf-followers returning sips deaf-own:1000 deaf-own deaf-files dumps half-frames names
    connects strangers exits self-passing crowd
""".split()

# No attack: the latency that the machine itself adds.
REFERENCES = {"rest", "burn"}
# The attackers follow the victims' name, so each update has thousands of deliveries.
FOLLOWERS_OF_THE_VICTIM = {"deaf-followers", "returning", "sips"}
# Names stay in the table by design, charged to the user who made them known.
KEEPING = {"names"}

P99_MILLISECONDS = 5
P99_MILLISECONDS_WHEN_FOLLOWED = 20
PEAK_BYTES = 560 * MEBIBYTE
KEPT_BYTES = 64 * MEBIBYTE

HEADINGS = (
    "case", "connections", "p50 ms", "p99 ms", "max ms", "auth p99", "connect p99", "lost",
    "unanswered", "peak MiB", "log MB", "kept MiB", "descriptors", "threads",
)


def misses_of(case, outcome):
    """Returns the headings of the missed bars."""
    if case in REFERENCES:
        return set()
    missed, victims = set(), outcome.victims
    is_followed = case in FOLLOWERS_OF_THE_VICTIM
    bar = P99_MILLISECONDS_WHEN_FOLLOWED if is_followed else P99_MILLISECONDS
    checks = {
        "p99 ms": victims["p99"] > bar,
        "lost": victims["lost"] > 0 or victims["ended"] > 0,
        "unanswered": outcome.unanswered > 0,
        "peak MiB": outcome.peak_held_bytes > PEAK_BYTES,
        "kept MiB": outcome.kept_bytes > KEPT_BYTES and case not in KEEPING,
        # A newcomer may be there.
        "descriptors": outcome.quiet.descriptors > outcome.rest.descriptors + 1,
        "threads": outcome.quiet.threads > outcome.rest.threads,
    }
    missed.update(heading for heading, misses in checks.items() if misses)
    return missed


def row_of(title, case, outcome):
    victims, missed = outcome.victims, misses_of(case, outcome)
    texts = {
        "case": title,
        "connections": str(sum(attacker["connections"] for attacker in outcome.attackers)),
        "p50 ms": f"{victims['p50']:.2f}",
        "p99 ms": f"{victims['p99']:.1f}",
        "max ms": f"{victims['max']:.0f}",
        "auth p99": f"{victims['auth_p99']:.1f}",
        "connect p99": f"{victims['connect_p99']:.1f}",
        "lost": str(victims["lost"]),
        "unanswered": str(outcome.unanswered),
        "peak MiB": f"{outcome.peak_held_bytes / MEBIBYTE:.0f}",
        "log MB": f"{outcome.log_bytes / 1e6:.1f}",
        "kept MiB": f"{outcome.kept_bytes / MEBIBYTE:.0f}",
        "descriptors": f"{outcome.quiet.descriptors - outcome.rest.descriptors:+d}",
        "threads": f"{outcome.quiet.threads - outcome.rest.threads:+d}",
    }
    cells = [f"**{texts[each]}**" if each in missed else texts[each] for each in HEADINGS]
    return "| " + " | ".join(cells) + " |"


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--keeld", required=True)
    parser.add_argument("--program", required=True)
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--attackers", type=int, default=1)
    parser.add_argument("cases", nargs="*")
    options = parser.parse_args()
    known = {case.partition(":")[0] for case in CASES}
    unknown = {case.partition(":")[0] for case in options.cases} - known
    if unknown:
        sys.exit(f"siege: no case {', '.join(sorted(unknown))}; there are: {' '.join(CASES)}")

    keel_host.keeld = options.keeld
    os.makedirs("/private/var", exist_ok=True)
    os.makedirs(keel_host.BUNDLES, exist_ok=True)
    print("| " + " | ".join(HEADINGS) + " |\n|" + " --- |" * len(HEADINGS), flush=True)
    missed = 0
    for title in options.cases or CASES:
        case, _, connections = title.partition(":")
        arguments = ["--connections", connections] if connections else []
        siege = Siege(options.program, options.seconds, options.attackers)
        try:
            outcome = siege.run(case, *arguments)
        except (RuntimeError, AssertionError, OSError, ValueError) as problem:
            missed += 1
            print(f"| {title} | **{problem}** |", flush=True)
            continue
        missed += len(misses_of(case, outcome))
        print(row_of(title, case, outcome), flush=True)
    print(f"\n{missed} bars missed (bold). The bars: p99 <= {P99_MILLISECONDS} ms, and"
          f" {P99_MILLISECONDS_WHEN_FOLLOWED} ms where the attacker follows the victim's name;"
          " nothing lost or unanswered;"
          f" peak <= {PEAK_BYTES // MEBIBYTE} MiB; {QUIET_SECONDS} s later (self-passing: 70 s) at"
          f" most {KEPT_BYTES // MEBIBYTE} MiB kept, descriptors and threads as before.")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
