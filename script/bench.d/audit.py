"""What mail_audit costs on a server in order, as the mail names grow in number: system calls, which are
exact where times are noisy, and the peak of resident memory."""

import re
import shutil

import report
import restoring
import storage
from measuring import FOLDER, PROJECT, Failure, measure

_DIFF = [f"{PROJECT}/build/bench/audit/mail_audit", "diff"]
_RESTORE = [f"{PROJECT}/build/bench/driver/mail_rebuild", "--all"]


def _calls(name, command):
    """How many system calls a command makes."""
    summary = f"{FOLDER}/calls"
    measure(name, ["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "-o", summary, *command])
    with open(summary) as file:
        total = re.search(r"^(\d+),", file.read(), re.MULTILINE)
    if total is None:
        raise Failure(f"perf did not count the system calls of {name}")
    return int(total[1])


def _row(domains, names, seed):
    """(calls of diff, calls of a second run, what a diff costs uncounted)."""
    restoring.generate(domains, names, seed)
    with storage.Storage("tmpfs", names):
        measure("mail_rebuild", _RESTORE)
        return _calls("mail_audit", _DIFF), _calls("mail_rebuild", _RESTORE), measure("mail_audit", _DIFF)


def audit(arguments):
    """Prints a line for each size."""
    if shutil.which("perf") is None:
        raise Failure("the system calls are counted by perf (package linux-perf)")
    print(f"{'':46}{'calls a name':>14}{'second run':>12}{'ratio':>8}{'wall s':>9}{'peak MiB':>10}")
    for domains, names in arguments.sizes:
        diff, run, sample = _row(domains, names, arguments.seed)
        print(f"{report.size(names, domains):46}{diff / names:14.1f}{run / names:12.1f}{diff / run:8.2f}"
              f"{sample.wall:9.2f}{sample.peak:10.1f}", flush=True)
