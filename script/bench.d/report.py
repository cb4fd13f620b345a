"""Tables of medians, and how they compare."""

import operator
import statistics
import sys

from measuring import median


def _spread(samples):
    """How far apart the slowest and the fastest round were, in percent of the median."""
    walls = [sample.wall for sample in samples]
    return 100 * (max(walls) - min(walls)) / median(samples, "wall")


def _ratio(samples, base, what):
    """The median of the rounds' own ratios: what slows the machine down for a while slows both."""
    pairs = [(getattr(sample, what), getattr(reference, what))
             for sample, reference in zip(samples, base, strict=True)]
    # The kernel samples the division into user and system time; a short run may have none of one.
    if any(reference == 0 for _, reference in pairs):
        return f"{'-':>7}"
    return f"{statistics.median(cost / reference for cost, reference in pairs):7.2f}"


def size(names, domains):
    """The size of a panel database in words."""
    return f"{names:,} mail names in {domains:,} domain{'' if domains == 1 else 's'}"


def progress(number, rounds):
    """Says on standard error how far a measurement has come."""
    print(f"Round {number} of {rounds}", file=sys.stderr, flush=True)


def table(title, results, units, noun):
    """Prints the results {name: samples} of one experiment in which each run did `units` times a
    thing that `noun` names. Ratios are to `floor`, or else to the first name, round by round."""
    base_name = "floor" if "floor" in results else next(iter(results))
    compared = ("wall", "cpu", "user")
    print(f"\n{title}")
    print(f"{'':12}   wall s  spread   user s    sys s  peak MiB  {noun + '/s':>12}    "
          + "".join(f"{what:>7}" for what in compared) + f"  times {base_name}")
    for name, samples in results.items():
        wall, user, system, peak = (median(samples, what) for what in ("wall", "user", "system", "peak"))
        print(f"{name:12}{wall:9.3f}{_spread(samples):7.0f}%{user:9.3f}{system:9.3f}{peak:10.1f}"
              f"{units / wall:14,.0f}    "
              + "".join(_ratio(samples, results[base_name], what) for what in compared), flush=True)


def growth(title, costs):
    """Prints the wall time per mail name of {program: [(size, seconds of each round)]} and its ratio
    to that of the first size, round by round."""
    print(f"\n{title}")
    for name, sizes in costs.items():
        for words, seconds in sizes:
            ratio = statistics.median(map(operator.truediv, seconds, sizes[0][1]))
            print(f"{name:12}{words:>44}{1e6 * statistics.median(seconds):10.0f} us  {ratio:6.2f}")


def shares(title, spent, total, names):
    """Prints the seconds that each step has spent, of a total, per mail name and as shares."""
    print(f"\n{title}")
    spent = {**spent, "all else": total - sum(spent.values())}
    for step, seconds in spent.items():
        print(f"{step:28}{1e6 * seconds / names:10.1f} us per name{100 * seconds / total:7.1f} %")
