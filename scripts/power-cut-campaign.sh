#!/usr/bin/env bash
# The long power-cut campaign: zaprom-cut on the 4 MB and the 16 MB machine side by side, one
# core each, and their figures.   power-cut-campaign.sh [CUTS_4MB] [CUTS_16MB] [SEED]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --build build --target zaprom-cut >/dev/null
seed=${3:-$(date +%s)}
build/zaprom-cut --seed "$seed" --cuts "${1:-800}" \
    examples/machines/part-4mb-bvdt-region.json=examples/images/part-4mb-newer.json >build/cut-4mb.txt &
small=$!
build/zaprom-cut --seed "$seed" --cuts "${2:-200}" \
    examples/machines/default.json=examples/images/demo-newer.json >build/cut-16mb.txt &
large=$!
status=0
wait $small || status=1
wait $large || status=1
cat build/cut-4mb.txt build/cut-16mb.txt
exit $status
