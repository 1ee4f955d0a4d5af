#!/usr/bin/env bash
# Sets up, builds nmb_read with AddressSanitizer and UndefinedBehaviorSanitizer,
# fuzzes the reader for a short while, then runs every test (the test
# summary closes the output).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

# The shape of the code: no forbidden include between folders, no include circle.
python3 scripts/check_layers.py

# Reader fuzzing (clang, libFuzzer): the corpus grows across runs; the seeds
# from the test-data builder are rewritten every time. A crash, leak or hang
# fails the script and leaves the input in build/fuzz/artifacts/.
fuzz_seconds="${NMB_FUZZ_SECONDS:-30}"
cmake --preset fuzz >/dev/null
cmake --build build/fuzz --target fuzz_reader make_fuzz_seeds
mkdir -p build/fuzz/corpus build/fuzz/artifacts
build/fuzz/fuzz/make_fuzz_seeds build/fuzz/corpus
build/fuzz/fuzz/fuzz_reader -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=4096 \
  -close_fd_mask=3 -dict=fuzz/reader.dict -artifact_prefix=build/fuzz/artifacts/ build/fuzz/corpus 2>build/fuzz/fuzz.log ||
  { tail -n 60 build/fuzz/fuzz.log; echo "fuzz_reader failed; see build/fuzz/fuzz.log" >&2; exit 1; }
tail -n 1 build/fuzz/fuzz.log

# Package: the Debian package from the Release build, unpacked and checked.
bash scripts/package_test.sh
# Recipes: every command of docs/RECIPES.md, run as written (Release build).
cmake --build build/release -j2 --target nmb_read make_sample >/dev/null && python3 scripts/recipes_test.py build/release

cmake --preset asan >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure -j2
