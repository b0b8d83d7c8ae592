"""What the example clients share: the namespaces, the connection options and
the connection to tkav-netconfd. Needs Debian's python3-ncclient."""

import argparse
import sys

import ncclient.transport.ssh
from ncclient import manager

ncclient.transport.ssh.TICK = 0.01  # ncclient's reply polling, 0.1 s by default

NS = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus"
DAEMON_NS = "urn:tavrik:params:xml:ns:yang:tavrik-netconfd"
NC_NS = "urn:ietf:params:xml:ns:netconf:base:1.0"


def argument_parser(doc):
    """A parser with the connection options; `doc` is the script's docstring."""
    parser = argparse.ArgumentParser(description=doc.split("\n\n")[0])
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=8830)
    parser.add_argument("--user", default="admin")
    parser.add_argument("--password", default="admin")
    parser.add_argument("--vsys", default="vs1")
    return parser


def connect(args):
    """A NETCONF session over SSH, or None (with a message) when there is none."""
    try:
        m = manager.connect(host=args.host, port=args.port, username=args.user, password=args.password,
                            hostkey_verify=False, allow_agent=False, look_for_keys=False, timeout=30)
    except Exception as e:
        print(f"cannot connect to {args.host}:{args.port} as {args.user}: {e}", file=sys.stderr)
        return None
    print(f"connected to {args.host}:{args.port}, session {m.session_id}", flush=True)
    return m


def run(doc, session, *options):
    """A client's main: parses the command line (the connection options and `options`, each a pair of the
    option's names and argparse's keywords), connects and returns session(m, args), the exit status; 1
    when there is no session."""
    parser = argument_parser(doc)
    for names, keywords in options:
        parser.add_argument(*names, **keywords)
    args = parser.parse_args()
    m = connect(args)
    if m is None:
        return 1
    with m:
        return session(m, args)


def profile_filter(vsys, profile):
    """A subtree filter selecting one profile."""
    return ("subtree", f'<antivirus xmlns="{NS}"><vsys><name>{vsys}</name><profiles><profile>'
                       f'<name>{profile}</name></profile></profiles></vsys></antivirus>')
