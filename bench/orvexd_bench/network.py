"""What the NetworkManager source costs, beside the platform file."""

import json
import os
import subprocess

from .pairs import paired
from .processes import TOP
from .rows import Row, memory, milliseconds

LIVE = TOP / "tests" / "platform-live"


def sources(run):
    """Row 26: with the real NetworkManager, in namespaces of its own. Takes root."""
    seconds, rounds = (3, 3) if run.quick else (60, 11)
    if os.geteuid() != 0 or not os.access("/usr/sbin/NetworkManager", os.X_OK):
        run.add(Row("26", "NetworkManager source", "left out: takes root and the packages of scripts/setup --live"))
        return
    environment = {**os.environ, "ORVEXD_BUILD_DIR": str(run.workshop.bin.parent)}
    command = [LIVE / "enter", LIVE / "measure", str(seconds), str(rounds)]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=900, check=False)
    if done.returncode != 0:
        raise RuntimeError(done.stderr[-500:])
    values = json.loads(done.stdout)
    ours, file = values["networkmanager"], values["file"]
    serves = paired(ours["serves"], file["serves"])
    connected = paired(ours["connected"], file["connected"])
    for name, result in (("exec to name owned", serves), ("exec to connected", connected)):
        texts = milliseconds(result.ours.median), f"{milliseconds(result.peer.median)} platform file"
        run.add(Row("26", f"NetworkManager source: {name}", *texts, result.ratio))
    run.add(
        Row(
            "26",
            f"NetworkManager source: wake-ups in {seconds} s of idleness",
            str(ours["wakeUps"]),
            f"{file['wakeUps']} platform file",
            None,
            "0",
            ours["wakeUps"] == 0,
        )
    )
    threads = len(ours["threads"]), f"{len(file['threads'])} platform file"
    run.add(Row("26", "NetworkManager source: threads when idle", str(threads[0]), threads[1]))
    ratio = ours["dirty"] / file["dirty"]
    texts = memory(ours["dirty"]), f"{memory(file['dirty'])} platform file"
    run.add(Row("26", "NetworkManager source: private dirty memory when idle", *texts, ratio))
