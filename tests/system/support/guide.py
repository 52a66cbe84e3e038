"""The blocks of doc/operating.md, so that the tests use the very lines that an administrator copies.

A block is what stands between the fences that follow a line "<!-- block: NAME -->".
"""

import pathlib
import re
import subprocess

_GUIDE = pathlib.Path(__file__).resolve().parents[3] / "doc/operating.md"
_BLOCK = re.compile(r"^<!-- block: (\S+) -->\n+```\w*\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def text():
    return _GUIDE.read_text(encoding="utf-8")


def block(name):
    """The block's text. Raises KeyError where the guide has no such block."""
    return dict(_BLOCK.findall(text()))[name]


def run_commands(commands):
    """Runs them by the shell, up to the first one that fails, which raises AssertionError; returns what they wrote."""
    done = subprocess.run(["sh", "-ec", commands], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise AssertionError(f"{commands}ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout + done.stderr


def run_block(name):
    return run_commands(block(name))


def run_sql(name):
    """Runs the block as the database's root; returns the rows as mariadb writes them, columns separated by tabs."""
    done = subprocess.run(["mariadb", "--no-defaults", "--batch", "--skip-column-names", "-uroot"], input=block(name),
                          capture_output=True, text=True, check=True)
    return done.stdout
