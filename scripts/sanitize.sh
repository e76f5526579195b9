#!/usr/bin/env bash
# The suite (without the QEMU runs) and the demos once more, built with AddressSanitizer and
# UndefinedBehaviorSanitizer: every finding ends its program with status 86 and fails the run.
# The demo runs on every example machine, with the image that fits it, and so does the capsule
# demo on the 4 MB machine. Usage: scripts/sanitize.sh [BUILD_DIR [demos]] (default
# build-sanitize; "demos" runs the demos only). The build gives its tests five times the usual
# time limits, since under the sanitizers the long scenario runs take minutes each.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-sanitize}
cmake -S . -B "$build" -DZAPROM_SANITIZE=ON -DZAPROM_IA32=OFF -DZAPROM_FUZZ=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS=detect_leaks=1:exitcode=86 UBSAN_OPTIONS=print_stacktrace=1:exitcode=86
if [ "${2:-}" != demos ]; then
  ctest --test-dir "$build" -LE qemu --output-on-failure -j"$(nproc)"
fi

failed=0
# A run may end in a refusal (the machine's point); it must not end in a sanitizer's report.
check() {
  local what=$1 status=$2 errors=$3
  if [ "$status" -eq 86 ] || grep -q -e "Sanitizer" -e "runtime error" "$errors"; then
    echo "FAILED under the sanitizers: $what (status $status)"; cat "$errors"; failed=1
  else
    echo "clean: $what (status $status)"
  fi
}
# The README's demo on the embedded default machine must also flash.
work=$build/demo/default
rm -rf "$work" && mkdir -p "$work"
"$build/zaprom-image" build examples/images/demo-newer.json -o "$work/new.fd" >/dev/null
status=0
"$build/zaprom-sim" --volume "$work" --flash "$work/flash.bin" -- new.fd -dbg >"$work/console.txt" 2>"$work/errors.txt" </dev/null || status=$?
check "demo on the default machine" "$status" "$work/errors.txt"
[ "$status" -eq 0 ] || { echo "FAILED: the demo on the default machine ended with status $status"; failed=1; }
for machine in examples/machines/*.json; do
  name=$(basename "$machine" .json)
  image=demo-newer
  case "$name" in part-4mb*) image=part-4mb-newer ;; esac
  work=$build/demo/$name
  rm -rf "$work" && mkdir -p "$work"
  "$build/zaprom-image" build "examples/images/$image.json" -o "$work/new.fd" >/dev/null
  status=0
  "$build/zaprom-sim" --machine "$machine" --volume "$work" --flash "$work/flash.bin" --trace-smi "$work/smi.jsonl" \
    -- new.fd -dbg >"$work/console.txt" 2>"$work/errors.txt" </dev/null || status=$?
  check "demo on $name" "$status" "$work/errors.txt"
done
work=$build/demo/capsule
rm -rf "$work" && mkdir -p "$work"
"$build/zaprom-image" build examples/images/part-4mb-newer.json -o "$work/new.fd" >/dev/null
"$build/zaprom-image" build examples/images/ec-128k.json -o "$work/ec.bin" >/dev/null
printf '[Log_file]\r\nFlag=1\r\nLevel=4\r\n[FlashComplete]\r\nAction=0\r\n' >"$work/platform.ini"
"$build/zaprom-image" pack-driver -o "$work/driver.bin" --bios "$work/new.fd" --ec "$work/ec.bin" --ini "$work/platform.ini" >/dev/null
"$build/zaprom-image" pack-launcher --driver "$work/driver.bin" -o "$work/kobaltApp.bin" >/dev/null
status=0
"$build/zaprom-sim" --machine examples/machines/part-4mb.json --volume "$work" --flash "$work/flash.bin" \
  --ec "$work/ec-content.bin" --launcher "$work/kobaltApp.bin" >"$work/console.txt" 2>"$work/errors.txt" </dev/null || status=$?
check "capsule demo on part-4mb" "$status" "$work/errors.txt"
exit "$failed"
