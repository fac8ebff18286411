#!/usr/bin/python3
"""Sends a fingerprint and prints the answer: fingerprint.py FILE"""

import sys

import gi

gi.require_version("Orvex", "1.0")
from gi.repository import GLib, Orvex  # noqa: E402

with open(sys.argv[1], "rb") as file:
    question = GLib.Bytes.new(file.read())
try:
    client = Orvex.Client.new()
    request = Orvex.Request.new("fingerprintRequest", "fingerprint", "1.0", "application/xml")
    answer = client.ask(request, question)
except GLib.Error as error:
    sys.exit(f"fingerprint.py: {error.message}")
sys.stdout.buffer.write(answer.get_data())
