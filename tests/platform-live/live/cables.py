"""Two networks that lead to the positioning server, and a way to the server that no network service knows.

    the machine                     the other side, a network namespace of its own
    nmv0 192.0.2.10      ---------  far0 192.0.2.1       \\
    nmv1 198.51.100.10   ---------  far1 198.51.100.1     > 203.0.113.7, the server
    ctl0 10.99.0.1       ---------  ctl1 10.99.0.2       /  (its control port)
"""

import subprocess

SERVER = "203.0.113.7"
CONTROL = "10.99.0.2"
THERE = ["ip", "netns", "exec", "there"]
NETWORKS = {
    "nmv0": ("192.0.2.10/24", "192.0.2.1"),
    "nmv1": ("198.51.100.10/24", "198.51.100.1"),
}


def run(*command, seconds=30):
    """Runs a command to its end and returns what it prints."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=seconds, check=False)
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


def lay():
    """Makes the other side; the machine's ends are up to a network service."""
    run("ip", "netns", "add", "there")
    run(*THERE, "ip", "link", "set", "lo", "up")
    run(*THERE, "ip", "address", "add", f"{SERVER}/32", "dev", "lo")
    run("ip", "link", "add", "ctl0", "type", "veth", "peer", "name", "ctl1", "netns", "there")
    run("ip", "address", "add", "10.99.0.1/24", "dev", "ctl0")
    run("ip", "link", "set", "ctl0", "up")
    run(*THERE, "ip", "address", "add", f"{CONTROL}/24", "dev", "ctl1")
    run(*THERE, "ip", "link", "set", "ctl1", "up")
    for number, (here, (_, there)) in enumerate(NETWORKS.items()):
        far = f"far{number}"
        run("ip", "link", "add", here, "type", "veth", "peer", "name", far, "netns", "there")
        run(*THERE, "ip", "address", "add", f"{there}/24", "dev", far)
        plug(here)
        # Packets may come back over the other network after a handover.
        run(*THERE, "sysctl", "-qw", f"net.ipv4.conf.{far}.rp_filter=0")


def plug(here):
    run(*THERE, "ip", "link", "set", "far" + here[-1], "up")


def pull(here):
    """Takes the cable's other end away: the machine's end has no carrier any more."""
    run(*THERE, "ip", "link", "set", "far" + here[-1], "down")
