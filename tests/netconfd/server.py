"""A private ipapp-netconfd for one test: its own port and directory, an
ncclient session to it, and a stop that leaves no process behind."""

import os
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from ncclient import manager

NETCONF_NS = "urn:ietf:params:xml:ns:netconf:base:1.0"
START_TIMEOUT = 60
STOP_TIMEOUT = 15


def free_port():
    """A port nothing listens on now; a start that finds it taken meanwhile
    is retried on another."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def processes_mentioning(text):
    """Pids of live processes whose command line holds text."""
    pids = []
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) == os.getpid():
            continue
        try:
            with open(f"/proc/{name}/cmdline", "rb") as f:
                cmdline = f.read().replace(b"\0", b" ").decode(errors="replace")
            with open(f"/proc/{name}/stat") as f:
                state = f.read().rsplit(")", 1)[1].split()[0]
        except OSError:
            continue
        if text in cmdline and state != "Z":
            pids.append(int(name))
    return pids


def commit_runners(netconfd):
    """Pids of the commit runners the netconfd with pid netconfd started
    (they do not mention DIR)."""
    try:
        with open(f"/proc/{netconfd}/task/{netconfd}/children") as f:
            children = [int(x) for x in f.read().split()]
    except OSError:
        return []
    runners = []
    for pid in children:
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                if f.read().split(b"\0")[0].endswith(b"/ipapp-netconfd-commit"):
                    runners.append(pid)
        except OSError:
            pass
    return runners


def all_gone(pids, timeout=10):
    """Whether, within timeout seconds, none of pids runs any more (a zombie
    waiting to be reaped counts as gone)."""
    deadline = time.monotonic() + timeout
    while True:
        alive = []
        for pid in pids:
            try:
                with open(f"/proc/{pid}/stat") as f:
                    if f.read().rsplit(")", 1)[1].split()[0] not in ("Z", "X"):
                        alive.append(pid)
            except OSError:
                pass
        if not alive or time.monotonic() >= deadline:
            return not alive
        time.sleep(0.05)


class StartFailure(Exception):
    def __init__(self, text, status=None, stderr=""):
        super().__init__(text)
        self.status = status
        self.stderr = stderr


def port_listening(port):
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.settimeout(1)
        return s.connect_ex(("127.0.0.1", port)) == 0


class Server:
    """ipapp-netconfd in a fresh temporary directory, or in dir (which stop()
    then leaves in place). env adds to the launcher's environment (netconfd
    and the plug-in inherit it); args add to its command line."""

    def __init__(self, launcher, plugin=None, env=None, port=None, args=(), dir=None):
        self.own_dir = dir is None
        self.dir = tempfile.mkdtemp(prefix="ipapp-netconfd-test-") if dir is None else dir
        self.port = port
        self.proc = None
        self.ready_line = None
        self.returncode = None
        self.leftovers = []
        args = [launcher, "--dir", self.dir] + list(args)
        if plugin:
            args += ["--plugin", plugin]
        full_env = dict(os.environ, **(env or {}))
        try:
            for attempt in range(3):
                port_now = self.port or free_port()
                try:
                    self._start(args + ["--port", str(port_now)], full_env)
                    self.port = port_now
                    return
                except StartFailure as e:
                    if self.port or attempt == 2 or "in use" not in str(e):
                        raise
        except BaseException:
            self.stop()
            raise

    def _start(self, args, env):
        self.proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     env=env, text=True)
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            ready, _, _ = select.select([self.proc.stdout], [], [], 0.2)
            if ready:
                line = self.proc.stdout.readline()
                if line.startswith("ready"):
                    self.ready_line = line
                    return
                if line == "":
                    break
        if self.proc.poll() is None:
            self.proc.kill()
        self.returncode = self.proc.wait()
        err = self.proc.stderr.read()
        self.proc.stdout.close()
        self.proc.stderr.close()
        self.proc = None
        raise StartFailure(f"ipapp-netconfd did not become ready (status {self.returncode}): {err}",
                           self.returncode, err)

    def connect(self):
        return manager.connect(host="127.0.0.1", port=self.port, username=_user(),
                               key_filename=os.path.join(self.dir, "client_key"),
                               hostkey_verify=False, allow_agent=False, look_for_keys=False,
                               timeout=30)

    def stop(self, sig=signal.SIGTERM):
        """sig to the launcher; kills it if it does not end in time.
        Returns the launcher's exit status (None if it never started)."""
        if self.proc is not None:
            self.proc.send_signal(sig)
            try:
                self.returncode = self.proc.wait(timeout=STOP_TIMEOUT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.returncode = self.proc.wait()
            self.proc.stdout.close()
            self.proc.stderr.close()
            self.proc = None
        # Whatever the launcher left (it should leave nothing) dies here, so
        # that a failing test still leaves the machine clean.
        self.leftovers = processes_mentioning(self.dir)
        for pid in self.leftovers:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if self.own_dir:
            shutil.rmtree(self.dir, ignore_errors=True)
        return self.returncode

    def gone(self, timeout=10):
        """Whether, within timeout seconds, no process mentions the
        directory and nothing listens on the port any more."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if not processes_mentioning(self.dir) and not port_listening(self.port):
                return True
            time.sleep(0.1)
        return False


def run_launcher(launcher, args, timeout=60):
    """The launcher run to its end (for the ways it refuses to start):
    (exit status, standard error)."""
    out = subprocess.run([launcher] + list(args), capture_output=True, text=True,
                         timeout=timeout)
    return out.returncode, out.stderr


def _user():
    import pwd
    return pwd.getpwuid(os.getuid()).pw_name


def config(xml_text):
    """Configuration text as the <config> of an <edit-config>."""
    return f'<config xmlns="{NETCONF_NS}">{xml_text}</config>'
