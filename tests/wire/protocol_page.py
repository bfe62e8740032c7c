# SPDX-License-Identifier: Apache-2.0
"""Takes docs/protocol.md apart: its examples, its programs, its tables."""

import re
from pathlib import Path

PATH = Path(__file__).resolve().parents[2] / "docs/protocol.md"
# The third group is the content of an example or exchange.
EXAMPLE = re.compile(
    r"(<!-- (?:example|exchange): ([\w-]+) -->\n```text\n)((?:(?!```).*\n)*)(```\n)"
)
_PART = re.compile(r"^(\w+):\n((?:  .*\n)+)", re.MULTILINE)
_HEX = re.compile(r"^ *((?:[0-9a-f]{2} )*[0-9a-f]{2})(?: {2,}|$)", re.MULTILINE)


class Page:
    def __init__(self, text=None):
        self.text = PATH.read_text() if text is None else text

    def example(self, name):
        """Parses the bytes of an example on the page."""
        shown = {match[2]: match[3] for match in EXAMPLE.finditer(self.text)}[name]
        if "more bytes" in shown:
            raise ValueError(f"example {name} is not shown in full")
        return bytes.fromhex("".join(_HEX.findall(shown)))

    def exchange(self, name):
        """Returns the texts of an exchange by name, unfolded."""
        shown = {match[2]: match[3] for match in EXAMPLE.finditer(self.text)}[name]
        return {part[1]: unfolded(part[2]) for part in _PART.finditer(shown)}

    def programs(self):
        return re.findall(r"```python\n(.*?)```", self.text, re.DOTALL)

    def program(self, containing):
        """Returns the only program that contains that text."""
        (found,) = (program for program in self.programs() if containing in program)
        return found

    def tables(self, *head):
        """Returns the rows, as lists of cells, of each table with that first row."""
        wanted = "| " + " | ".join(head) + " |"
        found = []
        lines = iter(self.text.splitlines())
        for line in lines:
            if line == wanted:
                next(lines)
                found.append([])
                for row in lines:
                    if not row.startswith("|"):
                        break
                    found[-1].append([cell.strip() for cell in row.strip("|").split("|")])
        return found

    def table(self, *head):
        (found,) = self.tables(*head)
        return found


def folded(text):
    """Formats a header field's values, one parameter per line."""
    return "".join("  " + line.replace(", ", ",\n    ") + "\n" for line in text.split("\n"))


def unfolded(lines):
    return re.sub(r"\n(?! )", "\n", re.sub(r",\n    ", ", ", lines)).replace("\n  ", "\n").strip()
