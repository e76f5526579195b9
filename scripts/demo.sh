#!/usr/bin/env bash
# Builds the host side and runs the tool's main job on the embedded default machine, with the
# trace on, then shows the log the run left.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target zaprom-sim
work=build/demo
rm -rf "$work" && mkdir -p "$work"
status=0
./build/zaprom-sim --volume "$work" --flash "$work/flash.bin" --trace-smi "$work/smi.jsonl" -- -dbg || status=$?
echo
echo "---- zaprom-sim exit status: $status"
echo "---- $work/ZAPROM.Log:"
cat "$work/ZAPROM.Log" 2>/dev/null || echo "(no log)"
