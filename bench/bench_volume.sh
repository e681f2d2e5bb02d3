#!/usr/bin/env bash
# Projection and back-projection of a map at random orientations.
#
#   bench/bench_volume.sh [--build DIR] [--size N] [--n COUNT] [--work DIR]
#
# Makes a test map of N^3 (default 256) with zktool, then projects it at COUNT
# random orientations (default 1000, a fixed seed) into a stack and
# back-projects every projection into a reconstruction, all in one run of
# 'zktool project-random --rec'.  Prints the seconds of the projections (with
# their copies and writes to the stack) and of the back-projections, taken
# from the run's clock lines, the wall time and the peak host memory.  With a
# GPU the run is made on the GPU and again on the host back end
# (CUDA_VISIBLE_DEVICES=""); without one, on the host back end only.
set -euo pipefail

BUILD=build SIZE=256 COUNT=1000 WORK=/tmp/zavik_bench_volume
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --size) SIZE="$2"; shift 2 ;;
    --n) COUNT="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
ZKTOOL="$BUILD/zktool"
[ -x "$ZKTOOL" ] || { echo "build zktool in $BUILD first" >&2; exit 1; }

mkdir -p "$WORK"
MAP="$WORK/map$SIZE.mrc"
[ -s "$MAP" ] || "$ZKTOOL" test-map "$MAP" --box "$SIZE" --apix 1.34 --diameter "$(awk -v n="$SIZE" 'BEGIN {print n * 1.34 * 0.6}')" >/dev/null

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
GPU=0
if command -v nvidia-smi >/dev/null 2>&1 && nvidia-smi -L >/dev/null 2>&1; then
  GPU=1
  echo "gpu: $(nvidia-smi --query-gpu=name --format=csv,noheader | head -1)"
fi
echo "map: $SIZE^3 floats; $COUNT projections of $SIZE x $SIZE and their back-projection"
echo

# One run; prints the projection and back-projection seconds, wall and peak RSS.
run() {
  local label="$1"
  shift
  local log="$WORK/run.log" t0 t1
  rm -f "$WORK/views.mrcs" "$WORK/rec.mrc"
  t0=$(date +%s.%N)
  if [ -x /usr/bin/time ]; then
    env "$@" /usr/bin/time -f "MAXRSS %M" "$ZKTOOL" project-random "$MAP" "$WORK/views.mrcs" "$COUNT" --seed 1 \
      --rec "$WORK/rec.mrc" >"$log" 2>&1 || { tail -5 "$log" >&2; exit 1; }
  else
    env "$@" "$ZKTOOL" project-random "$MAP" "$WORK/views.mrcs" "$COUNT" --seed 1 --rec "$WORK/rec.mrc" >"$log" 2>&1 ||
      { tail -5 "$log" >&2; exit 1; }
  fi
  t1=$(date +%s.%N)
  local proj back rss
  proj=$(awk -F': ' '$1 ~ /cuda_3d_project_many$/ {print $2 + 0}' "$log")
  back=$(awk -F': ' '$1 ~ /cuda_3d_backproject_many$/ {print $2 + 0}' "$log")
  rss=$(awk '/^MAXRSS/ {printf "%.0f", $2 / 1024}' "$log")
  printf "%-22s projection %8.2f s   back-projection %8.2f s   wall %8.2f s   peak RSS %s MB\n" "$label" "$proj" \
    "$back" "$(awk -v a="$t0" -v b="$t1" 'BEGIN {print b - a}')" "${rss:--}"
}

if [ "$GPU" = 1 ]; then
  run "GPU"
  run "host back end" CUDA_VISIBLE_DEVICES=
else
  run "host back end"
fi
rm -f "$WORK/views.mrcs" "$WORK/rec.mrc"
