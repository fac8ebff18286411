"""The include lines of a source tree, judged by the floors of the house.

A file may use what stands on its own floor or below, never above; no two files need each other. A
source and its header are one file here: whoever needs the one needs the other.

The client library is a house of its own, in one folder: its floors are told by module.
"""

import re
from pathlib import Path, PurePosixPath

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
SUFFIXES = {".h", ".cpp", ".c"}

FLOOR_OF_FOLDER = {
    "main": 7,
    "dbus": 6,
    "core": 5,
    "network": 4,
    "http": 4,
    "slp": 3,
    "request": 2,
    "config": 1,
    "support": 1,
    "protocol": 0,
}

# Includes nothing at all, so that tools and clients can use it without the daemon's libraries.
BARE_FOLDER = "protocol"

# Where a foreign library may be named: folders, and single files without their suffix.
HOMES_OF_LIBRARY = {
    "dbus": {"dbus", "support/BusHandles"},
    "curl": {"http", "support/CurlHandles"},
    "libxml": {"slp", "config", "support/XmlHandles", "main/main"},
    "openssl": {"http"},
    "trilba": {"network", "http", "slp", "core", "dbus", "main"},
}

# The client library, by module: the headers of a module, public or private, and its source.
FLOOR_OF_MODULE = {
    "orvexclient": 6,
    "orvex-client": 6,
    "orvex-request": 6,
    "orvex-answer-stream": 6,
    "orvex-transfer": 5,
    "orvex-upload": 4,
    "orvex-download": 4,
    "orvex-settling": 4,
    "orvex-dialogue": 4,
    "orvex-silence": 3,
    "orvex-progress": 3,
    "orvex-answer": 3,
    "orvex-question": 3,
    "orvex-rooms": 3,
    "orvex-seats": 2,
    "orvex-link": 2,
    "orvex-bus": 1,
    "orvex-waiters": 1,
    "orvex-passengers": 1,
    "orvex-audience": 1,
    "orvex-remains": 1,
    "orvex-worker": 0,
    "orvex-failure": 0,
    "orvex-calls": 0,
    "orvex-counted": 0,
    "orvex-enums": 0,
    "orvex-error": 0,
    "orvex-names": 0,
    "orvex-sync": 0,
}

# Written when the tree is configured, from a template beside the sources.
TEMPLATE_SUFFIX = ".in"


def unit_of(path):
    """Name of a file without its suffix: "core/RequestData"."""
    return str(PurePosixPath(path).with_suffix(""))


def floor_of(unit):
    """Floor of a unit, None when its folder is none of the house."""
    return FLOOR_OF_FOLDER.get(unit.partition("/")[0])


def read_includes(root):
    """Maps each file below `root` to its include lines: (quoted or angled, name, line number)."""
    files = {}
    for path in sorted(Path(root).rglob("*")):
        name = path.relative_to(root).as_posix()
        if name.endswith(TEMPLATE_SUFFIX):
            name = name[: -len(TEMPLATE_SUFFIX)]
        if PurePosixPath(name).suffix not in SUFFIXES:
            continue
        found = []
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if match:
                found.append((match.group(1), match.group(2), number))
        files[name] = found
    return files


def faults(files):
    """All faults of a tree as texts; `files` as `read_includes` returns them."""
    return [
        *unknown_floors(files),
        *wrong_arrows(files),
        *stray_libraries(files),
        *ballast(files),
        *cycles(files),
    ]


def unknown_floors(files):
    for name in files:
        if floor_of(unit_of(name)) is None:
            yield f"{name}: stands on no floor of the map"


def own_includes(files):
    """Every arrow between files of the tree: (from, to, line)."""
    for name, includes in files.items():
        for _, target, line in includes:
            if target in files:
                yield name, target, line


def wrong_arrows(files):
    for name, includes in files.items():
        for mark, target, line in includes:
            if mark == '"' and target not in files and not target.startswith("trilba/"):
                yield f"{name}:{line}: {target} is not below src"
    for name, target, line in own_includes(files):
        source_floor, target_floor = floor_of(unit_of(name)), floor_of(unit_of(target))
        if None not in (source_floor, target_floor) and target_floor > source_floor:
            yield (
                f"{name}:{line}: floor {source_floor} uses {target} of floor {target_floor}"
            )


def stray_libraries(files):
    for name, includes in files.items():
        unit = unit_of(name)
        for mark, target, line in includes:
            library = target.split("/")[0]
            homes = HOMES_OF_LIBRARY.get(library) if mark == "<" else None
            if homes is not None and unit not in homes and unit.split("/")[0] not in homes:
                yield f"{name}:{line}: <{target}> belongs to {', '.join(sorted(homes))}"


def ballast(files):
    for name, includes in files.items():
        for _, target, line in includes:
            if name.startswith(BARE_FOLDER + "/"):
                yield f"{name}:{line}: {BARE_FOLDER} includes nothing, not even {target}"


def module_of(path):
    """Module of a file of the client library: "orvex-request" of "src/orvex-request-private.h"."""
    return PurePosixPath(path).stem.removesuffix("-private")


def client_includes(files):
    """Every arrow between modules of the client library: (file, line, used module)."""
    modules = {module_of(name) for name in files}
    for name, includes in files.items():
        for mark, target, line in includes:
            used = module_of(target)
            if mark == '"' and used in modules and used != module_of(name):
                yield name, line, used


def client_faults(files):
    """All faults of the client library as texts; `files` as `read_includes` returns them."""
    floors = FLOOR_OF_MODULE
    found = [f"{name}: stands on no floor" for name in files if module_of(name) not in floors]
    for name, line, used in client_includes(files):
        floor = floors.get(module_of(name), max(floors.values()))
        if floors.get(used, 0) > floor:
            found.append(f"{name}:{line}: floor {floor} uses {used} of floor {floors[used]}")
    arrows = ((module_of(name), used) for name, _, used in client_includes(files))
    return [*found, *circles(arrows)]


def cycles(files):
    return circles((unit_of(name), unit_of(target)) for name, target, _ in own_includes(files))


def circles(arrows):
    """The first circle among arrows, as a text."""
    graph = {}
    for source, used in arrows:
        graph.setdefault(source, set())
        if source != used:
            graph[source].add(used)
    done = set()
    for start in sorted(graph):
        path = find_cycle(graph, start, [], done)
        if path:
            yield "these need each other: " + " -> ".join(path)
            return


def find_cycle(graph, unit, path, done):
    """A way from a unit on `path` back to itself, None when there is none behind `unit`."""
    if unit in path:
        return [*path[path.index(unit) :], unit]
    if unit in done:
        return None
    for used in sorted(graph.get(unit, ())):
        found = find_cycle(graph, used, [*path, unit], done)
        if found:
            return found
    done.add(unit)
    return None
