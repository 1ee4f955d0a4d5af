#!/usr/bin/env bash
# Installs the Debian packages that building and testing nmb_read need, when missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang clang-format libclang-rt-14-dev zlib1g-dev libsnappy-dev libssl-dev
          libboost-dev libdeflate-dev nlohmann-json3-dev libgtest-dev pkg-config
          valgrind  # scripts/memcheck.sh runs the end-to-end tests under valgrind
          influxdb curl  # the Influx output's end-to-end test writes into a real InfluxDB 1.x
          prometheus  # the OpenMetrics output's end-to-end test backfills with promtool
          slurm-wlm munge  # the cluster launcher's test starts a single-node Slurm
          dpkg-dev file man-db  # the package test: cpack -G DEB with dpkg-shlibdeps, man -l
          jq parallel xz-utils python3  # the recipes of docs/RECIPES.md
          libcjson-dev time bc)  # the benchmark's DOM-per-record baseline, peak RSS, its arithmetic
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
