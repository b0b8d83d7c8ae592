#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
set -euo pipefail
packages=(
  build-essential cmake pkg-config binutils
  libxml2-dev libgtest-dev libgmock-dev libbenchmark-dev
  libyang2-dev libyang2-tools libnetconf2-dev libssh-dev libyuma-base
  python3 python3-ncclient python3-lxml yangcli valgrind clang-14 libclang-rt-14-dev gnuplot-nox
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
