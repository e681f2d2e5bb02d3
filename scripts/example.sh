#!/usr/bin/env bash
# Builds zavik in build/ (the CUDA back end when nvcc is found), writes an
# example micrograph to example/ and picks it.
set -euo pipefail
. "$(dirname "$0")/common.sh"
cd "$ZAVIK_ROOT"

zavik_install_deps

# The GPU of this machine when one answers, else the architecture of the tests.
archs="${ZAVIK_CUDA_ARCHS:-}"
if [ -z "$archs" ]; then
  if command -v nvidia-smi >/dev/null 2>&1 && nvidia-smi -L >/dev/null 2>&1; then archs=native; else archs=90; fi
fi
zavik_configure build "$archs"
cmake --build build -j"$ZAVIK_JOBS" --target zavik zavik_synth

# A synthetic micrograph with particles at known places, then the picker on it.
mkdir -p example
./build/zavik_synth --out example/example_mic.mrc --nx 2048 --ny 2048 --apix 1.34 --diameter 200 --noise 0.7 \
  --seed 1 --truth example/example_truth.box --templates example/example_templates.mrcs --ntemplates 6
./build/zavik --apixM 1.34 --diameter 200 --cc_cutoff 0.3 example/example_mic.mrc
echo
echo "Placed $(wc -l <example/example_truth.box) particles (example/example_truth.box);" \
  "picked $(wc -l <example/example_mic_zavik.box) (example/example_mic_zavik.box, example/example_mic_zavik.star)."
