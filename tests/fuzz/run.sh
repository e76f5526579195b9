#!/usr/bin/env bash
# Runs one harness from its seeds: run.sh HARNESS RUNS [LIBFUZZER OPTIONS...]
# The seeds of each harness are named here only; the inputs that once broke a parser
# (regressions/NAME) run first. New inputs go to a corpus folder beside the harness, never into
# the seed folders.
set -euo pipefail
harness=$1 runs=$2; shift 2
root="$(cd "$(dirname "$0")/../.." && pwd)"
name="$(basename "$harness")"; name=${name#fuzz_}
options=()
case "$name" in
  machine) seeds=("$root/examples/machines") ;;
  image_description) seeds=("$root/examples/images") ;;
  # The driver's harnesses check the driver's memory themselves; libFuzzer's own leak hunt would
  # run every input twice for the simulator's allocations, which live exactly one input.
  # A merged file needs room for an EC part in front of the 8 KB part.
  ec_answer) seeds=("$root/tests/fuzz/seeds/ec_answer"); options=(-detect_leaks=0) ;;
  answers) seeds=(); options=(-detect_leaks=0) ;;
  texts) seeds=("$root/tests/fuzz/seeds/texts"); options=(-detect_leaks=0) ;;
  ec_merged) seeds=("$root/tests/fuzz/seeds/ec_merged"); options=(-detect_leaks=0 -max_len=16384) ;;
  road_options) seeds=("$root/tests/fuzz/seeds/$name"); options=(-detect_leaks=0) ;;
  # A PFAT image holds its flash data and two tables (and perhaps the 41h answer in front).
  pfat_image) seeds=("$root/tests/fuzz/seeds/pfat_image"); options=(-detect_leaks=0 -max_len=131072) ;;
  # An RBU image of the 64 KB part: header, perhaps a server block, the data, two checksums.
  rbu_image) seeds=("$root/tests/fuzz/seeds/rbu_image"); options=(-detect_leaks=0 -max_len=70000) ;;
  launcher_slot | hidden_volume) seeds=("$root/tests/fuzz/seeds/launcher") ;;
  # An image of the 8 KB part with the 17h answer in front of it.
  image_analysis) seeds=("$root/tests/fuzz/seeds/$name" "$root/tests/fuzz/seeds/launcher"); options=(-detect_leaks=0 -max_len=16384) ;;
  package) seeds=("$root/tests/fuzz/seeds/package"); options=(-detect_leaks=0) ;;
  package_tool) seeds=("$root/tests/fuzz/seeds/package") ;;
  *) seeds=() ;;
esac
[ -d "$root/tests/fuzz/regressions/$name" ] && seeds+=("$root/tests/fuzz/regressions/$name")
# A dictionary holds the words the parser looks for; the packing tool reads the package's.
dictionary="$root/tests/fuzz/dicts/${name/package_tool/package}.dict"
[ -f "$dictionary" ] && options+=(-dict="$dictionary")
corpus="$(dirname "$harness")/corpus-$(basename "$harness")"
mkdir -p "$corpus"
exec "$harness" -runs="$runs" -max_len=8192 -timeout=20 -rss_limit_mb=2048 "${options[@]}" "$@" "$corpus" "${seeds[@]}"
