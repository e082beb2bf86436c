#!/bin/sh
# Builds the libFuzzer targets with clang and runs each one for a while.
#   tools/fuzz.sh [seconds per fuzzer, default 20]
# VELMOR_FUZZ_BUILD chooses the build folder (default build-fuzz); what a run finds is kept
# there, beside the seeds in tests/fuzz/corpus, which are only read.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${VELMOR_FUZZ_BUILD:-$root/build-fuzz}
seconds=${1:-20}
fuzzers="txt_record_fuzzer instance_name_fuzzer config_fuzzer catalogue_fuzzer
    http_response_fuzzer engine_request_fuzzer"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DVELMOR_FUZZ=ON >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" --target $fuzzers

for fuzzer in $fuzzers; do
    corpus="$build/fuzz-corpus/$fuzzer"
    mkdir -p "$corpus"
    echo "== $fuzzer ($seconds s)"
    "$build/$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "$corpus" \
        "$root/tests/fuzz/corpus/$fuzzer"
done
