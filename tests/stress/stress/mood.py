"""What the test server does in the coming exchanges: mostly its duty, and now and then a fault."""

import collections

from harness.response import document, slp_response

FIXED = b"fixed answer "
ALONE = "alone"

# `succeeds`: whether the daemon must take the answer; ALONE when it must for an exchange of one
# request only, None when that is a matter of timing. `breaks`: whether the connection ends early,
# which completes the part that is under way.
Mood = collections.namedtuple("Mood", "name behaviour succeeds breaks", defaults=[False])

_PLACES = ("accept", "connect", "tunnel", "handshake", "head", "upload", "upload-end")
_ANSWER_PLACES = ("response-head", "part", "closing")
_STATUSES = (400, 401, 402, 403, 404, 407, 499, 500, 503, 599)
_CERTIFICATES = ("expired", "not-yet-valid", "wrong-host", "self-signed", "unknown-ca")
_HTML = {"content_type": "text/html", "body": "<html>no</html>"}
_DOCUMENTS = (
    "",
    "<garbage",
    "<Other/>",
    document(),
    slp_response("", 'status="no"'),
    slp_response("<other/>"),
    document(("x", "a")),
    document(("1", "")),
)


def random_mood(dice, number, is_slow=False):
    """The mood of one exchange, labelled so that its record can be told from others."""
    moods = _MOODS if not is_slow else (*_MOODS, (_slow_reader, 30))
    make = dice.choices([make for make, _ in moods], [weight for _, weight in moods])[0]
    mood = make(dice, number)
    label = f"{number} {mood.name}"
    return mood._replace(behaviour={**mood.behaviour, "label": label})


def _dutiful(_dice, _number):
    return Mood("ordinary", {}, True)


def _slow(dice, _number):
    places = dice.sample((*_PLACES, *_ANSWER_PLACES), dice.randint(1, 3))
    steps = [{"at": at, "do": "pause", "seconds": dice.uniform(0.01, 0.3)} for at in places]
    return Mood("slow", {"on": steps}, True)


def _slow_reader(dice, _number):
    """Reads the front of the request, and for a while no more."""
    upload = {"at": "upload", "bytes": dice.choice((1, 100_000))}
    pause = {**upload, "do": "pause", "seconds": dice.uniform(0.2, 1.5)}
    return Mood("slow reader", {"on": [pause]}, True)


def _packed(dice, _number):
    return Mood("packed", {"answer": {"pack": dice.choice((1000, 4000, 16000))}}, True)


def _interim(dice, _number):
    heads = [dice.choice((100, 102, 103)) for _ in range(dice.randint(1, 3))]
    return Mood("interim heads", {"answer": {"interim": heads}}, True)


def _stranger(_dice, _number):
    """A part that nobody has asked for stands before the others."""
    part = "--frontier\r\nContent-Id: nobody\r\n\r\nwhat nobody has asked for"
    multipart = {"boundary": "frontier", "preamble": part}
    return Mood("unknown id", {"answer": {"multipart": multipart}}, True)


def _ended(dice, _number):
    place = dice.choice((*_PLACES, *_ANSWER_PLACES))
    ending = dice.choice(("reset", "reset", "close", "cut"))
    return Mood(ending, {"on": [{"at": place, "do": ending}]}, False, True)


def _ended_behind(dice, _number):
    ending = dice.choice(("reset", "close", "cut"))
    steps = [{"at": "answered", "do": ending}]
    return Mood(f"{ending} behind the answer", {"on": steps}, None, True)


def _broken_off(dice, _number):
    return Mood("broken off", {"answer": {"stop_after": dice.randint(1, 2000)}}, None, True)


def _refused(dice, _number):
    return Mood("proxy refuses", {"proxy": {"status": dice.choice((403, 407, 502))}}, False)


def _distrusted(dice, _number):
    return Mood("certificate", {"certificate": dice.choice(_CERTIFICATES)}, False)


def _status(dice, _number):
    answer = {"status": dice.choice(_STATUSES)}
    # With or without the multipart answer that it contradicts.
    return Mood("status", {"answer": {**answer, **dice.choice((_HTML, {}))}}, False)


def _malformed(dice, _number):
    answer = dice.choice(
        (
            {"multipart": {"document": dice.choice(_DOCUMENTS)}},
            {"multipart": {"status": dice.choice(("no", "OK", None))}},
            {"multipart": {"parts": []}},
            {"multipart": {"results": []}},
            {"multipart": {"order": "no-start"}},
            {"multipart": {"order": "start-last"}},
            {"multipart": {"boundary": "b", "preamble": "--b\r\nno blank line"}},
            {"content_type": None},
            {"content_type": "multipart/related; boundary=x"},
            {"content_type": "multipart/related; start=x"},
            {"head": "HTTP/1.1 200 OK\r\n\r\n", "body": "", "framing": "close"},
        )
    )
    return Mood("malformed", {"answer": answer}, False)


def _fixed(dice, number, on=(), name="fixed answer"):
    """An answer that does not depend on the request: right for an exchange of one request."""
    texts = [
        (FIXED + f"{number}.{part} ".encode() * dice.choice((1, 10, 1000))).decode()
        for part in range(dice.randint(1, 3))
    ]
    multipart = {
        "results": [{"oid": "1", "href": f"cid:{n}"} for n in range(len(texts))],
        "parts": [{"id": str(n), "body": text} for n, text in enumerate(texts)],
    }
    return Mood(name, {"answer": {"multipart": multipart}, "on": list(on)}, ALONE)


def _early(dice, number):
    """The answer begins while the request is still being sent."""
    place = dice.choice(({"at": "head"}, {"at": "upload", "bytes": dice.choice((1, 700, 5000))}))
    step = {**place, "do": "answer"}
    if dice.random() < 0.3:
        return Mood("early status", {"on": [step], "answer": {"status": 413, **_HTML}}, False)
    return _fixed(dice, number, [step], "early answer")


_MOODS = (
    (_dutiful, 40),
    (_slow, 10),
    (_packed, 6),
    (_interim, 4),
    (_stranger, 4),
    (_fixed, 6),
    (_early, 6),
    (_ended, 12),
    (_ended_behind, 4),
    (_broken_off, 2),
    (_refused, 2),
    (_distrusted, 2),
    (_status, 5),
    (_malformed, 8),
)


class Server:
    """Keeps the test server in moods, and remembers what came of them."""

    def __init__(self, server, dice, is_slow=False):
        self._server = server
        self._is_slow = is_slow
        self._dice = dice
        self._moods = {}
        self._number = 0
        self._read = server.last
        self._unread = []
        self.exchanges = 0
        self.by_mood = collections.Counter()
        # How often requests, told by their traces, were in an exchange that may have been answered,
        # and in one that was broken off.
        self.answered = collections.Counter()
        self.broken = collections.Counter()

    def provide(self):
        """Tops the queue up, so that no exchange finds it empty."""
        waiting = self._server.status()["queue"]
        if waiting < 100:
            moods = [self._next() for _ in range(200)]
            self._server.queue(*(mood.behaviour for mood in moods))

    def calm_down(self):
        """From now on every exchange is answered as it should be."""
        self._server.clear()

    def collect(self):
        """Reads the records of the exchanges that are over."""
        for record in self._server.exchanges(self._read):
            self._read = record["number"]
            self._unread.append(record["number"])
        still = []
        for number in self._unread:
            record = self._server.exchange(number)
            if record["outcome"] is None:
                still.append(number)
            else:
                self._count(record)
        self._unread = still

    def _next(self):
        self._number += 1
        mood = random_mood(self._dice, self._number, self._is_slow)
        self._moods[mood.behaviour["label"]] = mood
        return mood

    def _count(self, record):
        mood = self._moods.pop(record["label"], None) or Mood("ordinary", {}, True)
        self.exchanges += 1
        self.by_mood[mood.name] += 1
        requests = (record["slp"] or {}).get("requests", [])
        tags = [each.get("version") for each in requests]
        # The start part comes first; an upload may have ended before the last part.
        digests = [part["sha256"] for part in record["parts"][1:]]
        traces = [(tag, None) for tag in tags] + list(zip(tags, digests))
        if mood.succeeds in (True, None) or (mood.succeeds == ALONE and len(tags) == 1):
            self.answered.update(traces)
        if mood.breaks:
            self.broken.update(traces)
