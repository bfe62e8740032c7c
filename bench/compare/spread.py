# SPDX-License-Identifier: Apache-2.0
"""Aggregates the rounds of a measurement."""

import statistics


class Spread:
    """Median, minimum and maximum over the rounds. False if no round succeeded."""

    def __init__(self, values):
        self.values = [value for value in values if value is not None]

    def __bool__(self):
        return bool(self.values)

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def lowest(self):
        return min(self.values)

    @property
    def highest(self):
        return max(self.values)

    def text(self):
        """Returns the median and the spread, for a table."""
        if not self:
            return "–"
        if len(self.values) == 1:
            return number(self.median)
        return f"{number(self.median)} ({number(self.lowest)}–{number(self.highest)})"


def number(value):
    """Returns a number with three significant digits."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.3g}" if abs(value) >= 0.0995 else f"{value:.4f}"


def ratios(values, references):
    """Returns ratios per round, since a disturbance affects all systems of its round."""
    return Spread([value / reference for value, reference in zip(values, references)
                   if value is not None and reference])
