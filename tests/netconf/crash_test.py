#!/usr/bin/python3
"""tkav-netconfd killed at random moments while edits stream in, and a state it cannot read.

    crash_test.py --daemon PATH [unittest options]
"""

import os
import random
import socket
import sys
import threading

from lxml import etree

import ncclient_test as base

CUT = "a" * 498 + "é"  # the module cuts its line inside the "é": the appliance keeps a lone 0xC3
SHOWN = "a" * 498 + "\ufffd"  # how the appliance's document shows that byte


class Session:
    """NETCONF on the daemon's UNIX socket with base:1.0 framing: python3-ncclient decodes chunked replies
    wrongly when a chunk ends inside a UTF-8 character, as the descriptions here make it."""

    def __init__(self, path):
        self.sock, self.buffer = socket.socket(socket.AF_UNIX), b""
        self.sock.connect(path)
        self.send(f'<hello xmlns="{base.NC_NS}"><capabilities><capability>urn:ietf:params:netconf:base:1.0'
                  "</capability></capabilities></hello>")
        self.receive()

    def send(self, text):
        self.sock.sendall(text.encode() + b"]]>]]>")

    def receive(self):
        while b"]]>]]>" not in self.buffer:
            data = self.sock.recv(1 << 16)
            if not data:
                raise ConnectionError("the daemon ended the session")
            self.buffer += data
        message, self.buffer = self.buffer.split(b"]]>]]>", 1)
        return etree.fromstring(message)

    def rpc(self, body):
        self.send(f'<rpc message-id="1" xmlns="{base.NC_NS}">{body}</rpc>')
        return self.receive()

    def edit(self, config):
        reply = self.rpc(f"<edit-config><target><running/></target>{config}</edit-config>")
        if reply.find(f"{{{base.NC_NS}}}ok") is None:
            raise AssertionError("the edit was refused: " + etree.tostring(reply).decode())


def profiles(tree):
    """{name: description} of the profiles of vsys vs1 in a configuration."""
    found = {}
    for entry in tree.iter(f"{{{base.NS}}}profile"):
        found[base.texts(entry, "name")[0]] = (base.texts(entry, "description") or [None])[0]
    return found


class CrashTest(base.DaemonTestCase):
    def setUp(self):
        self.connect()

    def connect(self):
        self.s = Session(os.path.join(self.daemon.dir, "state", "netconf.sock"))
        self.addCleanup(self.s.sock.close)

    def restart(self):
        self.daemon.start()
        self.connect()

    def agreed(self):
        """The running configuration's profiles; the appliance holds the same (the cut description as shown)."""
        running = profiles(self.s.rpc("<get-config><source><running/></source></get-config>"))
        state = self.s.rpc(f'<get><filter><appliance xmlns="{base.DAEMON_NS}"/></filter></get>')
        appliance = profiles(etree.fromstring(base.texts(state, "running-configuration")[0].encode()))
        self.assertEqual(appliance, {name: SHOWN if text == CUT else text for name, text in running.items()})
        return set(running)

    def test_killed_at_random_moments_the_daemon_keeps_every_acknowledged_edit_once(self):
        seed = random.randrange(1 << 30)
        chance, expected, edits = random.Random(seed), set(), 0

        def edit():
            """Makes the next edit; the profiles it leaves."""
            nonlocal edits
            edits += 1
            if edits % 5 == 0 and expected:
                name = min(expected)
                self.s.edit(base.profile(f"<name>{name}</name>", f' xmlns:nc="{base.NC_NS}" nc:operation="delete"'))
                return expected - {name}
            self.s.edit(base.described(CUT if edits % 3 == 0 else f"e{edits}", f"e{edits}"))
            return expected | {f"e{edits}"}

        for kill in range(25):
            killer = threading.Timer(chance.uniform(0.002, 0.06), self.daemon.kill)
            killer.start()
            try:
                while True:
                    expected = edit()
            except OSError:  # the daemon is gone: the edit in flight may or may not have been kept
                pass
            killer.join()
            self.restart()
            names = self.agreed()
            self.assertIn(names, (expected, expected | {f"e{edits}"}, expected - {min(expected, default="")}),
                          f"seed {seed}, kill {kill}")
            expected = names
        self.assertGreaterEqual(edits, 60)

        # A record written in part is discarded at the start, with a warning.
        journal = os.path.join(self.daemon.dir, "state", "journal")
        while True:
            before, expected = expected, edit()
            if os.path.getsize(journal) > 16:  # not just compacted
                break
        self.daemon.stop()
        os.truncate(journal, os.path.getsize(journal) - 5)
        self.restart()
        self.assertRegex(self.daemon.log(), "journal: offset .* is torn")
        self.assertEqual(self.agreed(), before)

    def test_zz_an_unreadable_state_stops_the_start_and_is_kept(self):
        self.daemon.stop()
        journal = os.path.join(self.daemon.dir, "state", "journal")
        with open(journal, "w") as out:
            out.write("not a journal")
        with self.assertRaises(RuntimeError) as start:
            self.daemon.start()
        self.assertIn(journal + ": offset 0: ", str(start.exception))
        with open(journal) as kept:
            self.assertEqual(kept.read(), "not a journal")
        os.unlink(journal)  # for the class's last stop
        self.daemon.start()


if __name__ == "__main__":
    sys.exit(base.main())
