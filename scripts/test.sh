#!/usr/bin/env bash
# Sets up, builds nmb_read with AddressSanitizer and UndefinedBehaviorSanitizer,
# and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset asan >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure -j2
