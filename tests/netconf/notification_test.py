#!/usr/bin/python3
# tkav-netconfd's event notifications as python3-ncclient sees them.
#
#     notification_test.py --daemon PATH [unittest options]

import datetime
import os
import subprocess
import sys
import time

import ncclient_test as base
from ncclient.operations.rpc import RPCError
from lxml import etree

NOTIF_NS = "urn:ietf:params:xml:ns:netconf:notification:1.0"
EVENTS_NS = "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications"
PROFILE = ("/tk-antivirus:antivirus/tk-antivirus:vsys[tk-antivirus:name='vs1']/tk-antivirus:profiles"
           "/tk-antivirus:profile[tk-antivirus:name='p1']/tk-antivirus:description")


def notif_filter(body, attributes=""):
    """A <filter> of <create-subscription> (in the notification namespace)."""
    return etree.fromstring(f'<filter xmlns="{NOTIF_NS}" xmlns:n="{EVENTS_NS}"{attributes}>{body}</filter>')


def now():
    return datetime.datetime.now(datetime.timezone.utc).isoformat()


class NotificationTest(base.DaemonTestCase):
    def setUp(self):
        self.admin = self.connect()
        self.admin.edit_config(target="running", config=base.config(""), default_operation="replace")

    def connect(self, **credentials):
        m = self.daemon.connect(**credentials)
        self.addCleanup(lambda: m.connected and m.close_session())
        return m

    def next_event(self, m):
        """The name and element of the next notification of `m`."""
        n = m.take_notification(timeout=base.SLOW * 1)
        self.assertIsNotNone(n, "no notification within a second")
        event = n.notification_ele.find(f"{{{NOTIF_NS}}}eventTime").getnext()
        return etree.QName(event).localname, event

    def test_config_change_reaches_a_subscriber_within_a_second(self):
        self.m = self.admin
        self.write_nacm("<write-default>permit</write-default>")  # bob is no superuser
        subscriber = self.connect()
        subscriber.create_subscription(filter=notif_filter("", ' type="xpath" select="/n:netconf-config-change"'))
        bob = self.connect(username="bob", password="b0b-pw")  # its session-start is filtered out
        bob.discard_changes()
        before = int(self.statistic("out-notifications"))
        for commit in (False, True):
            with self.subTest(commit=commit):
                description = f"changed with commit={commit}"
                bob.edit_config(target="candidate" if commit else "running", config=base.described(description))
                if commit:
                    bob.commit()
                name, event = self.next_event(subscriber)
                fields = [base.texts(event, field) for field in ("username", "session-id", "datastore")]
                self.assertEqual((name, fields),
                                 ("netconf-config-change", [["bob"], [str(bob.session_id)], ["running"]]))
                expected = [(PROFILE, "replace")] if commit else [("/tk-antivirus:antivirus", "create")]
                self.assertEqual(list(zip(base.texts(event, "target"), base.texts(event, "operation"))), expected)
        # Interleave: the subscriber's own requests are served, and counted.
        self.assertEqual(int(self.statistic("out-notifications", subscriber)), before + 2)

    def statistic(self, name, m=None):
        reply = (m or self.admin).get(filter=("subtree", f'<netconf-state xmlns="{base.NCM_NS}"><statistics/>'
                                                         "</netconf-state>"))
        return base.texts(reply.data_ele, name)[0]

    def test_session_end_names_the_killer(self):
        subscriber = self.connect()
        subscriber.create_subscription(filter=notif_filter("<n:netconf-session-end/>"))
        victim = self.daemon.connect()
        victim.get_config(source="running")  # served: the daemon has registered the session
        self.admin.kill_session(victim.session_id)
        name, event = self.next_event(subscriber)
        fields = [base.texts(event, field) for field in ("session-id", "termination-reason", "killed-by")]
        self.assertEqual((name, fields), ("netconf-session-end",
                                          [[str(victim.session_id)], ["killed"], [str(self.admin.session_id)]]))

    def test_replay_from_a_start_time(self):
        self.admin.edit_config(target="running", config=base.described("before"))
        time.sleep(0.01)
        start = now()
        self.admin.edit_config(target="running", config=base.described("replayed"))
        stop = now()
        self.admin.edit_config(target="running", config=base.described("after"))
        late = self.connect()
        late.create_subscription(filter=notif_filter("<n:netconf-config-change/>"), start_time=start, stop_time=stop)
        name, event = self.next_event(late)
        self.assertEqual((name, base.texts(event, "target")), ("netconf-config-change", [PROFILE]))
        self.assertEqual(self.next_event(late)[0], "replayComplete")
        self.assertEqual(self.next_event(late)[0], "notificationComplete")
        # The subscription has ended: the session may subscribe again.
        late.create_subscription()

    def test_the_example_client_prints_changes_as_they_happen(self):
        script = os.path.join(base.EXAMPLES, "client", "watch-changes.py")
        watcher = subprocess.Popen([sys.executable, script, "--port", str(self.daemon.port), "--password", "s3cret",
                                    "--count", "1"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(watcher.kill)
        self.assertIn("subscribed", watcher.stdout.readline() + watcher.stdout.readline())
        self.admin.edit_config(target="running", config=base.described("watched"))
        out = watcher.communicate(timeout=base.SLOW * 30)[0]
        self.assertIn(f"running changed by admin (session {self.admin.session_id} from 127.0.0.1)", out)
        self.assertIn("    create   /tk-antivirus:antivirus\n", out)

    def test_refused_subscriptions(self):
        m = self.connect()
        streams = m.get(filter=("subtree", '<netconf xmlns="urn:ietf:params:xml:ns:netmod:notification"/>')).data_ele
        self.assertEqual((base.texts(streams, "name"), base.texts(streams, "replaySupport")), (["NETCONF"], ["true"]))
        cases = [
            ("another stream", dict(stream_name="SYSLOG"), "invalid-value"),
            ("an XPath filter naming no module", dict(filter=notif_filter("", ' type="xpath" select="/nosuch:x"')),
             None),
            ("a start time to come", dict(start_time="2999-01-01T00:00:00Z"), "bad-element"),
            ("a stop time before the start", dict(start_time=now(), stop_time="2000-01-01T00:00:00Z"),
             "bad-element"),
        ]
        for what, arguments, tag in cases:
            with self.subTest(what):
                with self.assertRaises(RPCError) as raised:
                    m.create_subscription(**arguments)
                if tag:
                    self.assertEqual(raised.exception.tag, tag)
        m.create_subscription()
        self.assertEqual(base.error_tag(m.create_subscription), "in-use")


if __name__ == "__main__":
    sys.exit(base.main())
