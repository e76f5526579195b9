#!/usr/bin/env bash
# The long fuzz campaign: builds the harnesses (clang, libFuzzer, ASan, UBSan) and runs each for
# RUNS inputs (default one million) from the seeds and the corpus it kept in build-fuzz/ before.
# Then a second build with source-based coverage replays each corpus once and prints, per
# harness, the inputs run, the time, and the share of lines reached in the files it is there for.
#   bash scripts/fuzz.sh [RUNS] [HARNESS...]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-1000000}; shift || true
all=(machine image_description image_info package_tool launcher_slot hidden_volume answers image_analysis ec_answer
     ec_merged road_options package rbu_image texts pfat_image)
harnesses=("$@"); [ ${#harnesses[@]} -eq 0 ] && harnesses=("${all[@]}")
K=FlashUtilityPkg/Universal/kobalt_5M/kobalt L=FlashUtilityPkg/Application/kobaltApp_5M/kobaltApp I=host/zaprom-image
declare -A files=(
  [machine]="host/simulator/Machine.cpp" [image_description]="$I/Description.cpp $I/Builder.cpp"
  [image_info]="$I/Inspector.cpp" [package_tool]="$I/RomPackage.cpp"
  [launcher_slot]="$L/KobaltApp.cpp $L/LauncherBase.cpp" [hidden_volume]="$L/HiddenVolume.cpp"
  [answers]="$K/oblis/PlatformStatus.cpp $K/oblis/BlockTable.cpp $K/oblis/Maps.cpp"
  [image_analysis]="$K/image/ImageAnalysis.cpp $K/image/SlotChain.cpp $K/image/Bvdt.cpp $K/oblis/BvdtMap.cpp $K/update/Region.cpp"
  [ec_answer]="$K/update/Ec.cpp" [ec_merged]="$K/update/EcPrefix.cpp" [road_options]="$K/update/ExtraData.cpp $K/update/DirectWrite.cpp"
  [package]="$K/image/Package.cpp $K/config/PackageArguments.cpp" [rbu_image]="$K/update/Rbu.cpp" [pfat_image]="$K/update/Pfat.cpp"
  [texts]="$K/config/IniReader.cpp $K/config/MultiImage.cpp $K/config/CommandLine.cpp $K/config/Filters.cpp"
)
cmake -S tests/fuzz -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake -S tests/fuzz -B build-fuzz-coverage -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DZAPROM_FUZZ_COVERAGE=ON >/dev/null
cmake --build build-fuzz -j"$(nproc)"
cmake --build build-fuzz-coverage -j"$(nproc)"
echo "campaign of $(date -u +%F) at $(git rev-parse --short HEAD), $runs inputs per harness"
printf '%-18s %10s %8s %8s %9s %s\n' harness inputs seconds per-sec lines crashes
for h in "${harnesses[@]}"; do
  start=$(date +%s)
  status=0
  tests/fuzz/run.sh "build-fuzz/fuzz_$h" "$runs" -print_final_stats=1 >"build-fuzz/fuzz_$h.log" 2>&1 || status=$?
  seconds=$(( $(date +%s) - start ))
  done_runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/fuzz_$h.log")
  crashes=0; [ "$status" -eq 0 ] || crashes="1 (status $status, see build-fuzz/fuzz_$h.log)"
  rm -f build-fuzz-coverage/*.profraw
  # The coverage build replays the seeds, the regressions and the corpus the campaign kept, once each.
  ln -sfn "$PWD/build-fuzz/corpus-fuzz_$h" "build-fuzz-coverage/corpus-fuzz_$h"
  LLVM_PROFILE_FILE="$PWD/build-fuzz-coverage/$h-%p.profraw" tests/fuzz/run.sh "build-fuzz-coverage/fuzz_$h" 0 >/dev/null 2>&1 || true
  llvm-profdata merge -sparse -o "build-fuzz-coverage/$h.profdata" build-fuzz-coverage/"$h"-*.profraw
  # The report names each file by its path from the project; the harness's files are summed.
  lines=$(llvm-cov report "build-fuzz-coverage/fuzz_$h" -instr-profile="build-fuzz-coverage/$h.profdata" |
          awk -v want="${files[$h]}" 'BEGIN { n = split(want, w, " "); for (i = 1; i <= n; i++) keep[w[i]] = 1 }
            ($1 in keep) { all += $8; missed += $9 } END { if (all) printf "%.1f%%", 100 * (all - missed) / all; else print "?" }')
  printf '%-18s %10s %8s %8s %9s %s\n' "$h" "${done_runs:-?}" "$seconds" "$(( ${done_runs:-0} / (seconds > 0 ? seconds : 1) ))" "$lines" "$crashes"
done
