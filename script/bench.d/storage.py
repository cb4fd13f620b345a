"""Fresh storage for mail and databases, and what a restore has left in it."""

import os
import sqlite3

from measuring import FOLDER, PROJECT, Failure, output

SOCKET = os.environ["CORVO_BENCH_SOCKET"]
MAILNAMES = "/var/qmail/mailnames"
_MAIL_SERVER = f"{PROJECT}/tests/support/mail_server"
_IMAGE = f"{FOLDER}/image"
_MOUNTED = "/run/measured"
_PLACES = {f"{_MOUNTED}/qmail": "/var/qmail", f"{_MOUNTED}/corvo": "/var/lib/corvo"}
_ROWS = {
    "/var/lib/corvo/mail/userdb/userdb.db": "SELECT * FROM mailbox_quota ORDER BY 1, 2",
    "/var/lib/corvo/mail/handlers/handlers.db": "SELECT * FROM handlers ORDER BY 1, 2, 5, 6",
}

_INODES_PER_NAME = 24  # 22 directories and two files, of a block of 4 KiB each on a disk
_BYTES_PER_NAME = 160 << 10
_SMALLEST_IMAGE = 256 << 20

# Of contents. An image's are there twice, as the mounted files' and as the image's.
_MEMORY_PER_NAME = {"tmpfs": 16 << 10, "ext4": 256 << 10}
_SMALLEST_MEMORY = 512 << 20


class Storage:
    """A new file system of a kind, with room for that many mail names, that holds the mail tree and
    both SQLite databases of a server on which no mail is yet."""

    def __init__(self, kind, names):
        self._kind = kind
        self._names = names

    def __enter__(self):
        os.makedirs(_MOUNTED, exist_ok=True)
        if self._kind == "ext4":
            self._mount_image()
        else:
            output("mount", "-t", "tmpfs", "-o", "nr_inodes=0,size=90%", "tmpfs", _MOUNTED)
        for source, place in _PLACES.items():
            os.makedirs(source)
            output("mount", "--bind", source, place)
        output(_MAIL_SERVER, "install", SOCKET)
        return self

    def __exit__(self, *_):
        for place in (*_PLACES.values(), _MOUNTED):
            output("umount", place)
        if self._kind == "ext4":
            os.remove(_IMAGE)

    def _mount_image(self):
        with open(_IMAGE, "wb") as image:
            image.truncate(_SMALLEST_IMAGE + self._names * _BYTES_PER_NAME)
        # No tables are left for the kernel to initialise while a program is measured.
        output("mkfs.ext4", "-q", "-F", "-i", "4096", "-E",
               "lazy_itable_init=0,lazy_journal_init=0", _IMAGE)
        output("mount", "-o", "loop", _IMAGE, _MOUNTED)


def needed_memory(kinds, names):
    """What a restore of that many mail names makes the kernel use: (bytes of contents, inodes)."""
    contents = names * max(_MEMORY_PER_NAME[kind] for kind in kinds)
    return _SMALLEST_MEMORY + contents, names * _INODES_PER_NAME


def usable(kinds):
    """The kinds of file system that this machine can mount; says in a line which it cannot."""
    if "ext4" not in kinds:
        return kinds
    try:
        with Storage("ext4", 1):
            return kinds
    except Failure as failure:
        print(f"No image can be mounted here, so all goes into tmpfs ({failure})")
        return ["tmpfs"]


def load_panel(script):
    """Makes the panel database anew from a file of statements."""
    output(_MAIL_SERVER, "load", SOCKET, script)


def _tree(folder):
    for entry in sorted(os.scandir(folder), key=lambda entry: entry.name):
        status = entry.stat(follow_symlinks=False)
        yield f"{status.st_mode:o} {status.st_uid}:{status.st_gid} {entry.path}\n"
        if entry.is_dir(follow_symlinks=False):
            yield from _tree(entry.path)
        else:
            with open(entry.path, errors="replace") as file:
                yield from (f"  {line.rstrip()}\n" for line in file)


def write_state(path):
    """Writes everything that a restore is responsible for, as text: equal texts are equal states."""
    with open(path, "w") as file:
        file.writelines(_tree(MAILNAMES))
        for database, query in _ROWS.items():
            connection = sqlite3.connect(database)
            file.writelines(f"{row}\n" for row in connection.execute(query))
            connection.close()
