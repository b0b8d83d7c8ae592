#!/usr/bin/env bash
# The module's dynamic section: exactly the server runtime and the C library
# as needed libraries, run path /usr/local/lib/, no build-tree rpath.
set -euo pipefail
so="$1"
dyn=$(readelf -d "$so")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dyn" | sort | tr '\n' ' ')
runpath=$(sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p' <<<"$dyn")
rpath=$(sed -n 's/.*(RPATH).*\[\(.*\)\]/\1/p' <<<"$dyn")
status=0
[ "$needed" = "ietf-interfaces.so libc.so.6 " ] || { echo "NEEDED is '$needed'"; status=1; }
[ "$runpath" = "/usr/local/lib/" ] || { echo "RUNPATH is '$runpath'"; status=1; }
[ -z "$rpath" ] || { echo "unexpected RPATH '$rpath'"; status=1; }
# No C++ runtime: nothing imported from libstdc++ or the unwinder.
if nm -D --undefined-only "$so" | grep -v "__cxa_finalize" | grep -E " (_Znw|_Zdl|__cxa_|__gxx_|_Unwind_)"; then
  echo "imports C++ runtime symbols"; status=1
fi
[ $status -eq 0 ] && echo "ELF contract holds: NEEDED $needed RUNPATH $runpath"
exit $status
