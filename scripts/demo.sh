#!/usr/bin/env bash
# Sets up, builds nmb_read (Release) and runs it on the bundled sample data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build build/release --target nmb_read
build/release/nmb_read -h
