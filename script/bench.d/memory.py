"""Memory that is there at once when a measured program needs it.

The host of a virtual machine may take back memory that has been free for a second, and giving it again
costs more than what a program does with it. A large restore would pay that for nearly all of its memory,
a small one that follows another for next to none.
"""

import contextlib
import mmap
import os

from measuring import FOLDER, output

# Of each block a part is kept in use. What is free between is less than hosts take back, which is pieces
# of 128 KiB at the least; the kernel keeps about 160 directories in one.
_BLOCK = 16 * mmap.PAGESIZE
_HELD_OF_BLOCK = mmap.PAGESIZE
_DIRECTORIES = 160
_HELD_OF_DIRECTORIES = 40


def _available():
    with open("/proc/meminfo") as file:
        return next(int(line.split()[1]) << 10 for line in file if line.startswith("MemAvailable:"))


@contextlib.contextmanager
def _pages(size):
    """Warms what holds the contents of files."""
    size = min(size, _available() // 2) // _BLOCK * _BLOCK
    flags = mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | mmap.MAP_POPULATE
    with mmap.mmap(-1, size, flags=flags) as pages:
        for block in range(0, size, _BLOCK):
            pages.madvise(mmap.MADV_DONTNEED, block + _HELD_OF_BLOCK, _BLOCK - _HELD_OF_BLOCK)
        yield


@contextlib.contextmanager
def _inodes(count):
    """Warms what holds that many directories and files themselves; the kernel keeps it apart."""
    made = count * _DIRECTORIES // (_DIRECTORIES - _HELD_OF_DIRECTORIES)
    folder = f"{FOLDER}/inodes"
    os.makedirs(folder, exist_ok=True)
    output("mount", "-t", "tmpfs", "-o", "nr_inodes=0", "tmpfs", folder)
    try:
        for number in range(made):
            os.mkdir(f"{folder}/{number}")
        for number in range(made):
            if number % _DIRECTORIES >= _HELD_OF_DIRECTORIES:
                os.rmdir(f"{folder}/{number}")
        yield
    finally:
        output("umount", folder)


@contextlib.contextmanager
def warm(size, inodes):
    """Makes the kernel use that many bytes, or half of what is available, and that many inodes, and
    frees most of it; while this lasts it stays with this machine."""
    with _pages(size), _inodes(inodes):
        yield
