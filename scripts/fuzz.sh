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

# The targets and their dictionaries: fuzz/targets.txt, which the build reads too.
mapfile -t all_targets < <(awk '/^fuzz_/ {print $1}' fuzz/targets.txt)
seconds="${1:?usage: scripts/fuzz.sh SECONDS [target...]}"
shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")
parallel="${NMB_FUZZ_PARALLEL:-2}"

dict_of() {
  awk -v t="$1" '$1 == t && $2 != "-" {print "fuzz/" $2}' fuzz/targets.txt
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
