#!/usr/bin/env bash
# Sets up, builds nmb_read (Release), writes the sample data set into examples/
# and exports it as newline-delimited JSON.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build build/release --target nmb_read make_sample
build/release/tools/make_sample examples
build/release/nmb_read -s examples/schema -f ndjson examples/*.bin
