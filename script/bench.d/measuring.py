"""Runs commands in interleaved rounds and gathers what each cost."""

import os
import statistics
import subprocess
import time
from dataclasses import dataclass

PROJECT = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
FOLDER = os.environ["CORVO_BENCH_FOLDER"]
_MEASURE = f"{PROJECT}/build/bench/bench/measure"
_SETTLE = 0.3  # seconds in which the kernel ends what a preparation has begun


@dataclass(frozen=True)
class Sample:
    """What one run cost; times in seconds, the peak of resident memory in MiB."""

    wall: float
    user: float
    system: float
    peak: float

    @property
    def cpu(self):
        """User and system time."""
        return self.user + self.system


class Failure(Exception):
    """A measured program did not do its work, or the machine cannot measure it."""


def output(*command):
    """What a command that is not measured says; raises Failure when it fails."""
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise Failure(f"{' '.join(command)}: {done.stderr.strip()}")
    return done.stdout


def measure(name, command, stdin=None):
    """Runs a command that prepared disks do not disturb; its streams are in FOLDER/out and err."""
    os.sync()
    time.sleep(_SETTLE)
    with open(f"{FOLDER}/out", "wb") as out, open(f"{FOLDER}/err", "wb") as err:
        status = subprocess.run([_MEASURE, f"{FOLDER}/cost", *command],
                                stdin=stdin or subprocess.DEVNULL, stdout=out, stderr=err).returncode
    if status != 0:
        raise Failure(f"{name} ended with status {status}:\n{last_words()}")
    with open(f"{FOLDER}/cost") as file:
        wall, user, system, peak = file.read().split()
    return Sample(float(wall), float(user), float(system), float(peak) / 1024)


def last_words():
    """The end of what the last measured command said on standard error."""
    with open(f"{FOLDER}/err", errors="replace") as file:
        return "".join(file.readlines()[-10:])


def rotated(items, by):
    """The items, begun with another one each round, so that none always follows the same."""
    by %= len(items)
    return items[by:] + items[:by]


def median(samples, what):
    """The median of one figure of samples."""
    return statistics.median(getattr(sample, what) for sample in samples)
