#!/usr/bin/python3 -B
"""Installs the library's files (component dev) into a scratch folder, as a package would, builds a
small program against them with nothing but pkg-config, and runs it.

Arguments: the build folder, the compiler and its further options in one word.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system/support"))
import results

BUILD, COMPILER, FLAGS = sys.argv[1], sys.argv[2], sys.argv[3].split()

PUBLIC_HEADERS = ["base64.h", "fork_exec.h", "idn.h", "messlog.h", "mimelib.h", "qrx_conf.h",
                  "quarx_db.h", "safe.h", "text_encoding.h"]
ARCHIVES = ["libquarx_conf.a", "libquarx_db.a", "libquarx_exec.a", "libquarx_log.a",
            "libquarx_mime.a", "libquarx_text.a"]


class InstalledLibrary(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.scratch = pathlib.Path(folder.name)
        cls.root = cls.scratch / "installed"
        subprocess.run(["cmake", "--install", BUILD, "--component", "dev", "--prefix", cls.root],
                       check=True, capture_output=True)

    def names(self, pattern):
        return sorted(path.name for path in self.root.glob(pattern))

    def test_the_public_headers_and_the_archives_are_there_and_nothing_else(self):
        self.assertEqual(self.names("include/quarx/*"), PUBLIC_HEADERS)
        self.assertEqual(self.names("lib/**/*.a"), ARCHIVES)
        files = [path.name for path in self.root.rglob("*")
                 if path.is_file() and self.root / "share/doc/libquarx-dev" not in path.parents]
        self.assertEqual(sorted(files), sorted([*PUBLIC_HEADERS, *ARCHIVES, "quarx.pc"]))

    def test_a_program_builds_against_them_by_pkg_config_and_runs(self):
        config = next(self.root.glob("lib/**/quarx.pc"))
        flags = subprocess.run(
            ["pkg-config", "--cflags", "--libs", "quarx"],
            env={**os.environ, "PKG_CONFIG_PATH": str(config.parent)},
            check=True, capture_output=True, text=True).stdout.split()
        program = self.scratch / "consumer"
        subprocess.run([COMPILER, "-std=c++20", "-Wall", "-Wextra", "-Werror", *FLAGS,
                        HERE / "consumer.cpp", "-o", program, *flags], check=True)
        ran = subprocess.run([program], capture_output=True)
        self.assertEqual(
            (ran.stdout, ran.stderr, ran.returncode),
            (b"QUJD =?utf-8?Q?a=2Db?= xn--bcher-kva.example apache2 4 null\n", b"", 0))


if __name__ == "__main__":
    sys.exit(results.run("consumer", unittest.defaultTestLoader.loadTestsFromTestCase(InstalledLibrary)))
