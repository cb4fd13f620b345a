"""Full restores of a generated panel database by several programs, measured side by side."""

import filecmp
import subprocess

import report
import storage
from measuring import FOLDER, PROJECT, Failure, last_words, measure, median, rotated

_COMMANDS = {
    "product": [f"{PROJECT}/build/bench/driver/mail_rebuild", "--all"],
    "floor": [f"{PROJECT}/build/bench/bench/floor", "--all"],
    "python": ["/usr/bin/python3", f"{PROJECT}/bench/peers/restore.py"],
    "shell": ["bash", f"{PROJECT}/bench/peers/restore.sh"],
}
_PROGRESS = "DEBUG setMailboxQuota("


def commands(arguments):
    """The command of each program that is to be measured, by its name."""
    chosen = {name: _COMMANDS[name] for name in arguments.program}
    if arguments.against:
        chosen["other"] = [arguments.against, "--all"]
    return chosen


def generate(domains, names, seed):
    """Loads a panel database of that size."""
    script = f"{FOLDER}/panel.sql"
    with open(script, "wb") as file:
        subprocess.run([f"{PROJECT}/bench/generate_panel", str(domains), str(names), "--seed",
                        str(seed)], stdout=file, check=True)
    storage.load_panel(script)


def _complaints():
    with open(f"{FOLDER}/err", errors="replace") as file:
        return any(not line.startswith(_PROGRESS) for line in file)


class _Judge:
    """Holds each program to the state that the first one has made."""

    def __init__(self):
        self._model = None

    def examine(self, name):
        """Raises Failure when what is restored now is not what the first program restored."""
        path = f"{FOLDER}/state.{name}"
        storage.write_state(path)
        if self._model is None:
            self._model = path
        elif not filecmp.cmp(path, self._model, shallow=False):
            shown = subprocess.run(["diff", self._model, path], capture_output=True, text=True)
            raise Failure(f"{name} restored something else:\n{shown.stdout[:2000]}")


def run(name, command):
    """Measures one restore; one that complains of anything is none."""
    sample = measure(name, command)
    if _complaints():
        raise Failure(f"{name} complained:\n{last_words()}")
    return sample


def _measure_size(arguments, kinds, names):
    """{(file system, which run): {program: samples}}"""
    chosen = commands(arguments)
    runs = ["fresh restore", "second run"] if arguments.again else ["fresh restore"]
    results = {(kind, which): {name: [] for name in chosen} for kind in kinds for which in runs}
    judge = _Judge()
    for number in range(arguments.rounds):
        for kind in kinds:
            for name in rotated(list(chosen), number):
                with storage.Storage(kind, names):
                    for which in runs:
                        results[kind, which][name].append(run(name, chosen[name]))
                        if number == 0:
                            judge.examine(name)
    return results


def restore(arguments):
    """Measures and prints a table for each size, file system, and first or second run."""
    kinds = storage.usable(arguments.fs)
    costs = {}
    for domains, names in arguments.sizes:
        generate(domains, names, arguments.seed)
        for (kind, which), results in _measure_size(arguments, kinds, names).items():
            report.table(f"{report.size(names, domains)}, {kind}, {which}, "
                         f"rounds: {arguments.rounds}, equal results", results, names, "names")
            for name, samples in results.items():
                costs.setdefault((kind, which), {}).setdefault(name, []).append(
                    (report.size(names, domains), median(samples, "wall") / names))
    if len(arguments.sizes) > 1:
        for (kind, which), programs in costs.items():
            report.growth(f"Wall time per mail name, {kind}, {which}; times the first", programs)
