#!/usr/bin/env bash
# The main job: the NETCONF server hosting the antivirus module on the
# embedded simulated appliance, listening on 127.0.0.1 only.
#   SSH:  127.0.0.1:8830, user admin, password admin (a superuser: NACM does
#         not restrict it)
#   UNIX: <state dir>/netconf.sock
# Connect from another terminal, for example:
#   /usr/bin/python3 examples/client/create-profile.py --password admin
# Extra arguments go to the daemon (tkav-netconfd --help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target tkav-netconfd tavrik-antivirus
echo "tkav-netconfd: NETCONF over SSH on 127.0.0.1:8830 (user admin, password admin)."
echo "Try: /usr/bin/python3 examples/client/create-profile.py --password admin"
exec build/host/netconf/tkav-netconfd --ssh 127.0.0.1:8830 --user admin:admin --superuser admin "$@"
