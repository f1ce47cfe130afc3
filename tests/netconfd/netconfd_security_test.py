"""ipapp-netconfd run as root next to other local users, and its life: DIR
must be its own, nothing it writes follows a planted link, the client key
opens NETCONF only, netconfd's socket is out of other users' reach, the
options are read strictly, and however the launcher ends, nothing it started
keeps running. Each test runs its own server.

Run with /usr/bin/python3 as root (setpriv plays the other user, nobody).
IPAPP_NETCONFD_EXE names the launcher, IPAPP_SOURCE_DIR the project."""

import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from server import (Server, StartFailure, all_gone, commit_runners, free_port,  # noqa: E402
                    port_listening, processes_mentioning, run_launcher)

LAUNCHER = os.environ.get("IPAPP_NETCONFD_EXE", "")
AS_NOBODY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"]
HELLO = ('<hello xmlns="urn:ietf:params:xml:ns:netconf:base:1.0"><capabilities>'
         '<capability>urn:ietf:params:netconf:base:1.0</capability></capabilities></hello>'
         ']]>]]>')  # as another user's netconf-subsystem would forward it


def nobody(argv, **kwargs):
    return subprocess.run(AS_NOBODY + argv, capture_output=True, text=True, timeout=30,
                          **kwargs)


def netconfd_of(dir):
    """Pids of the netconfd processes working in dir."""
    pids = []
    for pid in processes_mentioning(dir):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                if f.read().startswith(b"/usr/sbin/netconfd\0"):
                    pids.append(pid)
        except OSError:
            pass
    return pids


class TempDir:
    """A directory of root's that is removed afterwards, with a DIR path in
    it that the launcher may create."""

    def __enter__(self):
        self.path = tempfile.mkdtemp(prefix="ipapp-netconfd-sec-")
        return self.path

    def __exit__(self, *exc):
        shutil.rmtree(self.path, ignore_errors=True)


@unittest.skipUnless(os.geteuid() == 0, "needs root, to have another user")
class DirTest(unittest.TestCase):
    """DIR is refused unless it is the launcher's own; what is in it is
    replaced, never followed."""

    def test_dir_of_another_user_or_writable_by_others_is_refused(self):
        with TempDir() as tmp:
            os.chmod(tmp, 0o777)
            theirs = os.path.join(tmp, "theirs")
            self.assertEqual(nobody(["mkdir", "-m", "700", theirs]).returncode, 0)
            shared = os.path.join(tmp, "shared")
            os.mkdir(shared)
            os.chmod(shared, 0o777)
            group = os.path.join(tmp, "group")
            os.mkdir(group)
            os.chmod(group, 0o770)
            link = os.path.join(tmp, "link")
            os.symlink(shared, link)
            for dir, reason in [(theirs, "belongs to user"),
                                (shared, "is writable by others"),
                                (group, "is writable by its group"),
                                (link, "is a symbolic link")]:
                with self.subTest(dir=os.path.basename(dir)):
                    before = sorted(os.listdir(dir))
                    status, err = run_launcher(LAUNCHER, ["--port", str(free_port()),
                                                          "--dir", dir])
                    self.assertEqual(status, 2, err)
                    self.assertIn(reason, err)
                    self.assertEqual(sorted(os.listdir(dir)), before)

    def test_dir_that_someone_else_could_replace_is_refused(self):
        with TempDir() as tmp:
            shared = os.path.join(tmp, "shared")
            os.mkdir(shared)
            os.chmod(shared, 0o777)
            theirs = os.path.join(tmp, "theirs")
            os.mkdir(theirs, 0o755)
            os.chown(theirs, 65534, 65534)
            for parent, reason in [(shared, "is writable by others (mode 0777) and not sticky"),
                                   (theirs, "belongs to user 65534")]:
                with self.subTest(parent=os.path.basename(parent)):
                    dir = os.path.join(parent, "mine")
                    os.mkdir(dir, 0o700)
                    status, err = run_launcher(LAUNCHER, ["--port", str(free_port()),
                                                          "--dir", dir])
                    self.assertEqual(status, 2, err)
                    self.assertIn(parent + ", above " + dir + ", " + reason, err)
                    self.assertEqual(os.listdir(dir), [])

    def test_missing_dir_is_created_for_the_owner_only(self):
        with TempDir() as tmp:
            dir = os.path.join(tmp, "new")
            server = Server(LAUNCHER, dir=dir)
            try:
                self.assertEqual(os.stat(dir).st_mode & 0o777, 0o700)
            finally:
                self.assertEqual(server.stop(), 0)

    def test_planted_links_are_replaced_and_their_targets_unchanged(self):
        names = ["sshd_config", "authorized_keys", "client_key", "client_key.pub", "host_key",
                 "netconfd.log", "sshd.log", "keygen.log", "running.xml", "lock", "home", "run"]
        with TempDir() as tmp:
            dir = os.path.join(tmp, "dir")
            os.mkdir(dir, 0o700)
            targets = {}
            for name in names:
                target = os.path.join(tmp, "target-" + name)
                with open(target, "w") as f:
                    f.write(f"secret of {name}\n")
                os.chmod(target, 0o600)
                os.symlink(target, os.path.join(dir, name))
                targets[name] = target
            server = Server(LAUNCHER, dir=dir)
            try:
                for name in names:
                    with self.subTest(name=name):
                        self.assertFalse(os.path.islink(os.path.join(dir, name)))
                        with open(targets[name]) as f:
                            self.assertEqual(f.read(), f"secret of {name}\n")
                        self.assertEqual(os.stat(targets[name]).st_mode & 0o777, 0o600)
            finally:
                self.assertEqual(server.stop(), 0)

    def test_keys_are_new_for_every_start(self):
        with TempDir() as tmp:
            dir = os.path.join(tmp, "dir")
            keys = []
            for _ in range(2):
                server = Server(LAUNCHER, dir=dir)
                try:
                    with open(os.path.join(dir, "client_key.pub")) as f:
                        keys.append(f.read())
                finally:
                    self.assertEqual(server.stop(), 0)
            self.assertNotEqual(keys[0], keys[1])

    def test_too_long_dir_is_refused_before_anything_is_made(self):
        with TempDir() as tmp:
            dir = os.path.join(tmp, "d" * (110 - len(tmp)))
            status, err = run_launcher(LAUNCHER, ["--port", str(free_port()), "--dir", dir])
            self.assertEqual(status, 2, err)
            self.assertIn("--dir is too long", err)
            self.assertFalse(os.path.exists(dir))

    def test_second_launcher_on_the_same_dir_is_refused_and_the_first_serves_on(self):
        server = Server(LAUNCHER)
        try:
            status, err = run_launcher(LAUNCHER, ["--port", str(free_port()),
                                                  "--dir", server.dir])
            self.assertEqual(status, 2, err)
            self.assertIn(f"is in use by another ipapp-netconfd (process {server.proc.pid})", err)
            with server.connect() as session:
                session.get_config(source="running")
        finally:
            self.assertEqual(server.stop(), 0)


@unittest.skipUnless(os.geteuid() == 0, "needs root, to have another user")
class AccessTest(unittest.TestCase):
    """Who can reach what: the client key opens NETCONF and nothing else;
    no other local user reaches netconfd."""

    @classmethod
    def setUpClass(cls):
        # A DIR others may enter and read: the socket must be safe anyway.
        cls.dir = tempfile.mkdtemp(prefix="ipapp-netconfd-sec-")
        os.chmod(cls.dir, 0o755)
        cls.server = Server(LAUNCHER, dir=cls.dir)

    @classmethod
    def tearDownClass(cls):
        status = cls.server.stop()
        shutil.rmtree(cls.dir, ignore_errors=True)
        if status != 0 or cls.server.leftovers:
            raise AssertionError(f"stopped with {status}, left {cls.server.leftovers}")

    def ssh(self, *request):
        """What the server sends for request, up to the end of netconfd's
        hello (the client stays silent) or of the connection."""
        ssh = ["ssh", "-p", str(self.server.port), "-i",
               os.path.join(self.server.dir, "client_key"), "-o", "BatchMode=yes",
               "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
               "-o", "LogLevel=ERROR", "root@127.0.0.1", *request]
        proc = subprocess.Popen(ssh, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL)
        out = b""
        deadline = time.monotonic() + 30
        try:
            while b"</hello>" not in out and time.monotonic() < deadline:
                ready, _, _ = select.select([proc.stdout], [], [], 0.5)
                if ready:
                    chunk = os.read(proc.stdout.fileno(), 65536)
                    if not chunk:
                        break
                    out += chunk
        finally:
            proc.kill()
            proc.communicate()
        return out.decode(errors="replace")

    def test_client_key_opens_the_netconf_subsystem_and_runs_nothing_else(self):
        self.assertIn("<capabilities>", self.ssh("-s", "netconf"))
        marker = os.path.join(self.server.dir, "ran")
        for command, answered in ((["id"], True), (["touch", marker], True),
                                  (["-s", "sftp"], False)):
            with self.subTest(command=command):
                out = self.ssh(*command)
                self.assertNotIn("uid=", out)
                self.assertFalse(os.path.exists(marker))
                # A command gets netconfd instead; another subsystem, nothing.
                self.assertEqual("<capabilities>" in out, answered, out)

    def test_other_user_cannot_reach_netconfds_socket(self):
        sock = os.path.join(self.server.dir, "run", "netconfd.sock")
        out = nobody(["/usr/sbin/netconf-subsystem",
                      f"--ncxserver-sockname={self.server.port}@{sock}"], input=HELLO)
        self.assertNotIn("<capabilities>", out.stdout)
        probe = ("import socket,sys\n"
                 "s=socket.socket(socket.AF_UNIX)\n"
                 "try:\n s.connect(sys.argv[1])\nexcept OSError as e:\n print(e.errno)\n"
                 "else:\n print('connected')\n")
        out = nobody(["/usr/bin/python3", "-c", probe, sock])
        self.assertEqual(out.stdout.strip(), "13", out)  # EACCES

    def test_files_that_grant_access_are_the_owners_only(self):
        for name in ("client_key", "host_key", "authorized_keys", "sshd_config"):
            with self.subTest(name=name):
                self.assertEqual(os.stat(os.path.join(self.server.dir, name)).st_mode & 0o077, 0)


class OptionsTest(unittest.TestCase):
    """Options are read strictly: anything doubtful is bad usage."""

    def test_doubtful_options_are_bad_usage(self):
        with TempDir() as tmp:
            dir = os.path.join(tmp, "d")
            for args in (["--port", "0x4000"], ["--port", "0"], ["--port", "65536"],
                         ["--port", "+22"], ["--port", ""], ["--port", "1", "--dir", ""],
                         ["--port", "1", "--plugin", ""], ["--port", "1", "--yang", ""],
                         ["--port", "1", "--running", ""], ["--port", "1", "--timeout", "0"]):
                with self.subTest(args=args):
                    full = args + ([] if "--dir" in args else ["--dir", dir])
                    status, err = run_launcher(LAUNCHER, full)
                    self.assertEqual(status, 2, err)
                    self.assertFalse(os.path.exists(dir))


class LifecycleTest(unittest.TestCase):
    """However the launcher ends, nothing it started keeps running, and a
    stop is prompt and lets netconfd shut down."""

    STOP_BOUND = 4.0  # seconds; netconfd takes about one, a stop that must kill takes 5

    def runners(self, server):
        """The one commit runner of server's netconfd."""
        netconfd = netconfd_of(server.dir)
        self.assertEqual(len(netconfd), 1)
        runners = commit_runners(netconfd[0])
        self.assertEqual(len(runners), 1)
        return runners

    def clean_shutdown(self, server):
        with open(os.path.join(server.dir, "netconfd.log")) as f:
            return "Shutting down the netconfd server" in f.read()

    def test_stop_signals_after_ready(self):
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(signal=sig.name):
                server = Server(LAUNCHER)
                server.own_dir = False
                try:
                    with server.connect():
                        pass
                    runners = self.runners(server)
                    # A reader gone from its output does not stop it.
                    server.proc.send_signal(signal.SIGPIPE)
                    time.sleep(0.2)
                    self.assertIsNone(server.proc.poll())
                    began = time.monotonic()
                    server.proc.send_signal(sig)
                    status = server.proc.wait(timeout=30)
                    took = time.monotonic() - began
                    self.assertEqual(status, 0)
                    self.assertLess(took, self.STOP_BOUND)
                    self.assertTrue(server.gone(1))
                    self.assertTrue(all_gone(runners, 1))
                    self.assertTrue(self.clean_shutdown(server))
                finally:
                    server.own_dir = True
                    server.stop()

    def test_stop_before_ready(self):
        dir = tempfile.mkdtemp(prefix="ipapp-netconfd-test-")
        port = free_port()
        proc = subprocess.Popen([LAUNCHER, "--port", str(port), "--dir", dir],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            # As soon as netconfd runs, well before it listens.
            deadline = time.monotonic() + 30
            while time.monotonic() < deadline and not netconfd_of(dir):
                time.sleep(0.005)
            began = time.monotonic()
            proc.send_signal(signal.SIGTERM)
            out, _ = proc.communicate(timeout=30)
            self.assertLess(time.monotonic() - began, self.STOP_BOUND)
            self.assertEqual(proc.returncode, 0)
            self.assertNotIn("ready", out)
            self.assertEqual(processes_mentioning(dir), [])
            self.assertFalse(port_listening(port))
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            for pid in processes_mentioning(dir):
                os.kill(pid, signal.SIGKILL)
            shutil.rmtree(dir, ignore_errors=True)

    def test_killed_launcher_takes_its_servers_with_it(self):
        server = Server(LAUNCHER)
        try:
            session = server.connect()
            runners = self.runners(server)
            server.proc.kill()
            server.proc.wait()
            self.assertTrue(server.gone(10), processes_mentioning(server.dir))
            self.assertTrue(all_gone(runners, 5))
            session.close_session() if session.connected else None
        except Exception:
            raise
        finally:
            server.stop()
        self.assertEqual(server.leftovers, [])

    def test_dead_server_stops_the_launcher_saying_how(self):
        server = Server(LAUNCHER)
        try:
            netconfd = netconfd_of(server.dir)
            runners = self.runners(server)
            os.kill(netconfd[0], signal.SIGKILL)
            self.assertEqual(server.proc.wait(timeout=30), 1)
            self.assertIn("netconfd was killed by signal SIGKILL (Killed); stopping",
                          server.proc.stderr.read())
            self.assertTrue(server.gone(5))
            self.assertTrue(all_gone(runners, 5))
        finally:
            server.stop()


if __name__ == "__main__":
    unittest.main(verbosity=2)
