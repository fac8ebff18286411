"""One client that does at random what a client can do, and checks what comes of it."""

import collections
import time

from gi.repository import GLib

from harness.raw_client import ERROR, RETURN, SIGNAL, RawClient, describe, values
from harness.settings import BUS_NAME

from .request import (
    CONNECTION_ERROR,
    NOT_ALLOWED,
    UNKNOWN_CONNECTION,
    UNKNOWN_REQUEST,
    Connection,
    Request,
    Violation,
    require,
)

NO_CONNECTION, NOT_PERMITTED, BAD_ARGUMENTS = 2204, 2205, 2002
LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded"
NOT_ACCEPTING = 57
_PROPERTIES = "org.freedesktop.DBus.Properties"
_STATUSES = (0, 1, 3, 5)
_MOST_CONNECTIONS = 4
_MOST_REQUESTS = 3
_THINK_SECONDS = 0.02  # between two doings, on average
_RETRY_SECONDS = 30  # for data that was refused, as there may have been no room
_GIVEN_UP_SECONDS = 5  # after which a call whose answer may have been swept away is made again
_ANSWERED_KEPT = 1000  # serials of answered calls that are remembered

Call = collections.namedtuple("Call", "on_answer what may_be_held on_refused")


def body(signature, *arguments):
    return GLib.Variant(signature, arguments)


def data_body(data, last, connection, request):
    """Arguments of sendData, without a Python object for each byte."""
    array = GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True)
    others = (GLib.Variant("b", last), GLib.Variant("u", connection), GLib.Variant("u", request))
    return GLib.Variant.new_tuple(array, *others)


def error_code(message):
    """The number in an error reply of the daemon; None for other errors."""
    text = (values(message) or ("",))[0]
    number = text.partition(")")[0].removeprefix("(")
    return int(number) if message.get_error_name() == f"{BUS_NAME}.Error" else None


class Actor:
    """A client on a bus connection of its own. `step()` does something when its time has come."""

    def __init__(self, name, address, dice, world, tally, budget=0):
        self.name = name
        self.dice = dice
        self.link = None
        self.next_step = time.monotonic()
        self.draining = False
        self.connections = {}  # by id, closed ones too
        self.requests = {}  # the live ones, by (connection id, request id)
        self.past = {}  # the ended ones
        self._address = address
        self._world = world
        self._tally = tally
        self._calls = {}  # by serial
        self._answered = collections.deque(maxlen=_ANSWERED_KEPT)
        self._tags = 0
        self._budget = budget  # bytes of the daemon's memory, if that is short
        self._refused = collections.deque()  # requests whose last piece may have found no room
        self.failure_times = []  # when errors of exchanges were heard of
        self.last_failure = float("-inf")
        self._connect_to_bus()

    # -- the bus -------------------------------------------------------------------------------

    def _connect_to_bus(self):
        self.link = RawClient(self._address)
        self.link.add_match(f"type='signal',sender='{BUS_NAME}'")
        for message in self.link.received:
            self._on_message(message)
        self.link.received.clear()
        self.link.history.clear()

    def close(self):
        self.link.close()

    def _call(
        self, member, arguments, on_answer, what="", may_be_held=False, on_refused=None, **where
    ):
        """`on_refused` is what the client does when the daemon has no memory for the call."""
        message = self.link.compose(member, arguments, **where)
        serial = message.get_serial()
        self._calls[serial] = Call(on_answer, f"{member} {what}", may_be_held, on_refused)
        self.link.send(message)
        return serial

    def unanswered(self):
        """Calls that wait for an answer which has to come."""
        return [call.what for call in self._calls.values() if not call.may_be_held]

    def read(self):
        """Handles what has arrived."""
        violation = None
        for message in self.link.take_arrived():
            try:
                self._on_message(message)
            except Violation as found:  # the messages behind it count, too
                violation = violation or found
        if violation:
            raise violation

    def _on_message(self, message):
        kind = message.get_message_type()
        if kind in (RETURN, ERROR):
            self._on_answer(message)
        elif kind == SIGNAL and message.get_interface() == BUS_NAME:
            self._on_signal(message)

    def _on_answer(self, message):
        serial = message.get_reply_serial()
        call = self._calls.pop(serial, None)
        if call is None:
            what = "was answered twice" if serial in self._answered else "was never made"
            raise Violation(f"{self.name}: call {serial} {what}: {describe(message)[:200]}")
        self._answered.append(serial)
        self._tally["calls answered"] += 1
        if not self._is_refused_for_memory(message):
            call.on_answer(message)
        elif call.on_refused is not None:
            call.on_refused()

    # -- signals -------------------------------------------------------------------------------

    def _on_signal(self, message):
        member, arguments = message.get_member(), values(message)
        if member == "requestData":
            self._on_request_data(*arguments)
        elif member == "errorSignal":
            self._on_error_signal(*arguments)
        elif member == "connectionStatusChanged":
            require(arguments[0] in _STATUSES, f"status {arguments[0]}")
        elif member != "cancel":
            raise Violation(f"signal {member}{arguments}")

    def _on_request_data(self, connection, number):
        request = self._find(connection, number)
        if request is not None:
            self._checked(request, request.on, "asked")
            self._send_when_asked(request)

    def _on_error_signal(self, code, message, keys):
        require(code in (2001, NO_CONNECTION), f"errorSignal with code {code}")
        if message not in (CONNECTION_ERROR, NOT_ALLOWED):
            self.last_failure = time.monotonic()
            self.failure_times.append(self.last_failure)
        for key in keys.split():
            request = self._find(*map(int, key.split(":")))
            if request is not None:
                self._checked(request, request.on, "named", message.encode())
                self._end_if_over(request)

    def _find(self, connection, number):
        """A request of this client's connections, also one whose id was never told."""
        self._world.named_connections.add(connection)
        if connection not in self.connections:
            return None  # somebody else's
        known = self.requests.get((connection, number)) or self.past.get((connection, number))
        if known is None:
            owner = self.connections[connection]
            require(
                owner.nameless > 0, f"a signal names {connection}:{number}, which never existed"
            )
            owner.nameless -= 1
            known = self._adopt(owner, number, True)
            known.note("found by a signal")
        return known

    def _checked(self, request, check, *arguments):
        try:
            check(*arguments)
        except Violation as violation:
            raise Violation(f"{violation}\n  {request.tell()}") from None

    def _end_if_over(self, request):
        key = (request.connection.id, request.id)
        if request.over and key in self.requests:
            self.past[key] = self.requests.pop(key)
            if request.asked:
                self._send_rest(request)

    # -- doings --------------------------------------------------------------------------------

    def step(self):
        """Does one thing and decides when to do the next."""
        self.next_step = time.monotonic() + self.dice.expovariate(1 / _THINK_SECONDS)
        if self._refused:
            self._send(self._refused.popleft(), b"", True)
        if self.draining:
            self._drain()
            return
        asked = [r for r in self.requests.values() if r.asked and r.pieces]
        if asked and self.dice.random() < 0.6:
            self._send_piece(self.dice.choice(asked))
            return
        doings = (
            (self._open, 4),
            (self._create, 30),
            (self._ask, 30),
            (self._send_unasked, 1),
            (self._cancel, 1),
            (self._disconnect, 1.5),
            (self._ask_twice, 0.5),
            (self._ask_nonsense, 1),
            (self._send_nonsense, 1),
            (self._ask_status, 2),
            (self._vanish, 0.1),
        )
        self.dice.choices([d for d, _ in doings], [weight for _, weight in doings])[0]()

    def _open_connections(self):
        return [each for each in self.connections.values() if each.open]

    def _pick(self):
        return self.dice.choice(list(self.requests.values())) if self.requests else None

    def _open(self):
        if len(self._open_connections()) >= _MOST_CONNECTIONS:
            return
        self._tags += 1
        tag = f"{self.name}.{self._tags}"
        kind = self.dice.choice(("other", "other", "position", "fingerprint", ""))
        encoding = self.dice.choice(("binary", "binary", "8bit"))
        if kind == "fingerprint":
            encoding = "binary"  # its answer names the digest of what arrived
        size = self.dice.choice((700, 10_000, 65_536, 1 << 20, 2**32 - 1))
        texts = ("element", kind, tag, encoding, "application/octet-stream")

        def on_answer(message):
            number = values(message)[0]
            given = number in self._world.connection_ids
            require(not given, f"connection id {number} was given twice")
            self._world.connection_ids.add(number)
            self.connections[number] = Connection(number, tag, kind, encoding, size)

        self._call("connect", body("(ayayayayayu)", *map(str.encode, texts), size), on_answer)

    def _create(self):
        # Texts change on their way: their requests are told apart by their connections.
        connections = [c for c in self._open_connections() if c.encoding == "binary" or not c.used]
        if not connections or len(self.requests) >= _MOST_REQUESTS:
            return
        connection = self.dice.choice(connections)
        connection.used = True
        connection.creating += 1
        prepared = self.dice.random() < 0.6
        policy = self.dice.choices((0, 1, 2, 3, 4, 2**32 - 1), (2, 1, 8, 5, 0.5, 0.5))[0]
        arguments = body("(uuu)", connection.id, policy, self.dice.randrange(100))
        sent, closed = time.monotonic(), not connection.open

        def on_answer(message):
            connection.creating -= 1
            if message.get_message_type() == RETURN:
                require(not closed, "a request on a closed connection")
                self._world.require_permission(True, sent)
                self._adopt(connection, values(message)[0], prepared)
            else:
                self._on_creation_refused(connection, error_code(message), sent)

        def on_refused():
            connection.creating -= 1

        member = "prepare" if prepared else "attach"
        what = f"on {connection.id} with policy {policy}"
        self._call(member, arguments, on_answer, what, on_refused=on_refused)

    def _is_refused_for_memory(self, message):
        """A daemon with little memory may refuse what it has no room for; nothing has changed then."""
        if message.get_error_name() != LIMITS_EXCEEDED:
            return False
        require(self._budget, "a daemon with plenty of memory has no room")
        self._tally["refused for memory"] += 1
        return True

    def _on_creation_refused(self, connection, code, sent):
        self._tally[f"refused {code}"] += 1
        if code == NOT_PERMITTED:
            self._world.require_permission(False, sent)
            return
        require(code == NO_CONNECTION, f"a request on an open connection was refused with {code}")
        connection.nameless += 1  # it may exist nevertheless

    def _adopt(self, connection, number, prepared):
        key = (connection.id, number)
        require(number not in self._world.request_ids, f"request id {number} was given twice")
        self._world.request_ids.add(number)
        pieces = self._pieces(connection, number)
        request = Request(connection, number, prepared, pieces)
        # Whoever ends the wait of a fingerprint is a minute and a half late.
        request.stalls = connection.kind != "fingerprint" and self.dice.random() < 0.001
        if request.stalls:
            request.pieces = []
        if self._budget and self.dice.random() < 0.2:
            request.rests_until = time.monotonic() + self.dice.uniform(0.1, 1.5)
        request.note("created")
        if not connection.open:
            request.end("disconnected")
        self.requests[key] = request
        self._tally["requests"] += 1
        self._end_if_over(request)
        return request

    def _pieces(self, connection, number):
        """What to send; a text of its own at the front makes each request's data unique."""
        dice = self.dice
        most = min(2 * self._budget, 300 * connection.chunk_size)  # no answer in thousands of chunks
        if connection.encoding == "binary" and dice.random() < 0.2:
            return [f"size: {dice.randrange(most or 300_000)}".encode()]
        front = f"{self.name} {number}\n".encode()
        size = int(200_000 ** dice.random())
        if self._budget and dice.random() < 0.2:
            size = dice.randrange(most)
        if connection.encoding == "binary":
            data = front + dice.randbytes(size)
        else:
            line = b"x" * dice.randrange(80) + dice.choice((b"\n", b"\r\n"))
            data = front + line * (size // len(line))
        cuts = sorted(dice.randrange(len(data) + 1) for _ in range(dice.choice((0, 0, 1, 4))))
        return [data[a:b] for a, b in zip([0, *cuts], [*cuts, len(data)])]

    # -- data ----------------------------------------------------------------------------------

    def _send_when_asked(self, request):
        eager = self.draining or request.over or request.connection.kind == "fingerprint"
        if eager or self.dice.random() < 0.8:
            self._send_rest(request)

    def _send_rest(self, request):
        """Ended requests are mostly fed, too: an exchange waits 5 s for who is silent."""
        careless = request.over and request.connection.kind != "fingerprint"
        if careless and self.dice.random() < 0.005:
            request.pieces = []
        while request.pieces and request.connection.open:
            self._send_piece(request)

    def _send_unasked(self):
        request = self._pick()
        if request is not None and not request.asked:
            self._send(request, b"nobody has asked", False)

    def _send_piece(self, request):
        piece = request.pieces.pop(0)
        self._send(request, piece, not request.pieces)

    def _send(self, request, data, last):
        connection = request.connection
        is_open = connection.open  # calls of one client are handled in order

        def on_answer(message):
            result = values(message)[0]
            self._checked(request, request.on_sent, data, result, is_open)
            if result == NOT_ACCEPTING:
                on_refused()
            self._end_if_over(request)

        def on_refused():
            if last and self._may_retry(request):
                self._refused.append(request)

        arguments = data_body(data, last, connection.id, request.id)
        self._call("sendData", arguments, on_answer, f"for {request.key}", on_refused=on_refused)

    def _may_retry(self, request):
        """An exchange would wait for the end of a request's data, of a fingerprint's for long."""
        return self._budget and request.asked and request.may_retry(_RETRY_SECONDS)

    def _ask(self):
        request = self._pick()
        rests = request is not None and time.monotonic() < request.rests_until
        if request is not None and request.held is None and not rests:
            self._ask_for(request)

    def _ask_for(self, request):
        def on_answer(message):
            if request.held == serial:
                request.held = None
            if message.get_message_type() == RETURN:
                chunk = message.get_body().get_child_value(0).get_data_as_bytes().get_data() or b""
                code = message.get_body().get_child_value(1).get_uint32()
                self._checked(request, request.on_chunk, chunk, code)
                self._tally["chunks"] += 1
                self._tally["bytes delivered"] += len(chunk)
            else:
                self._checked(request, request.on, "refused", error_code(message))
            self._end_if_over(request)
            rests = self._budget and self.dice.random() < 0.03
            if rests:
                request.rests_until = time.monotonic() + self.dice.uniform(0.1, 1)
            if not request.over and not rests and request.held is None and self.dice.random() < 0.8:
                self._ask_for(request)

        def on_refused():
            request.note("getData refused for memory")
            request.open_calls -= 1
            if request.held == serial:
                request.held = None

        request.note("getData")
        request.open_calls += 1
        arguments = body("(uu)", request.connection.id, request.id)
        serial = self._call("getData", arguments, on_answer, request.key, True, on_refused)
        request.held = serial
        request.held_since = time.monotonic()

    def _ask_twice(self):
        """The second call replaces the first; a chunk that is under way may then be lost."""
        request = self._pick()
        if request is not None and request.held is not None:
            request.overlapped = True
            self._ask_for(request)

    # -- ends ----------------------------------------------------------------------------------

    def _cancel(self):
        request = self._pick()
        if request is not None:
            request.note("cancel")
            self.link.emit("cancel", body("(uu)", request.connection.id, request.id))
            self._end_by_client(request, "cancelled")

    def _end_by_client(self, request, how):
        request.end(how)
        self._end_if_over(request)

    def _disconnect(self):
        connections = self._open_connections()
        if connections:
            self._close(self.dice.choice(connections))

    def _close(self, connection):
        if self._may_close(connection):
            self._give_up(connection, "disconnected")

    def _may_close(self, connection):
        """Not often with data unsent: an exchange waits for what nobody may send any more."""
        everyone = [*self.requests.values(), *self.past.values()]
        unsent = any(r.connection is connection and r.pieces for r in everyone)
        if not unsent and connection.creating == 0:
            return True
        return connection.kind != "fingerprint" and self.dice.random() < 0.03

    def _give_up(self, connection, how):
        connection.open = False
        for request in [r for r in self.requests.values() if r.connection is connection]:
            request.note(how)
            self._end_by_client(request, how)
        self._disconnect_from_daemon(connection)

    def _disconnect_from_daemon(self, connection):
        self._call(
            "disconnect",
            body("(u)", connection.id),
            lambda message: None,
            on_refused=lambda: self._disconnect_from_daemon(connection),
        )

    def _vanish(self):
        """Leaves the bus with everything open, comes back and cleans up."""
        connections = self._open_connections()
        if not all(map(self._may_close, connections)):
            return
        self._tally["clients vanished"] += 1
        for call in self._calls.values():
            if call.what.startswith(("prepare", "attach")):
                self.connections[int(call.what.split()[2])].nameless += 1
        self.link.close()
        self._calls.clear()
        self._connect_to_bus()
        for connection in connections:
            self._give_up(connection, "vanished")
        for request in self.past.values():
            if request.gone:
                request.end("vanished")  # the reason may have come meanwhile

    # -- nonsense ------------------------------------------------------------------------------

    def _ask_nonsense(self):
        def on_answer(message):
            require(error_code(message) == wanted, f"{wanted} expected, got {describe(message)}")

        if self.dice.random() < 0.5:
            wanted, arguments = UNKNOWN_REQUEST, body("(uu)", self.dice.randrange(3), 0)
        else:
            wanted, arguments = BAD_ARGUMENTS, body("(s)", "1:1")
        self._call("getData", arguments, on_answer, "of nothing")

    def _send_nonsense(self):
        def on_answer(message):
            require(values(message)[0] == UNKNOWN_CONNECTION, f"got {describe(message)}")

        self._call("sendData", data_body(b"to nobody", True, 0, 1), on_answer)
        self.link.emit("cancel", body("(uu)", 0, 1))

    def _ask_status(self):
        def on_answer(message):
            require(values(message)[0] in _STATUSES, f"connectionStatus: {describe(message)}")

        arguments = body("(ss)", BUS_NAME, "connectionStatus")
        self._call("Get", arguments, on_answer, interface=_PROPERTIES)

    # -- the end -------------------------------------------------------------------------------

    def _drain(self):
        """Every request is led to its end."""
        for request in list(self.requests.values()):
            if self._may_be_given_up(request):
                request.overlapped = True
                self._ask_for(request)
            elif request.held is None:
                self._ask_for(request)
            if request.asked:
                self._send_rest(request)

    def _may_be_given_up(self, request):
        """A failure of another exchange sweeps answers away, and a call that came just before it."""
        waits = request.held is not None and time.monotonic() - request.held_since > _GIVEN_UP_SECONDS
        return waits and self.last_failure > request.held_since - _GIVEN_UP_SECONDS

    def close_all(self):
        for connection in self._open_connections():
            self._give_up(connection, "disconnected")

    def unexplained(self, seconds):
        """Requests that have been gone for so long without a reason seen on the bus."""
        return [request for request in self.past.values() if request.needs_explanation(seconds)]
