#!/usr/bin/python3
# tkav-netconfd as python3-ncclient sees it, over SSH on 127.0.0.1.
#
#     ncclient_test.py --daemon PATH [--valgrind] [unittest options]
#
# With --valgrind the daemon runs under valgrind's memcheck for the whole
# suite; the suite then also fails when valgrind reports an error or a
# definite leak.

import argparse
import warnings

# ncclient 0.6.13 and the crypt module use calls that newer Pythons deprecate.
warnings.simplefilter("ignore", DeprecationWarning)

import contextlib  # noqa: E402 (after the filter)
import crypt  # noqa: E402
import itertools
import os
import select
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
from ncclient.operations.errors import TimeoutExpiredError
from ncclient.operations.rpc import RPC, RPCError
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


FULL_PROFILE = profile(
    "<name>p1</name><description>office traffic</description><heuristic-detect-enable>true</heuristic-detect-enable>"
    "<detect><protocol-type>http</protocol-type><detect-configuration><direction>both</direction><action>block"
    "</action></detect-configuration></detect><whitelists><match-rules><match-rule><scope>url</scope><type>prefix"
    "</type><value>www.example.com/d/*</value></match-rule></match-rules></whitelists>")


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def texts(xml, name):
    """Texts of all elements `name` (any namespace) in an XML document."""
    root = ET.fromstring(xml) if isinstance(xml, str) else xml
    return [e.text or "" for e in root.iter() if e.tag.split("}")[-1] == name]


def error_tag(call, *args, **kwargs):
    """The error-tag of the rpc-error `call` gets; None when it succeeds."""
    try:
        call(*args, **kwargs)
    except RPCError as error:
        return error.tag
    return None


LIVE = set()  # the daemons running now


def threads_when_a_reply_times_out(request):
    """An rpc without a reply in time: the test fails anyway; what the daemon's threads were doing then, and
    its log, go to stderr first (a hang seen once is then seen in full)."""
    def wrapped(self, *args, **kwargs):
        try:
            return request(self, *args, **kwargs)
        except TimeoutExpiredError:
            for daemon in list(LIVE):
                daemon.dump_threads()
            raise
    return wrapped


RPC._request = threads_when_a_reply_times_out(RPC._request)


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
                      f"user bob password-hash {hashed}\nuser oper password oper-pw\nsuperuser admin\n")

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
        LIVE.add(self)
        deadline = time.time() + SLOW * 30
        while not os.path.exists(pid_file):
            if self.process.poll() is not None or time.time() > deadline:
                raise RuntimeError("tkav-netconfd did not start:\n" + self.log())
            time.sleep(0.05)

    def stop(self):
        """SIGTERM; returns the exit status (99: valgrind found errors)."""
        if not self.process:
            return 0
        LIVE.discard(self)
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

    def dump_threads(self):
        if self.process and shutil.which("gdb"):
            readers = os.path.join(os.path.dirname(os.path.abspath(__file__)), "frame_readers.gdb")
            subprocess.run(["gdb", "-batch", "-p", str(self.process.pid), "-x", readers, "-ex", "thread apply all bt"],
                           stdout=sys.stderr, stderr=subprocess.DEVNULL, timeout=120, check=False)
        print(f"tkav-netconfd's log:\n{self.log()}", file=sys.stderr)

    def kill(self):
        """SIGKILL: the daemon stops wherever it is."""
        LIVE.discard(self)
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


class DaemonTestCase(unittest.TestCase):
    """The fixtures of a suite over SSH: one daemon for the class, and a session (self.m) on an empty running
    configuration for each test. Other suites derive from it and run with main()."""
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

    def setUp(self):
        self.m = self.session()
        self.m.edit_config(target="running", config=config(""), default_operation="replace")
        self.m.discard_changes()

    def session(self):
        """Another session, closed at the end of the test."""
        session = self.daemon.connect()

        def close():
            with contextlib.suppress(Exception):  # killed or dropped by the test
                session.close_session()
        self.addCleanup(close)
        return session

    def running(self, source="running"):
        return self.m.get_config(source=source).data_xml

    def description(self, source="running"):
        return texts(self.running(source), "description")

    def appliance(self):
        return self.m.get(filter=("subtree", f'<appliance xmlns="{DAEMON_NS}"/>')).data_ele

    def appliance_configuration(self):
        return texts(self.appliance(), "running-configuration")[0]

    def lines_received(self):
        return int(texts(self.appliance(), "lines-received")[0])

    def snapshot(self):
        """What a refused request must leave as it was."""
        return self.running(), self.appliance_configuration(), self.lines_received()

    def copy_inline(self, body, target):
        self.m.dispatch(to_ele(f"<copy-config xmlns='{NC_NS}'><target><{target}/></target>"
                               f"<source>{body}</source></copy-config>"))

    def wait_for(self, condition, failure):
        deadline = time.time() + SLOW * 30
        while not condition():
            if time.time() > deadline:
                self.fail(failure)
            time.sleep(0.1)

    def nacm(self):
        return self.m.get_config(source="running", filter=("subtree", f'<nacm xmlns="{NACM_NS}"/>')).data_ele

    def write_nacm(self, body):
        self.m.edit_config(target="running", config=config("", nacm(body)))
        self.addCleanup(lambda: self.m.edit_config(target="running",
                                                   config=config("", nacm("", ' nc:operation="remove"'))))

    def restart(self, stop, extra=()):
        """`stop` (self.daemon.stop or .kill), a start with `extra` options and a new session; stop's result."""
        status = stop()
        self.daemon.start(extra)
        self.m = self.daemon.connect()
        return status


class NcclientTest(DaemonTestCase):
    def test_hello_lists_the_model_and_the_capabilities_served(self):
        capabilities = list(self.m.server_capabilities)
        self.assertTrue(any(c.startswith(NS + "?module=tavrik-antivirus&revision=") for c in capabilities))
        self.assertIn(NC_NS + "?module=ietf-netconf&revision=2011-06-01&features=writable-running,candidate,"
                      "confirmed-commit,rollback-on-error,validate,startup,xpath", capabilities)
        self.assertFalse([c for c in capabilities if c.startswith("urn:ietf:params:netconf:capability:url")])

    def test_refused_requests_get_their_error_tag_and_change_nothing(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        before = self.snapshot()
        good, bad = described("new"), described("why?")
        two_vsys = config("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys><vsys><name>vs1"
                          "</name><profiles><profile><name>p1</name><description>?</description></profile>"
                          "</profiles></vsys>")
        op = f' xmlns:nc="{NC_NS}" nc:operation='
        url, x = "<url>file:///tmp/x</url>", f"xmlns='{NC_NS}'"
        requests = [  # (request, error tag)
            (lambda: self.m.edit_config(target="running", config=good, test_option="test-only"), None),
            (lambda: self.m.edit_config(target="running", config=bad, test_option="test-only"), "bad-element"),
            (lambda: self.m.validate(source="running"), None),
            (lambda: self.m.validate(source=to_ele(good)), None),
            (lambda: self.m.validate(source=to_ele(bad)), "bad-element"),
            (lambda: self.m.edit_config(target="running", config=profile("<name>p1</name>", op + '"create"')),
             "data-exists"),
            (lambda: self.m.edit_config(target="running", config=profile("<name>p9</name>", op + '"delete"')),
             "data-missing"),
            (lambda: self.m.edit_config(target="running", config=profile("<name>p1</name><colour>red</colour>")),
             "unknown-element"),
        ] + [(lambda body=body: self.m.dispatch(to_ele(body)), tag)  # what ncclient would not send itself
             for body, tag in ((f"<get-config {x}/>", "missing-element"),
                               (f"<validate {x}><source>{url}</source></validate>", "operation-not-supported"))
        ] + [(lambda option=option: self.m.edit_config(target="running", config=two_vsys, error_option=option),
              "bad-element") for option in ("stop-on-error", "continue-on-error", "rollback-on-error")]
        for number, (request, tag) in enumerate(requests):
            with self.subTest(request=number):
                self.assertEqual(error_tag(request), tag)
                self.assertEqual(self.snapshot(), before)

    def test_error_paths_resolve_with_the_namespaces_the_reply_declares(self):
        # The rpc-error of a module refusal, a model refusal and an appliance
        # refusal, read with lxml: the error-path, with the prefixes declared on
        # it and nothing else, selects the offending node of the request; the
        # node's name is the bad-element; the module's path is in error-info.
        cases = [  # (what, profile body, offending node's name, tag, module's path)
            ("module", "<name>p1</name><description>why?</description>", "description", "bad-element", True),
            ("model", f"<name>{'p' * 117}</name>", "name", "invalid-value", False),
            ("appliance", "<name>p1</name><exception-application><application-name>no-such-app</application-name>"
             "</exception-application>", "exception-application", "operation-failed", False),
        ]
        before = self.snapshot()[:2]  # the appliance heard the refused line
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
        self.assertEqual(self.snapshot()[:2], before)

    def test_nacm_configuration_is_written_read_back_and_replaced_by_copy_config(self):
        self.write_nacm(READ_ONLY)
        self.assertEqual(texts(self.nacm(), "user-name"), ["oper", "audit"])
        with self.assertRaises(RPCError) as caught:
            self.m.edit_config(target="running", config=config("", nacm("<enable-nacm>sometimes</enable-nacm>")))
        self.assertTrue(caught.exception.path.startswith("/ietf-netconf-acm:nacm"), caught.exception.path)
        self.copy_inline(described("copied"), "running")  # everything is replaced, /nacm included
        self.assertEqual(texts(self.nacm(), "user-name"), [])
        self.assertEqual(self.description(), ["copied"])

    def test_subtree_and_xpath_filters_with_prefixes_of_the_clients_choosing(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        self.m.edit_config(target="running", config=config(
            "<vsys><name>vx</name><profiles>" + "".join(f"<profile><name>{name}</name></profile>"
                                                        for name in ("p1", "p2", "p3")) + "</profiles></vsys>"))
        only_p1 = self.m.get_config(source="running", filter=(
            "subtree", f'<antivirus xmlns="{NS}"><vsys><name>vs1</name><profiles><profile>'
                       '<name>p1</name><detect/></profile></profiles></vsys></antivirus>')).data_xml
        self.assertEqual((texts(only_p1, "protocol-type"), texts(only_p1, "description")), (["http"], []))
        select = "/av:antivirus/av:vsys[av:name='vx']/av:profiles/av:profile[av:name!='p2']"
        for read in (lambda f: self.m.get_config(source="running", filter=f), lambda f: self.m.get(filter=f)):
            data = read(("xpath", ({"av": NS}, select))).data_ele
            self.assertEqual([etree.QName(e).localname for e in data], ["antivirus"])  # no state, no library
            self.assertEqual(texts(data, "name"), ["vx", "p1", "p3"])
        for bad, tag in (("/av:antivirus[", "operation-failed"), ("count(/av:antivirus)", "invalid-value")):
            with self.subTest(select=bad):
                self.assertEqual(error_tag(self.m.get, filter=("xpath", ({"av": NS}, bad))), tag)
        self.assertIn("p2", texts(self.running(), "name"))  # the session goes on

    def test_monitoring_shows_this_session_and_its_lock(self):
        def state(inner):
            reply = self.m.get(filter=("subtree", f'<netconf-state xmlns="{NCM_NS}">{inner}</netconf-state>'))
            return reply.data_ele

        own = state(f"<sessions><session><session-id>{self.m.session_id}</session-id></session></sessions>")
        own = {etree.QName(e).localname: e.text for e in own.iter() if len(e) == 0}
        self.assertEqual((own["username"], own["source-host"]), ("admin", "127.0.0.1"))
        self.assertEqual(own["transport"].split(":")[-1], "netconf-ssh")
        self.m.lock(target="running")
        lock = state("<datastores/>")
        self.assertEqual(texts(lock, "name"), ["running", "candidate", "startup"])
        self.assertEqual(texts(lock, "locked-by-session"), [str(self.m.session_id)])
        self.m.unlock(target="running")
        self.assertEqual(texts(state("<datastores/>"), "locked-by-session"), [])

    def test_lock_rules_of_running_and_the_candidate_and_kill_session(self):
        m, other, own = self.m, self.session(), str(self.m.session_id)
        m.lock(target="running")
        with self.assertRaises(RPCError) as caught:
            other.lock(target="running")
        self.assertEqual(caught.exception.tag, "lock-denied")
        self.assertIn(own, caught.exception.info)
        steps = [  # (request, error tag)
            (lambda: other.edit_config(target="running", config=described("theirs")), "in-use"),
            (lambda: m.edit_config(target="running", config=described("mine")), None),  # by the holder
            (lambda: m.unlock(target="running"), None),
            # A candidate with changes of this session: only this session may lock it.
            (lambda: m.edit_config(target="candidate", config=described("staged")), None),
            (lambda: other.lock(target="candidate"), "lock-denied"),
            (lambda: m.lock(target="candidate"), None),
            (lambda: other.commit(), "in-use"),
            # A pending confirmed commit keeps running from other sessions' locks, not from its own.
            (lambda: m.commit(confirmed=True), None),
            (lambda: other.lock(target="running"), "lock-denied"),
            (lambda: m.lock(target="running"), None),
            (lambda: m.unlock(target="running"), None),
            (lambda: m.commit(), None),
            (lambda: m.kill_session(own), "invalid-value"),
            (lambda: other.lock(target="running"), None),
            (lambda: m.kill_session(str(other.session_id)), None),
            (lambda: m.lock(target="running"), None),  # the killed session's lock is gone
        ]
        for number, (request, tag) in enumerate(steps):
            with self.subTest(step=number):
                self.assertEqual(error_tag(request), tag)

    def test_broken_framing_ends_only_that_session(self):
        hello = (f'<hello xmlns="{NC_NS}"><capabilities><capability>urn:ietf:params:netconf:base:1.1'
                 '</capability></capabilities></hello>]]>]]>').encode()
        payloads = {"garbage before the hello": b"garbage" + hello, "non-numeric size": hello + b"\n#abc\n<rpc/>\n##\n",
                    "oversized size": hello + b"\n#4294967296\n<rpc/>\n##\n", "end of chunks first": hello + b"\n##\n",
                    "missing end marker": hello + b"\n#6\n<rpc/><rpc/>]]>]]>"}
        for (transport, converse), (what, payload) in itertools.product(self.raw_transports().items(), payloads.items()):
            with self.subTest(transport=transport, payload=what):
                self.assertIn(b"<session-id>", converse(payload))  # the daemon's hello, then the end
                # This test's session edits on in between.
                self.m.edit_config(target="running", config=described(f"{transport}: {what}"))
                self.assertEqual(self.description(), [f"{transport}: {what}"])

    def raw_transports(self):
        """Each way in, as a function that sends bytes of a new session and returns what comes back until the
        daemon ends the session."""
        def ssh(payload):
            transport = ncclient.transport.ssh.paramiko.Transport(("127.0.0.1", self.daemon.port))
            with contextlib.closing(transport):
                transport.connect(username="admin", password="s3cret")
                channel = transport.open_session()
                channel.invoke_subsystem("netconf")
                channel.settimeout(SLOW * 30)
                channel.sendall(payload)
                return b"".join(iter(lambda: channel.recv(65536), b""))

        def unix(payload):
            with socket.socket(socket.AF_UNIX) as s:
                s.settimeout(SLOW * 30)
                s.connect(os.path.join(self.daemon.dir, "state", "netconf.sock"))
                s.sendall(payload)
                return b"".join(iter(lambda: s.recv(65536), b""))

        def stdio(payload):  # relayed to the daemon's socket; stdin open until the daemon ends the session
            relay = subprocess.Popen([OPTIONS.daemon, "--config", os.path.join(self.daemon.dir, "daemon.conf"),
                                      "--stdio"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            with relay:
                relay.stdin.write(payload)
                relay.stdin.flush()

                def read():
                    if not select.select([relay.stdout], [], [], SLOW * 30)[0]:
                        self.fail("the session did not end")
                    return os.read(relay.stdout.fileno(), 65536)
                try:
                    return b"".join(iter(read, b""))
                finally:
                    relay.kill()
        return {"ssh": ssh, "unix": unix, "stdio": stdio}

    def test_public_key_and_password_logins(self):
        for credentials in ({"username": "alice", "key_filename": self.daemon.key_file},
                            {"username": "bob", "password": "b0b-pw"}):
            self.daemon.connect(**credentials).close_session()
        for credentials in ({"username": "admin", "password": "wrong"}, {"username": "root", "password": "s3cret"},
                            {"username": "alice", "password": "s3cret"}):
            with self.assertRaises(Exception):
                self.daemon.connect(**credentials)

    def test_yangcli_and_the_example_clients(self):
        """yangcli, a client this project does not control, runs the example script; then the example clients."""
        client, login = os.path.join(EXAMPLES, "client"), ["--port", str(self.daemon.port), "--password", "s3cret"]
        for command, shown in (
                (["yangcli", "--batch-mode", "--server=127.0.0.1", f"--ncport={self.daemon.port}", "--user=admin",
                  "--password=s3cret", "--run-script=" + os.path.join(client, "candidate-commit.yangcli")], "commit"),
                ([sys.executable, os.path.join(client, "create-profile.py"), *login, "--profile", "ex"],
                 "add    profile type av name ex"),
                ([sys.executable, os.path.join(client, "staged-commit.py"), *login, "--confirm-timeout", str(2 * SLOW)],
                 "the daemon restored the configuration")):
            run = subprocess.run(command, capture_output=True, text=True, timeout=SLOW * 60, stdin=subprocess.DEVNULL,
                                 env={**os.environ, "HOME": tempfile.mkdtemp(dir=self.daemon.dir)})
            self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
            self.assertNotIn("rpc-error", run.stdout)
            self.assertIn(shown, run.stdout)
        for configuration in (self.running(), self.appliance_configuration()):
            self.assertEqual(sorted(texts(configuration, "description")),
                             ["confirmed change", "created by the example client", "staged by yangcli"])

    def test_a_stdio_session_is_relayed_to_the_running_daemon(self):
        edit = described("over stdio")
        messages = [f'<hello xmlns="{NC_NS}"><capabilities><capability>urn:ietf:params:netconf:base:1.0'
                    "</capability></capabilities></hello>",
                    f'<rpc message-id="1" xmlns="{NC_NS}"><edit-config><target><running/></target>{edit}'
                    "</edit-config></rpc>", f'<rpc message-id="2" xmlns="{NC_NS}"><close-session/></rpc>']
        relay = subprocess.Popen([OPTIONS.daemon, "--config", os.path.join(self.daemon.dir, "daemon.conf"), "--stdio"],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        relay.stdin.write("]]>]]>".join(messages) + "]]>]]>")
        relay.stdin.flush()  # open until the daemon ends the session
        out = relay.stdout.read()
        relay.stdin.close()
        self.assertEqual(relay.wait(timeout=SLOW * 30), 0)
        self.assertEqual(out.count("<ok/>"), 2, out)
        self.assertEqual(self.description(), ["over stdio"])

    def test_the_candidate_stages_edits_until_they_are_committed(self):
        self.m.edit_config(target="running", config=described("one"))
        running, lines = self.running(), self.lines_received()
        self.m.edit_config(target="candidate", config=described("staged"))
        self.m.edit_config(target="candidate", config=profile("<name>p2</name>"))
        self.assertEqual((self.running(), self.lines_received()), (running, lines))  # the appliance heard nothing
        self.m.commit()
        for configuration in (self.running(), self.appliance_configuration()):
            self.assertEqual(texts(configuration, "description"), ["staged"])
            self.assertIn("p2", texts(configuration, "name"))
        self.m.edit_config(target="candidate", config=profile("<name>p3</name>"))
        self.m.discard_changes()
        self.assertEqual(self.running("candidate"), self.running())

    def test_a_candidate_the_module_refuses_fails_at_commit_and_changes_nothing(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        before = self.snapshot()
        self.m.edit_config(target="candidate", config=described("which traffic?"))
        with self.assertRaises(RPCError) as caught:
            self.m.commit()
        self.assertEqual(caught.exception.tag, "bad-element")
        self.assertEqual(caught.exception.path, PROFILE_PATH + "tavrik-antivirus:description")
        self.assertEqual(self.snapshot(), before)

    def test_copy_config_between_the_datastores(self):
        self.assertEqual(error_tag(self.m.copy_config, source="startup", target="running"), "operation-failed")
        self.copy_inline(described("inline"), "startup")
        self.m.copy_config(source="startup", target="candidate")
        self.assertEqual([self.description(ds) for ds in ("running", "candidate", "startup")],
                         [[], ["inline"], ["inline"]])
        self.m.delete_config(target="startup")
        self.assertEqual(self.description("startup"), [])

    def test_a_confirmed_commit_that_is_not_confirmed_reverts(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance, _ = self.snapshot()
        self.m.edit_config(target="candidate", config=described("on trial"))
        self.m.commit(confirmed=True, timeout=str(2 * SLOW))
        self.assertEqual(texts(self.appliance_configuration(), "description"), ["on trial"])
        self.wait_for(lambda: self.running() == running, "the confirmed commit was not rolled back")
        self.assertEqual(self.appliance_configuration(), appliance)

    def test_who_settles_a_confirmed_commit(self):
        m, other = self.m, self.session()
        m.edit_config(target="candidate", config=described("first"))
        m.commit(confirmed=True, timeout=str(SLOW))
        m.edit_config(target="candidate", config=described("second"))
        m.commit(confirmed=True, timeout="60")  # a follow-up restarts the timer with its own timeout
        time.sleep(1.5 * SLOW)
        steps = [  # (request, error tag)
            (lambda: self.assertEqual(self.description(), ["second"]), None),
            (lambda: other.cancel_commit(), "in-use"),
            (lambda: m.cancel_commit(), None),  # back to before the first confirmed commit
            (lambda: self.assertEqual(self.description(), []), None),
            (lambda: m.edit_config(target="candidate", config=described("persistent")), None),
            (lambda: m.commit(confirmed=True, persist="token"), None),
            (lambda: m.close_session(), None),  # with persist, the end of the session changes nothing
            (lambda: other.commit(persist_id="wrong"), "invalid-value"),
            (lambda: other.commit(persist_id="token"), None),
            (lambda: self.assertEqual(texts(other.get_config(source="running").data_xml, "description"),
                                      ["persistent"]), None),
        ]
        for number, (request, tag) in enumerate(steps):
            with self.subTest(step=number):
                self.assertEqual(error_tag(request), tag)

    def test_cancel_commit_and_the_end_of_the_session_roll_back(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance, _ = self.snapshot()
        self.m.edit_config(target="candidate", config=described("cancelled"))
        self.m.commit(confirmed=True)
        self.m.cancel_commit()
        self.assertEqual(self.snapshot()[:2], (running, appliance))
        other = self.daemon.connect()
        other.edit_config(target="candidate", config=described("abandoned"))
        other.commit(confirmed=True)
        self.assertEqual(self.description(), ["abandoned"])
        other.close_session()
        self.wait_for(lambda: self.running() == running, "the end of the session did not roll back")
        self.assertEqual(self.appliance_configuration(), appliance)

    def test_zz_boot_from_startup_brings_running_and_the_appliance_to_it(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        self.m.copy_config(source="running", target="startup")
        startup, appliance = self.running("startup"), self.appliance_configuration()
        self.m.edit_config(target="running", config=described("edited after saving"))
        self.m.close_session()
        self.assertEqual(self.restart(self.daemon.stop, ["--boot-from-startup", "yes"]), 0, self.daemon.log())
        self.assertEqual(self.running(), startup)
        self.assertEqual(self.appliance_configuration(), appliance)

    def test_zz_a_confirmed_commit_pending_at_a_restart_is_rolled_back(self):
        self.m.edit_config(target="running", config=FULL_PROFILE)
        running, appliance, _ = self.snapshot()
        self.m.edit_config(target="candidate", config=described("pending"))
        self.m.commit(confirmed=True, persist="across-restarts")
        self.restart(self.daemon.kill)
        self.assertEqual(self.snapshot()[:2], (running, appliance))
        self.assertEqual(error_tag(self.m.commit, persist_id="across-restarts"), "invalid-value")  # it is over


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
