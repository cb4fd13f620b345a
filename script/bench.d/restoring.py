"""Full restores of a generated panel database by several programs, measured side by side."""

import filecmp
import subprocess

import memory
import report
import storage
import wear
from measuring import FOLDER, PROJECT, Failure, last_words, measure, rotated

_COMMANDS = {
    "product": [f"{PROJECT}/build/bench/driver/mail_rebuild", "--all"],
    "floor": [f"{PROJECT}/build/bench/bench/floor", "--all"],
    "python": ["/usr/bin/python3", f"{PROJECT}/bench/peers/restore.py"],
    "shell": ["bash", f"{PROJECT}/bench/peers/restore.sh"],
}
_PROGRESS = "DEBUG setMailboxQuota("

# What is measured over one tree, in this order, and what has happened before each.
_FRESH = {"fresh restore": wear.nothing}
_AFTER_DELIVERIES = "a delivery to each mailbox"
_AGAIN = {"second run": wear.nothing, "1 mailbox in 100 damaged": wear.damage,
          _AFTER_DELIVERIES: wear.deliver}


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
    """Holds each program to the state that the first one has made. Deliveries are part of it."""

    def __init__(self):
        self._models = {}

    def examine(self, name, which):
        """Raises Failure when what is restored now is not what the first program restored."""
        mail = "delivered" if which == _AFTER_DELIVERIES else "none"
        path = f"{FOLDER}/state.{name}.{mail}"
        storage.write_state(path)
        model = self._models.setdefault(mail, path)
        if model != path and not filecmp.cmp(path, model, shallow=False):
            shown = subprocess.run(["diff", model, path], capture_output=True, text=True)
            raise Failure(f"{name} restored something else:\n{shown.stdout[:2000]}")


def run(name, command):
    """Measures one restore; one that complains of anything is none."""
    sample = measure(name, command)
    if _complaints():
        raise Failure(f"{name} complained:\n{last_words()}")
    return sample


def _measure_round(number, chosen, runs, storages, judge):
    """Yields ((file system, which run), program, sample) for the panel database at hand."""
    for kind, fresh_storage in storages.items():
        for name in rotated(list(chosen), number):
            with fresh_storage:
                for which, wear_out in runs.items():
                    wear_out()
                    yield (kind, which), name, run(name, chosen[name])
                    if number == 0:
                        judge.examine(name, which)


def _measure(arguments, kinds):
    """{size: {(file system, which run): {program: samples}}}, where a size is (domains, names)."""
    chosen = commands(arguments)
    runs = _FRESH | _AGAIN if arguments.again else _FRESH
    results = {size: {(kind, which): {name: [] for name in chosen} for kind in kinds for which in runs}
               for size in arguments.sizes}
    judges = {size: _Judge() for size in arguments.sizes}
    # One geometry for all sizes, as on one server: a larger ext4 spreads directories out more.
    room = max(names for _, names in arguments.sizes)
    storages = {kind: storage.Storage(kind, room) for kind in kinds}
    with memory.warm(*storage.needed_memory(kinds, room)):
        for number in range(arguments.rounds):
            for size in arguments.sizes:
                if number == 0 or len(arguments.sizes) > 1:
                    generate(*size, arguments.seed)
                for where, name, sample in _measure_round(number, chosen, runs, storages, judges[size]):
                    results[size][where][name].append(sample)
            report.progress(number + 1, arguments.rounds)
    return results


def _growth(results):
    """{(file system, which run): {program: [(size in words, samples of seconds per name)]}}"""
    costs = {}
    for (domains, names), experiments in results.items():
        for where, programs in experiments.items():
            for name, samples in programs.items():
                costs.setdefault(where, {}).setdefault(name, []).append(
                    (report.size(names, domains), [sample.wall / names for sample in samples]))
    return costs


def restore(arguments):
    """Measures and prints a table for each size, file system and run."""
    results = _measure(arguments, storage.usable(arguments.fs))
    for (domains, names), experiments in results.items():
        for (kind, which), programs in experiments.items():
            report.table(f"{report.size(names, domains)}, {kind}, {which}, "
                         f"rounds: {arguments.rounds}, equal results", programs, names, "names")
    if len(results) > 1:
        for (kind, which), programs in _growth(results).items():
            report.growth(f"Wall time per mail name, {kind}, {which}; times the first", programs)
