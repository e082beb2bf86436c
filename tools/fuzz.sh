#!/bin/sh
# Builds the zeroconf libFuzzer targets with clang and runs each one for a while.
#   tools/fuzz.sh [seconds per fuzzer, default 20]
# VELMOR_FUZZ_BUILD chooses the build folder (default build-fuzz); corpora are kept there.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${VELMOR_FUZZ_BUILD:-$root/build-fuzz}
seconds=${1:-20}
fuzzers="txt_record_fuzzer instance_name_fuzzer"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DVELMOR_FUZZ=ON >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" --target $fuzzers

for fuzzer in $fuzzers; do
    corpus="$build/fuzz-corpus/$fuzzer"
    mkdir -p "$corpus"
    echo "== $fuzzer ($seconds s)"
    "$build/$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "$corpus"
done
