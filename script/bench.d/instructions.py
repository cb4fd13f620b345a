"""User instructions of full restores, as callgrind counts them: exact where times are noisy."""

import re

import report
import restoring
import storage
from measuring import Failure, last_words, measure

_CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]


def _count(name, command):
    measure(name, _CALLGRIND + command)
    collected = re.search(r"Collected : (\d+)", last_words())
    if collected is None:
        raise Failure(f"callgrind did not count {name}:\n{last_words()}")
    return int(collected[1])


def instructions(arguments):
    """Prints the instructions of each program, of the first and of a second run."""
    (domains, names), = arguments.sizes
    restoring.generate(domains, names, arguments.seed)
    counts = {}
    for name, command in restoring.commands(arguments).items():
        with storage.Storage("tmpfs", names):
            counts[name] = [_count(name, command) for _ in range(2 if arguments.again else 1)]
    base = counts.get("floor") or next(iter(counts.values()))
    print(f"\nUser instructions, {report.size(names, domains)}")
    for name, runs in counts.items():
        for which, count, reference in zip(("fresh restore", "second run"), runs, base):
            print(f"{name:10}{which:16}{count:16,}{count / names:12,.0f} per name"
                  f"{count / reference:8.2f}")
