#!/usr/bin/env bash
# Opens an HTML report in headless Chromium and checks what its script did:
# the summary moved above the trees, deep calls closed except those above a
# fault, every row shown with "#all", the failing action named. Keeps the
# report and a screenshot in OUT_DIR.
#   check-html.sh SWLTRACE DATA_DIR OUT_DIR
set -eu
swltrace=$1
data=$2
out=$3
rm -rf "$out"
mkdir -p "$out"
report="$out/swltrace-report.html"
"$swltrace" --html "$report" "$data/windows-trace.txt" "$data/real/pf-7xxx-install-and-remove.trace.txt" \
    --msi-log "$data/windows-verbose.log" >"$out/summary.txt" 2>"$out/warnings.txt"

browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ]; then
  echo "FAIL: chromium is not installed (tools/setup.sh installs it)" >&2
  exit 1
fi
chrome() {
  # --no-sandbox: CI runs as root. A profile of its own keeps runs apart.
  timeout 120 "$browser" --headless --no-sandbox --disable-gpu --hide-scrollbars \
      --user-data-dir="$out/profile" --virtual-time-budget=5000 "$@" 2>>"$out/chromium.err"
}
chrome --dump-dom "file://$report" >"$out/dom.html"
chrome --dump-dom "file://$report#all" >"$out/dom-all.html"
chrome --window-size=1280,1800 --screenshot="$out/swltrace-report.png" "file://$report" >/dev/null

fail=0
check() {  # description, command...
  local what=$1; shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what"; fail=1; fi
}
hidden() { sed -n 's/.*data-hidden-rows="\([0-9]*\)".*/\1/p' "$1" | head -1; }
check "the report's script ran" grep -q 'data-js="ready"' "$out/dom.html"
check "calls are closed at first" test "$(hidden "$out/dom.html")" -gt 0
check "#all opens every call" test "$(hidden "$out/dom-all.html")" = 0
check "the fault row stays visible" \
    bash -c "grep 'KesSecure.cpp (57)' '$out/dom.html' | grep 'class=\"r m bad' | grep -vq hidden"
check "the failing action is named at the top" grep -q 'id="first-failing".*InstallDrivers' "$out/dom.html"
check "the summary comes before the trees" \
    bash -c "[ \$(grep -bo 'id=\"summary\"' '$out/dom.html' | head -1 | cut -d: -f1) -lt \
               \$(grep -bo 'id=\"trees\"' '$out/dom.html' | head -1 | cut -d: -f1) ]"
check "no network address in the report" bash -c "! grep -qE '(src|href)=\"(https?:)?//' '$report'"
check "a screenshot was taken" test -s "$out/swltrace-report.png"
rm -rf "$out/profile"
exit $fail
