"""SLP response documents that are rejected, and the texts that tell why."""

from .response import document, slp_response

RESULT = '<result oid="1" href="cid:a"/>'

NO_DOCUMENT = "could not parse document"
NO_ROOT = "SimpleLocationProtocol element faulty or does not exist"
NO_RESPONSE = "SlpResponse element faulty or does not exist"
STRANGE_ELEMENT = "SlpResponse included other elements than results"
NO_ATTRIBUTE = "oid or cid not found from result"
BAD_OID = "oid attribute has invalid value"
BAD_CID = "cid attribute has invalid value"
EMPTY_CID = "cid attribute has zero value"

# Ten entities, each of them ten times the one before it.
LAUGHS = (
    "<!DOCTYPE r ["
    + '<!ENTITY a "0123456789">'
    + "".join(f'<!ENTITY {n} "{f"&{m};" * 10}">' for m, n in zip("abcdefghi", "bcdefghij"))
    + "]>"
)

# By name: what stands in the place of the document, and the text.
FAULTS = {
    "empty": ("", NO_DOCUMENT),
    "no XML": ("{}", NO_DOCUMENT),
    "unclosed": (document("a")[:-1], NO_DOCUMENT),
    "two roots": (document("a") * 2, NO_DOCUMENT),
    "not UTF-8": ({"latin1": document("a").replace("ok", "\xe9")}, NO_DOCUMENT),
    "NUL bytes": ({"hex": document("a").replace("ok", "o\0k").encode().hex()}, NO_DOCUMENT),
    "unknown entity": (document("a").replace("ok", "&ok;"), NO_DOCUMENT),
    "wrong root": (document("a").replace("Location", "Position"), NO_ROOT),
    "root in lower case": (document("a").replace("SimpleL", "simpleL"), NO_ROOT),
    "empty root": ("<SimpleLocationProtocol/>", NO_RESPONSE),
    "text in the root": ("<SimpleLocationProtocol>ok</SimpleLocationProtocol>", NO_RESPONSE),
    "response in lower case": (document("a").replace("SlpR", "slpR"), NO_RESPONSE),
    "response is second": (document("a").replace("<SlpR", "<x/><SlpR"), NO_RESPONSE),
    "status in upper case": (slp_response(RESULT, 'status="OK"'), "OK"),
    "status with a blank": (slp_response(RESULT, 'status="ok "'), "ok "),
    "empty status": (slp_response(RESULT, 'status=""'), ""),
    "other status": (slp_response(RESULT, 'status="käputt &lt;1&gt;"'), "käputt <1>"),
    "no status": (slp_response(RESULT, ""), ""),
    "status in another case": (slp_response(RESULT, 'Status="ok"'), ""),
    "other element": (slp_response(f"{RESULT}<other/>"), STRANGE_ELEMENT),
    "other element first": (slp_response(f"<other/>{RESULT}"), STRANGE_ELEMENT),
    "result in upper case": (slp_response('<Result oid="1" href="cid:a"/>'), STRANGE_ELEMENT),
    "no oid": (slp_response('<result href="cid:a"/>'), NO_ATTRIBUTE),
    "no href": (slp_response('<result oid="1"/>'), NO_ATTRIBUTE),
    "neither": (slp_response(f"{RESULT}<result/>"), NO_ATTRIBUTE),
    "negative oid": (slp_response('<result oid="-1" href="cid:a"/>'), BAD_OID),
    "oid with a blank": (slp_response('<result oid="1 " href="cid:a"/>'), BAD_OID),
    "oid in hexadecimal": (slp_response('<result oid="0x1" href="cid:a"/>'), BAD_OID),
    "bad oid comes before bad cid": (slp_response('<result oid="x" href="a"/>'), BAD_OID),
    "no cid": (slp_response('<result oid="1" href="a"/>'), BAD_CID),
    "empty href": (slp_response('<result oid="1" href=""/>'), BAD_CID),
    "short href": (slp_response('<result oid="1" href="cid"/>'), BAD_CID),
    "blank before cid": (slp_response('<result oid="1" href=" cid:a"/>'), BAD_CID),
    "nothing behind cid": (slp_response('<result oid="1" href="cid:"/>'), EMPTY_CID),
    "second result": (slp_response(RESULT + '<result oid="1" href="CID:"/>'), EMPTY_CID),
    "billion laughs": (LAUGHS + document("a").replace("ok", "&j;"), NO_DOCUMENT),
    "billion laughs in the response": (LAUGHS + slp_response(f"{RESULT}&j;"), NO_DOCUMENT),
    "long entity many times": (
        f'<!DOCTYPE r [<!ENTITY a "{"x" * 1500}">]>'
        + document("a").replace("ok", "&a;" * 20_000),
        NO_DOCUMENT,
    ),
    "entity that names itself": (
        '<!DOCTYPE r [<!ENTITY a "&a;">]>' + document("a").replace("ok", "&a;"),
        NO_DOCUMENT,
    ),
    "10,000 nested elements": ("<x>" * 10_000 + "</x>" * 10_000, NO_DOCUMENT),
    "10,000 nested elements in the response": (
        slp_response(RESULT + "<x>" * 10_000 + "</x>" * 10_000),
        NO_DOCUMENT,
    ),
}
