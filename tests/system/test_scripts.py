"""What the developers' scripts say to wrong arguments, before they do anything, and to a call for help."""

import pathlib
import subprocess
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "script"


def run(name, *arguments):
    """Status, standard output and standard error of the script."""
    ended = subprocess.run([SCRIPTS / name, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, timeout=60, check=False)
    return ended.returncode, ended.stdout, ended.stderr


class Scripts(unittest.TestCase):
    def test_wrong_arguments_are_one_line_each(self):
        for name, arguments, error in (
                ("setup", ["bogus"], "'bogus' is no preset"),
                ("setup", [""], "'' is no preset"),
                ("setup", ["release:"], "'release:' is no preset"),
                ("test", ["-x"], "no option '-x'"),
                ("test", [""], "no option ''"),
                ("check", [""], "no check ''"),
                ("check", ["tidy", "x"], "tidy takes no x"),
                ("fuzz", ["bogus"], "no target 'bogus'"),
                ("fuzz", [""], "no target ''"),
                ("fuzz", ["parse_message"], "for how many seconds?"),
                ("fuzz", ["parse_message", "10s"], "'10s' is no number of seconds"),
                ("fuzz", ["parse_message", "10", "x"], "one target and its seconds, not also x"),
                ("soak", [""], "'' is no number of runs"),
                ("soak", ["0"], "'0' is no number of runs"),
                ("soak", ["10", "20"], "one number of runs, not also 20"),
                ("package", ["x"], "takes no x")):
            with self.subTest(script=name, arguments=arguments):
                self.assertEqual(run(name, *arguments),
                                 (2, "", f"{name}: {error}; see script/{name} --help\n"))

    def test_help_is_the_whole_comment_at_the_script_s_top(self):
        for script in sorted(SCRIPTS.iterdir()):
            with self.subTest(script.name):
                status, said, errors = run(script.name, "--help")
                self.assertEqual((status, errors), (0, ""))
                comment = script.read_text().partition("\nset -")[0].splitlines()[1:]
                self.assertEqual(said.splitlines()[:len(comment)],
                                 [line.removeprefix("#").removeprefix(" ") for line in comment])
