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

# Wall and user seconds of the best of three runs (output discarded).
best_of_3() {  # label, then the command
  local label=$1 best="" t
  shift
  for _ in 1 2 3; do
    t=$(
      TIMEFORMAT="%R %U"
      { time "$@" >/dev/null 2>&1; } 2>&1
    )
    if [ -z "$best" ] || [ "$(echo "${t% *} < ${best% *}" | bc)" = 1 ]; then best=$t; fi
  done
  echo "$label: ${best% *} s real, ${best#* } s user (best of 3)"
  best_real=${best% *}
}

# Reading ahead: decoding pages (and inflating whole-file gzip) on a second
# thread against everything on one thread.
gzip -1 -c "$data/counters_5000.bin" >"$data/counters_5000.bin.gz"
for input in counters_5000_gzip.bin counters_5000_snappy.bin counters_5000.bin.gz; do
  for read_ahead in 0 1; do
    best_of_3 "$input ndjson, NMB_READ_AHEAD=$read_ahead" env NMB_READ_AHEAD=$read_ahead \
      build/release/nmb_read -v 3 -s "$data/schema" -f ndjson "$data/$input"
  done
done

# Many files: 64 links to one counters file (16 MiB at scale 1), one at a
# time and two at once; per core is the speed-up divided by the two cores
# (1.00: two cores do twice the work of one); last, -j 1 without its
# read-ahead thread.
many_files_run() {
  local many=$data/many
  mkdir -p "$many"
  for i in $(seq -w 1 64); do ln -f "$data/counters_10.bin" "$many/file_$i.bin"; done
  echo "many files: 64 x $(du -m "$data/counters_10.bin" | cut -f1) MiB, ndjson"
  local one two
  best_of_3 "  -j 1" build/release/nmb_read -v 3 -s "$data/schema" -f ndjson -j 1 "$many"/*.bin
  one=$best_real
  best_of_3 "  -j 2" build/release/nmb_read -v 3 -s "$data/schema" -f ndjson -j 2 "$many"/*.bin
  two=$best_real
  echo "  speed-up $(echo "scale=2; $one / $two" | bc), per core $(echo "scale=2; $one / $two / 2" | bc)"
  best_of_3 "  -j 1, NMB_READ_AHEAD=0" env NMB_READ_AHEAD=0 build/release/nmb_read -v 3 \
    -s "$data/schema" -f ndjson -j 1 "$many"/*.bin
}
many_files_run
