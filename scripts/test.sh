#!/usr/bin/env bash
# Sets up, builds nmb_read with AddressSanitizer and UndefinedBehaviorSanitizer,
# fuzzes every parser for a short while, then runs every test (the test
# summary closes the output).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# The shape of the code: no forbidden include between folders, no include circle.
python3 scripts/check_layers.py
# Every C++ file as the committed .clang-format writes it.
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

# Every fuzz target for a short while (clang, libFuzzer; NMB_FUZZ_SECONDS
# each, two at a time): a crash, leak, hang or failed check fails the script
# and leaves the input in build/fuzz/artifacts/. scripts/fuzz.sh runs them
# for longer.
bash scripts/fuzz.sh "${NMB_FUZZ_SECONDS:-15}"

# Package: the Debian package from the Release build, unpacked and checked.
bash scripts/package_test.sh
# Recipes: every command of docs/RECIPES.md, run as written (Release build).
cmake --build build/release -j2 --target nmb_read make_sample >/dev/null && python3 scripts/recipes_test.py build/release

cmake --preset asan >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure -j2
