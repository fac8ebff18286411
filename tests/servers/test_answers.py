"""What common libraries do by default, and what the daemon's parser makes of it."""

import email.mime.multipart
import email.mime.text
import email.utils
import subprocess

import pytest

from harness.settings import BUILD_DIR

DOCUMENT = (
    '<SimpleLocationProtocol><SlpResponse status="ok"><result oid="1" href="cid:{}"/></SlpResponse>'
    "</SimpleLocationProtocol>"
)
UNDERSTOOD = "The daemon understands this answer."


def check(content_type, body):
    """What the daemon makes of a body."""
    words = [BUILD_DIR / "bin" / "slp-check-answer", "--content-type", content_type, "-"]
    done = subprocess.run(words, input=body, capture_output=True, check=False)
    return done.stdout.decode()


def message(boundary=None, brackets="<{}>"):
    """An answer as Python's email package composes it: Content-Type and body."""
    whole = email.mime.multipart.MIMEMultipart("related", boundary, type="text/xml", start=brackets.format("slp"))
    for content_id, text, kind in (("slp", DOCUMENT.format("a"), "xml"), ("a", "here you are", "plain")):
        part = email.mime.text.MIMEText(text, kind, "us-ascii")
        part["Content-ID"] = brackets.format(content_id)
        whole.attach(part)
    lines = whole.as_bytes(policy=whole.policy.clone(linesep="\r\n", max_line_length=None))
    body = lines.partition(b"\r\n\r\n")[2]
    # The boundary is known only now.
    return whole["Content-Type"].replace("\n", ""), b"\r\n" + body


def test_pythons_mail_library_makes_boundaries_with_equals_signs():
    content_type, body = message(brackets="{}")
    text = check(content_type, body)
    assert "it leaves out = ' and \", and ends at a blank or ;" in text
    assert "The daemon refuses this answer" in text


def test_boundary_of_ones_own_helps():
    assert UNDERSTOOD in check(*message("abc", "{}"))


def test_content_ids_in_angle_brackets_as_mail_has_them_are_not_found():
    text = check(*message("abc"))
    assert 'announced is "a": one of them is in angle brackets' in text
    assert "The daemon refuses this answer" in text


@pytest.mark.parametrize("content_id", [email.utils.make_msgid()])
def test_ids_that_python_makes_are_in_angle_brackets(content_id):
    assert content_id.startswith("<") and content_id.endswith(">")
