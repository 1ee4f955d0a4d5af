#!/usr/bin/env bash
# Measures nmb_read's export speed on generated data (Release build).
#   bash bench/run.sh [scale]
set -euo pipefail
cd "$(dirname "$0")/.."
scale=${1:-1}
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build build/release --target nmb_read make_bench_data
data=build/bench-data
rm -rf "$data" && mkdir -p "$data"
build/release/bench/make_bench_data "$data" "$scale"
ls -l "$data"

# Prints user CPU and wall-clock seconds of one run (output discarded).
measure() {  # label, then the nmb_read arguments
  local label=$1
  shift
  local TIMEFORMAT="$label: %U s user, %R s real"
  time build/release/nmb_read -v 3 -s "$data/schema" "$@" >/dev/null
}

for format in ndjson json txt; do
  measure "counters_10   $format (2M values per scale unit)" -f $format "$data/counters_10.bin"
  measure "counters_5000 $format (2M values per scale unit)" -f $format "$data/counters_5000.bin"
done
for encoding in gzip snappy; do
  measure "counters_5000 ndjson, $encoding pages" -f ndjson "$data/counters_5000_$encoding.bin"
done
for format in ndjson json; do
  measure "events        $format (306k records per scale unit)" -f $format "$data/events.bin"
done
