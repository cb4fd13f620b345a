"""What happens to the mail storage between two runs."""

import glob
import os

from storage import MAILNAMES

_ONE_IN = 100
_MESSAGE = b"Subject: bench\n\nA message.\n"


def _homes():
    return sorted(glob.glob(f"{MAILNAMES}/*/*/"))


def nothing():
    """A run over what the one before has left."""


def damage():
    """Every hundredth mailbox loses its delivery file and its size file, and a folder its mode."""
    for home in _homes()[::_ONE_IN]:
        os.remove(f"{home}.qmail")
        os.remove(f"{home}Maildir/maildirsize")
        os.chmod(f"{home}Maildir/cur", 0o755)


def deliver():
    """Every mailbox gets a message, and its size file the line that a delivery agent adds for it."""
    for home in _homes():
        owner = os.stat(home)
        message = f"{home}Maildir/new/1.M1P1.bench,S={len(_MESSAGE)}"
        with open(message, "wb") as file:
            file.write(_MESSAGE)
        os.chown(message, owner.st_uid, owner.st_gid)
        with open(f"{home}Maildir/maildirsize", "ab") as file:
            file.write(b"%12d%12d\n" % (len(_MESSAGE), 1))
