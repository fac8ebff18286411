#!/usr/bin/python3
"""No include line of src/ or client/ runs up the floors, and no two files need each other.

usage: test_includes.py SOURCE_DIRECTORY CLIENT_DIRECTORY [unittest arguments]
"""

import sys
import tempfile
import unittest
from pathlib import Path

import include_graph

SOURCES = Path()
CLIENT = Path()


def read_client():
    """The include lines of the library, without those of its tests."""
    files = include_graph.read_includes(CLIENT)
    return {name: lines for name, lines in files.items() if name.startswith(("src/", "include/"))}


def faults_of(tree, judge=include_graph.faults):
    """Faults of a made-up tree: names and their lines."""
    with tempfile.TemporaryDirectory() as folder:
        for name, lines in tree.items():
            path = Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text("\n".join(lines) + "\n", encoding="utf-8")
        return judge(include_graph.read_includes(folder))


class TheTree(unittest.TestCase):
    def test_has_no_fault(self):
        files = include_graph.read_includes(SOURCES)
        self.assertGreater(len(files), 50, f"{SOURCES} is not the tree")
        self.assertEqual(include_graph.faults(files), [])

    def test_has_every_folder_of_the_map(self):
        units = map(include_graph.unit_of, include_graph.read_includes(SOURCES))
        self.assertEqual(
            {unit.partition("/")[0] for unit in units}, set(include_graph.FLOOR_OF_FOLDER)
        )

    def test_has_arrows_down_to_the_ground(self):
        arrows = list(include_graph.own_includes(include_graph.read_includes(SOURCES)))
        self.assertGreater(len(arrows), 100, "include lines are not found")


class TheClientLibrary(unittest.TestCase):
    def test_has_no_fault(self):
        files = read_client()
        self.assertEqual(include_graph.client_faults(files), [])

    def test_has_every_module_of_the_map(self):
        modules = set(map(include_graph.module_of, read_client()))
        self.assertEqual(modules, set(include_graph.FLOOR_OF_MODULE))

    def test_has_arrows_down_to_the_ground(self):
        arrows = list(include_graph.client_includes(read_client()))
        self.assertGreater(len(arrows), 50, "include lines are not found")


class TheCheckOfTheClientLibrary(unittest.TestCase):
    """Finds each kind of fault in a library that was made for it."""

    def assert_only_fault(self, tree, text):
        found = faults_of(tree, include_graph.client_faults)
        self.assertEqual(len(found), 1, found)
        self.assertIn(text, found[0])

    def test_accepts_arrows_down_and_a_private_header(self):
        tree = {
            "include/orvex-request.h": ['#include "orvex-enums.h"'],
            "include/orvex-enums.h": ["#include <glib-object.h>"],
            "src/orvex-request-private.h": ['#include "orvex-request.h"'],
            "src/orvex-request.c": ['#include "orvex-request-private.h"'],
        }
        self.assertEqual(faults_of(tree, include_graph.client_faults), [])

    def test_finds_an_arrow_up(self):
        self.assert_only_fault(
            {"src/orvex-link.h": [], "src/orvex-bus.c": ['#include "orvex-link.h"']},
            "src/orvex-bus.c:1: floor 1 uses orvex-link of floor 2",
        )

    def test_finds_a_circle_that_runs_through_sources_and_a_private_header(self):
        self.assert_only_fault(
            {
                "include/orvex-request.h": [],
                "src/orvex-request.c": ['#include "orvex-answer-stream.h"'],
                "src/orvex-request-private.h": [],
                "src/orvex-answer-stream.h": [],
                "src/orvex-answer-stream.c": ['#include "orvex-request-private.h"'],
            },
            "orvex-answer-stream -> orvex-request -> orvex-answer-stream",
        )

    def test_finds_a_module_on_no_floor(self):
        self.assert_only_fault({"src/orvex-attic.c": []}, "orvex-attic.c: stands on no floor")


class TheCheck(unittest.TestCase):
    """Finds each kind of fault in a tree that was made for it."""

    def assert_only_fault(self, tree, text):
        found = faults_of(tree)
        self.assertEqual(len(found), 1, found)
        self.assertIn(text, found[0])

    def test_accepts_arrows_down_and_on_the_same_floor(self):
        self.assertEqual(
            faults_of(
                {
                    "main/main.cpp": ['#include "dbus/Service.h"', "#include <string>"],
                    "dbus/Service.h": ['#include "core/OrvexMain.h"'],
                    "core/OrvexMain.h": ['#include "http/Client.h"', '#include "network/Net.h"'],
                    "http/Client.h": ['#include "request/RequestData.h"', "#include <curl/curl.h>"],
                    "network/Net.h": ['#include "trilba/network/IConnectionManager.h"'],
                    "request/RequestData.h": ['#include "support/Queue.h"'],
                    "support/Queue.h": [],
                }
            ),
            [],
        )

    def test_finds_an_arrow_up(self):
        self.assert_only_fault(
            {
                "support/Queue.h": ["#pragma once", '#include "dbus/Service.h"'],
                "dbus/Service.h": [],
            },
            "support/Queue.h:2: floor 1 uses dbus/Service.h of floor 6",
        )

    def test_finds_an_arrow_from_the_transfer_to_the_gateway(self):
        self.assert_only_fault(
            {"http/Client.h": ['#include "core/ServicePosts.h"'], "core/ServicePosts.h": []},
            "floor 4 uses core/ServicePosts.h of floor 5",
        )

    def test_finds_an_arrow_up_in_angle_brackets(self):
        self.assert_only_fault(
            {"slp/Parser.h": ["  #  include <http/Client.h>"], "http/Client.h": []},
            "floor 3 uses http/Client.h of floor 4",
        )

    def test_finds_a_cycle_on_one_floor(self):
        self.assert_only_fault(
            {
                "slp/A.h": ['#include "slp/B.h"'],
                "slp/B.h": ['#include "slp/C.h"'],
                "slp/C.h": ['#include "slp/A.h"'],
            },
            "slp/A -> slp/B -> slp/C -> slp/A",
        )

    def test_finds_a_cycle_that_runs_through_the_sources(self):
        self.assert_only_fault(
            {
                "http/A.h": [],
                "http/A.cpp": ['#include "http/A.h"', '#include "http/B.h"'],
                "http/B.h": [],
                "http/B.cpp": ['#include "http/B.h"', '#include "http/A.h"'],
            },
            "http/A -> http/B -> http/A",
        )

    def test_finds_a_file_on_no_floor(self):
        self.assert_only_fault({"attic/Old.cpp": []}, "attic/Old.cpp: stands on no floor")

    def test_finds_an_include_from_outside_the_tree(self):
        self.assert_only_fault(
            {"slp/A.cpp": ['#include "../platform/src/FileState.h"']}, "is not below src"
        )

    def test_finds_a_library_away_from_its_home(self):
        self.assert_only_fault({"core/OrvexMain.cpp": ["#include <curl/curl.h>"]}, "belongs to")
        self.assert_only_fault({"http/Client.cpp": ["#include <dbus/dbus.h>"]}, "belongs to")

    def test_finds_an_include_in_the_protocol(self):
        self.assert_only_fault({"protocol/Codes.h": ["#include <cstdint>"]}, "includes nothing")

    def test_reads_templates_as_what_becomes_of_them(self):
        self.assertEqual(
            faults_of(
                {
                    "http/A.cpp": ['#include "support/Deployment.h"'],
                    "support/Deployment.h.in": ["#pragma once"],
                }
            ),
            [],
        )


if __name__ == "__main__":
    if len(sys.argv) < 3 or not all(Path(folder).is_dir() for folder in sys.argv[1:3]):
        sys.exit(__doc__)
    SOURCES = Path(sys.argv.pop(1))
    CLIENT = Path(sys.argv.pop(1))
    unittest.main()
