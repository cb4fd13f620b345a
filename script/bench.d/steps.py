"""Where the time of a restore goes: the clock at the way in and out of a few functions, which the
kernel reads for perf without slowing anything else down."""

import re
import shutil
import subprocess

import report
import restoring
import storage
from measuring import FOLDER, PROJECT, Failure, measure, output

# A part of the mangled names of functions that do not call each other, and what they do.
_STEPS = {
    "createDomainRoot": "domain roots",
    "createMailnameHome": "homes and their skeletons",
    "restoreDelivery": ".qmail",
    "placeRedirect": ".qmail: forwards",
    "dropRedirects": ".qmail: forwards dropped",
    "store_mbox_quota": "maildirsize",
    "userdbStoreMboxQuota": "quota rows",
    "Connection4open": "connections: opening",
    "ConnectionD1": "connections: closing",
    "restore_check_quota_handler": "handlers",
    "StorageFlush5flush": "the last flush",
}
_GROUP = "corvo_bench"
_BINARY = f"{PROJECT}/build/steps/driver/mail_rebuild"


def _forget_probes():
    subprocess.run(["perf", "probe", "--del", f"{_GROUP}:*"], capture_output=True)


def _set_probes(binary):
    symbols = re.findall(r" [Tt] (\S+)", output("nm", binary))
    probes = []
    for number, part in enumerate(_STEPS):
        symbol = next((name for name in symbols if part in name and ".cold" not in name), None)
        if symbol is None:
            raise Failure(f"{binary} has no function {part}")
        for suffix in ("", "%return"):
            probes += ["--add", f"{_GROUP}:step{number}={symbol}{suffix}"]
    output("perf", "probe", "--no-demangle", "-x", binary, *probes)


def _seconds_of_steps():
    """{step: seconds}, and the seconds from the first event to the last."""
    events = re.findall(rf"([\d.]+): +{_GROUP}:step(\d+)(__return)?:",
                        output("perf", "script", "-i", f"{FOLDER}/perf.data", "-F", "time,event", "--ns"))
    spent = dict.fromkeys(_STEPS.values(), 0.0)
    names = list(_STEPS.values())
    entered = 0.0
    for time, number, left in events:
        if left:
            spent[names[int(number)]] += float(time) - entered
        else:
            entered = float(time)
    return spent, float(events[-1][0]) - float(events[0][0])


def steps(arguments):
    """Prints the share that each step of the product has in the time of a fresh restore."""
    if shutil.which("perf") is None:
        raise Failure("the steps are timed by perf (package linux-perf)")
    (domains, names), = arguments.sizes
    restoring.generate(domains, names, arguments.seed)
    record = ["perf", "record", "-q", "-o", f"{FOLDER}/perf.data", "-e", f"{_GROUP}:*",
              _BINARY, "--all"]
    try:
        _set_probes(_BINARY)
        for kind in storage.usable(arguments.fs):
            with storage.Storage(kind, names):
                measure("product", record)
                report.shares(f"{report.size(names, domains)}, {kind}, fresh restore",
                              *_seconds_of_steps(), names)
    finally:
        _forget_probes()
