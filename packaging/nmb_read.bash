# bash completion for nmb_read: options, format names, log levels, sort keys,
# folders after -s/-d/-o and files everywhere else.
_nmb_read() {
  local cur prev
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # --name=value: bash usually splits it into "--name" "=" "value".
  if [[ $cur == = ]]; then
    cur=
  elif [[ $prev == = && COMP_CWORD -ge 2 ]]; then
    prev=${COMP_WORDS[COMP_CWORD-2]}
  elif [[ $cur == --*=* ]]; then
    prev=${cur%%=*}
    cur=${cur#*=}
  fi
  case $prev in
    -f | --format)
      mapfile -t COMPREPLY < <(compgen -W 'json ndjson txt csv influx bin openmetrics' -- "$cur")
      return ;;
    -v | --verbose)
      mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4 5 6 7' -- "$cur")
      return ;;
    -s | --schema-path | -d | --data-dir | -o | --output-dir)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return ;;
    -C | --cset-file | -F | --fset-file | --checkpoint)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return ;;
    -g | --timestamp-gt | -l | --timestamp-lt | -i | --include-counters | -e | \
      --exclude-counters | -j | --jobs | --follow-interval | --shard)
      return ;;  # a number or a pattern: nothing to offer
    --sort-files)
      # A comma-separated list of keys: complete the last one.
      local done=
      [[ $cur == *,* ]] && done=${cur%,*},
      mapfile -t COMPREPLY < <(compgen -P "$done" \
        -W 'first_timestamp source_id source_tag' -- "${cur##*,}")
      return ;;
  esac
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '-h --help -V --version -v --verbose -p
      --print-page-info -s --schema-path -d --data-dir -g --timestamp-gt -l --timestamp-lt
      -C --cset-file -F --fset-file -I --ignore-missing-filter -M --metadata
      -i --include-counters -e --exclude-counters -o --output-dir -f --format
      -u --microsecond-precision -S --sort-files --sort-files= -j --jobs
      --follow --follow-interval --checkpoint --shard' -- "$cur")
    [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace 2>/dev/null
    return
  fi
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}
complete -F _nmb_read nmb_read
