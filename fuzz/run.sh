#!/usr/bin/env bash
# Builds the libFuzzer targets in a build folder (configuring it for fuzzing when it has no
# cache yet) and runs each for a bounded time, one after the other. Every target starts from
# a scratch copy of its committed corpus in fuzz/corpus/<target>, so what it learns never
# lands in the repository. Exits non-zero when any target finds a crash, a leak or a hang;
# the input is left in <build-dir>/fuzz-artifacts/ and the output in <build-dir>/fuzz-logs/.
#
#   fuzz/run.sh <build-dir> [seconds-per-target] [target...]
set -euo pipefail

if [ $# -lt 1 ]; then
  echo "usage: $0 <build-dir> [seconds-per-target] [target...]" >&2
  exit 2
fi
build=$1
seconds=${2:-60}
shift $(($# < 2 ? $# : 2))
source_dir=$(cd "$(dirname "$0")/.." && pwd)
corpus_root=$source_dir/fuzz/corpus
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(request_parser protocol_message base64 xml_converter json_download talk_request gateway_files)
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build" -DHPW_BUILD_FUZZ=ON -DHPW_BUILD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

artifacts=$build/fuzz-artifacts
logs=$build/fuzz-logs
mkdir -p "$artifacts" "$logs"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

failed=()
for target in "${targets[@]}"; do
  # The server's limits (8 KiB request line and header block) need inputs beyond them.
  extra=()
  if [ "$target" = request_parser ]; then
    extra=(-max_len=20000)
  fi
  cp -r "$corpus_root/$target" "$scratch/$target"
  log=$logs/$target.log
  echo "== $target: ${seconds}s"
  if "$build/bin/fuzz_$target" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
       -artifact_prefix="$artifacts/$target-" "${extra[@]}" "$scratch/$target" >"$log" 2>&1; then
    grep -E 'stat::number_of_executed_units|stat::new_units_added' "$log" | tr '\n' ' '
    echo
  else
    echo "!! $target failed; last lines of $log:"
    tail -n 40 "$log"
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "Fuzz targets that failed: ${failed[*]} (inputs in $artifacts)" >&2
  exit 1
fi
echo "All fuzz targets ran ${seconds}s without a finding."
