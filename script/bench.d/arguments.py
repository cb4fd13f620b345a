"""The command line of script/bench; run as a program, it only says whether a command line is right."""

import argparse
import os

PROGRAMS = ["product", "floor", "python", "shell"]
FILE_SYSTEMS = ["ext4", "tmpfs"]
MESSAGES = 600_000

# (domains, mail names): growth in both, and one domain that has them all.
SCALE = [(50, 1_000), (500, 10_000), (5_000, 100_000), (1, 100_000)]


def _positive(text):
    number = int(text)
    if number < 1:
        raise argparse.ArgumentTypeError(f"{text} is not positive")
    return number


def _binary(path):
    absolute = os.path.join(os.environ.get("CORVO_BENCH_CALLER", "."), path)
    if not os.access(absolute, os.X_OK):
        raise argparse.ArgumentTypeError(f"{path} cannot be run")
    return os.path.realpath(absolute)


def _parser():
    parser = argparse.ArgumentParser(
        prog="script/bench",
        epilog="script/bench --inner [OPTION ...] runs the Google Benchmark cases with their options.")
    parser.add_argument("size", nargs="*", type=_positive, metavar="DOMAINS NAMES",
                        help="size of the generated panel database: domains, and mail names in all; "
                             "restores take several sizes, which have their turns in each round")
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--scale", action="store_true",
                      help="measure at 1,000, 10,000 and 100,000 mail names, and at 100,000 in one "
                           "domain; by default product and floor in one round")
    mode.add_argument("--audit", action="store_true",
                      help="count the calls of mail_audit diff, at the sizes of --scale unless others "
                           "are given (needs perf)")
    mode.add_argument("--instructions", action="store_true",
                      help="count user instructions with callgrind; by default product and floor")
    mode.add_argument("--steps", action="store_true",
                      help="show where the time of one restore by the product goes (needs perf)")
    mode.add_argument("--count", nargs="?", type=_positive, const=MESSAGES, metavar="MESSAGES",
                      help=f"count a mailbox of that many messages (default {MESSAGES:,})")
    parser.add_argument("--rounds", type=_positive, help="default 5")
    parser.add_argument("--against", type=_binary, metavar="BINARY",
                        help="a mail_rebuild of another build, measured as `other`")
    parser.add_argument("--program", nargs="+", choices=PROGRAMS, help="default: all of them")
    parser.add_argument("--fs", nargs="+", choices=FILE_SYSTEMS, default=FILE_SYSTEMS,
                        help="what to restore into; default: both")
    parser.add_argument("--again", action="store_true",
                        help="also measure runs over the tree that the first has made: as it is, with one "
                             "mailbox in 100 damaged, and after a delivery to each")
    parser.add_argument("--seed", type=_positive, default=1, help="of the panel database; default 1")
    return parser


def parse(words=None):
    """The arguments, complete with the defaults of their mode; ends the program when they are wrong."""
    parser = _parser()
    arguments = parser.parse_args(words)
    sizes = list(zip(arguments.size[::2], arguments.size[1::2]))
    sized = not arguments.scale and arguments.count is None
    single = arguments.instructions or arguments.steps
    if not sized and arguments.size:
        parser.error("this mode has its own sizes")
    if arguments.audit and not sizes:
        sizes = SCALE
    if sized and (len(arguments.size) % 2 or not sizes or (single and len(sizes) > 1)):
        parser.error("DOMAINS and NAMES are wanted" + (", once" if single else ""))
    arguments.sizes = SCALE if arguments.scale else sizes
    beside_floor = arguments.scale or arguments.instructions
    arguments.program = arguments.program or (PROGRAMS[:2] if beside_floor else PROGRAMS)
    arguments.rounds = arguments.rounds or (1 if beside_floor else 5)
    return arguments


if __name__ == "__main__":
    parse()
