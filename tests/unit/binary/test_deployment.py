#!/usr/bin/python3
"""Deployment values are checked when the tree is configured.

usage: test_deployment.py CMAKE CMAKE_MODULES [unittest arguments]
"""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from test_passphrase import decode

CMAKE = ""
MODULES = Path()

PRINT_WORDS = """
include("{module}")
orvexd_passphrase_words("${{ORVEXD_KEY_PASSPHRASE}}" key words)
message("${{key}}")
message("${{words}}")
"""


def run_script(script, **values):
    definitions = [f"-D{name}={value}" for name, value in values.items()]
    return subprocess.run(
        [CMAKE, *definitions, "-P", script],
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )


def words_of(passphrase):
    """Key and words that the build makes of this pass phrase."""
    with tempfile.TemporaryDirectory() as folder:
        script = Path(folder, "words.cmake")
        script.write_text(PRINT_WORDS.format(module=MODULES / "KeyPassphrase.cmake"))
        key, words = run_script(script, ORVEXD_KEY_PASSPHRASE=passphrase).stderr.splitlines()
    return int(key), [int(word.rstrip("U"), 16) for word in words.split(", ")]


class Deployment(unittest.TestCase):
    def assert_accepted(self, **values):
        done = run_script(MODULES / "Deployment.cmake", **values)
        self.assertEqual((done.returncode, done.stderr), (0, ""), values)

    def assert_refused(self, text, **values):
        done = run_script(MODULES / "Deployment.cmake", **values)
        self.assertNotEqual(done.returncode, 0, values)
        self.assertIn(text, " ".join(done.stderr.split()))

    def test_defaults_are_accepted(self):
        self.assert_accepted()

    def test_pass_phrase_of_8_characters_is_accepted(self):
        for passphrase in ("12345678", "a b c d.", "\"$\\;[]{}", "~~~~~~~~"):
            self.assert_accepted(ORVEXD_KEY_PASSPHRASE=passphrase)

    def test_pass_phrase_of_another_length_is_an_error(self):
        for passphrase in ("", "1", "1234567", "123456789", "12345678" * 2):
            self.assert_refused("exactly 8", ORVEXD_KEY_PASSPHRASE=passphrase)

    def test_pass_phrase_that_is_not_ascii_is_an_error(self):
        self.assert_refused("ASCII", ORVEXD_KEY_PASSPHRASE="1234567\N{LATIN SMALL LETTER E WITH ACUTE}")
        self.assert_refused("ASCII", ORVEXD_KEY_PASSPHRASE="1234\t678")

    def test_server_url_with_a_port_is_accepted(self):
        for url in ("https://h:443", "https://h.example:8443/", "https://10.0.0.1:1/a/b"):
            self.assert_accepted(ORVEXD_SERVER_URL=url)

    def test_server_url_without_a_port_is_an_error(self):
        for url in ("https://h", "https://h/slp", "https://h:/slp", "https://h:port/", "https://:443/"):
            self.assert_refused("explicit port", ORVEXD_SERVER_URL=url)

    def test_server_url_that_is_not_https_is_an_error(self):
        for url in ("", "http://h:443/", "h:443", "ftp://h:443/"):
            self.assert_refused("HTTPS", ORVEXD_SERVER_URL=url)

    def test_empty_namespace_is_an_error(self):
        self.assert_refused("ORVEXD_SLP_XMLNS", ORVEXD_SLP_XMLNS="")

    def test_value_that_would_end_its_string_literal_is_an_error(self):
        for mark in ('"', "\\"):
            self.assert_refused("quotation mark", ORVEXD_SLP_XMLNS=f"http://h/{mark}x")
            self.assert_refused("quotation mark", ORVEXD_SERVER_URL=f"https://h:443/{mark}x")

    def test_relative_directory_is_an_error(self):
        # as text: CMake would complete a value without a type by the current directory
        self.assert_refused("ORVEXD_PREINST_DIR", **{"ORVEXD_PREINST_DIR:STRING": "share/orvexd"})
        self.assert_refused("ORVEXD_STORAGE_DIR", **{"ORVEXD_STORAGE_DIR:STRING": ""})


class PassphraseWords(unittest.TestCase):
    def test_decode_to_the_pass_phrase(self):
        for passphrase in ("ovx-7Kq2", "        ", "~~~~~~~~", "\"$\\;[]{}", "a;b;c;d;", "${HOME}!"):
            self.assertEqual(decode(*words_of(passphrase)), passphrase.encode())

    def test_are_the_same_for_every_build_of_a_pass_phrase(self):
        self.assertEqual(words_of("ovx-7Kq2"), words_of("ovx-7Kq2"))

    def test_change_all_over_with_one_character(self):
        _, one = words_of("ovx-7Kq2")
        _, other = words_of("ovx-7Kq3")
        self.assertFalse(set(one) & set(other))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    CMAKE, MODULES = sys.argv.pop(1), Path(sys.argv.pop(1))
    unittest.main()
