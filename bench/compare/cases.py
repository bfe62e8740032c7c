# SPDX-License-Identifier: Apache-2.0
"""Defines the cases in which all systems are compared, and the series that show how
keeld's cost grows.
"""

from dataclasses import dataclass, field


@dataclass
class Figure:
    """A figure of a case. `goal` is a ratio to the relay, or with `absolute` a plain value.
    """

    key: str
    title: str
    unit: str
    scale: float = 1
    goal: float | None = None
    absolute: bool = False
    more_is_better: bool = True

    def is_met(self, value, ratio):
        reached = value if self.absolute else ratio
        return reached >= self.goal if self.more_is_better else reached <= self.goal

    def goal_text(self):
        sign = "at least" if self.more_is_better else "at most"
        if self.absolute:
            return f"{sign} {self.goal:,g} {self.unit}"
        return f"{sign} {self.goal:g} of the relay"


@dataclass
class Case:
    name: str
    title: str
    figures: list
    options: list = field(default_factory=list)
    measurement: str = "fan-out"
    one_processor: bool = False
    seconds: float = 1


def rate(goal):
    return Figure("deliveries_per_s", "deliveries", "k/s", 1e-3, goal)


def cost(goal=None):
    return Figure("daemon_us_per_delivery", "processor time of the daemon for a delivery", "µs", 1,
                  goal, goal is not None, False)


def options(**given):
    return [text for name, value in given.items() for text in (f"--{name}", str(value))]


CASES = [
    Case("pipeline", "1 → 1, 128 B, 256 outstanding", [rate(0.80), cost()],
         options(outstanding=256)),
    Case("deep-pipeline", "1 → 1, 128 B, 4096 outstanding", [rate(0.30), cost()],
         options(outstanding=4096)),
    Case("pages", "1 → 1, 4 KiB, 256 outstanding", [rate(0.60), cost()],
         options(outstanding=256, payload=4096)),
    Case("hundred", "1 → 100, 128 B, 256 outstanding", [rate(0.50), cost(0.06)],
         options(outstanding=256, subscribers=100)),
    Case("thousand", "1 → 1000, 128 B, 256 outstanding", [rate(0.50), cost(0.06)],
         options(outstanding=256, subscribers=1000)),
    Case(
        "hundred-pages",
        "1 → 100, 4 KiB, 256 outstanding",
        [rate(0.70), cost()],
        options(outstanding=256, subscribers=100, payload=4096),
    ),
    Case(
        "one-processor",
        "1 → 1, 128 B, one outstanding, all on one processor",
        [rate(0.85), Figure("p50_us", "median time to completion", "µs", more_is_better=False)],
        options(outstanding=1),
        one_processor=True,
    ),
    Case(
        "latency",
        "1 → 1, 128 B, 1000 publishes a second",
        [
            Figure("p50_us", "median latency", "µs", 1, 1.15, more_is_better=False),
            Figure("p99_us", "99th percentile of the latency", "µs", 1, 1.15, more_is_better=False),
        ],
        options(outstanding=1000, rate=1000),
    ),
    Case(
        "answer",
        "1 → 1000, 128 B, one outstanding",
        [
            rate(0.90),
            Figure("answer_p50_us", "median time to the publisher's answer", "µs", 1, 0.25,
                   more_is_better=False),
        ],
        options(outstanding=1, subscribers=1000),
    ),
    Case(
        "arrivals",
        "8000 clients connect and subscribe, and stay",
        [
            Figure("arrivals_per_s", "arrivals", "per s", 1, 22000, absolute=True),
            Figure("resident_bytes_per_subscriber", "resident memory for each", "B", 1, 1024,
                   absolute=True, more_is_better=False),
        ],
        options(count=8000),
        measurement="arrivals",
    ),
    Case(
        "mebibyte",
        "1 → 100, 1 MiB, one outstanding",
        [
            Figure(
                "daemon_us_per_publish",
                "processor time of the daemon for a publish",
                "ms",
                1e-3,
                1,
                absolute=True,
                more_is_better=False,
            )
        ],
        options(outstanding=1, subscribers=100, payload=1 << 20),
    ),
]


@dataclass
class Series:
    """A series: runs of keeld alone over one parameter."""

    name: str
    title: str
    along: str
    counts: list
    figures: list
    make_options: object
    measurement: str = "fan-out"
    seconds: float = 0.7


TOOK = Figure("took_ms", "time until it was there", "ms", more_is_better=False)
HOLD_UP = Figure("longest_hold_up_ms", "longest wait of another client meanwhile", "ms",
                 more_is_better=False)
QUIET = Figure("longest_quiet_ms", "longest wait in a quiet second", "ms", more_is_better=False)
SPENT = Figure("daemon_ms", "processor time of the daemon", "ms", more_is_better=False)
PUBLISH_COST = Figure("daemon_us_per_publish", "processor time for a publish", "µs",
                      more_is_better=False)
MEMORY = Figure("resident_bytes", "resident memory of the daemon", "MiB", 1 / (1 << 20),
                more_is_better=False)

SERIES = [
    Series(
        "by-subscribers",
        "Subscribers of one name",
        "subscribers",
        [10, 100, 1000, 10000],
        [cost(), MEMORY],
        lambda count: options(outstanding=16, subscribers=count),
    ),
    Series(
        "by-names",
        "Names, published in turn to one subscriber of them all",
        "names",
        [10, 100, 1000, 10000, 100000],
        [PUBLISH_COST, MEMORY],
        lambda count: options(outstanding=256, names=count),
    ),
    Series(
        "by-connections",
        "Idle connections beside one publisher and one subscriber",
        "connections",
        [10, 100, 1000, 10000],
        [PUBLISH_COST, MEMORY],
        lambda count: options(outstanding=256, bystanders=count),
    ),
    Series(
        "by-subscriptions",
        "Subscriptions in all: the square root of them names, followed by as many clients each",
        "subscriptions",
        [100, 10000, 1000000],
        [cost(), MEMORY],
        lambda count: options(outstanding=16, subscribers=int(count**0.5), names=int(count**0.5)),
    ),
    Series(
        "dump",
        "A dump of all items",
        "items",
        [1000, 10000, 100000],
        [TOOK, HOLD_UP, QUIET, SPENT],
        lambda count: options(count=count),
        measurement="dump",
    ),
    Series(
        "clean-up",
        "The end of a client with items and as many subscriptions",
        "items",
        [1000, 10000, 100000],
        [HOLD_UP, QUIET, SPENT],
        lambda count: options(count=count),
        measurement="clean-up",
    ),
]
