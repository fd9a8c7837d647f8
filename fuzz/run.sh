#!/usr/bin/env bash
# Builds the fuzz targets with clang and runs each for <seconds> (60 by
# default), starting from the seed corpora in fuzz/corpus. New inputs are kept
# in build/fuzz/corpus. Usage: fuzz/run.sh [seconds] [target...]
set -euo pipefail
seconds="${1:-60}"
shift || true
targets=("${@:-dispatch_fuzzer containers_fuzzer}")
targets=(${targets[*]})
cd "$(dirname "$0")/.."
cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKLV_FUZZ=ON >/dev/null
cmake --build build/fuzz -j2 --target "${targets[@]}"
for target in "${targets[@]}"; do
  mkdir -p "build/fuzz/corpus/$target"
  # Standard error of the target (the daemon's error records) is closed; the
  # fuzzer's own report still appears.
  "build/fuzz/fuzz/$target" -max_total_time="$seconds" -close_fd_mask=2 -print_final_stats=1 \
    -artifact_prefix=build/fuzz/ \
    "build/fuzz/corpus/$target" "fuzz/corpus/$target"
done
