"""The blocks of doc/operating.md, so that the tests use the very lines that an administrator copies.

A block is what stands between the fences that follow a line "<!-- block: NAME -->".
"""

import pathlib
import re
import subprocess

_GUIDE = pathlib.Path(__file__).resolve().parents[2] / "doc/operating.md"
_BLOCK = re.compile(r"^<!-- block: (\S+) -->\n+```\w*\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def block(name):
    """The block's text. Raises KeyError where the guide has no such block."""
    return dict(_BLOCK.findall(_GUIDE.read_text(encoding="utf-8")))[name]


def run_block(name):
    """Runs the commands of a block, up to the first one that fails, which raises AssertionError."""
    done = subprocess.run(["sh", "-ec", block(name)], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{block(name)}ended with {done.returncode}:\n{done.stdout}{done.stderr}")
