#!/usr/bin/python3 -B
"""Makes the Debian packages, installs them by dpkg into a private copy of the running system, tries there
what they bring, and takes them away again.

Arguments: the build folder, whose preset is release, and the compiler.
"""

import glob
import gzip
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
CHECKOUT = HERE.parents[1]
SYSTEM_TESTS = CHECKOUT / "tests/system"
sys.path.insert(0, str(SYSTEM_TESTS / "support"))
import overlay
import results

BUILD, COMPILER = pathlib.Path(sys.argv[1]), sys.argv[2]
VERSION = re.search(r"project\([^)]*VERSION ([\d.]+)", (CHECKOUT / "CMakeLists.txt").read_text())[1]
PROGRAM = "/usr/sbin/autoresponder"
MESSAGE = b"From: sam@sender.example\nSubject: Opening hours\n\nWhen are you open?\n"
NOBODY, MAIL_GROUP = 65534, 8
# What dpkg and the indexer of manual pages write down for themselves.
BOOKKEEPING = re.compile(r"var/(lib/dpkg|log|cache/man)(/|$)|etc/ld\.so\.cache$")


def run(*command, **how):
    """Runs the command to its end and returns its output; a failure raises with what it wrote."""
    ran = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, **how)
    if ran.returncode != 0:
        raise AssertionError(f"{command} ended with {ran.returncode}:\n{ran.stdout.decode()}")
    return ran.stdout.decode()


ARCHITECTURE = run("dpkg", "--print-architecture").strip()
PACKAGES = {name: CHECKOUT / f"build/package/{name}_{VERSION}_{ARCHITECTURE}.deb"
            for name in ("autoresponder", "libquarx-dev")}
PRINTED = ""


def setUpModule():
    global PRINTED
    PRINTED = run(CHECKOUT / "script/package")


# The packages as files


class Packages(unittest.TestCase):
    maxDiff = None

    def field(self, package, name):
        return run("dpkg-deb", "-f", PACKAGES[package], name).strip()

    def listing(self, package):
        """Mode, owner and path of everything in the package, folders without a slash at the end."""
        rows = [line.split() for line in run("dpkg-deb", "-c", PACKAGES[package]).splitlines()]
        return [(row[0], row[1], row[5].lstrip(".").rstrip("/")) for row in rows]

    def test_the_script_prints_where_they_are_and_that_lintian_finds_nothing(self):
        paths = [str(path.relative_to(CHECKOUT)) for path in PACKAGES.values()]
        said = [line for line in PRINTED.splitlines() if not line.startswith("setup: ")]
        self.assertEqual(said, [*paths, "lintian: no errors, no warnings"])

    def test_what_is_hidden_from_lintian_has_a_reason_above_it_and_something_to_hide(self):
        lines = (CHECKOUT / "packaging/autoresponder.lintian-overrides").read_text().splitlines()
        for above, line in zip(["", *lines], lines):
            if not line.startswith("#"):
                self.assertTrue(above.startswith("#"), line)
        if self.libraries_inside()[0]:
            said = run("lintian", "--allow-root", "--show-overrides", "--fail-on", "none", PACKAGES["autoresponder"])
            for line in lines:
                if not line.startswith("#"):
                    self.assertIn(line, said)

    def test_files_belong_to_root_and_only_the_program_can_be_run(self):
        for package in PACKAGES:
            for mode, owner, path in self.listing(package):
                with self.subTest(path=path):
                    wanted = "-rwxr-xr-x" if path == PROGRAM else \
                        "drwxr-xr-x" if mode[0] == "d" else "-rw-r--r--"
                    self.assertEqual((mode, owner), (wanted, "root/root"))

    def test_the_program_s_package_holds_this(self):
        documents = "/usr/share/doc/autoresponder"
        self.assertEqual(
            [path for mode, _, path in self.listing("autoresponder") if mode[0] != "d"],
            [PROGRAM, f"{documents}/README.Debian", f"{documents}/changelog.gz", f"{documents}/copyright",
             f"{documents}/examples/schema.sql", f"{documents}/operating.md",
             *(["/usr/share/lintian/overrides/autoresponder"] if self.libraries_inside()[0] else []),
             "/usr/share/man/man5/qrx.conf.5.gz", "/usr/share/man/man8/autoresponder.8.gz"])

    def test_no_package_runs_anything_when_it_is_installed_or_removed(self):
        for package in PACKAGES.values():
            with tempfile.TemporaryDirectory() as folder:
                run("dpkg-deb", "-e", package, folder)
                self.assertEqual(sorted(os.listdir(folder)), ["control", "md5sums"])

    def libraries_inside(self):
        """The packages with the archives that the program was linked with: those that want their source kept, the others."""
        if "libmariadb.so" in run("objdump", "-p", BUILD / "autoresponder/autoresponder"):
            return [], []
        runtime = [self.owner(os.path.realpath(run(COMPILER, f"-print-file-name={name}").strip()))
                   for name in ("libstdc++.a", "libgcc.a")]
        return ["libidn-dev", "libmariadb-dev"], [*runtime, "zlib1g-dev"]

    def test_libraries_inside_the_program_are_named(self):
        for field, packages in zip(("Built-Using", "Static-Built-Using"), self.libraries_inside()):
            versions = {run("dpkg-query", "-W", "-f", "${source:Package} (= ${source:Version})", package)
                        for package in packages}
            self.assertEqual(self.field("autoresponder", field), ", ".join(sorted(versions)))

    def test_another_library_has_everything_built_again(self):
        """Also where its file is older than the last build, as a package may bring it."""
        if not self.libraries_inside()[0]:
            self.skipTest("this program is linked with shared libraries")
        with tempfile.TemporaryDirectory(dir=BUILD) as folder:
            library = re.search(r"(?m)^QRX_IDN_ARCHIVE:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text())[1]
            copy = pathlib.Path(folder, "libidn.a")
            commands = []
            for more in (b"", b"mended"):
                copy.write_bytes(pathlib.Path(library).read_bytes() + more)
                os.utime(copy, (0, 0))
                run("cmake", "--preset", "release", "-B", folder, f"-DQRX_IDN_ARCHIVE={copy}", cwd=CHECKOUT)
                commands.append(json.loads(pathlib.Path(folder, "compile_commands.json").read_text()))
            self.assertTrue(commands[0])
            for before, after in zip(*commands):
                self.assertNotEqual(before["command"], after["command"])

    def test_every_library_that_the_program_needs_is_in_a_package_it_depends_on(self):
        needed = re.findall(r"NEEDED +(\S+)", run("objdump", "-p", BUILD / "autoresponder/autoresponder"))
        loaded = re.findall(r"(/\S+) \(", run("ldd", BUILD / "autoresponder/autoresponder"))
        owners = {self.owner(os.path.realpath(path)) for path in loaded if os.path.basename(path) in needed}
        depends = {word.split()[0] for word in self.field("autoresponder", "Depends").split(",")}
        self.assertIn("libc6", owners)
        self.assertEqual(depends, owners)

    def owner(self, path):
        """The package with the file, wherever the usrmerge has put its folder."""
        return run("dpkg-query", "-S", "*/" + "/".join(path.split("/")[-2:])).partition(":")[0]

    def test_the_library_s_package_depends_on_what_its_pkg_config_file_requires(self):
        required = re.search(r"(?m)^Requires: (.*)$", (BUILD / "lib/quarx.pc").read_text())[1]
        depends = {word.split()[0] for word in self.field("libquarx-dev", "Depends").split(",")}
        self.assertEqual(depends, {f"{name}-dev" for name in required.split()})

    def test_the_changelog_s_latest_version_is_the_packages(self):
        for package in PACKAGES:
            with tempfile.TemporaryDirectory() as folder:
                run("dpkg-deb", "-x", PACKAGES[package], folder)
                text = pathlib.Path(folder, "usr/share/doc", package, "changelog.gz").read_bytes()
                first = gzip.decompress(text).decode().splitlines()[0]
                self.assertEqual(first.split()[1], f"({VERSION})")

    def test_made_again_elsewhere_at_another_hour_they_are_the_same_to_the_byte(self):
        time = run("sh", "-c", "git log -1 --format=%ct 2>/dev/null ||"
                   " dpkg-parsechangelog -l packaging/changelog -S Timestamp", cwd=CHECKOUT).strip()
        with tempfile.TemporaryDirectory(dir=BUILD) as folder:
            run("cpack", "-G", "DEB", "--config", BUILD / "CPackConfig.cmake", "-B", folder, cwd=folder,
                env={**os.environ, "SOURCE_DATE_EPOCH": time, "TZ": "Asia/Tokyo"})
            for package in PACKAGES.values():
                self.assertTrue(pathlib.Path(folder, package.name).read_bytes() == package.read_bytes(),
                                package.name)


# The packages in use


SYSTEM = None


def system():
    """The private copy of the system, the same for all cases; skips the case where there can't be one."""
    global SYSTEM
    if SYSTEM is None:
        try:
            SYSTEM = overlay.Overlay([CHECKOUT])
        except overlay.Refused as refused:
            raise unittest.SkipTest(str(refused)) from refused
    return SYSTEM


def install():
    # Where a host leaves documents out of its packages, these are wanted all the same.
    run("dpkg", "--path-include=/usr/share/*", "-i", *PACKAGES.values())


def purge():
    run("dpkg", "--purge", *PACKAGES)


def status_of(package):
    ran = subprocess.run(["dpkg-query", "-W", "-f", "${Status}", package], capture_output=True)
    return ran.stdout.decode()


def answer(message=MESSAGE, recipient="nobody@example.com", prefix=(), program=PROGRAM):
    """Runs the installed program on a message: standard error, standard output, status."""
    ran = subprocess.run([*prefix, "env", f"RESP_RECIPIENT={recipient}", program], input=message,
                         capture_output=True)
    return ran.stderr.decode(), ran.stdout.decode(), ran.returncode


def in_sandbox(*command):
    return [str(SYSTEM_TESTS / "in_sandbox"), *command]


def as_user(user, group):
    return ["setpriv", f"--reuid={user}", f"--regid={group}", "--clear-groups"]


def readme_commands(first):
    """The indented lines of the installed README that begin with the words."""
    readme = pathlib.Path("/usr/share/doc/autoresponder/README.Debian").read_text()
    return next(part for part in readme.split("\n\n") if part.strip().startswith(first))


class Installed(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        system()
        install()
        cls.addClassCleanup(purge)

    def test_dpkg_has_them_installed_whole(self):
        for package in PACKAGES:
            self.assertEqual(status_of(package), "install ok installed")
            self.assertEqual(run("dpkg", "--verify", package), "")

    def test_man_finds_the_pages(self):
        self.assertEqual(run("man", "-w", "autoresponder").strip(),
                         "/usr/share/man/man8/autoresponder.8.gz")
        self.assertEqual(run("man", "-w", "5", "qrx.conf").strip(), "/usr/share/man/man5/qrx.conf.5.gz")
        self.assertIn("RESP_RECIPIENT", run("man", "autoresponder"))
        self.assertIn("answer a mail message", run("whatis", "autoresponder"))

    def test_without_the_panel_a_message_ends_in_the_known_texts(self):
        error = ("autoresponder: Unable to open admin password file: No such file or directory\n"
                 "System error 2: No such file or directory\n")
        self.assertEqual(answer(), (
            error + "autoresponder: Unable to connect to the mysql database \n", error, 0))
        self.assertEqual(glob.glob("/tmp/qrx-*"), [])

    def test_with_the_panel_s_database_a_message_is_answered(self):
        environment = {name: value for name, value in os.environ.items() if not name.startswith("GTEST_")}
        said = run(SYSTEM_TESTS / "run_tests", "test_smoke.py", env={
            **environment, "AUTORESPONDER": PROGRAM,
            "QRX_RECORDING_SENDMAIL": str(BUILD / "tests/system/recording_sendmail")})
        self.assertRegex(said, r"test_smoke: [1-9]\d* passed, 0 failed, 0 skipped")

    def test_as_it_is_installed_another_user_than_root_gets_the_known_text(self):
        error, _, status = answer(prefix=in_sandbox(*as_user(NOBODY, MAIL_GROUP)))
        self.assertIn("Unable to open admin password file: Permission denied", error)
        self.assertEqual(status, 0)

    def test_the_user_of_the_readme_may_run_it(self):
        make_user, _, show_password = readme_commands("useradd").strip().partition("\n")
        subprocess.run(["userdel", "autoresponder"], capture_output=True)  # where the system has it already
        run("sh", "-ec", make_user)
        self.addCleanup(run, "userdel", "autoresponder")
        prefix = in_sandbox("sh", "-ec", show_password + '\nexec "$@"', "sh",
                            *as_user("autoresponder", "autoresponder"))
        self.assertEqual(answer(prefix=prefix),
                         ("autoresponder: Mailname not found: nobody@example.com\n", "", 0))

    def test_the_set_user_id_bit_of_the_readme_lets_its_group_run_it_and_nobody_else(self):
        self.addCleanup(self.follow_readme, "--remove")
        self.follow_readme("--update")
        install()  # an upgrade keeps it
        self.assertEqual(self.mode(), (0o104750, 0, MAIL_GROUP))
        self.assertEqual(answer(prefix=in_sandbox(*as_user(NOBODY, MAIL_GROUP))),
                         ("autoresponder: Mailname not found: nobody@example.com\n", "", 0))
        error, _, status = answer(prefix=in_sandbox(*as_user(NOBODY, NOBODY)))
        self.assertIn("Permission denied", error)
        self.assertEqual(status, 126)
        self.follow_readme("--remove")
        self.assertEqual(self.mode(), (0o100755, 0, 0))

    def follow_readme(self, first):
        """Runs the commands of the README that begin with dpkg-statoverride and the option."""
        if first != "--remove" or self.mode()[0] != 0o100755:
            run("sh", "-ec", readme_commands(f"dpkg-statoverride {first}").replace("vmail", "mail"))

    def mode(self):
        status = os.stat(PROGRAM)
        return status.st_mode, status.st_uid, status.st_gid

    def test_a_program_builds_against_the_library_as_its_readme_says(self):
        readme = pathlib.Path("/usr/share/doc/libquarx-dev/README.Debian").read_text()
        command = re.search(r"(?m)^ +c\+\+ (.*)$", readme)[1]
        with tempfile.TemporaryDirectory() as folder:
            command = command.replace("program.cpp", str(HERE / "consumer.cpp"))
            run("sh", "-ec", f"{COMPILER} {command} -o program", cwd=folder)
            self.assertEqual(run(f"{folder}/program"),
                             "QUJD =?utf-8?Q?a=2Db?= xn--bcher-kva.example apache2 4 null\n")


class Removed(unittest.TestCase):
    maxDiff = None

    def changes(self):
        return {path: what for path, what in system().changes().items() if not BOOKKEEPING.match(path)}

    def test_after_a_run_and_a_purge_nothing_is_left(self):
        before, packages, temporary = self.changes(), run("dpkg-query", "-W"), os.listdir("/tmp")
        install()
        self.assertGreater(len(self.changes()), len(before) + 20)
        answer()
        purge()
        self.assertEqual(self.changes(), before)
        self.assertEqual(run("dpkg-query", "-W"), packages)
        self.assertEqual([status_of(package) for package in PACKAGES], ["", ""])
        self.assertEqual(os.listdir("/tmp"), temporary)


if __name__ == "__main__":
    sys.exit(results.run("package", unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])))
