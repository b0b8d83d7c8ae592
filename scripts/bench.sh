#!/usr/bin/env bash
# Builds the benchmarks in a Release build of their own and runs them: the
# cost of one change in each change handler next to its floor, the engine's
# edit of 10,000 profiles next to libyang's diff of the same trees, and the
# daemon through the C client by configuration size with its memory. Each
# program ends with its table (docs/benchmarks.md). The daemon's scaling
# curve is drawn into docs/netconf-scaling.png (gnuplot, installed from
# Debian when missing).
#
#   scripts/bench.sh [--baseline] [Google Benchmark flags...]   e.g. --benchmark_filter=create/
#   scripts/bench.sh --handlers [Google Benchmark flags...]
#
# --handlers runs the handler benchmark alone: its per-handler table (each
# change handler, added and removed, against the floor the frame prescribes).
#
# --baseline also builds the daemon of commit 2c200d0 (before edits cost what
# they change) from `git archive` in BENCH_BUILD_DIR/baseline-src and runs the
# same daemon benchmark on it in this run: the "before" of the curve.
# BENCH_BUILD_DIR chooses the build directory (default build-bench).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${BENCH_BUILD_DIR:-build-bench}
baseline_commit=2c200d0
baseline=0
handlers_only=0
args=()
for arg in "$@"; do
  case $arg in
    --baseline) baseline=1 ;;
    --handlers) handlers_only=1 ;;
    *) args+=("$arg") ;;
  esac
done
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release >/dev/null
if ((handlers_only)); then
  cmake --build "$dir" -j2 --target handler_bench
  echo "== $(nproc) cores; load before:$(uptime | sed 's/.*load average://')"
  "$dir/bench/handler_bench" "${args[@]}"
  echo "== load after:$(uptime | sed 's/.*load average://')"
  exit 0
fi
cmake --build "$dir" -j2 --target handler_bench engine_bench netconf_bench tkav-netconfd
if ((baseline)); then
  src=$dir/baseline-src
  if [[ ! -f $src/CMakeLists.txt ]]; then
    mkdir -p "$src"
    git archive "$baseline_commit" | tar -x -C "$src"
  fi
  cmake -S "$src" -B "$dir/baseline-build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$dir/baseline-build" -j2 --target tkav-netconfd tavrik-antivirus
fi

echo "== $(nproc) cores; load before:$(uptime | sed 's/.*load average://')"
"$dir/bench/handler_bench" "${args[@]}"
echo
"$dir/bench/engine_bench" "${args[@]}"
echo
before=$dir/netconf-before.dat
after=$dir/netconf-after.dat
rm -f "$before" "$after"
if ((baseline)); then
  "$dir/bench/netconf_bench" --daemon "$dir/baseline-build/host/netconf/tkav-netconfd" \
    --label "before ($baseline_commit)" --csv "$before"
  echo
fi
"$dir/bench/netconf_bench" --label "after ($(git rev-parse --short HEAD))" --csv "$after"
echo "== load after:$(uptime | sed 's/.*load average://')"

if ! command -v gnuplot >/dev/null; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq gnuplot-nox >/dev/null
fi
plots="'$after' using 2:(\$3/1000) with linespoints lw 2 pt 7 title 'after: edits cost what they change'"
if [[ -s $before ]]; then
  plots="'$before' using 2:(\$3/1000) with linespoints lw 2 pt 5 title 'before ($baseline_commit)', $plots"
fi
gnuplot <<EOF
set terminal pngcairo size 900,560 font ",11"
set output "docs/netconf-scaling.png"
set title "tkav-netconfd: one-leaf edit-config by configuration size (C client, UNIX socket, median)"
set xlabel "profiles in the running configuration"
set ylabel "latency per edit-config (ms)"
set logscale y
set grid
set key top left
set xrange [-500:10500]
plot $plots
EOF
echo "drew docs/netconf-scaling.png"
