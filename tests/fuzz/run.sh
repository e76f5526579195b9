#!/usr/bin/env bash
# Runs one harness for a short while from the seeds: run.sh HARNESS RUNS SEED_DIR...
# New inputs go to a corpus folder beside the harness, never into the seed folders.
set -euo pipefail
harness=$1 runs=$2; shift 2
corpus="$(dirname "$harness")/corpus-$(basename "$harness")"
mkdir -p "$corpus"
exec "$harness" -runs="$runs" -max_len=8192 -timeout=20 -rss_limit_mb=2048 "$corpus" "$@"
