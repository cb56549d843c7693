#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the benchmarks and the
# fuzz targets need, and any further packages named as arguments (gcovr,
# valgrind, ...). Does nothing when they are all present already.
set -euo pipefail
pkgs=(cmake g++ make pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
      libqpid-proton11-dev rabbitmq-server libmosquitto-dev mosquitto mosquitto-clients "$@")
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
