#!/usr/bin/env bash
# Sets up, builds nmb_read with AddressSanitizer and UndefinedBehaviorSanitizer,
# fuzzes every parser for a short while, then runs every test (the test
# summary closes the output).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# The shape of the code: no forbidden include between folders, no include circle.
python3 scripts/check_layers.py

# Every fuzz target for a short while (clang, libFuzzer; NMB_FUZZ_SECONDS
# each, two at a time): a crash, leak, hang or failed check fails the script
# and leaves the input in build/fuzz/artifacts/. scripts/fuzz.sh runs them
# for longer.
bash scripts/fuzz.sh "${NMB_FUZZ_SECONDS:-15}"

cmake --preset asan >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure -j2
