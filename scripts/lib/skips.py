"""The skips that are allowed: where, with which reason, and what explains it."""

import os
import shutil
import subprocess

SANITIZED = ("asan", "tsan")


def is_sanitized(build):
    return build in SANITIZED


def counts_nothing(build):
    """The build has no statistics."""
    return build == "release"


def has_one_user_id(_build):
    """No process can be made under another user's id."""
    return not _works("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "true")


def has_no_valgrind(_build):
    """It is installed on demand: scripts/setup --valgrind."""
    return shutil.which("valgrind") is None


def cannot_mount(_build):
    """No file system can be mounted, not even in a namespace of one's own."""
    return not _works("unshare", "--mount", "mount", "-t", "tmpfs", "none", "/mnt")


def cannot_trace(_build):
    """bpftrace is missing, or the kernel does not let it look on."""
    return not _works("sh", "-c", "exec bpftrace -e 'BEGIN { exit(); }'")


def _works(*command):
    """Whether a command succeeds as root, in the user namespace that the tests make for an ordinary user."""
    as_root = [] if os.geteuid() == 0 else ["unshare", "--user", "--map-root-user"]
    return subprocess.run([*as_root, *command], capture_output=True, check=False).returncode == 0


ALLOWED = {
    ("test_secrets", "about the daemon, not a sanitizer"): is_sanitized,
    ("test_endurance", "sanitizers keep freed memory"): is_sanitized,
    ("faults.test_address_space", "a sanitizer's address space is too large to be limited"): is_sanitized,
    ("faults.test_disk_full", "no file system can be mounted in a namespace here"): cannot_mount,
    ("faults.test_matrix", "this build does not count"): counts_nothing,
    ("test_bus_policy", "no other user ids here"): has_one_user_id,
    ("test_doctor", "no other user ids here"): has_one_user_id,
    ("test_client_threads", "no valgrind"): has_no_valgrind,
    ("test_library_examples", "Python cannot load a sanitized library"): is_sanitized,
    ("test_users", "no other user ids here"): has_one_user_id,
    ("test_unit_file", "no other user ids here"): has_one_user_id,
    ("test_orvextrace", "about the daemon, not a sanitizer"): is_sanitized,
    ("test_orvextrace", "nothing can be traced here"): cannot_trace,
}


def is_explained(build, place, reason):
    """Whether tests of this place may be skipped for this reason, here and in this build."""
    explains = ALLOWED.get((place, reason))
    return explains is not None and explains(build)
