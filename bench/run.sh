#!/usr/bin/env bash
# Measures nmb_read against its baselines on generated data, side by side in
# one run (Release build): wall seconds (best of the repeats), input and
# output MB/s, records/s and peak RSS of every export, then the ratios the
# performance targets name. Output is discarded (written to /dev/null); the
# output size and record count come from one untimed run.
#
#   bash bench/run.sh [scale] [repeats]
#
# Scale 1 holds two million counter values per counters file; the default,
# 4, runs in a few minutes; larger scales grow every file in proportion. Wall
# times are only meaningful on an otherwise idle machine.
set -euo pipefail
cd "$(dirname "$0")/.."
scale=${1:-4}
repeats=${2:-3}
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build build/release -j2 --target nmb_read make_bench_data bare_counters_writer \
  bare_events_writer decode_pages cjson_exporter >/dev/null
bin=build/release
data=build/bench-data
rm -rf "$data" && mkdir -p "$data"
"$bin/bench/make_bench_data" "$data" "$scale"
export TZ=UTC
nmb=("$bin/nmb_read" -v 3 -s "$data/schema")

declare -A wall
printf '%-44s %8s %9s %9s %11s %8s\n' "run" "wall s" "in MB/s" "out MB/s" "records/s" "RSS MB"
# measure KEY INPUT RECORDS command...: best wall time of the repeats.
measure() {
  local key=$1 input=$2 records=$3
  shift 3
  local out_bytes best="" rss=0 t m start
  out_bytes=$("$@" 2>/dev/null | wc -c)
  for _ in $(seq "$repeats"); do
    start=$EPOCHREALTIME
    /usr/bin/time -o "$data/time" -f '%M' "$@" >/dev/null 2>/dev/null
    t=$(echo "$EPOCHREALTIME - $start" | bc)
    read -r m <"$data/time"
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
    [ "$m" -gt "$rss" ] && rss=$m
  done
  wall[$key]=$best
  local in_mb out_mb
  in_mb=$(echo "$(stat -c %s "$input") / 1048576" | bc -l)
  out_mb=$(echo "$out_bytes / 1048576" | bc -l)
  printf '%-44s %8.3f %9.1f %9.1f %11.0f %8.1f\n' "$key" "$best" "$(echo "$in_mb / $best" | bc -l)" \
    "$(echo "$out_mb / $best" | bc -l)" "$(echo "$records / $best" | bc -l)" "$(echo "$rss / 1024" | bc -l)"
}
records_of() { "${nmb[@]}" -f ndjson "$1" | wc -l; }

for n in 500 5000; do
  f=$data/counters_$n.bin
  r=$(records_of "$f")
  for format in ndjson json txt openmetrics; do measure "counters_$n $format" "$f" "$r" "${nmb[@]}" -f $format "$f"; done
  measure "counters_$n bare writer (ndjson bytes)" "$f" "$r" "$bin/bench/bare_counters_writer" "$f" $n
  measure "counters_$n cJSON DOM per record" "$f" "$r" "$bin/bench/cjson_exporter" "$f" $n
done
f=$data/counters_5000_whole_gzip.bin
measure "counters_5000 whole-file gzip ndjson" "$f" "$(records_of "$f")" "${nmb[@]}" -f ndjson "$f"
f=$data/counters_5000_gzip.bin
r=$(records_of "$f")
measure "counters_5000 gzip pages ndjson" "$f" "$r" "${nmb[@]}" -f ndjson "$f"
measure "counters_5000 gzip pages zlib inflate only" "$f" "$r" "$bin/bench/decode_pages" zlib "$f"
measure "counters_5000 gzip pages libdeflate only" "$f" "$r" "$bin/bench/decode_pages" libdeflate "$f"
f=$data/counters_5000_snappy.bin
measure "counters_5000 snappy pages ndjson" "$f" "$r" "${nmb[@]}" -f ndjson "$f"
measure "counters_5000 snappy pages snappy only" "$f" "$r" "$bin/bench/decode_pages" snappy "$f"
for file in events metrics; do
  f=$data/$file.bin
  r=$(records_of "$f")
  for format in ndjson json txt openmetrics; do measure "$file $format" "$f" "$r" "${nmb[@]}" -f $format "$f"; done
  if [ $file = events ]; then
    measure "events bare writer (ndjson bytes)" "$f" "$r" "$bin/bench/bare_events_writer" "$f"
  fi
done
f=$data/events_gzip.bin
measure "events gzip pages ndjson" "$f" "$(records_of "$f")" "${nmb[@]}" -f ndjson "$f"

# ratio NAME A B TARGET: A's throughput as a share of B's (B's time / A's time).
ratio() {
  printf '%-58s %6.2f  (target %s)\n' "$1" "$(echo "${wall[$3]} / ${wall[$2]}" | bc -l)" "$4"
}
echo
ratio "counters_5000 ndjson / bare writer" "counters_5000 ndjson" "counters_5000 bare writer (ndjson bytes)" ">= 0.95"
ratio "counters_500 ndjson / bare writer" "counters_500 ndjson" "counters_500 bare writer (ndjson bytes)" ">= 0.95"
ratio "gzip pages ndjson / zlib inflate only" "counters_5000 gzip pages ndjson" "counters_5000 gzip pages zlib inflate only" ">= 1.00"
ratio "snappy pages ndjson / snappy only" "counters_5000 snappy pages ndjson" "counters_5000 snappy pages snappy only" ">= 0.80"
ratio "counters_5000 ndjson / cJSON DOM per record" "counters_5000 ndjson" "counters_5000 cJSON DOM per record" ">= 25"
ratio "counters_5000 json time / ndjson time" "counters_5000 ndjson" "counters_5000 json" "<= 1.15"
ratio "events json time / ndjson time" "events ndjson" "events json" "<= 1.15"
ratio "events ndjson time / bare writer time" "events bare writer (ndjson bytes)" "events ndjson" "<= 1.30"
ratio "counters_5000 openmetrics time / ndjson time" "counters_5000 ndjson" "counters_5000 openmetrics" "<= 1.50"
ratio "events openmetrics time / ndjson time" "events ndjson" "events openmetrics" "<= 1.50"

# Reading ahead: pages decoded (and whole-file gzip inflated) on a second
# thread against everything on one thread.
echo
for input in counters_5000_gzip counters_5000_snappy counters_5000_whole_gzip; do
  f=$data/$input.bin
  for read_ahead in 0 1; do
    measure "$input ndjson NMB_READ_AHEAD=$read_ahead" "$f" 0 env NMB_READ_AHEAD=$read_ahead \
      "${nmb[@]}" -f ndjson "$f"
  done
done

# Many files: 64 links to one counters file, one at a time and two at once;
# per core is the speed-up divided by the two cores (1.00: two cores do twice
# the work of one).
many=$data/many
mkdir -p "$many"
for i in $(seq -w 1 64); do ln -f "$data/counters_500.bin" "$many/file_$i.bin"; done
echo
echo "many files: 64 x $(du -m "$data/counters_500.bin" | cut -f1) MiB, ndjson"
for jobs in 1 2; do
  measure "64 files -j $jobs" "$data/counters_500.bin" 0 "${nmb[@]}" -f ndjson -j $jobs "$many"/*.bin
done
printf '%-58s %6.2f\n' "speed-up with -j 2" "$(echo "${wall[64 files -j 1]} / ${wall[64 files -j 2]}" | bc -l)"
printf '%-58s %6.2f\n' "speed-up with -j 2 per core" "$(echo "${wall[64 files -j 1]} / ${wall[64 files -j 2]} / 2" | bc -l)"
