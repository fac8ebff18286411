#!/usr/bin/python3
"""Which mutations the driver finds in a source, and which places it leaves alone."""

import unittest

from mutations import apply, mutations_of


def variants(source, kind=None):
    """The source as its mutations read, or those of one kind."""
    found = mutations_of("a.cpp", source)
    return [apply(each, source) for each in found if kind in (None, each.kind)]


def body(statements):
    """A function with these statements."""
    return f"void f() {{ {statements} }}"


class Constants(unittest.TestCase):
    def test_number_becomes_its_neighbours(self):
        self.assertEqual(variants("int a = 7;"), ["int a = 6;", "int a = 8;"])

    def test_zero_only_grows(self):
        self.assertEqual(variants("int a = 0;"), ["int a = 1;"])

    def test_suffix_and_separators_of_a_number_are_understood(self):
        self.assertEqual(variants("long a = 1'000L;"), ["long a = 1001L;", "long a = 999L;"])

    def test_texts_and_characters_change(self):
        self.assertEqual(variants('f(char c = \'"\');'), ["f(char c = ' ');"])
        self.assertEqual(variants('auto a = "b\\"c";'), ['auto a = "";'])

    def test_named_constant_becomes_the_next_of_its_kind(self):
        self.assertEqual(variants("bool a = true;"), ["bool a = false;"])
        self.assertEqual(variants("int a = failure::kNone;"), ["int a = failure::kUnknownRequest;"])


class Comparisons(unittest.TestCase):
    def test_bounds_move_and_equality_is_turned_round(self):
        for before, after in (("<", "<="), (">=", ">"), ("==", "!=")):
            self.assertEqual(variants(f"bool a = b {before} c;"), [f"bool a = b {after} c;"])

    def test_and_and_or_are_exchanged(self):
        self.assertEqual(variants("bool a = b && c;"), ["bool a = b || c;"])

    def test_not_goes(self):
        self.assertEqual(variants("bool a = !b;"), ["bool a = b;"])

    def test_templates_and_references_are_no_operators(self):
        self.assertEqual(variants("std::vector<int> f(T&& a, const T& b, T* c);"), [])


class Statements(unittest.TestCase):
    def removed(self, statements):
        """What is left of a function, for each statement that goes."""
        return variants(body(statements), "statement")

    def test_calls_and_assignments_go(self):
        self.assertEqual(self.removed("f(1); a->b = c;"), [body("; a->b = c;"), body("f(1); ;")])

    def test_jumps_go(self):
        for jump in ("return;", "break;", "throw 1;"):
            self.assertEqual(self.removed(jump), [body(";")])

    def test_statement_in_a_lambda_goes_alone_and_with_its_call(self):
        self.assertEqual(self.removed("g([] { f(); });"), [body(";"), body("g([] { ; });")])

    def test_declarations_and_results_stay(self):
        self.assertEqual(self.removed("int a(b); T c = d; std::string e{f}; return g;"), [])

    def test_members_of_a_class_are_no_statements(self):
        self.assertEqual(variants("class A { A(); void f(B b); virtual int g() = 0; };"), [])

    def test_body_behind_initialisers_has_statements(self):
        source = "A::A() : b_(c), d_{e} { f(); }"
        self.assertEqual(variants(source, "statement"), ["A::A() : b_(c), d_{e} { ; }"])


class Branches(unittest.TestCase):
    def test_condition_is_turned_round(self):
        self.assertIn(body("if (!(a)) { }"), variants(body("if (a) { }"), "branch"))

    def test_condition_behind_an_initialisation_is_turned_round(self):
        self.assertEqual(variants(body("if (T a = b; c) { }")), [body("if (T a = b; !(c)) { }")])

    def test_condition_that_declares_stays(self):
        self.assertEqual(variants(body("if (T* a = b) { }")), [])

    def test_loop_is_not_entered(self):
        self.assertEqual(variants(body("while (a(b)) { }")), [body("while (false) { }")])

    def test_choice_is_swapped(self):
        self.assertEqual(variants("int a = b ? c(d, e) : f;"), ["int a = b ? f : c(d, e);"])


class Locks(unittest.TestCase):
    def test_guard_goes(self):
        for lock in ("const Lock guard(m);", "const std::lock_guard guard(m);"):
            self.assertEqual(variants(body(lock), "lock"), [body(";")])

    def test_member_stays(self):
        self.assertEqual(variants("class A { Lock guard_; };"), [])


class WhatIsNoCode(unittest.TestCase):
    def test_comments_includes_and_checks_stay(self):
        self.assertEqual(variants('// a == 1\n#include "b"\n/* c = 2; */\n'), [])
        self.assertEqual(variants('static_assert(d == 3, "e");\nextern "C" f();'), [])


class Keys(unittest.TestCase):
    def keys(self, source):
        return [each.key for each in mutations_of("a.cpp", source)]

    def test_keys_differ(self):
        source = "int a = 1;\nint a = 1;\n"
        self.assertEqual(len(set(self.keys(source))), 4)

    def test_key_survives_lines_in_front(self):
        self.assertEqual(self.keys("int a = 1;\n"), self.keys("// b\n\nint a = 1;\n"))


unittest.main()
