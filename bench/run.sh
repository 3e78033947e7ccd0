#!/usr/bin/env bash
# Benchmarks media-gateway with the HTTP plug-in side by side with nginx and
# prints a table of ratios (ours / nginx, PASS or MISS per target).
#
#   bench/run.sh <build-dir> [--rounds N] [--cases LIST] [--block-size BYTES] [--keep]
#
# Build with -DCMAKE_BUILD_TYPE=Release first. The results also go into
# bench/RESULTS.md (the table between its markers; the text around it stays) when
# every case ran.
set -euo pipefail

build_dir=${1:?usage: $0 <build-dir> [bench.py options, see --help]}
shift
here=$(cd "$(dirname "$0")" && pwd)
for required in "$build_dir/bin/media-gateway" "$build_dir/lib/libHttpProtocolWrapper.so"; do
    if [ ! -e "$required" ]; then
        echo "bench: $required is missing; build first" >&2
        exit 1
    fi
done
for tool in curl nginx python3; do
    if ! command -v "$tool" >/dev/null 2>&1 && [ ! -x "/usr/sbin/$tool" ]; then
        echo "bench: $tool is missing; run scripts/install-deps.sh" >&2
        exit 1
    fi
done
# Both servers and the client run at a raised priority (when allowed), so that other
# work on a shared machine disturbs the measurement less; both sides get the same.
priority=()
if [ "$(nice -n -10 nice 2>/dev/null)" = "$(($(nice) - 10))" ]; then
    priority=(nice -n -10)
fi
exec "${priority[@]}" python3 "$here/bench.py" "$build_dir" --results "$here/RESULTS.md" "$@"
