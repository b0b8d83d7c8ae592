#!/usr/bin/python3
# Access control (NACM) of tkav-netconfd as python3-ncclient sees it, over SSH.
#
#     nacm_test.py --daemon PATH [unittest options]
#
# The superuser admin writes /nacm; user oper is in the group it configures.

import sys

from ncclient.operations.rpc import RPCError
from ncclient.xml_ import to_ele

import ncclient_test
from ncclient_test import (DaemonTestCase, FULL_PROFILE, NACM_NS, NC_NS, NS, READ_ONLY, described, profile,
                           rule, texts)

AV = "tavrik-antivirus:"
EVENTS_NS = "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications"
PROFILES = f'<path xmlns:av="{NS}">/av:antivirus/av:vsys/av:profiles/av:profile'
# Rule-lists for group operators, to go before READ_ONLY's (the first matching rule decides).
HIDE_WHITELISTS = ("<rule-list><name>hide</name><group>operators</group>"
                   + rule("whitelists", f"{PROFILES}/av:whitelists</path><access-operations>read</access-operations>"
                                        "<action>deny</action>")
                   + "</rule-list>")
DESCRIBE_P1 = ("<rule-list><name>describe</name><group>operators</group>"
               + rule("p1-description", f"{PROFILES}[av:name='p1']/av:description</path>"
                                        "<access-operations>update</access-operations><action>permit</action>")
               + "</rule-list>")


def before_read_only(rule_list):
    return READ_ONLY.replace("<rule-list>", rule_list + "<rule-list>", 1)


def elements(data):
    """Every element of a reply's data as (tag, text), in document order."""
    return [(e.tag, (e.text or "").strip()) for e in data.iter()]


class NacmTest(DaemonTestCase):
    def setUp(self):
        super().setUp()
        self.m.edit_config(target="running", config=FULL_PROFILE)
        self.m.edit_config(target="running", config=described("second", "p2"))
        self.oper = self.daemon.connect(username="oper", password="oper-pw")
        self.addCleanup(self.oper.close_session)

    def counter(self, name):
        data = self.m.get(filter=("subtree", f'<nacm xmlns="{NACM_NS}"/>')).data_xml
        return int(texts(data, name)[0])

    def unchanged_by(self, attempt):
        """Runs `attempt`, which must be refused with access-denied, changing nothing; returns the error."""
        before = self.snapshot()
        with self.assertRaises(RPCError) as caught:
            attempt()
        self.assertEqual(caught.exception.tag, "access-denied", caught.exception.message)
        self.assertEqual(self.snapshot(), before)
        return caught.exception

    def test_a_read_only_user_reads_everything_and_changes_nothing(self):
        self.write_nacm(READ_ONLY)
        self.assertEqual(elements(self.oper.get_config(source="running").data_ele),
                         elements(self.m.get_config(source="running").data_ele))
        copy = (f"<copy-config xmlns='{NC_NS}'><target><running/></target>"
                f"<source>{profile('<name>p9</name>')}</source></copy-config>")
        for name, attempt in (
                ("edit running", lambda: self.oper.edit_config(target="running", config=described("mine"))),
                ("edit candidate", lambda: self.oper.edit_config(target="candidate", config=described("mine"))),
                ("copy-config", lambda: self.oper.dispatch(to_ele(copy)))):
            with self.subTest(name):
                writes = self.counter("denied-data-writes")
                error = self.unchanged_by(attempt)
                self.assertTrue(error.path.startswith("/tavrik-antivirus:antivirus"), error.path)
                self.assertEqual(self.counter("denied-data-writes"), writes + 1)
        self.assertEqual(texts(self.running("candidate"), "description"), ["office traffic", "second"])
        # An operation the RFC denies by default.
        operations = self.counter("denied-operations")
        kill = f"<kill-session xmlns='{NC_NS}'><session-id>999</session-id></kill-session>"
        self.unchanged_by(lambda: self.oper.dispatch(to_ele(kill)))
        self.assertEqual(self.counter("denied-operations"), operations + 1)

    def test_a_rule_denying_read_hides_exactly_the_whitelists(self):
        self.write_nacm(before_read_only(HIDE_WHITELISTS))
        admin, oper = self.m.get_config(source="running").data_ele, self.oper.get_config(source="running").data_ele
        for entry in admin.iter(f"{{{NS}}}profile"):
            for whitelists in entry.findall(f"{{{NS}}}whitelists"):
                entry.remove(whitelists)
        self.assertEqual(elements(oper), elements(admin))
        self.assertEqual(texts(oper, "description"), ["office traffic", "second"])
        self.assertEqual(texts(self.oper.get().data_ele, "match-rule"), [])
        self.assertTrue(texts(self.m.get().data_ele, "match-rule"))

    def test_a_subscriber_gets_only_the_changes_it_may_read(self):
        self.write_nacm(before_read_only(HIDE_WHITELISTS))
        self.oper.create_subscription()
        whitelist = profile("<name>p1</name><whitelists><destination-address>203.0.113.9</destination-address>"
                            "</whitelists>")
        self.m.edit_config(target="running", config=whitelist)
        self.m.edit_config(target="running", config=described("seen"))
        changes = []
        while not changes:
            n = self.oper.take_notification(timeout=5)
            self.assertIsNotNone(n, "no netconf-config-change within 5 s")
            changes = [texts(e, "target") for e in n.notification_ele.iter(f"{{{EVENTS_NS}}}netconf-config-change")]
        self.assertEqual(len(changes[0]), 1)
        self.assertTrue(changes[0][0].endswith("description"), changes)

    def test_a_rule_list_lets_exactly_the_description_of_p1_be_updated(self):
        self.write_nacm(before_read_only(DESCRIBE_P1))
        received = self.lines_received()
        self.oper.edit_config(target="running", config=described("updated by oper"))
        self.assertEqual(texts(self.running(), "description"), ["updated by oper", "second"])
        self.assertIn("updated by oper", self.appliance_configuration())
        self.assertGreater(self.lines_received(), received)
        for name, edit, leaf in (  # which paths and access operations a rule matches: the unit test
                ("another leaf", profile("<name>p1</name><heuristic-detect-enable>false</heuristic-detect-enable>"),
                 "heuristic-detect-enable"),
                ("a deletion", profile(f'<name>p1</name><description xmlns:nc="{NC_NS}" nc:operation="delete"/>'),
                 "description")):
            with self.subTest(name):
                error = self.unchanged_by(lambda: self.oper.edit_config(target="running", config=edit))
                self.assertTrue(error.path.endswith(f"{AV}profile[{AV}name='p1']/{AV}{leaf}"), error.path)


if __name__ == "__main__":
    sys.exit(ncclient_test.main())
