# SPDX-License-Identifier: Apache-2.0
"""docs/protocol.md for the end-to-end tests, taken apart; and what runs its programs."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../wire"))

from protocol_page import Page
from protocol_programs import helpers_of

__all__ = ["PAGE", "helpers_of"]

PAGE = Page()
