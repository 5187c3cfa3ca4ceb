"""Feeds the house checks what they are to find."""
import subprocess
import tempfile
import unittest
from pathlib import Path

import floors
import library


class Floors(unittest.TestCase):
    def refused(self, room, line):
        with tempfile.TemporaryDirectory() as root:
            Path(root, "platform").mkdir()
            source = Path(root, room, "Some.h")
            source.parent.mkdir()
            source.write_text(f"#pragma once\n{line}\n")
            return list(floors.refusals(Path(root)))

    def test_refuses_what_is_above_or_beside_and_names_the_line(self):
        for room, line, reason in (
            ("Fenrik", '#include "Kiv/HashMap2018.h"', "above it on floor 2"),
            ("Fenrik", "  #  include <Kiv/HashMap2018.h>", "above it on floor 2"),
            ("Kiv", '#include "Blipline/Handle.h"', "beside it on floor 2"),
            ("platform/OvSlab", '#include "Fenrik/Node.h"', "beside it on floor 1"),
            ("platform/Drift", '#include "OrderedTable/TableName.h"', "above it on floor 4"),
            ("OrderedTable", '#include "../QuarnBastil/SwTable.h"', "Room/Header.h"),
            ("Attic", "", "a room without a floor"),
        ):
            found = self.refused(room, line)
            self.assertEqual(len(found), 1, (room, line))
            self.assertIn(reason, found[0])
            self.assertIn("Some.h:2:" if line else "Attic", found[0])


class Library(unittest.TestCase):
    def complaints(self, source, *options):
        with tempfile.TemporaryDirectory() as root:
            Path(root, "some.cpp").write_text(source)
            subprocess.run(["g++", "-shared", "-fPIC", "-o", f"{root}/lib.so", f"{root}/some.cpp",
                            "-Wl,-soname,libquarnbastil.so.0.1", *options], check=True)
            return "\n".join(library.complaints(f"{root}/lib.so", ["Kiv", "Fenrik"]))

    def test_finds_foreign_symbols_and_needs(self):
        own = "namespace Kiv { struct Own { virtual ~Own(); }; Own::~Own() {} }"
        self.assertEqual(self.complaints(own), "")
        leaking = self.complaints(own + "struct Stray { virtual ~Stray(); }; Stray::~Stray() {}")
        self.assertIn("typeinfo for Stray", leaking)
        self.assertIn("Stray::~Stray()", leaking)
        self.assertIn("nothing of its own", self.complaints(""))
        self.assertIn("it needs libresolv",
                      self.complaints(own, "-Wl,--no-as-needed", "-lresolv", "-Wl,-rpath,/x"))
        for called, where in (("levelEnabled(int)", "struct H { bool levelEnabled(int); };"
                               "bool H::levelEnabled(int) { return true; }"),
                              ("Fenrik::Ptr<int>::Ptr(", "}namespace Fenrik { template <class T>"
                               "struct Ptr { Ptr(const Ptr&) {} }; template struct Ptr<int>;")):
            self.assertIn(f"{called}", self.complaints(own + "namespace Kiv {" + where + "}"))
        self.assertIn("no symbol table", self.complaints(own, "-s"))
        self.assertIn("soname", self.complaints(own, "-Wl,-soname,other.so"))


if __name__ == "__main__":
    unittest.main()
