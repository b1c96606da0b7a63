#!/usr/bin/env python3
"""Reads back from the installed files what they promise to the platform: files_test.py BUILD READELF LIBRARIES

BUILD is a build's folder, READELF a readelf that knows the processor, and LIBRARIES the folder of the platform's
libraries, or empty where there is none to look into.
"""
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BUILD, READELF, LIBRARIES = sys.argv[1:4]
ROOT = pathlib.Path(__file__).parents[2]
PLATFORM = {"libc.so", "libm.so", "libdl.so", "liblog.so"}


class Elf:
    def __init__(self, path):
        self.path = path
        self.dynamic = self.read("--dynamic-table")
        self.segments = self.read("--program-headers")

    def read(self, what):
        return subprocess.run([READELF, "--wide", what, self.path], check=True, capture_output=True, text=True).stdout

    def entries(self, tag):
        return re.findall(rf"\({tag}\).*?\[(.*)\]", self.dynamic)

    def symbols(self, defined):
        """Names and versions."""
        for line in self.read("--dyn-symbols").splitlines():
            words = line.split()
            if len(words) >= 8 and words[4] in ("GLOBAL", "WEAK") and (words[6] != "UND") == defined:
                name, _, version = words[7].partition("@")
                yield name, version.strip("@")


class Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        subprocess.run(
            ["cmake", "--install", BUILD, "--prefix", cls.folder.name, "--strip"], check=True, stdout=subprocess.DEVNULL
        )
        prefix = pathlib.Path(cls.folder.name)
        cls.library, cls.launcher = Elf(prefix / "lib/libcounterfeed.so"), Elf(prefix / "bin/counterfeed-launcher")

    @classmethod
    def tearDownClass(cls):
        print(f"The stripped library has {cls.library.path.stat().st_size} bytes.")
        cls.folder.cleanup()

    def test_exports_what_the_linker_was_told(self):
        wanted = re.search(r"global:(.*?)local:", (ROOT / "cmake/exports.map").read_text(), re.S).group(1)
        self.assertEqual({name for name, _ in self.library.symbols(True)}, set(re.findall(r"\w+", wanted)))

    def test_needs_the_platform_and_nothing_else(self):
        self.assertEqual(set(self.library.entries("NEEDED")), PLATFORM)
        self.assertLessEqual(set(self.launcher.entries("NEEDED")), PLATFORM)
        offered = set()
        for library in sorted(PLATFORM) if LIBRARIES else ():
            offered |= set(Elf(pathlib.Path(LIBRARIES) / library).symbols(True))
        for elf in self.library, self.launcher:
            missing = set(elf.symbols(False))
            self.assertIn(("__cxa_atexit", "LIBC"), missing)
            for name, version in missing:
                # Not LIBC_PRIVATE and the like. Of the log's library, which has no versions, the log alone.
                self.assertRegex(f"{name}@{version}", r"@LIBC(_[A-Z])?$|^__android_log_\w+@$")
            if LIBRARIES:
                self.assertLessEqual(missing, offered)

    def test_finds_the_library_from_the_launcher(self):
        self.assertEqual(self.launcher.entries("RUNPATH") or self.launcher.entries("RPATH"), ["$ORIGIN/../lib"])
        self.assertEqual(self.library.entries("SONAME"), ["libcounterfeed.so"])

    def test_is_hard_to_misuse(self):
        for elf in self.library, self.launcher:
            self.assertNotIn("TEXTREL", elf.dynamic)
            self.assertRegex(elf.dynamic, r"\(FLAGS\).*BIND_NOW")
            self.assertIn("GNU_RELRO", elf.segments)
            self.assertRegex(elf.segments, r"GNU_STACK .* RW +0")
            self.assertNotRegex(elf.segments, r"LOAD .* RWE")
            self.assertIn("Type:                              DYN", elf.read("--file-header"))
        # Of the code: its stack is guarded, and the C library looks after buffers whose size is known.
        self.assertLessEqual({("__stack_chk_fail", "LIBC"), ("__memcpy_chk", "LIBC")}, set(self.library.symbols(False)))


unittest.main(argv=sys.argv[:1], verbosity=2)
