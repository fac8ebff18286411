#!/usr/bin/python3
"""Runs a program that may not write to a file system: the kernel kills it when it tries.

usage: read_only.py PROGRAM [ARGUMENT ...]

Opening a file for writing, creating, changing, renaming or removing one ends the program with SIGSYS. Open
descriptors, sockets and pipes are as usable as ever. There is no way to let /dev/null pass: the kernel's
filter sees flags, not paths.
"""

import os
import sys

import seccomp

WRITING = os.O_WRONLY, os.O_RDWR, os.O_CREAT, os.O_TRUNC
#: where the flags stand among the arguments of a call
OPENING = {"open": 1, "openat": 2}
CHANGING = """
    creat mkdir mkdirat mknod mknodat rename renameat renameat2 link linkat symlink symlinkat unlink
    unlinkat rmdir truncate ftruncate fallocate copy_file_range chmod fchmod fchmodat chown fchown lchown
    fchownat utime utimes utimensat futimesat setxattr lsetxattr fsetxattr openat2 io_uring_setup
    open_by_handle_at memfd_create memfd_secret mount
""".split()


def forbid_writing():
    rules = seccomp.SyscallFilter(defaction=seccomp.ALLOW)
    for name, position in OPENING.items():
        for flag in WRITING:
            rules.add_rule(
                seccomp.KILL_PROCESS,
                name,
                seccomp.Arg(position, seccomp.MASKED_EQ, flag, flag),
            )
    for name in CHANGING:
        try:
            rules.add_rule(seccomp.KILL_PROCESS, name)
        except (RuntimeError, ValueError):
            pass  # a call that this kernel's headers do not know cannot be made either
    rules.load()


if __name__ == "__main__":
    forbid_writing()
    os.execvp(sys.argv[1], sys.argv[1:])
