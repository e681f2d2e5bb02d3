#!/usr/bin/env bash
# Builds and runs the test suite twice: with the CUDA back end when nvcc is
# found (architectures from ZAVIK_CUDA_ARCHS, 90 by default), then the host
# back end under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
. "$(dirname "$0")/common.sh"
cd "$ZAVIK_ROOT"

zavik_install_deps

zavik_configure build "${ZAVIK_CUDA_ARCHS:-90}" -DZAVIK_TESTS=ON
cmake --build build -j"$ZAVIK_JOBS"
(cd build && ctest --output-on-failure -j"$ZAVIK_JOBS")

cmake -S . -B build-asan -DZAVIK_CUDA=OFF -DZAVIK_TESTS=ON -DZAVIK_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build-asan -j"$ZAVIK_JOBS"
(cd build-asan && ctest --output-on-failure -j"$ZAVIK_JOBS")
echo "All tests passed on both builds."
