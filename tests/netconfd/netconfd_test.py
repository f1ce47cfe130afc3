"""ipapp-netconfd end to end: an ncclient session commits the bundled example
configurations through netconfd and gets the verdicts ipapp-check gives.

Run with /usr/bin/python3 (Debian's ncclient). The paths come from the
environment: IPAPP_NETCONFD_EXE, IPAPP_CHECK_EXE, IPAPP_FAKE_PLUGIN and
IPAPP_SOURCE_DIR. Each test class runs one server of its own."""

import copy
import json
import os
import pwd
import re
import shlex
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

from lxml import etree
from ncclient.operations import RPCError

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from server import (NETCONF_NS, Server, StartFailure, commit_runners, config,  # noqa: E402
                    processes_mentioning, run_launcher)

LAUNCHER = os.environ.get("IPAPP_NETCONFD_EXE", "")
CHECK = os.environ.get("IPAPP_CHECK_EXE", "")
FAKE_PLUGIN = os.environ.get("IPAPP_FAKE_PLUGIN", "")
EXAMPLES = os.path.join(os.environ.get("IPAPP_SOURCE_DIR", ""), "examples")
ELEMENT_NS_PREFIX = "urn:ipapp:"


def example(name):
    with open(os.path.join(EXAMPLES, name)) as f:
        return f.read()


def ipapp_check(candidate):
    """ipapp-check's verdict on running.xml -> candidate: (first line,
    {"validation": ..., "keypath": ...} of the refusal, [fault lines])."""
    out = subprocess.run([CHECK, "--running", os.path.join(EXAMPLES, "running.xml"),
                          "--candidate", os.path.join(EXAMPLES, candidate)],
                         capture_output=True, text=True, timeout=60)
    lines = out.stdout.splitlines()
    details = {}
    for line in lines[1:3]:
        key, _, value = line.strip().partition(": ")
        details[key] = value
    faults = [line[len("fault: "):] for line in lines if line.startswith("fault: ")]
    return lines[0], details, faults


def stated_fault_lines(candidate):
    """The fault lines examples/expected.json states for a candidate: each
    text once, in the order first recorded, with how often it was."""
    with open(os.path.join(EXAMPLES, "expected.json")) as f:
        faults = json.load(f)[candidate]["faults"]
    counts = {}
    for fault in faults:
        text = f"{fault['function']} ({fault['file']}:{fault['line']}): {fault['message']}"
        counts[text] = counts.get(text, 0) + 1
    return [text + (f" (recorded {n} times)" if n > 1 else "") for text, n in counts.items()]


def element_leaves(data_xml):
    """The element's configuration in a <data> or a file as a sorted list of
    (path, text) leaves: two configurations are the same when these are."""
    root = etree.fromstring(data_xml.encode() if isinstance(data_xml, str) else data_xml)
    leaves = []

    def walk(node, path):
        children = [c for c in node if isinstance(c.tag, str)]
        if not children:
            leaves.append(("/".join(path), (node.text or "").strip()))
        for child in children:
            walk(child, path + [etree.QName(child).localname])

    for top in root:
        if isinstance(top.tag, str) and etree.QName(top).namespace.startswith(ELEMENT_NS_PREFIX):
            walk(top, [etree.QName(top).localname])
    return sorted(leaves)


def file_leaves(name):
    return element_leaves(f"<data>{example(name)}</data>")


RTM_KEYS = ("fte-index", "network", "prefix-len", "next-hop")


def _identity(element):
    """What names a top-level node: its tag, and for an entry of the one
    top-level list its keys."""
    if etree.QName(element).localname != "rtmStaticRtEntry-global":
        return (element.tag,)
    return (element.tag,) + tuple(element.findtext(f"{{{etree.QName(element).namespace}}}{k}")
                                  for k in RTM_KEYS)


def change(before_text, after_text):
    """The <edit-config> content that turns the configuration before_text
    into after_text: each changed top-level node replaced, each one gone
    deleted, the unchanged ones left out."""
    before = [e for e in etree.fromstring(f"<d>{before_text}</d>") if isinstance(e.tag, str)]
    after = [e for e in etree.fromstring(f"<d>{after_text}</d>") if isinstance(e.tag, str)]
    kept = {etree.tostring(e, method="c14n") for e in before}
    remaining = {_identity(e) for e in after}
    edits = []
    for e in before:
        if _identity(e) not in remaining:
            e.set(f"{{{NETCONF_NS}}}operation", "delete")
            edits.append(e)
    for e in after:
        if etree.tostring(e, method="c14n") not in kept:
            e.set(f"{{{NETCONF_NS}}}operation", "replace")
            edits.append(e)
    return "".join(etree.tostring(e).decode() for e in edits)


def commit_change(session, before_name, after_name):
    before = example(before_name) if before_name else ""
    session.edit_config(target="candidate", config=config(change(before, example(after_name))))
    session.commit()


class ServerTest(unittest.TestCase):
    """One server for the class; stopping it must leave nothing running."""

    plugin = None
    env = None

    @classmethod
    def setUpClass(cls):
        cls.server = Server(LAUNCHER, plugin=cls.plugin, env=cls.env)
        try:
            cls.session = cls.server.connect()
        except BaseException:
            cls.server.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        try:
            cls.session.close_session()
        finally:
            status = cls.server.stop()
        if status != 0 or cls.server.leftovers:
            raise AssertionError(f"ipapp-netconfd stopped with status {status}, "
                                 f"leaving processes {cls.server.leftovers}")

    def running(self):
        return self.session.get_config(source="running").data_xml

    def candidate(self):
        return self.session.get_config(source="candidate").data_xml

    def refusals(self, before_name, after_name):
        """Edits the candidate from before_name to after_name; returns the
        RPCErrors that <validate> of the candidate and then <commit> raise."""
        self.session.edit_config(
            target="candidate", config=config(change(example(before_name), example(after_name))))
        errors = []
        for operation in (lambda: self.session.validate(source="candidate"), self.session.commit):
            with self.assertRaises(RPCError) as raised:
                operation()
            errors.append(raised.exception)
        return errors


def keypath_node(data, keypath):
    """The node the ConfD keypath names in a <data> element: names matched
    by local name, list entries by their key values in order."""
    node = data
    for step in keypath.strip("/").split("/"):
        name, _, keys = step.partition("{")
        name = name.rpartition(":")[2]
        found = None
        for child in node:
            if not isinstance(child.tag, str) or etree.QName(child).localname != name:
                continue
            values = [k.text for k in child if isinstance(k.tag, str)][:len(keys.split())]
            if not keys or values == keys.rstrip("}").split():
                found = child
                break
        if found is None:
            return None
        node = found
    return node


class VerdictTest(ServerTest):
    """The plug-in's verdicts through NETCONF, at <validate> and at <commit>
    of the candidate, equal ipapp-check's."""

    def assertSelectsRefusingNode(self, err, keypath):
        """err's error-path compiles as XPath with the prefixes the reply
        declares and selects, in the candidate, the node keypath names."""
        nsmap = {k: v for k, v in err.xml.nsmap.items() if k}
        xpath = etree.XPath(err.path, namespaces=nsmap)
        data = self.session.get_config(source="candidate").data_ele
        expected = keypath_node(data, keypath)
        self.assertIsNotNone(expected, keypath)
        selected = []
        for top in data:
            selected += xpath(etree.ElementTree(copy.deepcopy(top)))
        self.assertGreaterEqual(len(selected), 1, err.path)
        def identity(node):
            return node.tag, [(c.tag, c.text) for c in node if isinstance(c.tag, str)]
        self.assertEqual(identity(selected[0]), identity(expected), err.path)

    # At least one candidate per handler family, accepted ones among them.
    CANDIDATES = [
        "accept-new-interface.xml",      # accepted
        "accept-zero-mgmt-address.xml",  # accepted with a fault
        "name-too-long.xml",             # name
        "too-many-l3.xml",               # name (count)
        "network-address.xml",           # IPv4
        "overlap-mgmt.xml",              # IPv4 across the global and mgmt VRFs
        "overlap-ipv6.xml",              # IPv6
        "next-hop-conflict.xml",         # routes
        "lower-layer-removed.xml",       # routes
        "ldp-secondary.xml",             # LDP
        "lsr-id-deletion.xml",           # LDP, the text set last stands
        "ospf-address-change.xml",       # OSPF cross
        "ospfv3-vlan-change.xml",        # OSPFv3 cross
        "vrf-ospf.xml",                  # VRF
        "vrf-mpls.xml",                  # VRF
    ]

    def setUp(self):
        # Every test starts from the bundled running configuration, loaded
        # from whatever the last one left.
        self.session.discard_changes()
        self.session.edit_config(target="candidate", default_operation="replace",
                                 config=config(change(self.running_text(), example("running.xml"))))
        self.session.commit()

    def running_text(self):
        """The element's part of the running configuration, as elements."""
        data = etree.fromstring(self.running().encode())
        return "".join(etree.tostring(e).decode() for e in data
                       if isinstance(e.tag, str)
                       and etree.QName(e).namespace.startswith(ELEMENT_NS_PREFIX))

    def test_running_configuration_is_loaded(self):
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))

    def test_commits_get_the_verdict_of_ipapp_check(self):
        for name in self.CANDIDATES:
            with self.subTest(candidate=name):
                first_line, details, faults = ipapp_check(name)
                before = self.running()
                if first_line == "accepted":
                    self.session.edit_config(target="candidate", config=config(
                        change(example("running.xml"), example(name))))
                    self.session.validate(source="candidate")
                    self.session.commit()
                    self.assertEqual(element_leaves(self.running()), file_leaves(name))
                    with open(os.path.join(self.server.dir, "netconfd.log")) as log:
                        logged = log.read()
                    self.assertEqual(faults, stated_fault_lines(name))
                    for fault in faults:
                        self.assertRegex(logged, re.escape(
                            f"fault recorded by the plug-in: {fault}") + r"(\n|$)")
                    commit_change(self.session, name, "running.xml")
                    continue
                self.assertTrue(first_line.startswith("refused: "), first_line)
                for operation, err in zip(("validate", "commit"),
                                          self.refusals("running.xml", name)):
                    with self.subTest(operation=operation):
                        self.assertEqual(err.message, first_line[len("refused: "):])
                        self.assertEqual(err.tag, "operation-failed")
                        self.assertEqual(err.type, "application")
                        self.assertEqual(err.app_tag, details["validation"])
                        self.assertSelectsRefusingNode(err, details["keypath"])
                self.assertEqual(self.running(), before)
                # The element's own keypath stays in the log.
                with open(os.path.join(self.server.dir, "netconfd.log")) as log:
                    self.assertIn(f"refused by {details['validation']} on {details['keypath']}: "
                                  f"{first_line[len('refused: '):]}", log.read())
                self.session.discard_changes()
                self.assertEqual(element_leaves(self.candidate()), file_leaves("running.xml"))

    def test_dead_commit_runner_fails_one_commit_and_the_next_is_checked(self):
        netconfd = [pid for pid in processes_mentioning(self.server.dir)
                    if open(f"/proc/{pid}/cmdline", "rb").read().startswith(b"/usr/sbin/netconfd\0")]
        self.assertEqual(len(netconfd), 1)
        runners = commit_runners(netconfd[0])
        self.assertEqual(len(runners), 1)
        os.kill(runners[0], signal.SIGKILL)
        self.session.edit_config(
            target="candidate", config=config(change(example("running.xml"),
                                                     example("vrf-ospf.xml"))))
        with self.assertRaises(RPCError) as raised:
            self.session.commit()
        self.assertEqual(raised.exception.tag, "operation-failed")
        self.assertEqual(raised.exception.message,
                         "the commit runner was killed (signal SIGKILL, Killed); it starts again "
                         "for the next check")
        with self.assertRaises(RPCError) as raised:
            self.session.commit()
        self.assertEqual("refused: " + raised.exception.message, ipapp_check("vrf-ospf.xml")[0])
        self.assertEqual(len(commit_runners(netconfd[0])), 1)
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))

    def test_malformed_edit_gets_netconfds_own_error(self):
        before = self.running()
        running = example("running.xml")
        edits = {
            "bad value": running.replace("<vlan>100</vlan>", "<vlan>one hundred</vlan>"),
            "unknown element": running.replace("<vlan>100</vlan>", "<vlan>100</vlan><mtu>1</mtu>"),
            "entry without its key": running.replace("<name>core1</name>", ""),
        }
        for name, text in edits.items():
            with self.subTest(edit=name):
                with self.assertRaises(RPCError):
                    self.session.edit_config(target="candidate", config=config(text),
                                             default_operation="replace")
                self.session.discard_changes()
                self.assertEqual(self.running(), before)
        # Still serving: a refused commit is refused, an accepted one commits.
        _, err = self.refusals("running.xml", "vrf-ospf.xml")
        self.assertEqual(err.message,
                         "l3 core2 is configured in OSPF and cannot be associated with a VRF")
        self.session.discard_changes()
        commit_change(self.session, "running.xml", "accept-new-interface.xml")
        self.assertEqual(element_leaves(self.running()), file_leaves("accept-new-interface.xml"))


class EditTest(ServerTest):
    """<validate> checks what <commit> would commit and changes nothing; an
    inline <config> is checked as the candidate would be."""

    def setUp(self):
        self.session.discard_changes()
        self.session.edit_config(target="candidate", default_operation="replace",
                                 config=config(change(VerdictTest.running_text(self),
                                                      "")))
        self.session.commit()

    def halves(self, name):
        """The top-level elements of an example in two edits."""
        tops = [e for e in etree.fromstring(f"<d>{example(name)}</d>") if isinstance(e.tag, str)]
        cut = len(tops) // 2
        return ("".join(etree.tostring(e).decode() for e in tops[:cut]),
                "".join(etree.tostring(e).decode() for e in tops[cut:]))

    def test_edits_before_and_after_a_validate_are_committed_together(self):
        first, second = self.halves("running.xml")
        self.session.edit_config(target="candidate", config=config(first))
        self.session.validate(source="candidate")
        self.assertEqual(element_leaves(self.candidate()),
                         element_leaves(f"<data>{first}</data>"))
        self.session.edit_config(target="candidate", config=config(second))
        self.session.validate(source="candidate")
        self.session.commit()
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))

    def test_validate_then_commit_checks_the_whole_candidate(self):
        commit_change(self.session, "", "running.xml")
        # An edit before the validate and one after it: the commit checks
        # both, and the second one is what the plug-in refuses.
        edits = change(example("running.xml"), example("vrf-ospf.xml"))
        tops = [e for e in etree.fromstring(f"<d>{edits}</d>")]
        self.assertGreaterEqual(len(tops), 1)
        self.session.edit_config(target="candidate", config=config(example("running.xml")))
        self.session.validate(source="candidate")
        self.session.edit_config(target="candidate", config=config(edits))
        with self.assertRaises(RPCError) as raised:
            self.session.commit()
        self.assertEqual(raised.exception.message,
                         "l3 core2 is configured in OSPF and cannot be associated with a VRF")
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))

    def test_locked_sessions_edits_survive_another_sessions_validate(self):
        with self.server.connect() as other:
            with self.session.locked("candidate"):
                self.session.edit_config(target="candidate",
                                         config=config(example("running.xml")))
                other.validate(source="candidate")
                with self.assertRaises(RPCError):
                    other.commit()  # locked by the first session
                self.session.commit()
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))

    def test_inline_config_is_checked_as_a_candidate_against_running(self):
        commit_change(self.session, "", "running.xml")
        first_line, details, _ = ipapp_check("vrf-ospf.xml")
        inline = etree.fromstring(config(example("vrf-ospf.xml")))
        with self.assertRaises(RPCError) as raised:
            self.session.validate(source=inline)
        self.assertEqual(raised.exception.message, first_line[len("refused: "):])
        self.assertEqual(raised.exception.app_tag, details["validation"])
        self.session.validate(source=etree.fromstring(config(example("accept-new-interface.xml"))))
        # Nothing changed: neither the candidate nor running.
        self.assertEqual(element_leaves(self.candidate()), file_leaves("running.xml"))
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))


class RunningTest(unittest.TestCase):
    """The running configuration outlives the server, and --running seeds
    it."""

    def test_restart_keeps_running_and_running_option_seeds_it(self):
        server = Server(LAUNCHER)
        server.own_dir = False
        try:
            with server.connect() as session:
                commit_change(session, "", "running.xml")
            self.assertEqual(server.stop(), 0)
            for args, expected in [
                    ([], "running.xml"),
                    (["--running", os.path.join(EXAMPLES, "accept-new-interface.xml")],
                     "accept-new-interface.xml"),
                    ([], "accept-new-interface.xml"),
                    (["--running", os.path.join(EXAMPLES, "route-limit.json")], None)]:
                with self.subTest(args=args):
                    again = Server(LAUNCHER, dir=server.dir, args=args)
                    try:
                        with again.connect() as session:
                            data = session.get_config(source="running").data_xml
                    finally:
                        self.assertEqual(again.stop(), 0)
                    if expected:
                        self.assertEqual(element_leaves(data), file_leaves(expected))
                    else:
                        self.assertIn("blue-1", data)
        finally:
            server.own_dir = True
            server.stop()

    @staticmethod
    def running_of(session):
        return session.get_config(source="running").data_xml

    def test_a_save_cut_short_starts_from_the_last_commit(self):
        server = Server(LAUNCHER)
        server.own_dir = False
        running = os.path.join(server.dir, "running.xml")
        committed = os.path.join(server.dir, "committed.xml")
        try:
            with server.connect() as session:
                # A commit that cannot be kept fails, and changes nothing.
                os.makedirs(os.path.join(server.dir, "committed.xml.new", "in-the-way"))
                with self.assertRaises(RPCError):
                    commit_change(session, "", "running.xml")
                self.assertEqual(element_leaves(self.running_of(session)), [])
                shutil.rmtree(os.path.join(server.dir, "committed.xml.new"))
                commit_change(session, "", "running.xml")
            self.assertEqual(server.stop(), 0)
            with open(running) as f:
                saved = f.read()
            with open(committed) as f:
                self.assertEqual(element_leaves(f.read()), file_leaves("running.xml"))
            self.assertEqual(stat.S_IMODE(os.stat(committed).st_mode), 0o600)
            # netconfd stopped half-way through writing its file.
            with open(running, "w") as f:
                f.write(saved[:len(saved) // 2])
            again = Server(LAUNCHER, dir=server.dir)
            try:
                with again.connect() as session:
                    data = self.running_of(session)
            finally:
                self.assertEqual(again.stop(), 0)
            self.assertEqual(element_leaves(data), file_leaves("running.xml"))
            with open(running) as f:
                self.assertEqual(element_leaves(f.read()), file_leaves("running.xml"))
            # Without the library nothing keeps the copy up to date: it goes.
            unchecked = Server(LAUNCHER, dir=server.dir, args=["--no-check"])
            try:
                with unchecked.connect() as session:
                    commit_change(session, "running.xml", "accept-new-interface.xml")
            finally:
                self.assertEqual(unchecked.stop(), 0)
            self.assertFalse(os.path.exists(committed))
        finally:
            server.own_dir = True
            server.stop()

    def test_bad_running_file_is_bad_usage_naming_file_and_line(self):
        bad = os.path.join(EXAMPLES, "running.xml")
        with open(bad) as f:
            text = f.read().replace("<vlan>100</vlan>", "<vlan>one hundred</vlan>", 1)
        self.assertNotEqual(text, example("running.xml"))
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "bad.xml")
            with open(path, "w") as f:
                f.write(text)
            line = text[:text.index("one hundred")].count("\n") + 1
            status, err = run_launcher(LAUNCHER, ["--port", "1", "--dir",
                                                  os.path.join(tmp, "d"), "--running", path])
        self.assertEqual(status, 2, err)
        self.assertIn(f"{path}:{line}", err)


class FailureTest(ServerTest):
    """An exception from the plug-in fails the commit and the server goes on;
    a server that cannot start says why."""

    plugin = FAKE_PLUGIN
    env = {"IPAPP_FAKE_MODE": "throw"}

    def test_exception_fails_the_commit_and_the_server_keeps_serving(self):
        before = self.running()
        for attempt in range(2):
            with self.subTest(attempt=attempt):
                self.session.edit_config(target="candidate",
                                         config=config(change("", example("running.xml"))))
                with self.assertRaises(RPCError) as raised:
                    self.session.commit()
                err = raised.exception
                self.assertEqual(err.tag, "operation-failed")
                self.assertEqual(err.message,
                                 "exception from the plug-in in intf_l3_name_validation on "
                                 "/config/interface/ipapp:l3: fake failure in "
                                 "intf_l3_name_validation")
                self.assertEqual(err.path, "/shellcfg:config/shellcfg:interface/ipapp:l3")
                # netconfd's own tag: a failure is no validation's refusal.
                self.assertEqual(err.app_tag, "general-error")
                self.assertEqual(self.running(), before)
                self.session.discard_changes()

    def test_servers_that_cannot_start_say_why(self):
        missing = "/nonexistent/libip_app_validation.so"
        for name, kwargs, reason in [
                ("port taken", {"port": self.server.port}, "is in use"),
                ("plug-in missing", {"plugin": missing}, f"cannot load plug-in {missing}"),
                ("plug-in aborting at start",
                 {"plugin": FAKE_PLUGIN, "env": {"IPAPP_FAKE_MODE": "abort@lib_init"}},
                 "the plug-in cannot be used: " + FAKE_PLUGIN +
                 ": the plug-in aborted in lib_init (signal SIGABRT, Aborted)")]:
            with self.subTest(name):
                try:
                    started = Server(LAUNCHER, **kwargs)
                except StartFailure as e:
                    self.assertIn("(status 1)", str(e))
                    self.assertIn(reason, str(e))
                else:
                    started.stop()
                    self.fail("the server started")
        # The first server still serves.
        self.assertIsNotNone(self.running())



class IsolationTest(unittest.TestCase):
    """A plug-in that aborts or hangs fails the one operation; every session
    goes on."""

    PLACE = "intf_l3_name_validation on /config/interface/ipapp:l3"
    CASES = [
        ("abort", f"the plug-in aborted in {PLACE} (signal SIGABRT, Aborted)"),
        ("hang", f"the plug-in did not return in {PLACE} (stopped after 2 s)"),
    ]

    def test_failing_plugin_fails_the_operation_and_the_server_keeps_serving(self):
        for mode, message in self.CASES:
            with self.subTest(mode=mode):
                server = Server(LAUNCHER, plugin=FAKE_PLUGIN, env={"IPAPP_FAKE_MODE": mode},
                                args=["--timeout", "2"])
                try:
                    with server.connect() as session, server.connect() as other:
                        session.edit_config(target="candidate",
                                            config=config(example("running.xml")))
                        for operation in (lambda: session.validate(source="candidate"),
                                          session.commit):
                            with self.assertRaises(RPCError) as raised:
                                operation()
                            self.assertEqual(raised.exception.message, message)
                            self.assertEqual(raised.exception.tag, "operation-failed")
                        # A session that comes afterwards gets its hello, and
                        # the one that waited its turn gets its answer.
                        with server.connect() as late:
                            self.assertEqual(element_leaves(
                                late.get_config(source="running").data_xml), [])
                        self.assertEqual(element_leaves(
                            other.get_config(source="candidate").data_xml),
                            file_leaves("running.xml"))
                finally:
                    self.assertEqual(server.stop(), 0)
                self.assertEqual(server.leftovers, [])



class YangcliTest(ServerTest):
    """Another NETCONF client, yangcli, reads a refusal as a proper reply."""

    def test_refused_commit_through_yangcli(self):
        commit_change(self.session, "", "running.xml")
        self.session.edit_config(target="candidate",
                                 config=config(change(example("running.xml"),
                                                      example("vrf-ospf.xml"))))
        first_line, details, _ = ipapp_check("vrf-ospf.xml")
        key = os.path.join(self.server.dir, "client_key")
        with tempfile.TemporaryDirectory() as home:
            script = os.path.join(home, "commit.txt")
            with open(script, "w") as f:
                f.write("commit\nquit\n")
            yangcli = ["yangcli", "--server=127.0.0.1", f"--ncport={self.server.port}",
                       f"--user={pwd.getpwuid(os.getuid()).pw_name}", f"--private-key={key}",
                       f"--public-key={key}.pub", "--password=unused", "--batch-mode",
                       f"--run-script={script}"]
            # yangcli insists on a terminal.
            out = subprocess.run(["script", "-qec", shlex.join(yangcli), "/dev/null"],
                                 capture_output=True, text=True, timeout=60,
                                 env=dict(os.environ, HOME=home)).stdout
        self.assertIn("RPC Error Reply", out)
        self.assertIn(f"error-message '{first_line[len('refused: '):]}'", out)
        self.assertIn(f"error-app-tag {details['validation']}", out)
        self.assertRegex(out, r"error-path /shellcfg:config/shellcfg:interface/ipapp:l3")
        self.assertNotIn("invalid", out.lower())
        self.assertEqual(element_leaves(self.running()), file_leaves("running.xml"))
        self.session.discard_changes()


if __name__ == "__main__":
    unittest.main(verbosity=2)
