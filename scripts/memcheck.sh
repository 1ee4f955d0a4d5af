#!/usr/bin/env bash
# valgrind memcheck over the end-to-end tests: a plain build (no sanitizer,
# build/memcheck) whose tests run nmb_read (and the sample writer) under
# valgrind. Any memory error or leak fails the script; the reports stay in
# build/memcheck/valgrind/<pid>.log.
#   scripts/memcheck.sh [ctest -R regex of the tests to run]
set -euo pipefail
cd "$(dirname "$0")/.."
command -v valgrind >/dev/null || { echo "valgrind is not installed (scripts/setup.sh)" >&2; exit 1; }

cmake -S . -B build/memcheck -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/memcheck -j2 --target nmb_read e2e_tests make_sample
logs="$PWD/build/memcheck/valgrind"
rm -rf "$logs"
mkdir -p "$logs"
export NMB_TEST_WRAPPER="$(command -v valgrind) -q --tool=memcheck --leak-check=full \
--show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect,possible \
--track-origins=yes --log-file=$logs/%p.log"
# Under valgrind the tests are far slower; ctest's own time limit is raised.
ctest --test-dir build/memcheck -L e2e ${1:+-R "$1"} --timeout 1800 -j2 --output-on-failure || status=$?
found=0
for log in "$logs"/*.log; do
  [ -s "$log" ] || continue
  found=$((found + 1))
  [ "$found" -le 5 ] && cat "$log"
done
echo "valgrind: $(ls "$logs" | wc -l) runs of the tool, $found with reports"
[ "$found" -eq 0 ] && [ "${status:-0}" -eq 0 ]
