#!/usr/bin/python3
"""The pass phrase of the client key is in the daemon as eight words only, never as text.

usage: test_passphrase.py DAEMON WORDS_HEADER PASSPHRASE_IN_HEX [unittest arguments]
"""

import base64
import codecs
import re
import struct
import sys
import unittest
from pathlib import Path

DAEMON = b""
HEADER = ""
PASSPHRASE = b""

STEP = 65535
NOISE_BITS = 6
MASK = 0xFFFFFFFF


def encodings(text):
    """The text in every form in which somebody might look for it, by name."""
    letters = text.decode("ascii")
    forms = {
        "plain": text,
        "ROT13": codecs.encode(letters, "rot13").encode(),
        "hexadecimal": text.hex().encode(),
        "hexadecimal, upper case": text.hex().upper().encode(),
        "Base64": base64.b64encode(text).rstrip(b"="),
    }
    for name in ("utf-16-le", "utf-16-be", "utf-32-le", "utf-32-be"):
        forms[name] = letters.encode(name)
    return {**forms, **{f"{name}, reversed": form[::-1] for name, form in forms.items()}}


def forms_found(data, text):
    return [name for name, form in encodings(text).items() if form in data]


def key_and_words(header):
    key = re.search(r"kPassphraseKey = (\w+)U;", header)
    words = re.search(r"kPassphraseWords = \{([^}]*)\}", header)
    assert key and words, header
    return int(key[1], 0), [int(word, 16) for word in re.findall(r"0x([0-9a-fA-F]+)U", words[1])]


def decode(key, words):
    text = bytearray()
    for word in words:
        text.append(((word ^ key) >> NOISE_BITS) & 0xFF)
        key = (key + STEP) & MASK
    return bytes(text)


class Words(unittest.TestCase):
    def setUp(self):
        self.key, self.words = key_and_words(HEADER)

    def test_there_is_one_for_each_character(self):
        self.assertEqual(len(PASSPHRASE), 8)
        self.assertEqual(len(self.words), 8)

    def test_decode_to_the_pass_phrase(self):
        self.assertEqual(decode(self.key, self.words), PASSPHRASE)

    def test_fit_into_32_bits(self):
        for word in [self.key, *self.words]:
            self.assertEqual(word, word & MASK)

    def test_are_in_the_program(self):
        order = "<" if DAEMON[5] == 1 else ">"  # EI_DATA
        self.assertIn(struct.pack(f"{order}8I", *self.words), DAEMON)

    def test_do_not_repeat_for_equal_characters(self):
        self.assertEqual(len(set(self.words)), len(self.words))


class Text(unittest.TestCase):
    def test_program_is_an_elf_file(self):
        self.assertEqual(DAEMON[:4], b"\x7fELF")

    def test_is_in_the_program_in_no_encoding(self):
        self.assertEqual(forms_found(DAEMON, PASSPHRASE), [])

    def test_halves_are_not_in_the_program_either(self):
        # as the operands of two instructions that store four characters each
        self.assertNotIn(PASSPHRASE[:4], DAEMON)
        self.assertNotIn(PASSPHRASE[4:], DAEMON)

    def test_search_finds_each_encoding(self):
        for name, form in encodings(PASSPHRASE).items():
            self.assertIn(name, forms_found(b"\0before" + form + b"behind", PASSPHRASE))


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    DAEMON = Path(sys.argv.pop(1)).read_bytes()
    HEADER = Path(sys.argv.pop(1)).read_text(encoding="utf-8")
    PASSPHRASE = bytes.fromhex(sys.argv.pop(1))
    unittest.main()
