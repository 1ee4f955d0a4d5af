#!/usr/bin/env bash
# Checks that two builds of nmb_read write the same bytes: standard output,
# standard error (log time prefixes removed), exit status and -f bin files,
# on the sample data, the benchmark data and every run of the end-to-end tests.
#
#   bash bench/compare.sh BASE_BINARY NEW_BUILD_DIR [scale]
#
# NEW_BUILD_DIR is a build folder (e.g. build/release) with nmb_read,
# tools/make_sample, bench/make_bench_data and tests/e2e_tests built. For the
# end-to-end tests its nmb_read is replaced, while they run, by a wrapper that
# runs both binaries with the same arguments and records every difference.
# Prints the number of runs compared and every difference; exits 1 on any.
set -euo pipefail
base=$(realpath "$1")
new_dir=$(realpath "$2")
scale=${3:-1}
new=$new_dir/nmb_read
work=$(mktemp -d /tmp/nmb-compare.XXXXXX)
trap 'rm -rf "$work"' EXIT
diffs=$work/differences
: >"$diffs"
runs=0

# Log lines lose their time prefix and the addresses that debug lines print.
normalize='s/^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]+\] //; s/0x[0-9a-f]{12}\b/0xADDRESS/g'
# The version text names the build time and commit.
build_info='s/build time: [0-9: -]+ UTC/build time: T/; s/(nmb_read version: [0-9.]+) \([0-9a-f]+\)/\1 (C)/'
strip_log_times() { sed -E "$normalize" "$1"; }

# Runs both binaries with the arguments; -f bin writes into a folder per side.
compare_run() {
  local side status
  for side in base new; do
    local binary=$base
    [ $side = new ] && binary=$new
    rm -rf "$work/$side.bin.d" && mkdir -p "$work/$side.bin.d"
    status=0
    (cd "$work/$side.bin.d" && "$binary" "$@" >"$work/$side.out" 2>"$work/$side.err") || status=$?
    echo $status >"$work/$side.status"
    strip_log_times "$work/$side.err" >"$work/$side.err.plain"
  done
  runs=$((runs + 1))
  local what
  for what in out err.plain status; do
    cmp -s "$work/base.$what" "$work/new.$what" || echo "$what differs: $*" >>"$diffs"
  done
  diff -r -q "$work/base.bin.d" "$work/new.bin.d" >/dev/null || echo "bin files differ: $*" >>"$diffs"
}

data=$work/data
mkdir -p "$data/sample" "$data/bench"
"$new_dir/tools/make_sample" "$data/sample" >/dev/null
"$new_dir/bench/make_bench_data" "$data/bench" "$scale" >/dev/null
for set in sample bench; do
  for file in "$data/$set"/*.bin "$data/$set"/*.gz; do
    [ -e "$file" ] || continue
    for format in json ndjson txt csv influx bin openmetrics; do
      for flags in "" -u -p; do
        # shellcheck disable=SC2086
        compare_run -v 6 -s "$data/$set/schema" -o out -f $format $flags "$file"
      done
    done
  done
done
echo "data files: $runs runs compared"

# The end-to-end tests, each nmb_read run compared through the wrapper.
e2e=$new_dir/tests/e2e_tests
if [ -x "$e2e" ]; then
  mv "$new" "$new.real"
  trap 'mv -f "$new.real" "$new"; rm -rf "$work"' EXIT
  cat >"$new" <<EOF
#!/usr/bin/env bash
# Runs the base and the new nmb_read alike; records any difference.
w=\$(mktemp -d "$work/run.XXXXXX")
status_base=0; status_new=0
# -f bin: each side writes into the output folder as the test left it.
out_dir=""
prev=""
for a in "\$@"; do
  if [ "\$prev" = -o ] || [ "\$prev" = --output-dir ]; then out_dir=\$a; fi
  prev=\$a
done
if [ -n "\$out_dir" ] && [ -d "\$out_dir" ]; then cp -a "\$out_dir" "\$w/before"; fi
# Both run under the name the tests called, which messages show.
(exec -a "\$0" "$base" "\$@") >"\$w/base.out" 2>"\$w/base.err" || status_base=\$?
if [ -n "\$out_dir" ] && [ -e "\$out_dir" ]; then
  mv "\$out_dir" "\$w/base_dir"
  if [ -d "\$w/before" ]; then cp -a "\$w/before" "\$out_dir"; fi
fi
(exec -a "\$0" "$new.real" "\$@") >"\$w/new.out" 2>"\$w/new.err" || status_new=\$?
strip() { sed -E '$normalize' "\$1"; }
same_dir=1
if [ -n "\$out_dir" ] && { [ -e "\$out_dir" ] || [ -e "\$w/base_dir" ]; }; then
  diff -r -q "\$w/base_dir" "\$out_dir" >/dev/null 2>&1 || same_dir=0
fi
if ! cmp -s <(sed -E '$build_info' "\$w/base.out") <(sed -E '$build_info' "\$w/new.out") ||
   [ \$status_base != \$status_new ] || [ \$same_dir = 0 ] ||
   ! cmp -s <(strip "\$w/base.err") <(strip "\$w/new.err"); then
  { echo "e2e run differs: \$*"; echo "  status \$status_base / \$status_new"
    diff <(strip "\$w/base.err") <(strip "\$w/new.err") | head -4
    cmp "\$w/base.out" "\$w/new.out" 2>&1 | head -1; } >>"$diffs"
fi
echo >>"$work/e2e_runs"
cat "\$w/new.out"; cat "\$w/new.err" >&2
rm -rf "\$w"
exit \$status_new
EOF
  chmod +x "$new"
  # The progress tests feed a FIFO that only the first of the two runs can
  # read: under the wrapper the second would wait for ever.
  "$e2e" --gtest_brief=1 --gtest_filter=-ProgressLine.* >"$work/e2e.log" 2>&1 || echo "(some end-to-end tests fail through the wrapper; see their log)"
  echo "end-to-end runs compared: $(wc -l <"$work/e2e_runs" 2>/dev/null || echo 0)"
fi

if [ -s "$diffs" ]; then
  cat "$diffs"
  exit 1
fi
echo "no differences"
