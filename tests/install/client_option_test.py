#!/usr/bin/python3 -B
"""The choice of the program's libraries (QRX_CLIENT), as CMake makes the link's command of it.

Arguments: the source folder, the C++ compiler.
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "system/support"))
import results

SOURCE, COMPILER = sys.argv[1:3]


class ClientOption(unittest.TestCase):
    def link_command(self, *options):
        """The words of the command that links the program."""
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["cmake", "-G", "Ninja", "-S", SOURCE, "-B", folder, "-DQRX_TESTS=OFF",
                            f"-DCMAKE_CXX_COMPILER={COMPILER}", *options], check=True, capture_output=True)
            commands = subprocess.run(["ninja", "-C", folder, "-t", "commands", "autoresponder"],
                                      check=True, capture_output=True, text=True).stdout
        return next(line for line in commands.splitlines() if "-o autoresponder/autoresponder " in line).split()

    def libraries(self, words):
        """The names of the libraries outside of this project."""
        return {pathlib.Path(word).name for word in words
                if word.startswith("/") and (".a" in word or ".so" in word)}

    def test_by_default_the_libraries_are_archives_without_tls(self):
        words = self.link_command()
        self.assertEqual(self.libraries(words), {"libmariadb.a", "libz.a", "libidn.a"})
        self.assertIn("-static-libstdc++", words)
        self.assertTrue(any("no_tls" in word for word in words), words)

    def test_shared_libraries_are_one_option_away(self):
        words = self.link_command("-DQRX_CLIENT=shared")
        self.assertEqual(self.libraries(words), {"libmariadb.so", "libidn.so"})
        self.assertNotIn("-static-libstdc++", words)
        self.assertFalse(any("no_tls" in word for word in words), words)

    def test_another_word_is_refused(self):
        with self.assertRaises(subprocess.CalledProcessError) as refusal:
            self.link_command("-DQRX_CLIENT=dynamic")
        self.assertIn(b"QRX_CLIENT", refusal.exception.stderr)


if __name__ == "__main__":
    sys.exit(results.run("client_option", unittest.defaultTestLoader.loadTestsFromTestCase(ClientOption)))
