#!/usr/bin/python3
"""Changes a profile the safe way through tkav-netconfd: staged in the
candidate configuration, validated, committed with a confirmed commit and
then confirmed. A second change is committed the same way but never
confirmed, and the daemon puts the earlier configuration back when its time
is up.

    examples/client/staged-commit.py [--host 127.0.0.1] [--port 8830]
        [--user admin] [--password admin] [--vsys vs1] [--profile staged]
        [--confirm-timeout 5]

Needs Debian's python3-ncclient (run it with /usr/bin/python3).
"""

import sys
import time

from ncclient.operations.rpc import RPCError

from common import NC_NS, NS, profile_filter, run


def description_config(vsys, profile, text):
    return (f'<config xmlns="{NC_NS}"><antivirus xmlns="{NS}"><vsys><name>{vsys}</name><profiles><profile>'
            f'<name>{profile}</name><description>{text}</description>'
            '</profile></profiles></vsys></antivirus></config>')


def description(m, source, args):
    """The profile's description in the datastore `source`."""
    data = m.get_config(source=source, filter=profile_filter(args.vsys, args.profile)).data_ele
    found = data.find(f".//{{{NS}}}description")
    return found.text if found is not None else "(none)"


def show(m, args):
    print(f"   running:   {description(m, 'running', args)}")
    print(f"   candidate: {description(m, 'candidate', args)}", flush=True)


def stage(m, args):
    try:
        print(f"\n1. staging a change of profile {args.profile} in the candidate")
        m.edit_config(target="candidate", config=description_config(args.vsys, args.profile, "confirmed change"))
        show(m, args)
        m.validate(source="candidate")
        print("   the candidate is valid (the model and the module accept it)")
        m.commit(confirmed=True, timeout=str(args.confirm_timeout))
        print(f"   committed; it stays only if confirmed within {args.confirm_timeout} s")
        show(m, args)
        m.commit()
        print("   confirmed")

        print("\n2. a change that is committed but never confirmed")
        m.edit_config(target="candidate", config=description_config(args.vsys, args.profile, "unconfirmed change"))
        m.commit(confirmed=True, timeout=str(args.confirm_timeout))
        show(m, args)
    except RPCError as e:
        print(f"refused: {e.tag}: {e.message} ({e.path})", file=sys.stderr)
        return 1
    print(f"   waiting for the {args.confirm_timeout} s to pass", flush=True)
    deadline = time.time() + args.confirm_timeout + 30
    while description(m, "running", args) != "confirmed change":
        if time.time() > deadline:
            print("the configuration was not restored", file=sys.stderr)
            return 1
        time.sleep(0.5)
    print("   the daemon restored the configuration of before the unconfirmed commit:")
    show(m, args)
    return 0


if __name__ == "__main__":
    sys.exit(run(__doc__, stage, (["--profile"], {"default": "staged"}),
                 (["--confirm-timeout"], {"type": int, "default": 5, "help": "seconds given to confirm (default 5)"})))
