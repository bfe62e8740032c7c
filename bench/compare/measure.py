# SPDX-License-Identifier: Apache-2.0
"""Runs a system and its load once per measurement, and collects the figures."""

import json
import os
import shutil
import subprocess
import sys
import tempfile

import systems

PATIENCE_SECONDS = 180


class Measurements:
    """Figures by case, system (or count) and round: `of(case, key, figure)` lists the rounds, None
    where one failed.
    """

    def __init__(self, build, seconds_scale):
        self.build = build
        self.seconds_scale = seconds_scale
        self.rounds = {}
        self.failures = {}

    def run(self, case, key, system_name, options, one_processor=False):
        """Makes one run, on a fresh system."""
        result = None
        folder = tempfile.mkdtemp(prefix="keel-bench-")
        try:
            with systems.ALL[system_name](self.build, folder,
                                          one_processor=one_processor) as system:
                result = self._load(case, system, options)
        except (RuntimeError, OSError, subprocess.SubprocessError) as error:
            self.failures[f"{case.name} {key}"] = str(error)
            print(f"  {system_name}: {error}", file=sys.stderr)
        finally:
            shutil.rmtree(folder, ignore_errors=True)
        self.rounds.setdefault(case.name, {}).setdefault(str(key), []).append(result)
        return result

    def _load(self, case, system, options):
        command = system.prefix + [
            f"{self.build}/bench/load/keel-load",
            system.name,
            system.address,
            str(system.process.pid),
            case.measurement,
            *system.load_options(),
            *options,
        ]
        if case.measurement == "fan-out":
            command += ["--seconds", str(case.seconds * self.seconds_scale)]
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_SECONDS,
                              check=False)
        if done.returncode != 0:
            raise RuntimeError(done.stderr.strip() or f"the load ended with {done.returncode}")
        return json.loads(done.stdout)

    @staticmethod
    def applies(figure, key):
        """Returns false for acknowledgement times of systems that acknowledge nothing."""
        return figure.key != "answer_p50_us" or systems.ALL[key].answers

    def of(self, case_name, key, figure):
        if not self.applies(figure, key):
            return []
        rounds = self.rounds.get(case_name, {}).get(str(key), [])
        return [None if result is None else result[figure.key] * figure.scale for result in rounds]


def load_average():
    return os.getloadavg()[0]
