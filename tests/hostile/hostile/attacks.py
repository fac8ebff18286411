"""All attacks, in the order in which they are run."""

from dataclasses import dataclass
from typing import Callable

from . import client_side, foreign_ids, server_side
from .people import Tally
from .scene import Scene

AFTER = "after"  # the honest request comes right behind the attack
BESIDE = "beside"  # it comes soon after the attack has begun
BEHIND = "behind"  # it comes behind the first request of the attacker
ALL_THE_TIME = "all the time"  # the honest client is the one that is attacked

# All messages for the daemon come in one queue from the bus. When the attack fills it, reads are judged ...
ALWAYS, WITH_LIMITS, NEVER = "always", "on a bus with limits", "never"

_EXCHANGE = 60.0  # seconds: the longest that an exchange may take
_EXCHANGE_OF_A_CLIENT = 90.0  # and while a client that is there is waited for
_DEAD_CLIENTS = 2 * 5.0  # how long two that have left may be waited for, in this exchange and the next
_SPARE = 3.0  # for the honest exchange itself, on a busy machine


@dataclass(frozen=True)
class Attack:
    """One of them. `limit` is how many seconds the honest request may take."""

    name: str
    title: str
    begin: Callable[[Scene], None]
    told: Callable[[Tally], str]
    honest: str = AFTER
    limit: float = _EXCHANGE
    by_server: bool = False
    leaves_ids: bool = False  # connections or requests, which the next attack would meet
    needs_users: bool = False  # two of them
    only_long: bool = False  # a short run could not tell anything
    reads_judged: str = ALWAYS


def _by_server(name, title, answer, requests=1):
    def begin(scene: Scene) -> None:
        scene.serve(answer(scene))
        scene.client(server_side.ask_again_and_again, requests)

    return Attack(name, title, begin, server_side.exchanges, by_server=True)


def _by_upload(name, title, answer, client, told, **values):
    def begin(scene: Scene) -> None:
        scene.serve(answer(scene))
        scene.attacker(client)

    return Attack(name, title, begin, told, by_server=True, leaves_ids=True, **values)


def _by_client(name, title, function, told, *more, **values):
    def begin(scene: Scene) -> None:
        scene.attacker(function, *more)

    return Attack(name, title, begin, told, BESIDE, leaves_ids=True, **values)


def _by_flood(name, title, function, reads_judged, leaves_ids=False):
    def begin(scene: Scene) -> None:
        scene.attacker(function, scene.seed)

    return Attack(name, title, begin, client_side.sent, BESIDE, leaves_ids=leaves_ids, reads_judged=reads_judged)


def _by_fingerprint(name, title, function, limit, **values):
    def begin(scene: Scene) -> None:
        scene.attacker(function)

    return Attack(name, title, begin, client_side.rounds, BEHIND, limit, leaves_ids=True, **values)


def _begin_guessing(scene: Scene) -> None:
    scene.client(foreign_ids.victim)
    scene.attacker(foreign_ids.guesser)


_WAITED_FOR = {"limit": _EXCHANGE_OF_A_CLIENT + _SPARE}

ATTACKS = (
    _by_server("start-part", "a start part that never ends", server_side.endless_start_part),
    _by_server("header-block", "a part's header block that never ends", server_side.endless_header_block),
    _by_server("tiny-parts", "parts of one byte without end", server_side.tiny_parts),
    _by_server("results", "a document of 8 MiB of results", server_side.many_results),
    _by_server("more-results", "a document of 64 MiB of results", server_side.more_results),
    _by_server("nodes", "a document of 8 MiB of empty elements", server_side.many_nodes),
    _by_server("next-parts", "parts that announce others without end", server_side.next_parts),
    _by_server("long-error", "an error text of 8 MiB, which all clients are told", server_side.long_error),
    _by_server("unfetched", "an endless answer that nobody fetches", server_side.unfetched),
    _by_server("unfetched-several", "the same for four requests", server_side.unfetched_by_several, 4),
    _by_upload(
        "slow-reader",
        "a server that reads slowly while a client sends 256 MiB",
        server_side.slow_reader,
        server_side.upload,
        server_side.megabytes,
    ),
    _by_server("head", "a response head that never ends", server_side.endless_head),
    _by_server("interim", "interim responses without end", server_side.endless_interim),
    _by_server("near-boundaries", "an answer of almost-boundaries", server_side.near_boundaries),
    _by_server("tiny-chunks", "HTTP chunks of one byte", server_side.tiny_chunks),
    _by_server("tiny-records", "TLS records of one byte", server_side.tiny_records),
    _by_server("collisions", "part ids of one and the same hash", server_side.colliding_results),
    _by_upload(
        "send-data",
        "data without end for a server that does not read",
        server_side.never_reads,
        client_side.flood_with_data,
        client_side.megabytes,
        reads_judged=WITH_LIMITS,
    ),
    _by_client(
        "connect-long",
        "`connect` with arguments of 1 MiB",
        client_side.connect_with_long_arguments,
        client_side.calls,
        reads_judged=WITH_LIMITS,
    ),
    _by_client("connect-short", "`connect` with short arguments", client_side.connect_often, client_side.calls),
    _by_client(
        "connect-leave",
        "`connect` with 1 MiB by clients that leave at once",
        client_side.connect_and_leave,
        client_side.calls,
    ),
    _by_client(
        "attach", "`attach` without end", client_side.create_often, client_side.calls, "attach", **_WAITED_FOR
    ),
    _by_client(
        "prepare", "`prepare` without end", client_side.create_often, client_side.calls, "prepare", **_WAITED_FOR
    ),
    _by_flood("crowd", "240 connections flood with small calls", client_side.crowd, WITH_LIMITS),
    _by_fingerprint(
        "dead-fingerprint",
        "a fingerprint's client dies when it is asked for data",
        client_side.ask_and_die,
        _DEAD_CLIENTS + _SPARE,
    ),
    _by_fingerprint(
        "silent-fingerprint",
        "a fingerprint's client stays and is silent",
        client_side.ask_and_stay_silent,
        _EXCHANGE_OF_A_CLIENT + _SPARE,
        only_long=True,
    ),
    _by_flood(
        "get-data-long",
        "`getData` with 30 MiB of further arguments",
        client_side.get_data_with_more_arguments,
        NEVER,  # one message of the largest size takes the bus a tenth of a second
        leaves_ids=True,
    ),
    _by_flood("largest-messages", "messages of 32 MiB", client_side.largest_messages, NEVER),
    _by_client("descriptors", "16 file descriptors in each call", client_side.descriptors, client_side.sent),
    _by_flood("cancel", "`cancel` without end", client_side.cancel_often, NEVER),
    _by_flood("malformed", "malformed calls", client_side.malformed_calls, NEVER),
    Attack(
        "foreign-ids",
        "another user guesses ids",
        _begin_guessing,
        foreign_ids.gained,
        ALL_THE_TIME,
        leaves_ids=True,
        needs_users=True,
    ),
)
