#!/usr/bin/python3
"""Creates an antivirus profile through tkav-netconfd and shows the command
lines the embedded appliance received for it.

    examples/client/create-profile.py [--host 127.0.0.1] [--port 8830]
        [--user admin] [--password admin] [--vsys vs1] [--profile p1]

Needs Debian's python3-ncclient (run it with /usr/bin/python3).
"""

import sys

from ncclient.operations.rpc import RPCError
from ncclient.xml_ import to_xml

from common import DAEMON_NS, NC_NS, NS, profile_filter, run


def profile_config(vsys, name):
    return f"""
<config xmlns="{NC_NS}">
  <antivirus xmlns="{NS}">
    <vsys>
      <name>{vsys}</name>
      <profiles>
        <profile>
          <name>{name}</name>
          <description>created by the example client</description>
          <heuristic-detect-enable>true</heuristic-detect-enable>
          <detect>
            <protocol-type>http</protocol-type>
            <detect-configuration><direction>both</direction><action>block</action></detect-configuration>
          </detect>
          <exception-application>
            <application-name>dropbox</application-name>
            <application-action>alert</application-action>
          </exception-application>
        </profile>
      </profiles>
    </vsys>
  </antivirus>
</config>"""


def child_text(element, name):
    found = element.find(f"{{{DAEMON_NS}}}{name}")
    return found.text if found is not None and found.text else ""


def received_lines(m):
    """The appliance's counter and its most recent lines, oldest first."""
    reply = m.get(filter=("subtree", f'<appliance xmlns="{DAEMON_NS}"><lines-received/><received-line/></appliance>'))
    appliance = reply.data_ele.find(f"{{{DAEMON_NS}}}appliance")
    if appliance is None:
        return 0, []
    lines = [{name: child_text(entry, name)
              for name in ("sequence", "vsys", "view", "view-template", "command-op", "line", "result")}
             for entry in appliance.findall(f"{{{DAEMON_NS}}}received-line")]
    return int(child_text(appliance, "lines-received") or 0), lines


def create(m, args):
    before, _ = received_lines(m)
    try:
        m.edit_config(target="running", config=profile_config(args.vsys, args.profile))
    except RPCError as e:
        print(f"the edit was refused: {e.tag}: {e.message} ({e.path})", file=sys.stderr)
        return 1
    print(f"profile {args.profile} in vsys {args.vsys} created\n")

    after, lines = received_lines(m)
    print(f"the appliance received {after - before} line(s):")
    for line in lines:
        if int(line["sequence"]) <= before:
            continue
        view = line["view"] + (f" ({line['view-template']})" if line["view-template"] else "")
        print(f"  vsys {line['vsys']:<8} {view:<32} {line['command-op']:<6} {line['line']}")

    config = m.get_config(source="running", filter=profile_filter(args.vsys, args.profile))
    print("\nthe running configuration now holds:")
    for element in config.data_ele:
        print(to_xml(element, pretty_print=True).rstrip())
    return 0


if __name__ == "__main__":
    sys.exit(run(__doc__, create, (["--profile"], {"default": "p1"})))
