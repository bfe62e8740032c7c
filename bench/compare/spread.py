# SPDX-License-Identifier: Apache-2.0
"""What several rounds say together."""

import statistics


class Spread:
    """Median, minimum and maximum of what the rounds measured. False when no round succeeded."""

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
        """For a table: the median, and how far the rounds lie apart."""
        if not self:
            return "–"
        if len(self.values) == 1:
            return number(self.median)
        return f"{number(self.median)} ({number(self.lowest)}–{number(self.highest)})"


def number(value):
    """Three digits that count."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.3g}" if abs(value) >= 0.0995 else f"{value:.4f}"


def ratios(values, references):
    """Round by round, since what disturbs a round disturbs all systems in it."""
    return Spread([value / reference for value, reference in zip(values, references)
                   if value is not None and reference])
