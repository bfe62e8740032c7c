# SPDX-License-Identifier: Apache-2.0
"""Matches encoded items against a grammar in the part of CDDL (RFC 8610) that docs/protocol.md
uses.

Known: rules, choices, numbers, ranges of numbers, names, parentheses, tags; arrays, whose last
element may have a "*"; maps, whose members may have "?" or "*". Anything else is a syntax error.
"""

import re

from cbor_walk import ARRAY, BYTES, MAP, NEGATIVE, SIMPLE, TAG, TEXT, UNSIGNED

_TOKEN = re.compile(
    r'\s*(?:;[^\n]*\s*)*(=>|\.\.|#6\.\d+|"[^"]*"|-?\d+|[A-Za-z][\w-]*|[=/,:?*()\[\]{}])')
_PRELUDE = {
    "tstr": lambda node: node.major == TEXT,
    "bstr": lambda node: node.major == BYTES,
    "uint": lambda node: node.major == UNSIGNED,
    "bool": lambda node: node.major == SIMPLE and isinstance(node.value, bool),
    "null": lambda node: node.major == SIMPLE and node.value is None,
    "float": lambda node: node.major == SIMPLE and isinstance(node.value, float),
}


class Grammar:
    def __init__(self, text):
        text = re.sub(r";[^\n]*", "", text)
        self._tokens = _TOKEN.findall(text)
        if "".join(self._tokens) != re.sub(r"\s", "", text):
            raise SyntaxError("the grammar uses what this reader does not know")
        self._at = 0
        self._rules = {}
        while self._at < len(self._tokens):
            name = self._take()
            self._expect("=")
            if name in self._rules:
                raise SyntaxError(f"rule {name} stands twice")
            self._rules[name] = self._type()
        for kind, name in self._names(list(self._rules.values())):
            if name not in self._rules and name not in _PRELUDE:
                raise SyntaxError(f"rule {name} is not defined")

    def matches(self, node, rule):
        return self._match(("name", rule), node)

    def rules(self):
        return set(self._rules)

    # The parser: one function per construct.

    def _peek(self, ahead=0):
        at = self._at + ahead
        return self._tokens[at] if at < len(self._tokens) else None

    def _take(self):
        self._at += 1
        return self._tokens[self._at - 1]

    def _expect(self, token):
        if self._take() != token:
            raise SyntaxError(f"expected {token} before {self._tokens[self._at - 1:self._at + 5]}")

    def _type(self):
        choices = [self._single()]
        while self._peek() == "/":
            self._take()
            choices.append(self._single())
        return ("choice", choices)

    def _single(self):
        token = self._take()
        if token == "(":
            inner = self._type()
            self._expect(")")
            return inner
        if token in "[{":
            return ("array" if token == "[" else "map", self._entries("]" if token == "[" else "}"))
        if token.startswith("#6."):
            self._expect("(")
            inner = self._type()
            self._expect(")")
            return ("tag", int(token[3:]), inner)
        if token[0] == '"':
            return ("text", token[1:-1])
        if re.fullmatch(r"-?\d+", token):
            last = token
            if self._peek() == "..":
                self._take()
                last = self._take()
            return ("range", int(token), int(last))
        return ("name", token)

    def _entries(self, end):
        entries = []
        while self._peek() != end:
            occurrence = self._take() if self._peek() in ("?", "*") else ""
            key = None
            if self._peek(1) == ":":
                key = ("text", self._take())
                self._take()
            elif self._peek(1) == "=>":
                key = self._single()
                self._take()
            if end == "}" and key is None or end == "]" and occurrence == "?":
                raise SyntaxError("a member without a key, or an element that may be missing")
            entries.append((occurrence, key, self._type()))
            if self._peek() == ",":
                self._take()
        self._take()
        return entries

    def _names(self, part):
        if isinstance(part, tuple) and len(part) == 2 and part[0] == "name":
            yield part
        elif isinstance(part, (tuple, list)):
            for each in part:
                yield from self._names(each)

    # The matcher.

    def _match(self, pattern, node):
        kind = pattern[0]
        if kind == "choice":
            return any(self._match(each, node) for each in pattern[1])
        if kind == "name":
            rule = self._rules.get(pattern[1])
            return self._match(rule, node) if rule else _PRELUDE[pattern[1]](node)
        if kind == "range":
            return node.major in (UNSIGNED, NEGATIVE) and pattern[1] <= node.value <= pattern[2]
        if kind == "text":
            return node.major == TEXT and node.value == pattern[1]
        if kind == "tag":
            return node.major == TAG and node.value == pattern[1] and self._match(
                pattern[2], node.children[0])
        if kind == "array":
            return node.major == ARRAY and self._match_sequence(pattern[1], node.children)
        return node.major == MAP and self._match_members(pattern[1], node.children)

    def _match_sequence(self, entries, children):
        if not entries:
            return not children
        occurrence, _, wanted = entries[0]
        if occurrence == "*":
            return all(self._match(wanted, child) for child in children) and len(entries) == 1
        return bool(children) and self._match(wanted,
                                              children[0]) and self._match_sequence(
                                                  entries[1:], children[1:])

    def _match_members(self, entries, children):
        """Each member belongs to the first entry whose key fits it."""
        found = []
        for key, value in zip(children[::2], children[1::2]):
            fitting = [entry for entry in entries if self._match(entry[1], key)]
            if not fitting or not self._match(fitting[0][2], value):
                return False
            found.append(fitting[0])
        return all(entry[0] or entry in found for entry in entries)
