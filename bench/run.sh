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

measure() {  # label, then the nmb_read arguments
  local label=$1
  shift
  local start end
  start=$(date +%s.%N)
  build/release/nmb_read -v 3 -s "$data/schema" "$@" >/dev/null
  end=$(date +%s.%N)
  awk -v l="$label" -v s="$start" -v e="$end" 'BEGIN { printf "%s: %.3f s\n", l, e - s }'
}

for format in ndjson json txt; do
  measure "counters_10   $format (2M values/scale)" -f $format "$data/counters_10.bin"
  measure "counters_5000 $format (2M values/scale)" -f $format "$data/counters_5000.bin"
done
for format in ndjson json; do
  measure "events        $format" -f $format "$data/events.bin"
done
