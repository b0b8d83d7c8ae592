#!/usr/bin/python3
"""tkav-netconfd as python3-ncclient sees it, over SSH on 127.0.0.1.

    ncclient_test.py --daemon PATH [--valgrind] [unittest options]

With --valgrind the daemon runs under valgrind's memcheck for the whole
suite; the suite then also fails when valgrind reports an error or a
definite leak.
"""

import argparse
import warnings

# ncclient 0.6.13 and the crypt module use calls that newer Pythons deprecate.
warnings.simplefilter("ignore", DeprecationWarning)

import crypt  # noqa: E402 (after the filter)
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as ET

import ncclient.transport.ssh
from ncclient import manager
from ncclient.operations.rpc import RPCError
from ncclient.xml_ import to_ele
from lxml import etree

# ncclient waits up to TICK seconds for each reply.
ncclient.transport.ssh.TICK = 0.002

NS = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus"
DAEMON_NS = "urn:tavrik:params:xml:ns:yang:tavrik-netconfd"
NC_NS = "urn:ietf:params:xml:ns:netconf:base:1.0"
NCM_NS = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
NACM_NS = "urn:ietf:params:xml:ns:yang:ietf-netconf-acm"
PROFILE_PATH = ("/tavrik-antivirus:antivirus/tavrik-antivirus:vsys[tavrik-antivirus:name='vs1']"
                "/tavrik-antivirus:profiles/tavrik-antivirus:profile[tavrik-antivirus:name='p1']/")

OPTIONS = None  # set from the command line
SLOW = 1  # how much longer things take: 10 under valgrind
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")


def config(body, more=""):
    """<config> with <antivirus> and `more` top-level elements."""
    return f'<config xmlns="{NC_NS}"><antivirus xmlns="{NS}">{body}</antivirus>{more}</config>'


def nacm(body, attributes=""):
    return f'<nacm xmlns="{NACM_NS}" xmlns:nc="{NC_NS}"{attributes}>{body}</nacm>'


def rule(name, body):
    return f"<rule><name>{name}</name>{body}</rule>"


# User oper (and audit) may read everything and change nothing.
READ_ONLY = ("<groups><group><name>operators</name><user-name>oper</user-name><user-name>audit</user-name>"
             "</group></groups><rule-list><name>read-only</name><group>operators</group>"
             + rule("read-all", "<module-name>*</module-name><access-operations>read</access-operations>"
                                "<action>permit</action>")
             + rule("no-writes", f'<module-name>tavrik-antivirus</module-name><path xmlns:av="{NS}">/av:antivirus</path>'

                                 "<access-operations>create update delete</access-operations><action>deny</action>")
             + "</rule-list>")


def profile(body, attributes=""):
    return config(f"<vsys><name>vs1</name><profiles><profile{attributes}>{body}"
                  "</profile></profiles></vsys>")


def described(text, name="p1"):
    return profile(f"<name>{name}</name><description>{text}</description>")


FULL_PROFILE = profile("""
  <name>p1</name>
  <description>office traffic</description>
  <heuristic-detect-enable>true</heuristic-detect-enable>
  <detect><protocol-type>http</protocol-type>
    <detect-configuration><direction>both</direction><action>block</action></detect-configuration>
  </detect>
  <detect><protocol-type>smtp</protocol-type>
    <detect-configuration><direction>upload</direction><action>delete-attachment</action></detect-configuration>
  </detect>
  <exception-application><application-name>dropbox</application-name>
    <application-action>block</application-action></exception-application>
  <exception-signature-id>1001</exception-signature-id>
  <exception-signature><id>2002</id><action>block-source-ip</action><timeout>60</timeout></exception-signature>
  <whitelists>
    <match-rules>
      <match-rule><scope>url</scope><type>prefix</type><value>www.example.com/downloads/*</value></match-rule>
      <match-rule><scope>host</scope><type>suffix</type><value>*.example.org</value></match-rule>
    </match-rules>
    <source-address>192.0.2.10</source-address>
    <source-address-range><start-address>192.0.2.100</start-address><end-address>192.0.2.120</end-address></source-address-range>
    <destination-address>198.51.100.7</destination-address>
    <destination-address-range><start-address>198.51.100.200</start-address><end-address>198.51.100.250</end-address></destination-address-range>
  </whitelists>""")


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def texts(xml, name):
    """Texts of all elements `name` (any namespace) in an XML document."""
    root = ET.fromstring(xml) if isinstance(xml, str) else xml
    return [e.text or "" for e in root.iter() if e.tag.split("}")[-1] == name]


class Daemon:
    """tkav-netconfd with SSH on a free loopback port and its own state."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="tkav-ncclient-")
        self.port = free_port()
        self.process = None
        self.valgrind_logs = []
        key = ncclient.transport.ssh.paramiko.ECDSAKey.generate()
        self.key_file = os.path.join(self.dir, "alice_key")
        key.write_private_key_file(self.key_file)
        with open(self.key_file + ".pub", "w") as out:
            out.write(f"{key.get_name()} {key.get_base64()} alice@test\n")
        hashed = crypt.crypt("b0b-pw", crypt.mksalt(crypt.METHOD_SHA512))
        with open(os.path.join(self.dir, "daemon.conf"), "w") as out:
            out.write(f"# written by the test\nssh 127.0.0.1:{self.port}\nstate-dir {self.dir}/state\n"
                      f"user admin password s3cret\nuser alice authorized-key {self.key_file}.pub\n"
                      f"user bob password-hash {hashed}\n")

    def start(self, extra=()):
        pid_file = os.path.join(self.dir, "pid")
        if os.path.exists(pid_file):
            os.unlink(pid_file)
        command = [OPTIONS.daemon, "--config", os.path.join(self.dir, "daemon.conf"),
                   "--pid-file", pid_file, *extra]
        if OPTIONS.valgrind:
            log = os.path.join(self.dir, f"valgrind-{len(self.valgrind_logs)}.log")
            self.valgrind_logs.append(log)
            command = ["valgrind", "--quiet", "--leak-check=full", "--errors-for-leak-kinds=definite",
                       "--show-leak-kinds=definite", "--error-exitcode=99", f"--log-file={log}",
                       f"--suppressions={os.path.dirname(os.path.abspath(__file__))}/valgrind.supp"] + command
        self.stderr = open(os.path.join(self.dir, "stderr.log"), "a")
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=self.stderr)
        deadline = time.time() + SLOW * 30
        while not os.path.exists(pid_file):
            if self.process.poll() is not None or time.time() > deadline:
                raise RuntimeError("tkav-netconfd did not start:\n" + self.log())
            time.sleep(0.05)

    def stop(self):
        """SIGTERM; returns the exit status (99: valgrind found errors)."""
        if not self.process:
            return 0
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=300 if OPTIONS.valgrind else 30)
        self.stderr.close()
        self.process = None
        if OPTIONS.valgrind:
            with open(self.valgrind_logs[-1]) as f:
                report = f.read()
            if report.strip():
                print(f"valgrind on tkav-netconfd:\n{report}", file=sys.stderr)
        return status

    def kill(self):
        """SIGKILL: the daemon stops wherever it is."""
        self.process.kill()
        self.process.wait()
        self.stderr.close()
        self.process = None

    def log(self):
        with open(os.path.join(self.dir, "stderr.log")) as f:
            return f.read()

    def connect(self, **credentials):
        if not credentials:
            credentials = {"username": "admin", "password": "s3cret"}
        return manager.connect(host="127.0.0.1", port=self.port, hostkey_verify=False,
                               allow_agent=False, look_for_keys=False,
                               timeout=300 if OPTIONS.valgrind else 30, **credentials)

    def remove(self):
        if self.process:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


class DaemonTest(unittest.TestCase):
    """One daemon for the tests of a class."""
    daemon = None

    @classmethod
    def setUpClass(cls):
        cls.daemon = Daemon()
        cls.daemon.start()

    @classmethod
    def tearDownClass(cls):
        try:
            status = cls.daemon.stop()
            if status != 0:
                raise AssertionError(f"tkav-netconfd exited with {status} (99: valgrind's report above):\n"
                                     + cls.daemon.log())
        finally:
            cls.daemon.remove()


class NcclientTest(DaemonTest):
    def setUp(self):
        self.m = self.daemon.connect()
        self.m.edit_config(target="running", config=config(""), default_operation="replace")
        self.m.discard_changes()
        self.addCleanup(lambda: self.m.connected and self.m.close_session())

    def running(self, source="running"):
        return self.m.get_config(source=source).data_xml

    def lines_received(self):
        return int(texts(self.appliance(), "lines-received")[0])

    def wait_for(self, condition, failure):
        deadline = time.time() + SLOW * 30
        while not condition():
            if time.time() > deadline:
                self.fail(failure)
            time.sleep(0.1)

    def appliance(self):
        reply = self.m.get(filter=("subtree", f'<appliance xmlns="{DAEMON_NS}"/>'))
        return reply.data_ele

    def appliance_configuration(self):
        return texts(self.appliance(), "running-configuration")[0]

    def nacm(self, **options):
        return self.m.get_config(source="running", filter=("subtree", f'<nacm xmlns="{NACM_NS}"/>'),
                                 **options).data_ele

    def write_nacm(self, body):
        self.m.edit_config(target="running", config=config("", nacm(body)))
        self.addCleanup(lambda: self.m.edit_config(target="running",
                                                   config=config("", nacm("", ' nc:operation="remove"'))))

    def test_hello_lists_the_model(self):
        capabilities = list(self.m.server_capabilities)
        self.assertTrue(any(c.startswith(NS + "?module=tavrik-antivirus") for c in capabilities), capabilities)
        self.assertIn("urn:ietf:params:netconf:capability:validate:1.1", capabilities)
        self.assertIn("urn:ietf:params:netconf:capability:writable-running:1.0", capabilities)
        host_key = os.path.join(self.daemon.dir, "state", "ssh_host_ecdsa_key")
        self.assertEqual(os.stat(host_key).st_mode & 0o777, 0o600)  # generated at the first start

    def test_edit_config_creates_and_get_config_returns(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running = self.running()
        self.assertEqual(texts(running, "description"), ["office traffic"])
        self.assertEqual(sorted(texts(running, "protocol-type")), ["http", "smtp"])
        self.assertEqual(texts(running, "application-name"), ["dropbox"])
        self.assertEqual(texts(running, "exception-signature-id"), ["1001"])
        self.assertEqual(texts(running, "timeout"), ["60"])
        self.assertEqual(sorted(texts(running, "value")), ["*.example.org", "www.example.com/downloads/*"])
        self.assertEqual(texts(running, "end-address"), ["192.0.2.120", "198.51.100.250"])

        lines = texts(self.appliance(), "line")
        self.assertIn("profile type av name p1", lines)
        self.assertIn("http-detect direction both action block", lines)
        appliance = self.appliance_configuration()
        self.assertEqual(texts(appliance, "description"), ["office traffic"])
        self.assertEqual(texts(appliance, "destination-address"), ["198.51.100.7"])

        only_p1 = self.m.get_config(source="running", filter=(
            "subtree", f'<antivirus xmlns="{NS}"><vsys><name>vs1</name><profiles><profile>'
                       '<name>p1</name><detect/></profile></profiles></vsys></antivirus>')).data_xml
        self.assertEqual(sorted(texts(only_p1, "protocol-type")), ["http", "smtp"])
        self.assertEqual(texts(only_p1, "description"), [])

    def test_get_returns_the_state(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        state = self.m.get(filter=("subtree", f'<antivirus-state xmlns="{NS}"/>')).data_xml
        self.assertEqual(texts(state, "reference-count"), ["0"])
        self.assertIn("2002", texts(state, "signature-id"))
        self.assertIn("default", texts(state, "name"))  # the appliance's default profile
        everything = self.m.get().data_xml
        self.assertIn("office traffic", texts(everything, "description"))
        self.assertTrue(texts(everything, "content-id"))  # yang-library

    def test_delete_removes(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        delete = profile("<name>p1</name>", f' xmlns:nc="{NC_NS}" nc:operation="delete"')
        self.m.edit_config(target="running", config=delete)
        self.assertEqual(texts(self.running(), "profile"), [])
        self.assertEqual(texts(self.appliance_configuration(), "profile"), [])
        self.assertIn("undo profile type av name p1", texts(self.appliance(), "line"))

    def test_invalid_value_gets_the_module_refusal_and_changes_nothing(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance = self.running(), self.appliance_configuration()
        received = texts(self.appliance(), "lines-received")
        bad = profile("<name>p1</name><detect><protocol-type>http</protocol-type><detect-configuration>"
                      "<direction>sideways</direction><action>block</action></detect-configuration></detect>"
                      "<description>still office</description>")
        with self.assertRaises(RPCError) as caught:
            self.m.edit_config(target="running", config=bad)
        error = caught.exception
        self.assertEqual(error.tag, "bad-element")
        self.assertEqual(error.type, "application")
        self.assertTrue(error.path.startswith(PROFILE_PATH), error.path)
        self.assertTrue(error.message, "the module's message")
        self.assertEqual(self.running(), running)
        self.assertEqual(self.appliance_configuration(), appliance)
        self.assertEqual(texts(self.appliance(), "lines-received"), received)

    def test_nacm_configuration_is_written_and_read_back(self):
        self.write_nacm(READ_ONLY + "<read-default>deny</read-default>")
        for data in (self.nacm(), self.m.get(filter=("subtree", f'<nacm xmlns="{NACM_NS}"/>')).data_ele):
            self.assertEqual(texts(data, "user-name"), ["oper", "audit"])
            self.assertEqual(texts(data, "name"), ["operators", "read-only", "read-all", "no-writes"])
            self.assertEqual(texts(data, "access-operations"), ["read", "create update delete"])
            self.assertEqual(texts(data, "path")[0].split(":")[-1], "antivirus")
            self.assertEqual(texts(data, "read-default"), ["deny"])
            self.assertEqual(texts(data, "write-default"), [])  # a default, not configured
        everything = self.nacm(with_defaults="report-all")
        self.assertEqual(texts(everything, "write-default"), ["deny"])
        self.assertEqual(texts(everything, "enable-nacm"), ["true"])

        # copy-config replaces everything, /nacm included; what it leaves out goes.
        copy = ("<copy-config xmlns='{0}'><target><running/></target><source>{1}</source></copy-config>")
        self.m.dispatch(to_ele(copy.format(NC_NS, profile("<name>p1</name>", ""),)))
        self.assertEqual(texts(self.nacm(), "user-name"), [])
        self.assertEqual(texts(self.running(), "name"), ["vs1", "p1"])
        self.m.dispatch(to_ele(copy.format(NC_NS, config("", nacm(READ_ONLY)))))
        self.assertEqual(texts(self.nacm(), "user-name"), ["oper", "audit"])
        self.assertEqual(texts(self.running(), "profile"), [])

    def test_malformed_nacm_data_is_refused_and_changes_nothing(self):
        self.write_nacm(READ_ONLY)
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, received = self.running(), texts(self.appliance(), "lines-received")
        rule_list = "<rule-list><name>read-only</name>{}</rule-list>"
        for body, tag in ((rule_list.format(rule("r2", "<access-operations>read fly</access-operations>"
                                                       "<action>permit</action>")), "invalid-value"),
                          (rule_list.format("<rule><action>permit</action></rule>"), "missing-element"),
                          (rule_list.format(rule("r2", "<rpc-name>lock</rpc-name>")), "invalid-value"),
                          ("<enable-nacm>sometimes</enable-nacm>", "invalid-value")):
            with self.subTest(body=body), self.assertRaises(RPCError) as caught:
                self.m.edit_config(target="running", config=config(
                    "<vsys><name>vs1</name><antivirus-enable>true</antivirus-enable></vsys>", nacm(body)))
            self.assertEqual(caught.exception.tag, tag)
            self.assertTrue((caught.exception.path or "").startswith("/ietf-netconf-acm:nacm"),
                            (caught.exception.path, caught.exception.message))
            self.assertTrue(caught.exception.message)
            self.assertEqual(self.running(), running)
            self.assertEqual(texts(self.appliance(), "lines-received"), received)

    def test_xpath_filters_with_prefixes_of_the_clients_choosing(self):
        self.m.edit_config(target="running", config=config(
            "<vsys><name>vx</name><profiles>" + "".join(f"<profile><name>{name}</name></profile>"
                                                        for name in ("p1", "p2", "p3")) + "</profiles></vsys>"))
        select = "/av:antivirus/av:vsys[av:name='vx']/av:profiles/av:profile[av:name!='p2']"
        for read in (lambda f: self.m.get_config(source="running", filter=f), lambda f: self.m.get(filter=f)):
            data = read(("xpath", ({"av": NS}, select))).data_ele
            self.assertEqual([e.tag.split("}")[-1] for e in data], ["antivirus"])  # no state, no library
            self.assertEqual(texts(data, "name"), ["vx", "p1", "p3"])
        for bad, tag in (("/av:antivirus[", "operation-failed"), ("/zz:antivirus", "operation-failed"),
                         ("count(/av:antivirus)", "invalid-value")):
            with self.subTest(select=bad), self.assertRaises(RPCError) as caught:
                self.m.get(filter=("xpath", ({"av": NS}, bad)))
            self.assertEqual(caught.exception.tag, tag)
            self.assertTrue(caught.exception.message)
        self.assertIn("p2", texts(self.running(), "name"))  # the session goes on

    def test_monitoring_shows_this_session_and_its_lock(self):
        def state(inner):
            reply = self.m.get(filter=("subtree", f'<netconf-state xmlns="{NCM_NS}">{inner}</netconf-state>'))
            return reply.data_ele

        def own_session():
            entry = state(f"<sessions><session><session-id>{self.m.session_id}</session-id></session></sessions>")
            return {e.tag.split("}")[-1]: e.text for e in entry.iter() if len(e) == 0}

        before = own_session()
        self.assertEqual(before["username"], "admin")
        self.assertEqual(before["transport"].split(":")[-1], "netconf-ssh")
        self.assertEqual(before["source-host"], "127.0.0.1")
        self.assertTrue(before["login-time"])
        with self.assertRaises(RPCError):  # refused by libnetconf2 itself, while parsing
            self.m.dispatch(to_ele(f'<no-such-operation xmlns="{NC_NS}"/>'))
        after = own_session()
        # The monitoring <get> before, the refused request.
        self.assertEqual(int(after["in-rpcs"]), int(before["in-rpcs"]) + 1)
        self.assertEqual(int(after["in-bad-rpcs"]), int(before["in-bad-rpcs"]) + 1)
        self.assertEqual(int(after["out-rpc-errors"]), int(before["out-rpc-errors"]) + 1)

        self.m.lock(target="running")
        lock = state("<datastores/>")
        self.assertEqual(texts(lock, "name"), ["running", "candidate", "startup"])
        self.assertEqual(texts(lock, "locked-by-session"), [str(self.m.session_id)])
        self.assertTrue(texts(lock, "locked-time")[0].startswith(time.strftime("%Y-", time.gmtime())))
        self.m.unlock(target="running")
        self.assertEqual(texts(state("<datastores/>"), "locked-by-session"), [])

    def test_a_second_session_is_denied_the_lock(self):
        other = self.daemon.connect()
        try:
            self.m.lock(target="running")
            with self.assertRaises(RPCError) as caught:
                other.lock(target="running")
            self.assertEqual(caught.exception.tag, "lock-denied")
            self.assertIn(str(self.m.session_id), caught.exception.info)
            with self.assertRaises(RPCError) as caught:
                other.edit_config(target="running", config=FULL_PROFILE)
            self.assertEqual(caught.exception.tag, "in-use")
            self.m.unlock(target="running")
            other.lock(target="running")
            other.unlock(target="running")
        finally:
            other.close_session()

    def test_broken_framing_ends_only_that_ssh_session(self):
        hello = (f'<hello xmlns="{NC_NS}"><capabilities><capability>urn:ietf:params:netconf:base:1.1'
                 '</capability></capabilities></hello>]]>]]>').encode()
        cases = [b"\n#abc\n<rpc/>\n##\n", b"\n#18446744073709551615\n<rpc/>", b"\n##\n", b"<rpc/>]]>]]>"]
        for number, payload in enumerate(cases):
            with self.subTest(payload=payload):
                transport = ncclient.transport.ssh.paramiko.Transport(("127.0.0.1", self.daemon.port))
                try:
                    transport.connect(username="admin", password="s3cret")
                    channel = transport.open_session()
                    channel.invoke_subsystem("netconf")
                    channel.settimeout(300 if OPTIONS.valgrind else 30)
                    channel.sendall(hello + payload)
                    received = b""
                    while chunk := channel.recv(65536):  # the daemon's hello, then the end
                        received += chunk
                    self.assertIn(b"<session-id>", received)
                finally:
                    transport.close()
                # This test's session edits on in between.
                self.m.edit_config(target="running", config=profile(
                    f"<name>p1</name><description>edit {number}</description>"))
        self.assertEqual(texts(self.running(), "description"), [f"edit {len(cases) - 1}"])

    def test_public_key_and_password_logins(self):
        for credentials in ({"username": "alice", "key_filename": self.daemon.key_file},
                            {"username": "bob", "password": "b0b-pw"}):
            session = self.daemon.connect(**credentials)
            self.assertTrue(session.connected)
            session.close_session()
        for credentials in ({"username": "admin", "password": "wrong"},
                            {"username": "root", "password": "s3cret"},
                            {"username": "bob", "password": "b0b-p"},
                            {"username": "alice", "password": "s3cret"}):
            with self.assertRaises(Exception):
                self.daemon.connect(**credentials)

    def test_the_example_client_creates_a_profile_and_shows_the_lines(self):
        script = os.path.join(EXAMPLES, "client", "create-profile.py")
        run = subprocess.run([sys.executable, script, "--port", str(self.daemon.port), "--user", "admin",
                              "--password", "s3cret", "--profile", "from-example"],
                             capture_output=True, text=True, timeout=300)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("vsys vs1      system", run.stdout)
        self.assertIn("add    profile type av name from-example", run.stdout)
        self.assertIn("<name>from-example</name>", run.stdout)
        self.assertIn("from-example", texts(self.running(), "name"))

    def test_error_paths_resolve_with_the_namespaces_the_reply_declares(self):
        """The rpc-error of a module refusal, a model refusal and an appliance
        refusal, read with lxml: the error-path, with the prefixes declared on
        it and nothing else, selects the offending node of the request; the
        node's name is the bad-element; the module's path is in error-info."""
        cases = [  # (what, profile body, offending node's name, tag, module's path)
            ("module", "<name>p1</name><description>why?</description>", "description", "bad-element", True),
            ("model", f"<name>{'p' * 117}</name>", "name", "invalid-value", False),
            ("appliance", "<name>p1</name><exception-application><application-name>no-such-app</application-name>"
             "</exception-application>", "exception-application", "operation-failed", False),
        ]
        for what, body, name, tag, module_path in cases:
            with self.subTest(what):
                request = profile(body)
                with self.assertRaises(RPCError) as caught:
                    self.m.edit_config(target="running", config=request)
                error = etree.fromstring(etree.tostring(caught.exception.xml))  # the rpc-error alone
                self.assertEqual(error.findtext(f"{{{NC_NS}}}error-tag"), tag)
                self.assertEqual([etree.QName(c).localname for c in error][-3:],
                                 ["error-path", "error-message", "error-info"])  # RFC 6241's order
                path_element = error.find(f"{{{NC_NS}}}error-path")
                declared = {p: ns for p, ns in path_element.nsmap.items()
                            if p and error.nsmap.get(p) != ns}
                data = etree.ElementTree(etree.fromstring(request)[0])  # <antivirus> as the document
                found = data.xpath(path_element.text, namespaces=declared)
                self.assertEqual([etree.QName(n).localname for n in found], [name], path_element.text)
                self.assertEqual(etree.QName(found[0]).namespace, NS)
                self.assertEqual(error.findtext(f"{{{NC_NS}}}error-info/{{{NC_NS}}}bad-element"), name)
                info = error.findtext(f"{{{NC_NS}}}error-info/{{{DAEMON_NS}}}module-path")
                self.assertEqual(bool(info), module_path, info)
                if module_path:
                    self.assertTrue(info.endswith("/description"), info)
        self.assertEqual(texts(self.running(), "profile"), [])

    def test_the_candidate_stages_edits_until_they_are_committed(self):
        running, lines = self.running(), self.lines_received()
        self.m.edit_config(target="candidate", config=described("staged"))
        self.m.edit_config(target="candidate", config=profile("<name>p2</name>"))
        self.assertEqual(self.running(), running)
        self.assertEqual(self.lines_received(), lines)  # the appliance heard nothing
        self.assertEqual(texts(self.running("candidate"), "name"), ["vs1", "p1", "p2"])
        self.m.validate(source="candidate")
        self.m.commit()
        self.assertGreater(self.lines_received(), lines)
        for configuration in (self.running(), self.appliance_configuration()):
            self.assertEqual(texts(configuration, "description"), ["staged"])
            self.assertIn("p2", texts(configuration, "name"))
        self.m.edit_config(target="candidate", config=profile("<name>p3</name>"))
        self.m.discard_changes()
        self.assertEqual(self.running("candidate"), self.running())

    def test_a_candidate_the_module_refuses_fails_at_commit_and_changes_nothing(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance, lines = self.running(), self.appliance_configuration(), self.lines_received()
        self.m.edit_config(target="candidate", config=described("which traffic?"))
        with self.assertRaises(RPCError) as caught:
            self.m.commit()
        self.assertEqual(caught.exception.tag, "bad-element")
        self.assertEqual(caught.exception.path, PROFILE_PATH + "tavrik-antivirus:description")
        self.assertTrue(caught.exception.message)
        self.assertEqual(self.running(), running)
        self.assertEqual(self.appliance_configuration(), appliance)
        self.assertEqual(self.lines_received(), lines)

    def test_a_confirmed_commit_that_is_not_confirmed_reverts(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance = self.running(), self.appliance_configuration()
        self.m.edit_config(target="candidate", config=described("on trial"))
        self.m.commit(confirmed=True, timeout=str(2 * SLOW))
        self.assertEqual(texts(self.appliance_configuration(), "description"), ["on trial"])
        self.wait_for(lambda: self.running() == running, "the confirmed commit was not rolled back")
        self.assertEqual(self.appliance_configuration(), appliance)

    def test_a_persistent_confirmed_commit_is_confirmed_from_a_new_session(self):
        self.m.edit_config(target="candidate", config=described("persistent"))
        self.m.commit(confirmed=True, persist="tkav-token")
        self.m.close_session()
        self.m = self.daemon.connect()
        self.assertEqual(texts(self.running(), "description"), ["persistent"])
        self.m.commit(persist_id="tkav-token")
        with self.assertRaises(RPCError):  # nothing left to cancel
            self.m.cancel_commit(persist_id="tkav-token")
        self.assertEqual(texts(self.running(), "description"), ["persistent"])

    def test_cancel_commit_and_the_end_of_the_session_roll_back(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance = self.running(), self.appliance_configuration()
        self.m.edit_config(target="candidate", config=described("cancelled"))
        self.m.commit(confirmed=True)
        self.m.cancel_commit()
        self.assertEqual(self.running(), running)
        self.assertEqual(self.appliance_configuration(), appliance)

        other = self.daemon.connect()
        other.edit_config(target="candidate", config=described("abandoned"))
        other.commit(confirmed=True)
        self.assertEqual(texts(self.running(), "description"), ["abandoned"])
        other.close_session()
        self.wait_for(lambda: self.running() == running, "the end of the session did not roll back")
        self.assertEqual(self.appliance_configuration(), appliance)

    def test_the_staged_example_client_confirms_and_sees_a_revert(self):
        run = subprocess.run([sys.executable, os.path.join(EXAMPLES, "client", "staged-commit.py"),
                              "--port", str(self.daemon.port), "--password", "s3cret", "--confirm-timeout",
                              str(2 * SLOW)], capture_output=True, text=True, timeout=300)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        self.assertIn("the daemon restored the configuration", run.stdout)
        self.assertEqual(texts(self.running(), "description"), ["confirmed change"])

    def test_yangcli_stages_in_the_candidate_and_commits(self):
        home = tempfile.mkdtemp(dir=self.daemon.dir)  # yangcli keeps its history there
        run = subprocess.run(["yangcli", "--batch-mode", "--server=127.0.0.1", f"--ncport={self.daemon.port}",
                              "--user=admin", "--password=s3cret",
                              "--run-script=" + os.path.join(EXAMPLES, "client", "candidate-commit.yangcli")],
                             env={**os.environ, "HOME": home}, stdin=subprocess.DEVNULL, capture_output=True,
                             text=True, timeout=SLOW * 60)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        self.assertNotIn("rpc-error", run.stdout)
        for configuration in (self.running(), self.appliance_configuration()):
            self.assertEqual(texts(configuration, "description"), ["staged by yangcli"])
            self.assertEqual(texts(configuration, "heuristic-detect-enable"), ["true"])

    def test_zz_boot_from_startup_brings_running_and_the_appliance_to_it(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        self.m.copy_config(source="running", target="startup")
        startup, appliance = self.running("startup"), self.appliance_configuration()
        self.m.edit_config(target="running", config=described("edited after saving"))
        self.m.close_session()
        self.assertEqual(self.daemon.stop(), 0, self.daemon.log())
        self.daemon.start(["--boot-from-startup", "yes"])
        self.m = self.daemon.connect()
        self.assertEqual(self.running(), startup)
        self.assertEqual(self.appliance_configuration(), appliance)
        self.m.delete_config(target="startup")
        self.assertEqual(texts(self.running("startup"), "profile"), [])

    def test_zz_a_confirmed_commit_pending_at_a_restart_is_rolled_back(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance = self.running(), self.appliance_configuration()
        self.m.edit_config(target="candidate", config=described("pending"))
        self.m.commit(confirmed=True, persist="across-restarts")
        self.daemon.kill()
        self.daemon.start()
        self.m = self.daemon.connect()
        self.assertEqual(self.running(), running)
        self.assertEqual(self.appliance_configuration(), appliance)
        with self.assertRaises(RPCError):  # it is over
            self.m.commit(persist_id="across-restarts")
        self.assertIn("a confirmed commit was pending when the daemon stopped", self.daemon.log())

    def test_zz_restart_keeps_the_configuration(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        self.write_nacm(READ_ONLY)
        running, appliance = self.running(), self.appliance_configuration()
        self.m.close_session()
        self.m = self.daemon.connect()  # still connected when the daemon stops
        self.m.lock(target="running")
        status = self.daemon.stop()
        self.daemon.start()
        self.assertEqual(status, 0, self.daemon.log())
        self.m = self.daemon.connect()
        self.assertEqual(self.running(), running)
        self.assertEqual(self.appliance_configuration(), appliance)


def main():
    global OPTIONS, SLOW
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--valgrind", action="store_true")
    OPTIONS, rest = parser.parse_known_args()
    SLOW = 10 if OPTIONS.valgrind else 1
    if OPTIONS.valgrind and not shutil.which("valgrind"):
        print("valgrind is not installed", file=sys.stderr)
        return 1
    program = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2, warnings="ignore")
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
