#!/usr/bin/python3 -B
"""Holds the manual pages against the programs that format them, the source and the reader of qrx.conf.

Arguments: the folder with the pages as they are installed, and the program print_value.
"""

import itertools
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(CHECKOUT / "tests/system/support"))
import results

PAGES, PRINT_VALUE = pathlib.Path(sys.argv[1]), sys.argv[2]
PROGRAM_PAGE, CONFIGURATION_PAGE = PAGES / "autoresponder.8", PAGES / "qrx.conf.5"

# Files of the library that the program doesn't use, and texts of its other files that only functions
# report which the program doesn't call.
NOT_USED = {"popen_exec.cpp", "reported_exec.cpp", "util_exec.cpp", "child_output.cpp"}
NOT_REPORTED = {
    "Unable to fork": "do_exec",
    "Success": "no error has this text",
    "Cannot allocate memory: ": "asprintf_safe",
    "System error: ": "strtolower_dynamic",
    "strn_replace(): ": "strn_replace",
    "Missing parameter '": "check_parameter",
    "' or previous parameter is empty.": "check_parameter",
    "Some parameters in command string are left unprocessed. Check parameters please.":
        "check_unprocessed_parameters",
    "' isn't found neither in ": "qrxConfGetDefault",
    "variable '": "qrxConfGetDefault",
    " nor in compile-time defaults": "qrxConfGetDefault",
    "Unable to connect to mysql database": "put_param, del_param, del_dom_param, del_Parameter",
    "Unable to put parameter ": "put_param",
    " into misc: ": "put_param",
    "Unable to delete parameter ": "del_param, del_dom_param, del_Parameter",
    " from misc: ": "del_param",
    " from dom_param: ": "del_dom_param",
    " from Parameters: ": "del_Parameter",
}

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
LITERALS = re.compile(rf"{LITERAL}(?:\s+{LITERAL})*")  # adjacent ones are one text
REPORTERS = re.compile(r"\b(?:report|report_and_exit|messlog2|ex_messlog|snprintf|end_child|complain|"
                       r"complaints\.add|keep|runtime_error|execute|query_or_exit|append_\w+)\s*\(")
LOGGERS = re.compile(r"\b(?:quarx_log|fail_without_memory)\s*\(|\bfailure =")
# A text that a function hands on, or that has a name.
HANDED_ON = re.compile(rf"(?:\breturn|\bkQueryFailed\[\] =|\bstep =)\s+({LITERAL}(?:\s+{LITERAL})*);")
SQL = re.compile(r"\s*(?:select\b.*|from|where)\s*$", re.IGNORECASE)


# The source


def code_of(path):
    """The file without its comments."""
    return re.sub(rf"({LITERAL})|//[^\n]*", lambda found: found[1] or "", path.read_text())


def arguments(code, start):
    """What stands from start to the closing parenthesis, or to the semicolon outside of any."""
    depth = 0
    for found in re.compile(rf"{LITERAL}|[();]").finditer(code, start):
        if found[0] == ";" or (found[0] == ")" and depth == 0):
            return code[start:found.start()]
        depth += {"(": 1, ")": -1}.get(found[0], 0)
    raise ValueError("unbalanced")


def texts(code):
    for found in LITERALS.finditer(code):
        text = "".join(word[1:-1] for word in re.findall(LITERAL, found[0]))
        yield text.encode().decode("unicode_escape")


def fragments(text):
    """The constant pieces of a format: what can be looked for."""
    pieces = re.split(r"%[a-z]|\n", text)
    return [piece for piece in pieces if len(re.findall("[a-zA-Z]", piece)) > 2]


def reported(paths, callers):
    """The constant pieces of all that the files report through the callers."""
    found = set()
    for path in paths:
        code = code_of(path)
        for call in callers.finditer(code):
            for text in texts(arguments(code, call.end())):
                found.update(fragments(text))
    return found


def sources(*folders):
    return sorted(path for folder in folders for path in (CHECKOUT / folder).glob("*.[ch]*")
                  if path.suffix in (".cpp", ".h") and path.name not in NOT_USED)


def program_reports():
    files = sources("autoresponder", "lib/text", "lib/db", "lib/util", "lib/conf")
    found = reported(files, REPORTERS)
    for name in ("autoresponder/guards.cpp", "autoresponder/panel_query.h", "lib/db/quarx_db.cpp",
                 "lib/text/idn.cpp"):
        for handed in HANDED_ON.finditer(code_of(CHECKOUT / name)):
            for text in texts(handed[1]):
                found.update(fragments(text))
    return {text for text in found if not SQL.match(text)}


# The pages


def plain(text):
    """Page source as a reader sees it: without font changes and escapes."""
    for escape, character in ((r"\-", "-"), (r"\(aq", "'"), (r"\(dq", '"'), (r"\(ti", "~"),
                              (r"\(ha", "^"), (r"\&", "")):
        text = text.replace(escape, character)
    return re.sub(r"\\f[BIPR]", "", text)


def section(page, name):
    return re.search(rf'^\.SH "?{name}"?\n(.*?)(?=^\.SH |\Z)', page.read_text(), re.M | re.S)[1]


def words_of_macro(line):
    """The arguments of a macro line, in pairs with whether they are literal text (bold)."""
    macro, _, rest = line.partition(" ")
    words = [quoted or bare for quoted, bare in re.findall(r'"([^"]*)"|(\S+)', rest)]
    bold = {".B": [True] * len(words), ".BI": [True, False] * len(words),
            ".BR": [True, False] * len(words)}[macro]
    joined = [" ".join(words)] if macro == ".B" else words
    return list(zip(map(plain, joined), bold))


def tags(text):
    """The tag lines of a section: what follows .TP and .TQ."""
    lines = text.splitlines()
    return [lines[i + 1] for i, line in enumerate(lines[:-1]) if line in (".TP", ".TQ")]


class Formatting(unittest.TestCase):
    def complaints(self, *command):
        ran = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT if "-Tlint" in command else subprocess.PIPE)
        return (ran.stdout if "-Tlint" in command else ran.stderr).decode()

    def test_mandoc_has_nothing_to_say(self):
        for page in (PROGRAM_PAGE, CONFIGURATION_PAGE):
            self.assertEqual(self.complaints("mandoc", "-Tlint", page), "")

    def test_groff_warns_of_nothing(self):
        for page in (PROGRAM_PAGE, CONFIGURATION_PAGE):
            self.assertEqual(self.complaints("groff", "-ww", "-man", "-Tutf8", page), "")

    def test_mandoc_would_have_had_something_to_say(self):
        with tempfile.NamedTemporaryFile(suffix=".8") as page:
            page.write(PROGRAM_PAGE.read_bytes() + b".NOSUCH\n")
            page.flush()
            self.assertIn("NOSUCH", self.complaints("mandoc", "-Tlint", page.name))

    def test_both_pages_name_the_version(self):
        version = re.search(r"VERSION ([\d.]+)", (CHECKOUT / "CMakeLists.txt").read_text()
                            .partition("project(")[2])[1]
        for page in (PROGRAM_PAGE, CONFIGURATION_PAGE):
            self.assertIn(f'"autoresponder {version}"', page.read_text().splitlines()[0])


class Messages(unittest.TestCase):
    maxDiff = None

    def test_every_text_that_the_program_reports_is_in_its_page(self):
        page = plain(section(PROGRAM_PAGE, "MESSAGES")).replace('"', "")
        page = re.sub(r"(?m)^\.[A-Z]+ ?", "", page)
        missing = {text for text in program_reports() - set(NOT_REPORTED)
                   if text.replace('"', "").strip() not in page}
        self.assertEqual(missing, set())

    def test_the_page_has_no_message_that_the_program_does_not_report(self):
        known = sorted(map(str.strip, program_reports()), key=len, reverse=True)
        unknown = []
        for literal, bold in itertools.chain(*map(words_of_macro, tags(section(PROGRAM_PAGE, "MESSAGES")))):
            rest = literal
            for text in known:
                rest = rest.replace(text, "")
            if bold and len(re.findall("[a-zA-Z]", rest)) > 2:
                unknown.append(literal)
        self.assertEqual(unknown, [])

    def test_the_texts_that_the_program_never_reports_are_still_in_the_library(self):
        self.assertEqual(set(NOT_REPORTED) - program_reports(), set())

    def test_every_text_of_the_configuration_reader_is_in_its_page(self):
        page = plain(section(CONFIGURATION_PAGE, "MESSAGES"))
        logged = reported(sources("lib/conf"), LOGGERS)
        self.assertGreater(len(logged), 5)
        self.assertEqual({text for text in logged if text.strip() not in page}, set())


class Tables(unittest.TestCase):
    maxDiff = None

    def documented(self):
        """The columns by table, as the page lists them."""
        listing = plain(section(PROGRAM_PAGE, "DATABASE")).partition(".nf\n")[2].partition(".fi")[0]
        listing = re.sub(r",\s+", ",", listing)
        return {table: set(columns.split(",")) for table, columns in map(str.split, listing.splitlines())}

    def test_the_page_lists_the_tables_that_the_statements_name(self):
        statements = [text for path in sources("autoresponder") for text in texts(code_of(path))
                      if re.match(" ?(select|from|update|delete|insert) ", text)]
        named = re.findall(r"\b(?:from|update|insert into) ((?:\w+ \w+, )*\w+)", " ".join(statements))
        tables = {words.split()[0] for name in named for words in name.split(", ")}
        self.assertEqual(set(self.documented()), tables | {"misc"})  # which get_param() reads

    def test_every_column_that_the_page_lists_is_in_the_schema(self):
        schema = (CHECKOUT / "tests/system/schema.sql").read_text()
        for table, columns in self.documented().items():
            with self.subTest(table=table):
                definition = re.search(rf"CREATE TABLE {table} \((.*?)\n\)", schema, re.S)[1]
                self.assertEqual(columns - set(re.findall(r"(?m)^  (\w+) ", definition)), set())


class Variables(unittest.TestCase):
    maxDiff = None

    def test_the_page_has_the_variables_and_defaults_of_the_program(self):
        code = code_of(CHECKOUT / "lib/conf/qrx_conf.cpp")
        names, defaults = (list(texts(re.search(rf"{table}\[\] = {{(.*?)}};", code, re.S)[1].replace(",", ";")))
                           for table in ("theQrxConfNames", "theQrxConfDefauls"))
        documented = [(tag[0][0], tag[1][0].strip(" ()"))
                      for tag in map(words_of_macro, tags(section(CONFIGURATION_PAGE, "VARIABLES")))]
        self.assertEqual(documented, list(zip(names, defaults))[1:-1])

    def test_the_page_names_the_two_brackets_of_the_list(self):
        text = section(CONFIGURATION_PAGE, "VARIABLES")
        self.assertIn("_MIN_POSSIBLE_QRX_CONF_VAR_NAME", text)
        self.assertIn("_MAX_POSSIBLE_QRX_CONF_VAR_NAME", text)

    def test_the_reader_makes_of_the_examples_what_the_page_says(self):
        text = section(CONFIGURATION_PAGE, "DESCRIPTION")
        rows = [row.split("\t") for row in plain(text).splitlines() if row.count("\t") == 1][1:]
        self.assertGreater(len(rows), 15)
        written = str.maketrans("~^$", " \r\n")
        for line, wanted in rows:
            with self.subTest(line=line), tempfile.NamedTemporaryFile("w", newline="") as file:
                file.write(line.translate(written))
                file.flush()
                ran = subprocess.run([PRINT_VALUE, file.name, "WEB_STAT"], capture_output=True, check=True)
                got = ran.stdout.decode().translate(str.maketrans(" \r\n", "~^$"))
                self.assertEqual(got, wanted.replace(" ", "~"))


if __name__ == "__main__":
    sys.exit(results.run("manual", unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])))
