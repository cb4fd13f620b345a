"""Counting one large mailbox: the program beside a plain loop, Dovecot and deliverquota."""

import os
import re

import report
import restoring
import storage
from measuring import FOLDER, PROJECT, Failure, measure, rotated

_HOME = f"{storage.MAILNAMES}/example.com/info"
_MAILDIR = f"{_HOME}/Maildir"
_QUOTA = 1 << 40
_MESSAGE_SIZE = 1200
_PANEL = f"""
INSERT INTO domains (id, name) VALUES (1, 'example.com');
INSERT INTO DomainServices (dom_id, type, status, parameters_id) VALUES (1, 'mail', 0, 101);
INSERT INTO Parameters (id, parameter, value) VALUES (101, 'nonexist_mail', 'reject');
INSERT INTO mail (dom_id, mail_name, postbox, mbox_quota) VALUES (1, 'info', 'true', {_QUOTA});
"""

# Without -u doveadm asks no user database, so that no server has to run.
_DOVECOT_CONF = """
log_path = /dev/stderr
stats_writer_socket_path =
ssl = no
first_valid_uid = 1
mail_home = %s
mail_location = maildir:~/Maildir
mail_plugins = quota
plugin {
  quota = maildir:User quota
  quota_rule = *:bytes=%d
}
""" % (_HOME, _QUOTA)
_AS_OWNER = ["setpriv", "--reuid=popuser", "--regid=popuser", "--clear-groups"]
_COMMANDS = {
    "product": [f"{PROJECT}/build/bench/driver/mail_rebuild", "--all"],
    "loop": [f"{PROJECT}/build/bench/bench/count_loop", _MAILDIR],
    "doveadm": _AS_OWNER + ["env", "USER=info@example.com", f"HOME={_HOME}", "doveadm", "-c",
                            "/etc/dovecot/count.conf", "quota", "recalc"],
    "deliverquota": _AS_OWNER + ["/usr/sbin/deliverquota.maildrop", _MAILDIR, f"{_QUOTA}S"],
}


def _prepare():
    script = f"{FOLDER}/panel.sql"
    with open(script, "w") as file:
        file.write(_PANEL)
    storage.load_panel(script)
    with open("/etc/dovecot/count.conf", "w") as file:
        file.write(_DOVECOT_CONF)
    with open(f"{FOLDER}/message", "w") as file:
        file.write("Subject: counted\n\nOne more.\n")
    restoring.run("product", _COMMANDS["product"])  # makes the mailbox


def _fill(messages, name):
    """Puts messages of which each holds as much as its name might say into "cur", read and sorted."""
    directory = os.open(f"{_MAILDIR}/cur", os.O_DIRECTORY)
    for number in range(messages):
        path = name.format(number=1_700_000_000 + number, size=_MESSAGE_SIZE)
        message = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600, dir_fd=directory)
        os.ftruncate(message, _MESSAGE_SIZE)
        os.close(message)
    os.close(directory)


def _forget_quota_file():
    """Deliverquota counts only when there is no file that it can believe."""
    if os.path.exists(f"{_MAILDIR}/maildirsize"):
        os.remove(f"{_MAILDIR}/maildirsize")


def _counted(name):
    """(bytes, messages) that a program has found."""
    with open(f"{FOLDER}/out" if name == "loop" else f"{_MAILDIR}/maildirsize") as file:
        lines = [line for line in file if not re.match(r"\d+S", line)]
    return tuple(sum(numbers) for numbers in zip(*(map(int, line.split()) for line in lines)))


def _run(name, messages):
    _forget_quota_file()
    with open(f"{FOLDER}/message", "rb") as message:
        sample = measure(name, _COMMANDS[name], stdin=message)
    found = _counted(name)
    delivered = os.listdir(f"{_MAILDIR}/new")
    size = 0
    for entry in delivered:
        size += os.path.getsize(f"{_MAILDIR}/new/{entry}")
        os.remove(f"{_MAILDIR}/new/{entry}")
    if found != (messages * _MESSAGE_SIZE + size, messages + len(delivered)):
        raise Failure(f"{name} counted {found[1]} messages of {found[0]} bytes")
    return sample


def _available():
    """The programs that are installed; says in a line which are not."""
    missing = [name for name, command in _COMMANDS.items() if name == "deliverquota"
               and not os.path.exists(command[-3])]
    for name in missing:
        print(f"{name} is not installed")
    return [name for name in _COMMANDS if name not in missing]


def count(arguments):
    """Measures and prints a table for messages with and without their sizes in their names."""
    for title, name in (("with sizes in their names", "{number}.M1P1.mx,S={size}:2,S"),
                        ("without sizes in their names", "{number}.M1P1.mx:2,S")):
        with storage.Storage("tmpfs", 1):
            _prepare()
            _fill(arguments.count, name)
            results = {name: [] for name in _available()}
            for count in range(arguments.rounds):
                for name in rotated(list(results), count):
                    results[name].append(_run(name, arguments.count))
        report.table(f"{arguments.count:,} messages {title}, rounds: {arguments.rounds}", results,
                     arguments.count, "messages")
