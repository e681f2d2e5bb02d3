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
cmake --build build -j"$ZAVIK_JOBS" --target zavik zavik_example_mic

mkdir -p example
./build/zavik_example_mic example/example_mic.mrc 1024 1024 12 40
./build/zavik --apixM 1.0 --diameter 100 example/example_mic.mrc
