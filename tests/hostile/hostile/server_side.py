"""Attacks by a server: its answers, and the clients whose exchanges it answers."""

from pathlib import Path

from harness.response import CLOSING, CONTENT_TYPE, DELIMITER, START, part, start_part

from .bus import Bus, Refused, call
from .collisions import colliding_ids
from .requester import Failed, Requester

KIB = 1 << 10
MIB = 1 << 20
_FILLER = "x" * (256 * KIB)
_LARGEST_START_PART = 8 * MIB  # a daemon with bounds takes no more
_COLLISIONS = 65_000
_ROOM = 256  # for what stands around a document's results
_ROOT = '<SimpleLocationProtocol><SlpResponse status="ok">'
_ROOT_END = "</SlpResponse></SimpleLocationProtocol>"
_OWN_PART = f"{DELIMITER}\r\nContent-Id: a\r\n\r\n"


def endless(item):
    return {"endless": item}


def _answer(*body, **values):
    """An answer with this body."""
    return {"answer": {"content_type": CONTENT_TYPE, "body": list(body), **values}}


# -- answers -----------------------------------------------------------------------------------


def endless_start_part(_scene):
    return _answer(f"{DELIMITER}\r\nContent-Id: {START}\r\n\r\n<SimpleLocationProtocol>", endless(_FILLER))


def endless_header_block(_scene):
    lines = f"X-Filler: {'x' * 1000}\r\n" * 200
    return _answer(start_part("a") + "\r\n", DELIMITER, "\r\nContent-Id: a\r\n", endless(lines))


def tiny_parts(_scene):
    return _answer(start_part("a"), endless(f"\r\n{_OWN_PART}x" * 1000))


def many_results(scene):
    """As many results as the largest start part holds, each with an id of its own."""
    results = (f'<result oid="1" href="cid:{n:x}"/>' for n in range(1, 1 << 24))
    return _document_answer(scene, "results", results, _LARGEST_START_PART)


def more_results(scene):
    """More than a daemon with bounds reads."""
    results = (f'<result oid="1" href="cid:{n:x}"/>' for n in range(1, 1 << 24))
    return _document_answer(scene, "more-results", results, 8 * _LARGEST_START_PART)


def many_nodes(scene):
    """The shortest elements there are: what a parser makes of them is much more than they are."""
    return _document_answer(scene, "nodes", iter(["<a/>"] * (_LARGEST_START_PART // 4)), _LARGEST_START_PART)


def colliding_results(scene):
    """Ids that fall into one bucket, and parts that are looked up there."""
    ids = [each.decode() for each in colliding_ids(scene.dice, _COLLISIONS)]
    results = (f'<result oid="1" href="cid:{each}"/>' for each in ids)
    parts = "".join(f"\r\n{DELIMITER}\r\nContent-Id: {each}\r\n\r\nx" for each in ids[-400:])
    return _document_answer(scene, "collisions", results, _LARGEST_START_PART, endless(parts))


def next_parts(_scene):
    """Each part announces another one, which never comes, under a long name."""
    part_of_many = {
        "id": "a",
        "headers": [["X-Slp-Next-Part-Id", "n{n}-" + "x" * (8 * KIB)]],
        "body": "x",
        "times": 1 << 30,
    }
    announced = [{"oid": "1", "href": "cid:a"}]
    return {"answer": {"multipart": {"results": announced, "parts": [part_of_many]}, "pack": 16_000}}


def long_error(scene):
    """A status that is not "ok" and about as long as the largest start part: every client is told of it."""
    status = "x" * (_LARGEST_START_PART - 2 * _ROOM)
    return _file_answer(scene, "long-error", _ROOT.replace("ok", status) + _ROOT_END, CLOSING)


def unfetched(_scene):
    return _answer(start_part("a") + f"\r\n{_OWN_PART}", endless(_FILLER))


def unfetched_by_several(_scene):
    names = "abcd"
    announced = start_part(*((str(number), name) for number, name in enumerate(names, 1)))
    parts = [f"\r\n{part(name, 'x' * (64 * KIB))}" for name in names]
    return _answer(announced, endless(parts))


def endless_head(_scene):
    lines = f"X-Filler: {'x' * 1000}\r\n" * 200
    return {"answer": {"head": ["HTTP/1.1 200 OK\r\n", endless(lines)], "body": ""}}


def endless_interim(_scene):
    return {"answer": {"head": endless("HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" * 500), "body": ""}}


def near_boundaries(_scene):
    return _answer(start_part("a") + f"\r\n{_OWN_PART}", endless(f"\r\n{DELIMITER[:-1]}" * 20_000))


def tiny_chunks(_scene):
    front = (start_part("a") + f"\r\n{_OWN_PART}").encode()
    body = [f"{len(front):x}\r\n{front.decode()}\r\n", endless("1\r\nx\r\n" * 40_000)]
    return _answer(*body, framing="raw", headers=[["Transfer-Encoding", "chunked"]])


def tiny_records(_scene):
    return _answer(start_part("a") + f"\r\n{_OWN_PART}", endless("x"))


def slow_reader(scene):
    """It reads one MiB, and pauses, and so on."""
    pauses = [{"at": "upload", "bytes": n * MIB, "do": "pause", "seconds": 0.5} for n in range(1, 257)]
    return {"on": [{"at": "upload", "do": "pause", "seconds": scene.seconds / 2}, *pauses]}


def never_reads(_scene):
    return {"on": [{"at": "upload", "do": "hang", "read": False}]}


def _document_answer(scene, name, elements, size, *then):
    """An answer whose document has as many of the elements as fit."""
    pieces, room = [_ROOT], size - _ROOM
    for each in elements:
        room -= len(each)
        if room < 0:
            break
        pieces.append(each)
    return _file_answer(scene, name, "".join(pieces) + _ROOT_END, *(then or (CLOSING,)))


def _file_answer(scene, name, document, *then):
    file: Path = scene.directory / f"{name}.xml"
    file.write_text(f"{DELIMITER}\r\nContent-Id: {START}\r\n\r\n{document}", "utf-8")
    return _answer({"file": str(file)}, *then)


# -- the clients -------------------------------------------------------------------------------


def ask_again_and_again(path, tally, requests=1):
    """Exchange after exchange whose answers nobody fetches: the next one begins when one has failed.

    Ends when it is told to, not in the middle: the daemon would wait for a client that is gone.
    """
    bus = Bus(path, signals=True)
    while not tally["stop"]:
        askers = [Requester(bus) for _ in range(requests)]
        for each in askers[1:]:
            each.create("attach")
        askers[0].create("prepare")
        tally.add("rounds")
        try:
            for each in askers:
                each.wait_until_asked()
                each.give(b"where am I?")
            askers[0].wait_for_failure()
        except (Failed, Refused):
            pass
        tally.add("failed")
        for each in askers:
            bus.ask(call("disconnect", "u", each.connection))
        bus.waiting.clear()


def upload(path, tally, size=256 * MIB, piece=256 * KIB):
    """An orderly upload, each piece after the result of the one before."""
    bus = Bus(path, signals=True)
    requester = Requester(bus)
    requester.create()
    requester.wait_until_asked()
    data = b"x" * piece
    for at in range(piece, size + 1, piece):
        code = requester.give(data, at == size, 120)
        tally.add("sent", piece)
        if code:
            tally.add("refused", piece)
        else:
            tally.add("accepted", piece)


# -- what came of it ---------------------------------------------------------------------------


def exchanges(tally) -> str:
    return f"{tally['rounds']} exchanges, {tally['failed']} ended with an error"


def megabytes(tally) -> str:
    """Of a client that sends data."""
    return f"{tally['accepted'] / MIB:.0f} MiB accepted, {tally['refused'] / MIB:.0f} MiB refused"
