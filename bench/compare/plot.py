# SPDX-License-Identifier: Apache-2.0
"""Writes plots as SVG, without a library."""

import math
from html import escape

from spread import number

INK, QUIET_INK, GRID = "#1f2328", "#656d76", "#d8dee4"
COLOURS = {"keeld": "#0969da", "relay": "#57606a"}
OTHERS = "#c3ccd6"
LINES = ["#0969da", "#bc4c00", "#1a7f37", "#8250df"]


class Drawing:
    """An SVG drawing on white."""

    def __init__(self, width, height):
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}" '
            'font-family="system-ui, sans-serif" font-size="12">',
            f'<rect width="{width}" height="{height}" fill="#ffffff"/>',
        ]

    def text(self, x, y, text, anchor="start", colour=INK, weight="normal"):
        self.parts.append(
            f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}" '
            f'font-weight="{weight}">{escape(text)}</text>'
        )

    def bar(self, x, y, width, height, colour):
        self.parts.append(
            f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" height="{height}" '
            f'fill="{colour}"/>'
        )

    def line(self, x1, y1, x2, y2, colour, width=1.0):
        self.parts.append(
            f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
            f'stroke="{colour}" stroke-width="{width}"/>'
        )

    def point(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>')

    def save(self, path):
        with open(path, "w") as file:
            file.write("\n".join([*self.parts, "</svg>"]) + "\n")


def panels(path, groups):
    """One panel of bars for each (title, unit, [(system, title, Spread)]). Whiskers reach from
    minimum to maximum.
    """
    columns, width, row, head = 2, 470, 18, 34
    height = max(len(bars) for _, _, bars in groups) * row + head + 14
    drawing = Drawing(columns * width, math.ceil(len(groups) / columns) * height + 10)
    for place, (title, unit, bars) in enumerate(groups):
        left, top = place % columns * width + 16, place // columns * height + 20
        drawing.text(left, top, title, weight="600")
        drawing.text(left, top + 14, unit, colour=QUIET_INK)
        longest = max((spread.highest for _, _, spread in bars if spread), default=1)
        start, space = left + 84, width - 84 - 100
        for order, (system, name, spread) in enumerate(bars):
            y = top + head - 12 + order * row
            drawing.text(start - 6, y + 11, name, "end")
            if not spread:
                drawing.text(start + 4, y + 11, "failed", colour=QUIET_INK)
                continue
            drawing.bar(start, y, space * spread.median / longest, 13, COLOURS.get(system, OTHERS))
            drawing.line(start + space * spread.lowest / longest, y + 6.5,
                         start + space * spread.highest / longest, y + 6.5, INK)
            drawing.text(start + space * spread.highest / longest + 6, y + 11,
                         number(spread.median))
    drawing.save(path)


class Axis:
    """Maps values to coordinates, logarithmic or linear from 0."""

    def __init__(self, values, start, end, logarithmic):
        self.logarithmic, self.start, self.end = logarithmic, start, end
        if logarithmic:
            self.low, self.high = (math.floor(math.log10(min(values))),
                                   math.ceil(math.log10(max(values))))
            self.high = max(self.high, self.low + 1)
            self.ticks = [10.0**power for power in range(self.low, self.high + 1)]
        else:
            step = 10 ** math.floor(math.log10(max(values)))
            self.low, self.high = 0, math.ceil(max(values) / step) * step
            self.ticks = [self.high * part / 4 for part in range(5)]

    def place(self, value):
        value = math.log10(value) if self.logarithmic else value
        return self.start + (self.end - self.start) * (value - self.low) / (self.high - self.low)


def growth(path, title, along, lines):
    """Plots lines over a count: each (title with unit, [(count, Spread)])."""
    width, height = 620, 330
    drawing = Drawing(width, height)
    drawing.text(16, 22, title, weight="600")
    counts = [count for _, points in lines for count, _ in points]
    values = [value for _, points in lines for _, spread in points
              for value in (spread.lowest, spread.highest) if value > 0]
    if not values:
        return
    across = Axis(counts, 70, width - 30, logarithmic=True)
    up = Axis(values, height - 50, 50 + 16 * len(lines), max(values) > 20 * min(values))
    for tick in up.ticks:
        drawing.line(70, up.place(tick), width - 30, up.place(tick), GRID)
        drawing.text(62, up.place(tick) + 4, f"{tick:g}", "end", QUIET_INK)
    for tick in across.ticks:
        drawing.text(across.place(tick), height - 32, f"{tick:,.0f}", "middle", QUIET_INK)
    drawing.text(width / 2, height - 12, along, "middle", QUIET_INK)
    for order, (name, points) in enumerate(lines):
        colour = LINES[order % len(LINES)]
        drawing.point(74, 38 + 16 * order, colour)
        drawing.text(84, 42 + 16 * order, name)
        shown = [(across.place(count), spread) for count, spread in points if spread
                 and spread.lowest > 0]
        for (x1, first), (x2, second) in zip(shown, shown[1:]):
            drawing.line(x1, up.place(first.median), x2, up.place(second.median), colour, 2)
        for x, spread in shown:
            drawing.line(x, up.place(spread.lowest), x, up.place(spread.highest), colour)
            drawing.point(x, up.place(spread.median), colour)
    drawing.save(path)
