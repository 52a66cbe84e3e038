"""The sandbox itself, tried from within another one, which stands for the host."""

import os
import pathlib
import shutil
import signal
import subprocess
import time

import program_run
from harness import NOBODY, SystemTest

HERE = pathlib.Path(__file__).resolve().parent
IN_SANDBOX = str(HERE / "in_sandbox")
PATIENCE = 30


def in_sandbox(*command, tool=IN_SANDBOX, prefix=()):
    return subprocess.run([*prefix, tool, *command], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=PATIENCE, check=False)


def shell(script, **how):
    return in_sandbox("sh", "-c", script, **how)


def traces():
    """All that a sandbox could leave on its host: files in the fixed places, mounts, processes, the server's rows."""
    places = ["/tmp", "/etc/qrx", "/var", "/run", "/usr/sbin/sendmail", "/sandbox/spool", "/dev/shm"]
    files = subprocess.run(["find", *places, "-xdev", "-printf", "%p %y %s %m %T@\n"], capture_output=True,
                           check=True, text=True).stdout
    return {"files": files, "mounts": pathlib.Path("/proc/self/mountinfo").read_text(),
            "processes": program_run.process_ids()}


class Sandbox(SystemTest):
    def copy_of_the_checkout(self):
        """A checkout of its own below /tmp, without a build folder."""
        checkout = pathlib.Path("/tmp/checkout")
        shutil.copytree(HERE, checkout / "tests/system")
        return checkout

    def test_passes_the_exit_status_on(self):
        self.assertEqual(shell("exit 7").returncode, 7)

    def test_tells_the_end_by_a_signal_as_a_shell_does(self):
        self.assertEqual(shell("kill -9 $$").returncode, 128 + signal.SIGKILL)

    def test_a_command_that_is_not_there_gives_127(self):
        result = in_sandbox("/no/such/command")
        self.assertEqual((result.returncode, result.stderr),
                         (127, "in_sandbox: /no/such/command: No such file or directory\n"))

    def test_without_a_command_tells_the_usage(self):
        result = in_sandbox()
        self.assertEqual(result.returncode, 2)
        self.assertIn("in_sandbox COMMAND", result.stderr)

    def test_standard_streams_are_passed_on(self):
        result = subprocess.run([IN_SANDBOX, "cat"], input=b"through\0both ways", capture_output=True,
                                timeout=PATIENCE, check=True)
        self.assertEqual((result.stdout, result.stderr), (b"through\0both ways", b""))

    def test_the_host_is_the_same_afterwards(self):
        self.furnish()
        before = traces()
        result = shell(
            "set -e; touch /tmp/x /var/qmail/control/databytes /dev/shm/x; rm /usr/sbin/sendmail;"
            " echo 'QUARX_MAILNAMES_D /x' > /etc/qrx/qrx.conf; rm /etc/qrx/.qrx.shadow;"
            " mariadb --no-defaults -uadmin -psandbox-admin qrx -e 'drop table mail'; sleep 100 &")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(traces(), before)
        self.assertEqual(len(self.sql("select * from mail")), 1)

    def test_the_host_can_only_be_read(self):
        for place in ("/usr", "/usr/bin", "/dev", "/sandbox/host-etc", str(HERE)):
            with self.subTest(place=place):
                result = shell(f"touch {place}/new")
                self.assertIn("Read-only file system", result.stderr)

    def test_the_build_folder_can_be_written(self):
        build = HERE.parents[1] / "build"
        mark = build / f"mark-{os.getpid()}-{time.monotonic_ns()}"
        self.assertEqual(shell(f"echo kept > {mark}").returncode, 0)
        self.assertEqual(mark.read_text(), "kept\n")
        mark.unlink()

    def test_there_is_no_network_but_loopback(self):
        result = shell("tail -n +3 /proc/net/dev | cut -d: -f1; cat /proc/net/route /proc/net/tcp | grep -c :")
        self.assertEqual(result.stdout.split(), ["lo", "0"])

    def test_no_process_of_the_host_can_be_seen(self):
        result = shell("cat /proc/[0-9]*/comm")
        self.assertEqual(sorted(result.stdout.split()), ["in_sandbox", "mariadbd", "sh"])

    def test_the_fixed_places_are_there_and_empty(self):
        result = shell("ls -A /tmp /etc/qrx /var/qmail/control /var/qmail/mailnames; cat /etc/qrx/.qrx.shadow;"
                       " test -x /usr/sbin/sendmail && echo executable")
        self.assertEqual(result.stdout.split("\n"), [
            "/etc/qrx:", ".qrx.shadow", "", "/tmp:", "", "/var/qmail/control:", "",
            "/var/qmail/mailnames:", "sandbox-admin", "executable", ""])

    def test_the_server_has_its_tables_and_they_are_empty(self):
        result = shell("mariadb --no-defaults -N -uadmin -psandbox-admin qrx -e"
                       " 'show tables; select count(*) from mail; select @@skip_networking'")
        self.assertEqual(result.stdout.split()[-2:], ["0", "1"])
        self.assertIn("resp_freq", result.stdout.split())

    def test_two_sandboxes_at_once_do_not_meet(self):
        script = ("echo $0 > /tmp/mine; mariadb --no-defaults -uadmin -psandbox-admin qrx -e"
                  " \"insert into misc values ('who', '$0')\"; sleep 0.5; cat /tmp/mine;"
                  " mariadb --no-defaults -N -uadmin -psandbox-admin qrx -e 'select val from misc'")
        both = [subprocess.Popen([IN_SANDBOX, "sh", "-c", script, name], stdout=subprocess.PIPE, text=True)
                for name in ("first", "second")]
        self.assertEqual([one.communicate(timeout=PATIENCE)[0] for one in both],
                         ["first\nfirst\n", "second\nsecond\n"])

    def test_two_that_start_at_once_make_one_template(self):
        checkout = self.copy_of_the_checkout()
        both = [subprocess.Popen([checkout / "tests/system/in_sandbox", "true"]) for _ in range(2)]
        self.assertEqual([one.wait(PATIENCE) for one in both], [0, 0])
        made = list((checkout / "build/sandbox").glob("data-*"))
        self.assertEqual(len(made), 1)
        first_made = made[0].stat().st_ctime_ns
        self.assertEqual(in_sandbox("true", tool=checkout / "tests/system/in_sandbox").returncode, 0)
        self.assertEqual(made[0].stat().st_ctime_ns, first_made)

    def test_another_schema_gets_another_template(self):
        checkout = self.copy_of_the_checkout()
        tool = checkout / "tests/system/in_sandbox"
        self.assertEqual(in_sandbox("true", tool=tool).returncode, 0)
        with open(checkout / "tests/system/schema.sql", "a", encoding="ascii") as schema:
            schema.write("\nCREATE TABLE one_more (id int);\n")
        result = shell("mariadb --no-defaults -N -uadmin -psandbox-admin qrx -e 'show tables'", tool=tool)
        self.assertIn("one_more", result.stdout.split())
        self.assertEqual(len(list((checkout / "build/sandbox").glob("data-*"))), 1)

    def test_works_for_an_ordinary_user(self):
        self.need_other_users()
        checkout = self.copy_of_the_checkout()
        subprocess.run(["chown", "-R", f"{NOBODY}:{NOBODY}", checkout], check=True)
        tool = checkout / "tests/system/in_sandbox"
        result = shell("id -u; mariadb --no-defaults -N -uadmin -psandbox-admin qrx -e 'select 42'", tool=tool,
                       prefix=["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"])
        self.assertEqual((result.stdout, result.stderr, result.returncode), ("0\n42\n", "", 0))

    def test_a_checkout_below_tmp_is_out_of_the_way_of_who_empties_tmp(self):
        checkout = self.copy_of_the_checkout()
        (checkout / "build").mkdir()
        (checkout / "build/kept").touch()
        result = subprocess.run(
            [checkout / "tests/system/in_sandbox", "sh", "-c",
             f"ls -A /tmp; rm -rf /tmp/*; pwd; ls {checkout}; echo '{checkout}2' $WHERE; touch {checkout}/build/new"],
            cwd=checkout / "tests", env={**os.environ, "WHERE": f"xml:{checkout}/build/"},
            capture_output=True, text=True, check=False)
        self.assertEqual(result.stderr, "")
        self.assertEqual(result.stdout.split(), ["/sandbox/checkout/tests", "build", "tests", "/tmp/checkout2",
                                                 "xml:/sandbox/checkout/build/"])
        self.assertEqual(sorted(path.name for path in (checkout / "build").iterdir()), ["kept", "new", "sandbox"])

    def test_a_refusal_is_one_line_that_names_the_call_and_says_what_to_do(self):
        for call, error, text, remedy in (
                ("unshare", "EPERM", "unshare: Operation not permitted; ", "CAP_SYS_ADMIN"),
                ("unshare", "ENOSPC", "unshare: No space left on device; ", "user.max_*_namespaces"),
                ("unshare", "EINVAL", "unshare: Invalid argument; ", "a kernel with"),
                ("mount", "EPERM", "mount /: Operation not permitted; ", "CAP_SYS_ADMIN"),
                ("mount", "EINVAL", "mount /: Invalid argument; ", "a root that is mounted"),
                ("unshare", "ENOMEM", "unshare: Cannot allocate memory; ", "no sandbox")):
            with self.subTest(call=call, error=error):
                refuse = ["strace", "-f", "-o", "/dev/null", "-e", f"inject={call}:error={error}"]
                result = in_sandbox("true", prefix=refuse)
                self.assertEqual((result.returncode, result.stdout), (1, ""))
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertTrue(result.stderr.startswith(f"in_sandbox: {text}"), result.stderr)
                self.assertIn(remedy, result.stderr)

    def test_an_ordinary_user_is_told_what_to_do(self):
        self.need_other_users()
        for error, remedy in (("EPERM", "run this as root, or allow user namespaces"),
                              ("ENOSPC", "user.max_*_namespaces")):
            with self.subTest(error):
                result = in_sandbox("true", prefix=[
                    "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
                    "strace", "-f", "-o", "/dev/null", "-e", f"inject=unshare:error={error}"])
                self.assertEqual((result.returncode, result.stderr.count("\n")), (1, 1))
                self.assertIn(remedy, result.stderr)

    def test_works_in_a_chroot_and_shows_nothing_outside(self):
        """The root is a folder that is no mount, in a tree whose mounts are told to others."""
        (HERE.parents[1] / "build").mkdir(exist_ok=True)
        script = """set -e
mkdir /tmp/tree /tmp/tree/tmp
for entry in $(ls -A /); do
    [ $entry = tmp ] || if [ -L /$entry ]; then cp -P /$entry /tmp/tree; else
        mkdir /tmp/tree/$entry; mount --rbind /$entry /tmp/tree/$entry; fi
done
cat /proc/self/mountinfo > /tmp/before
chroot /tmp/tree "$0" sh -c 'pwd; ls -A /tmp; touch /tmp/x /usr/new; mariadb --no-defaults -N -uadmin -psandbox-admin qrx -e "select 42"'
cmp /proc/self/mountinfo /tmp/before
ls -A /tmp/tree/tmp"""
        result = subprocess.run(["unshare", "--mount", "--propagation", "shared", "sh", "-c", script, IN_SANDBOX],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=PATIENCE, check=False)
        self.assertEqual((result.stdout, result.stderr, result.returncode),
                         ("/\n42\n", "touch: cannot touch '/usr/new': Read-only file system\n", 0))

    def test_a_server_that_does_not_start_is_told_with_its_reason(self):
        checkout = self.copy_of_the_checkout()
        module = checkout / "tests/system/support/server.py"
        module.write_text(module.read_text().replace('"--skip-networking"', '"--no-such-option"'))
        result = in_sandbox("true", tool=checkout / "tests/system/in_sandbox")
        self.assertEqual(result.returncode, 125)
        self.assertIn("the database server doesn't start", result.stderr)
        self.assertIn("no-such-option", result.stderr)

    def test_nothing_outlives_its_runner(self):
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            with self.subTest(signal=number.name):
                before = traces()
                runner = self.start_long_sandbox()
                if number == signal.SIGINT:
                    os.killpg(runner.pid, number)  # as Ctrl-C on a terminal
                else:
                    os.kill(runner.pid, number)
                runner.wait(PATIENCE)
                program_run.wait_until("the end of the sandbox's processes",
                                       lambda: program_run.process_ids() == before["processes"])
                self.assertEqual(traces(), before)

    def test_ctrl_c_while_it_starts_ends_it_quietly(self):
        for delay in (0.0, 0.02, 0.05, 0.1, 0.15):
            with self.subTest(delay=delay):
                before = program_run.process_ids()
                runner = subprocess.Popen([IN_SANDBOX, "sleep", "1000"], start_new_session=True,
                                          stderr=subprocess.PIPE, text=True)
                # Python itself has started once it has loaded a module for the sandbox.
                maps = pathlib.Path(f"/proc/{runner.pid}/maps")
                program_run.wait_until("the sandbox's start", lambda: "_ctypes" in maps.read_text())
                time.sleep(delay)
                os.killpg(runner.pid, signal.SIGINT)
                self.assertEqual(runner.communicate(timeout=PATIENCE)[1], "")
                program_run.wait_until("the end of all processes", lambda: program_run.process_ids() == before)

    def start_long_sandbox(self):
        """A sandbox whose command has started a process in the background and runs on."""
        runner = subprocess.Popen([IN_SANDBOX, "sh", "-c", "setsid sleep 1000 & echo up; exec sleep 1000"],
                                  stdout=subprocess.PIPE, text=True, start_new_session=True)
        self.addCleanup(runner.stdout.close)
        self.assertEqual(runner.stdout.readline(), "up\n")
        return runner
