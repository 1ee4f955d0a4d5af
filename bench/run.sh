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

# Many files: 64 links to one counters file (16 MiB at scale 1), one at a
# time and two at once; per core is the speed-up divided by the two cores
# (1.00: two cores do twice the work of one).
many_files_run() {
  local many=$data/many
  mkdir -p "$many"
  for i in $(seq -w 1 64); do ln -f "$data/counters_10.bin" "$many/file_$i.bin"; done
  echo "many files: 64 x $(du -m "$data/counters_10.bin" | cut -f1) MiB, ndjson"
  local start end one two
  for jobs in 1 2; do
    start=$(date +%s.%N)
    build/release/nmb_read -v 3 -s "$data/schema" -f ndjson -j $jobs "$many"/*.bin >/dev/null
    end=$(date +%s.%N)
    if [ $jobs = 1 ]; then one=$(echo "$end - $start" | bc); else two=$(echo "$end - $start" | bc); fi
  done
  echo "  -j 1: $one s real; -j 2: $two s real; speed-up $(echo "scale=2; $one / $two" | bc)," \
    "per core $(echo "scale=2; $one / $two / 2" | bc)"
}
many_files_run
