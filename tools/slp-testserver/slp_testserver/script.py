"""Behaviours: what the server does in one exchange.

A behaviour is a JSON object; every key is optional, and {} is the ordinary answer. Each TCP
connection takes one behaviour from the front of the queue (the default behaviour when the queue
is empty) at the moment it is accepted; each further request on the same connection takes another.

  "label": TEXT            comes back in the record
  "repeat": N              stands for N equal behaviours in the queue (default 1)

The connection
  "certificate": NAME      server (default), expired, not-yet-valid, wrong-host, self-signed,
                           unknown-ca
  "client_certificate": M  require, optional or none (default: the option --client-certificate)
  "alpn": [NAME, ...]      protocols offered in this order, such as ["h2", "http/1.1"]
  "tls_version": V         "1.2" or "1.3" only
  "proxy": {...}           the answer to CONNECT instead of 200:
      "status": N, "reason": TEXT, "headers": [[NAME, VALUE], ...], "body": TEXT
      "raw": ITEM          these bytes instead
                           (a status from 200 to 299 leads on to TLS, any other ends)

What happens where
  "on": [STEP, ...]        STEP: {"at": POINT, "do": ACTION, ...}; steps of one point run in order

  POINT                reached
  accept               the connection was accepted, nothing was read
  connect              CONNECT was read, not answered (only through the proxy)
  tunnel               CONNECT was answered
  client-hello         the client's first TLS record has arrived (shown only when a step names it)
  server-flight        the server's first TLS records were sent; "bytes": N sends only the first N
                       of them (only with an ending ACTION; shown only when a step names it)
  handshake            TLS is up
  head                 the request head was read
  upload               "bytes": N of the request body were read (default 1), or
                       "part": K: the K-th data part's header block was read (1 is the first)
  upload-end           the whole request body was read
  response-head        the response head was sent
  part                 within a data part of the answer: its header block and some of its data
                       were sent; "part": K names which (default 1; only for "multipart" answers)
  closing              all parts were sent, the closing delimiter was not (likewise)
  answered             the answer was sent

  ACTION
  pause                sleeps for "seconds": S
  wait                 waits for the event "event": NAME (POST /events/NAME on the control port)
  answer               begins the answer now (at head and upload); the rest of the request is read
                       afterwards unless a step at "answered" ends the connection
  close                ends in order: TLS closing message, FIN
  cut                  FIN without the TLS closing message
  reset                TCP reset
  hang                 never does anything again, but reads and discards what the peer sends;
                       with "read": false it does not read either

The answer
  "answer": {...}
  "status": N or TEXT      default 200; "reason": ITEM, default the usual one
  "version": TEXT          default "HTTP/1.1"
  "interim": [X, ...]      heads before the answer's own: N, or {"status": N, "reason": TEXT,
                           "headers": [[NAME, VALUE], ...]}
  "content_type": TEXT     instead of the multipart type; null leaves the line out
  "headers": [[N, V], ..]  further header lines; V may be an ITEM
  "head": ITEM             the whole response head, its empty line included, instead of all above
  "framing": F             chunked (default), length, close (ends with the connection), raw (no
                           framing and no announcement), none (no body; default for 204 and 304)
  "body": ITEM             the body instead of a multipart one
  "multipart": {...}       what differs from the ordinary multipart body:
      "boundary", "start": TEXT
      "status": TEXT       of SlpResponse; null leaves the attribute out (default "ok")
      "results": [{"oid": TEXT, "href": TEXT, "times": N}, ...]
                           default: one for each request of the upload, href cid:answer-K
      "document": ITEM     the start part's data instead of the SlpResponse document
      "start_headers": [[NAME, VALUE], ...]
      "parts": [{"id": TEXT, "headers": [[NAME, VALUE], ...], "body": ITEM, "times": N}, ...]
                           default: one for each request, as "The ordinary answer" says; with
                           "times", {n} counts from 1 in "href", "id", header values and a "body"
                           that is a text
      "order": TEXT        "start-first" (default), "start-last", "no-start"
      "preamble", "epilogue": ITEM
      "closing": TEXT      instead of CR LF -- boundary -- CR LF; "" leaves it out
  "cut": {"size": N}       the body cut into pieces of N bytes, or
         {"at": [N, ...]}  cut at these places, whatever pieces it was made of
  "pack": N                pieces are joined while they fit into N bytes, none is divided
                           (with cut and pack the record names the points part and closing only
                           when a step is there)
  "stop_after": N          only the first N bytes of the body are sent, then the connection is ended
                           by the "then" action (default close)
  "then": ACTION           after the answer: keep (default; another request may come), or an ending
                           ACTION

Every piece of a body goes out as one HTTP chunk, and up to 16000 bytes as one TLS record, so that
a client that reads records gets exactly these pieces. Data parts of the ordinary answer come in
pieces of 16000 bytes, each delimiter together with its header block and the first data.

  ITEM
  "text"                   one piece, as UTF-8
  [ITEM, ...]              one after the other
  {"text": T} {"latin1": T} {"hex": T} {"base64": T} {"file": PATH}      one piece
  {"bytes": N, "fill": F}  N made-up bytes in pieces of 16000 ("piece": another size); F: "pattern"
                           (0, 1, ... 250, 0, ...; default), "zeros", "random" ("seed": S), or any
                           other text, repeated
  {"repeat": ITEM, "times": N}       N times; {"endless": ITEM} until the peer goes away
  {"join": [ITEM, ...]}    all of it as one piece
  {"do": ACTION, ...}      an action between two pieces, as above
  {"mark": NAME}           a milestone of that name in the record

The ordinary answer: 200 and multipart/related with an SlpResponse of status "ok" and one part for
each request of the upload. A request of type "fingerprint" gets a position document that carries
the question's numbers: oid, how many elements wifi and cell, bytes and sha256 of the data
received. Data of the form "size: N" get N bytes of the pattern. Everything else comes back as
it was sent. A request that cannot be understood gets 400 and the findings as text.
"""

from .tls import CERTIFICATES, CLIENT_CERTIFICATE, VERSIONS

POINTS = (
    "accept",
    "connect",
    "tunnel",
    "client-hello",
    "server-flight",
    "handshake",
    "head",
    "upload",
    "upload-end",
    "response-head",
    "part",
    "closing",
    "answered",
)
ENDINGS = ("close", "cut", "reset", "hang")
ACTIONS = ("pause", "wait", "answer", *ENDINGS)
BEHAVIOUR_KEYS = {
    "label",
    "repeat",
    "certificate",
    "client_certificate",
    "alpn",
    "tls_version",
    "proxy",
    "on",
    "answer",
}
PROXY_KEYS = {"status", "reason", "headers", "body", "raw"}
STEP_KEYS = {"at", "do", "seconds", "event", "bytes", "part", "read"}
ANSWER_KEYS = {
    "status",
    "reason",
    "version",
    "interim",
    "content_type",
    "headers",
    "head",
    "framing",
    "body",
    "multipart",
    "cut",
    "pack",
    "stop_after",
    "then",
}
MULTIPART_KEYS = {
    "boundary",
    "start",
    "status",
    "results",
    "document",
    "start_headers",
    "parts",
    "order",
    "preamble",
    "epilogue",
    "closing",
}
PART_KEYS = {"id", "headers", "body", "times"}
RESULT_KEYS = {"oid", "href", "times"}
FRAMINGS = ("chunked", "length", "close", "raw", "none")
ORDERS = ("start-first", "start-last", "no-start")


class BadScript(ValueError):
    """A behaviour that the server does not understand; the text says where."""


class Behaviour:
    """One behaviour, checked."""

    def __init__(self, values):
        _check_keys("behaviour", values, BEHAVIOUR_KEYS)
        self.label = values.get("label")
        self.repeat = int(values.get("repeat", 1))
        self.certificate = _one_of("certificate", values.get("certificate", "server"), CERTIFICATES)
        self.client_certificate = values.get("client_certificate")
        if self.client_certificate is not None:
            _one_of("client_certificate", self.client_certificate, CLIENT_CERTIFICATE)
        self.alpn = tuple(values.get("alpn") or ())
        self.tls_version = values.get("tls_version")
        if self.tls_version is not None:
            _one_of("tls_version", self.tls_version, VERSIONS)
        self.proxy = values.get("proxy") or {}
        _check_keys("proxy", self.proxy, PROXY_KEYS)
        self.steps = [_checked_step(step) for step in values.get("on", [])]
        self.answer = _checked_answer(values.get("answer") or {})

    def steps_at(self, point):
        return [step for step in self.steps if step["at"] == point]

    @property
    def echoes(self):
        """Whether the answer may need the data of the request."""
        return "body" not in self.answer and "parts" not in self.answer.get("multipart", {})


def read_behaviours(values):
    """A list of behaviours from one JSON object or a list of them, repetitions included."""
    behaviours = []
    for each in values if isinstance(values, list) else [values]:
        behaviour = Behaviour(each)
        behaviours.extend([behaviour] * behaviour.repeat)
    return behaviours


def _check_keys(what, values, known):
    if not isinstance(values, dict):
        raise BadScript(f"{what}: an object is wanted, not {values!r}")
    unknown = sorted(set(values) - known)
    if unknown:
        raise BadScript(f"{what}: unknown key {unknown[0]!r}")


def _one_of(what, value, known):
    if value not in known:
        raise BadScript(f"{what}: {value!r} is none of {', '.join(known)}")
    return value


def _checked_step(step):
    _check_keys("on", step, STEP_KEYS)
    _one_of("at", step.get("at"), POINTS)
    check_action(step)
    if step["at"] == "server-flight":
        _one_of("do at server-flight", step["do"], ENDINGS)
    if step["do"] == "answer":
        _one_of("at of an answer", step["at"], ("head", "upload"))
    return step


def check_action(step):
    """Checks an action wherever it stands."""
    _one_of("do", step.get("do"), ACTIONS)
    if step["do"] == "pause" and "seconds" not in step:
        raise BadScript("pause: the key 'seconds' is missing")
    if step["do"] == "wait" and "event" not in step:
        raise BadScript("wait: the key 'event' is missing")


def _checked_answer(answer):
    _check_keys("answer", answer, ANSWER_KEYS)
    _one_of("then", answer.get("then", "keep"), ("keep", *ENDINGS))
    _one_of("framing", answer.get("framing", "chunked"), FRAMINGS)
    _check_keys("cut", answer.get("cut", {}), {"size", "at"})
    multipart = answer.get("multipart", {})
    _check_keys("multipart", multipart, MULTIPART_KEYS)
    _one_of("order", multipart.get("order", "start-first"), ORDERS)
    for part in multipart.get("parts", []):
        _check_keys("parts", part, PART_KEYS)
    for result in multipart.get("results", []):
        _check_keys("results", result, RESULT_KEYS)
    for name in ("head", "body", "reason"):
        check_item(answer.get(name))
    for name in ("document", "preamble", "epilogue"):
        check_item(multipart.get(name))
    for part in multipart.get("parts", []):
        check_item(part.get("body"))
    return answer


ITEM_KEYS = {
    "text": {"text"},
    "latin1": {"latin1"},
    "hex": {"hex"},
    "base64": {"base64"},
    "file": {"file"},
    "bytes": {"bytes", "fill", "piece", "seed"},
    "repeat": {"repeat", "times"},
    "endless": {"endless"},
    "join": {"join"},
    "do": {"do", "seconds", "event", "read"},
    "mark": {"mark"},
}


def item_kind(item):
    """The key of an item object that tells what it is."""
    return next((kind for kind in ITEM_KEYS if kind in item), None)


def check_item(item):
    """Checks an ITEM and what it holds."""
    if item is None or isinstance(item, str):
        return
    if isinstance(item, list):
        for each in item:
            check_item(each)
        return
    if not isinstance(item, dict) or item_kind(item) is None:
        raise BadScript(f"item: {item!r} is none")
    kind = item_kind(item)
    _check_keys(f"item {kind!r}", item, ITEM_KEYS[kind])
    if kind == "do":
        check_action(item)
    elif kind in ("repeat", "endless", "join"):
        check_item(item[kind])
