#!/usr/bin/env bash
# Runs the benchmark programs of a build under Wine, in a throwaway prefix that
# is destroyed afterwards (also when a benchmark fails), then the install
# benchmark of the sample package (bench/install_bench.py, about 2 minutes).
#   run-bench.sh BUILD_DIR
set -eu
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)

shopt -s nullglob
benches=("$build"/bin/*_bench.exe)
if [ ${#benches[@]} -eq 0 ]; then
  echo "run-bench.sh: no *_bench.exe in $build/bin (build the trace_bench target first)" >&2
  exit 2
fi

# Simulated machines of 1, 100 and 1000 accelerator functions for device_enum_bench.
machines="$build/bench-machines"
mkdir -p "$machines"
for n in 1 100 1000; do python3 "$here/../tests/machines/generate.py" "$n" >"$machines/machine-$n.json"; done
export SWL_BENCH_MACHINES="Z:$(printf '%s' "$machines" | tr / '\\')"

prefix="$build/wine-bench-prefix"
"$here/wine-prefix.sh" create "$prefix"
trap '"$here/wine-prefix.sh" destroy "$prefix"' EXIT

status=0
for bench in "${benches[@]}"; do
  WINEPREFIX="$prefix" "$here/wine-run.sh" "$bench" || status=$?
done
if [ -f "$build/package/CorvaneSWL.msi" ]; then
  python3 "$here/../bench/install_bench.py" --build "$build" || status=$?
fi
exit $status
