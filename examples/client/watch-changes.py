#!/usr/bin/python3
"""Prints the configuration changes tkav-netconfd reports, as they happen:
who made each (user, session, host) and every node it changed.

    examples/client/watch-changes.py [--host 127.0.0.1] [--port 8830]
        [--user admin] [--password admin] [--since DATE-AND-TIME] [--count N]

--since first replays the changes logged since then (e.g. 2026-01-01T00:00:00Z);
--count stops after N changes. Needs Debian's python3-ncclient (run it with
/usr/bin/python3).
"""

import sys

from lxml import etree

from common import run

NOTIF_NS = "urn:ietf:params:xml:ns:netconf:notification:1.0"
EVENTS_NS = "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications"

# The filter goes in the notification namespace, as an element: ncclient's
# ("subtree", ...) form would put it in the base namespace.
CHANGES = (f'<filter xmlns="{NOTIF_NS}" type="subtree">'
           f'<netconf-config-change xmlns="{EVENTS_NS}"/></filter>')


def text(element, path):
    found = element.find(path, {"e": EVENTS_NS})
    return found.text if found is not None and found.text else ""


def describe(notification):
    """One line for who changed what, then one per changed node."""
    when = text(notification, f"{{{NOTIF_NS}}}eventTime")
    change = notification.find(f"{{{EVENTS_NS}}}netconf-config-change")
    if change is None:
        return None
    by = change.find("e:changed-by", {"e": EVENTS_NS})
    if by.find("e:server", {"e": EVENTS_NS}) is not None:
        who = "the daemon itself"
    else:
        who = f"{text(by, 'e:username')} (session {text(by, 'e:session-id')}"
        host = text(by, "e:source-host")
        who += f" from {host})" if host else ")"
    lines = [f"{when}  {text(change, 'e:datastore')} changed by {who}"]
    for edit in change.findall("e:edit", {"e": EVENTS_NS}):
        lines.append(f"    {text(edit, 'e:operation'):8} {text(edit, 'e:target')}")
    return "\n".join(lines)


def watch(m, args):
    m.create_subscription(filter=etree.fromstring(CHANGES), start_time=args.since)
    print("subscribed; waiting for changes", flush=True)
    seen = 0
    while not args.count or seen < args.count:
        notification = m.take_notification(timeout=60)
        if notification is None:
            continue
        line = describe(notification.notification_ele)
        if line:  # replayComplete says the replay is over
            print(line, flush=True)
            seen += 1
    return 0


if __name__ == "__main__":
    try:
        sys.exit(run(__doc__, watch,
                     (["--since"], {"help": "replay the changes since this date-and-time first"}),
                     (["--count"], {"type": int, "default": 0, "help": "stop after this many changes (0: never)"})))
    except KeyboardInterrupt:
        sys.exit(0)
