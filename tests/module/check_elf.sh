#!/usr/bin/env bash
# Dynamic sections of the module and of the server runtime it is built against.
# Module: exactly the runtime and the C library as needed libraries, run path
# /usr/local/lib/, no build-tree rpath, no C++ runtime. Runtime: SONAME
# ietf-interfaces.so, and libxml2 needed, which the module reaches through it.
set -euo pipefail
so="$1" runtime="$2"
field() { sed -n "s/.*($1).*\[\(.*\)\]/\1/p" <<<"$2"; }
dyn=$(readelf -d "$so")
needed=$(field NEEDED "$dyn" | sort | tr '\n' ' ')
status=0
[ "$needed" = "ietf-interfaces.so libc.so.6 " ] || { echo "module NEEDED is '$needed'"; status=1; }
[ "$(field RUNPATH "$dyn")" = "/usr/local/lib/" ] || { echo "module RUNPATH is '$(field RUNPATH "$dyn")'"; status=1; }
[ -z "$(field RPATH "$dyn")" ] || { echo "unexpected module RPATH '$(field RPATH "$dyn")'"; status=1; }
if nm -D --undefined-only "$so" | grep -v "__cxa_finalize" | grep -E " (_Znw|_Zdl|__cxa_|__gxx_|_Unwind_)"; then
  echo "module imports C++ runtime symbols"; status=1
fi
rdyn=$(readelf -d "$runtime")
[ "$(field SONAME "$rdyn")" = "ietf-interfaces.so" ] || { echo "runtime SONAME is '$(field SONAME "$rdyn")'"; status=1; }
field NEEDED "$rdyn" | grep -q '^libxml2\.so' || { echo "runtime does not need libxml2"; status=1; }
[ $status -eq 0 ] && echo "ELF contract holds: module NEEDED $needed; runtime SONAME ietf-interfaces.so"
exit $status
