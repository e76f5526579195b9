#!/usr/bin/env bash
# The long fuzz campaign: builds the harnesses (clang, libFuzzer, ASan, UBSan) and runs each for
# SECONDS (default 600) from the seeds, keeping the corpus in build-fuzz/ between runs.
#   bash scripts/fuzz.sh [SECONDS] [HARNESS...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}; shift || true
harnesses=("$@"); [ ${#harnesses[@]} -eq 0 ] && harnesses=(machine image_description image_info launcher_slot hidden_volume ec_answer ec_merged answers texts pfat_image road_options)
cmake -S tests/fuzz -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-fuzz -j"$(nproc)"
for h in "${harnesses[@]}"; do
  echo "== fuzz_$h for $seconds s ($(date -u +%F) at $(git rev-parse --short HEAD))"
  tests/fuzz/run.sh "build-fuzz/fuzz_$h" -1 -max_total_time="$seconds" 2>&1 | grep -E "^#[0-9]+[[:space:]]+DONE|ERROR|SUMMARY" || true
done
