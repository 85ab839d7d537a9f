#!/usr/bin/env bash
# Runs swltrace --json on every trace in the data folder (with and without an
# Installer log) and checks each output with a strict JSON parser that also
# rejects invalid UTF-8.
#   check-json.sh SWLTRACE DATA_DIR
set -eu
swltrace=$1
data=$2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
status=0
check() {  # name, swltrace arguments...
  local name=$1; shift
  if ! "$swltrace" --json "$@" >"$out/$name.json" 2>"$out/$name.err"; then
    echo "FAIL $name: swltrace exited $?"; cat "$out/$name.err"; status=1; return
  fi
  if ! python3 -c 'import json,sys; json.loads(open(sys.argv[1],"rb").read().decode("utf-8","strict"))' "$out/$name.json"; then
    echo "FAIL $name: not valid JSON"; status=1; return
  fi
  echo "ok   $name"
}
for trace in "$data"/*.txt "$data"/real/*.trace.txt; do
  check "$(basename "$trace")" "$trace"
done
check windows-merged "$data/windows-trace.txt" --msi-log "$data/windows-verbose.log"
while read -r trace log _; do
  case "$trace" in ''|'#'*) continue ;; esac
  check "merged-$trace" "$data/real/$trace" --msi-log "$data/real/$log"
done <"$data/real/scenarios.txt"
exit $status
