#!/usr/bin/env bash
# Sets up, builds nmb_read (Release), writes the sample data set into examples/
# and shows a taste of what it exports; ends by saying how to run the tool.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
echo "Building nmb_read (Release; a few minutes the first time, log in build/release/build.log)..."
cmake --preset release >/dev/null
mkdir -p build/release
cmake --build build/release -j2 --target nmb_read make_sample >build/release/build.log 2>&1 ||
  { tail -n 40 build/release/build.log; echo "The build failed; see build/release/build.log" >&2; exit 1; }
build/release/tools/make_sample examples >/dev/null
nmb_read() { build/release/nmb_read -s examples/schema "$@"; }

echo
echo "== Records per file (nmb_read -s examples/schema -f ndjson FILE | wc -l)"
for file in examples/*.bin; do
  printf '  %-28s %3d records\n' "$file" "$(nmb_read -f ndjson "$file" | wc -l)"
done

echo
echo "== Two event records (nmb_read -s examples/schema -f ndjson examples/events.bin | head -n 2 | jq .)"
nmb_read -f ndjson examples/events.bin | head -n 2 | jq .

echo
echo "== The first counters block (nmb_read -s examples/schema -f ndjson examples/counters.bin | head -n 1), summarised"
nmb_read -f ndjson examples/counters.bin | head -n 1 | jq -r '"  \(.["@timestamp"]), groups:",
  (.groups[] | .counter_sets[0] as $set |
   "    \(.name) (\(.granularity)), \($set | length) counters: \($set | to_entries[:3] |
      map("\(.key)=\(.value)") | join(", ")), ...")'

echo
echo "== A metrics block (nmb_read -s examples/schema -f ndjson examples/metrics.bin | head -n 1)"
nmb_read -f ndjson examples/metrics.bin | head -n 1

cat <<EOT

nmb_read is built: $PWD/build/release/nmb_read
  build/release/nmb_read -s examples/schema -f ndjson examples/events.bin    # one JSON object per line
  build/release/nmb_read -s examples/schema -f json examples/counters.bin    # one document, pretty
  build/release/nmb_read -h                                                 # the options
Install it with "cmake --install build/release" (into /usr/local), or build the
Debian package with "cd build/release && cpack -G DEB". Recipes for jq, InfluxDB
and GNU parallel are in docs/RECIPES.md.
EOT
