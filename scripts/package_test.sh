#!/usr/bin/env bash
# Builds the Debian package from the Release build, unpacks it into a scratch
# root and checks what a user gets: the installed tool's version, the manual
# page as man renders it, and bash completion of options and format names.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/release
cmake --preset release >/dev/null
cmake --build "$build" -j2 --target nmb_read sample_data >/dev/null
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
rm -f "$build"/nmb-read_*.deb
(cd "$build" && cpack -G DEB >cpack.log 2>&1) || { cat "$build/cpack.log"; exit 1; }
deb="$build/nmb-read_${version}_$(dpkg --print-architecture).deb"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() { echo "package test: $*" >&2; exit 1; }

[ "$(dpkg-deb -f "$deb" Package)" = nmb-read ] || fail "package name"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "package version"
dpkg-deb -f "$deb" Depends | grep -q 'libsnappy' || fail "dependencies not computed: $(dpkg-deb -f "$deb" Depends)"
dpkg -x "$deb" "$root"

# The installed tool reports the project version.
"$root/usr/bin/nmb_read" -V | head -n 1 | grep -qx "Nimbrel binary data reader $version" ||
  fail "nmb_read -V does not report $version"

# The page is compressed as Debian's are, renders without warnings, names
# the version and every option.
page=$root/usr/share/man/man1/nmb_read.1.gz
[ -f "$page" ] || fail "no compressed manual page"
gzip -t "$page" || fail "the manual page is not a gzip stream"
warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null) || fail "man -l failed"
[ -z "$warnings" ] || fail "man warnings: $warnings"
text=$(MANWIDTH=80 man -l "$page")
grep -q "nmb_read $version" <<<"$text" || fail "the page does not name version $version"
for option in --help --version --verbose --print-page-info --schema-path --data-dir \
  --timestamp-gt --timestamp-lt --cset-file --fset-file --ignore-missing-filter --metadata \
  --include-counters --exclude-counters --output-dir --format --microsecond-precision \
  --sort-files --jobs --follow --follow-interval --checkpoint --shard NMB_NO_PROGRESS "EXIT STATUS" \
  "BEHAVIOURS KEPT FOR COMPATIBILITY"; do
  grep -q -- "$option" <<<"$text" || fail "the page does not describe $option"
done

# Completion: format names after -f, folders only after -s.
mkdir "$root/work" "$root/work/schema" && touch "$root/work/scratch.bin"
completions=$(cd "$root/work" && bash -c '
  source "$1"
  complete_words() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); _nmb_read; echo "${COMPREPLY[*]}"; }
  complete_words nmb_read -f n
  complete_words nmb_read -s s
  complete_words nmb_read --jo' _ "$root/usr/share/bash-completion/completions/nmb_read" 2>/dev/null)
[ "$completions" = $'ndjson\nschema\n--jobs' ] || fail "completion gave: $completions"
[ -x "$root/usr/bin/nmb-slurm" ] || fail "no nmb-slurm launcher"

# The package alone runs the recipes: the first recipe of RECIPES.md, from
# the installed docs folder, on the installed sample data.
docs=$root/usr/share/doc/nmb-read
[ -f "$docs/examples/counters.bin" ] && [ -d "$docs/examples/schema" ] || fail "no sample data"
recipe=$(cd "$docs" && TZ=UTC PATH="$root/usr/bin:$PATH" bash -c \
  'nmb_read -s examples/schema -f ndjson examples/counters.bin | wc -l')
[ "$recipe" = 3 ] || fail "the first recipe gave '$recipe' from the installed files"
echo "package test: $(basename "$deb") passed"
