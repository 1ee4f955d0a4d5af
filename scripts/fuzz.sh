#!/usr/bin/env bash
# Runs the libFuzzer targets, each for SECONDS, at most NMB_FUZZ_PARALLEL (2)
# at once and at the lowest priority, so that builds go first.
#   scripts/fuzz.sh SECONDS [target...]     (no target: every one)
# Corpora grow across runs in build/fuzz/corpus/<target> (the seeds are
# rewritten every time); crashes, leaks and hangs fail the script and leave
# the input in build/fuzz/artifacts/<target>/. The last line of each log
# (build/fuzz/logs/<target>.log) gives the executions done.
set -euo pipefail
cd "$(dirname "$0")/.."

all_targets=(fuzz_reader fuzz_packed_page fuzz_metrics_payload fuzz_labels_block fuzz_schema
  fuzz_counter_set fuzz_field_set fuzz_metadata fuzz_options fuzz_bin_writer fuzz_path_template
  fuzz_jobs fuzz_json_writer fuzz_roundtrip fuzz_differential)
seconds="${1:?usage: scripts/fuzz.sh SECONDS [target...]}"
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")
parallel="${NMB_FUZZ_PARALLEL:-2}"

dict_of() {
  case "$1" in
    fuzz_reader | fuzz_packed_page | fuzz_jobs) echo fuzz/reader.dict ;;
    fuzz_schema) echo fuzz/schema.dict ;;
    fuzz_metrics_payload) echo fuzz/metrics.dict ;;
    fuzz_counter_set | fuzz_field_set) echo fuzz/filter.dict ;;
    fuzz_metadata) echo fuzz/metadata.dict ;;
    fuzz_options) echo fuzz/options.dict ;;
    fuzz_path_template) echo fuzz/path_template.dict ;;
  esac
}

cmake --preset fuzz >/dev/null
nice -n 19 cmake --build build/fuzz -j2 --target "${targets[@]}" make_fuzz_seeds make_metrics_seeds >/dev/null
corpus="$PWD/build/fuzz/corpus"
mkdir -p "$corpus" build/fuzz/logs
build/fuzz/fuzz/make_fuzz_seeds "$corpus"
build/fuzz/fuzz/make_metrics_seeds "$corpus/fuzz_metrics_payload" "$corpus/fuzz_labels_block"

run_one() {
  local target="$1" dict
  dict="$(dict_of "$target")"
  mkdir -p "$corpus/$target" "$PWD/build/fuzz/artifacts/$target"
  nice -n 19 "build/fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
    -close_fd_mask=3 ${dict:+-dict="$PWD/$dict"} -artifact_prefix="$PWD/build/fuzz/artifacts/$target/" \
    "$corpus/$target" >"build/fuzz/logs/$target.log" 2>&1
}

failed=()
pids=()
names=()
wait_one() {
  local pid="${pids[0]}" name="${names[0]}"
  pids=("${pids[@]:1}")
  names=("${names[@]:1}")
  if wait "$pid"; then
    echo "$name: $(grep -E '^Done [0-9]+ runs' "build/fuzz/logs/$name.log" || tail -n 1 "build/fuzz/logs/$name.log")"
  else
    tail -n 40 "build/fuzz/logs/$name.log"
    echo "$name FAILED; see build/fuzz/logs/$name.log" >&2
    failed+=("$name")
  fi
}
for target in "${targets[@]}"; do
  [ ${#pids[@]} -lt "$parallel" ] || wait_one
  run_one "$target" &
  pids+=($!)
  names+=("$target")
done
while [ ${#pids[@]} -gt 0 ]; do wait_one; done
[ ${#failed[@]} -eq 0 ] || { echo "fuzz targets failed: ${failed[*]}" >&2; exit 1; }
