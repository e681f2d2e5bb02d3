#!/usr/bin/env bash
# Resolution and speed of lombar's frame weighting on generated movies.
#
#   bench/bench_lombar.sh [--build DIR] [--work DIR] [--frc-movies N] [--speed-movies M]
#                         [--speed-boxes B] [--speed-size S] [--seed S] [--keep]
#
# Resolution: for two drift profiles, N movies (default 2) of 2048 x 2048
# pixels at 1 A/px, 40 frames of 1 e/A^2, 256 copies of one particle (600
# Gaussian atoms of 1 A in a ball of 90 A) in boxes of 128 px, white noise of
# 3 times the particle's deviation in every frame; the drift of a frame falls
# from 2.5 to 0.3 px over the movie ("early", as beam-induced motion does) or
# rises from 0.3 to 2.5 px ("late").  lombar weights them with every scheme
# (3 also with --D_b 0, the drift weight along the drift only), and the
# Fourier ring correlation of the mean of all weighted particles against the
# clean particle gives the resolution at 0.5 (bench_frc).  Scheme 0 is the
# plain average.
#
# Speed: one movie of S x S pixels (default 2048) and 40 frames, seen M times
# (default 2, through links) with B boxes of 360 px each (default 500) at
# random places, weighted with the defaults: particles per second over the
# whole run (reading the movie, cutting, transforms, weighting, writing),
# peak resident memory, and on a GPU the peak device memory from nvidia-smi.
# 10,000 particles are --speed-movies 10 --speed-boxes 1000.
#
# The back end is the build's: a CUDA build uses the GPU where one answers.
# OMP_WAIT_POLICY=passive is set unless given.
set -euo pipefail

BUILD=build WORK=/tmp/lombar_bench FRC_MOVIES=2 SPEED_MOVIES=2 SPEED_BOXES=500 SPEED_SIZE=2048 SEED=1 KEEP=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --frc-movies) FRC_MOVIES="$2"; shift 2 ;;
    --speed-movies) SPEED_MOVIES="$2"; shift 2 ;;
    --speed-boxes) SPEED_BOXES="$2"; shift 2 ;;
    --speed-size) SPEED_SIZE="$2"; shift 2 ;;
    --seed) SEED="$2"; shift 2 ;;
    --keep) KEEP=1; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
LOMBAR="$BUILD/lombar" SYNTH="$BUILD/movie_synth" FRC="$BUILD/bench/bench_frc"
for t in "$LOMBAR" "$SYNTH" "$FRC"; do
  [ -x "$t" ] || { echo "build lombar, movie_synth and bench_frc in $BUILD first" >&2; exit 1; }
done
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
mkdir -p "$WORK"

# ---- Resolution
: > "$WORK/frc.txt"
for profile in early late; do
  dir="$WORK/frc_$profile"
  rm -rf "$dir" && mkdir -p "$dir"
  if [ "$profile" = early ]; then drift=(--drift0 2.5 --drift1 0.3); else drift=(--drift0 0.3 --drift1 2.5); fi
  movies=()
  for ((k = 0; k < FRC_MOVIES; k++)); do
    name=$(printf "m%03d.mrc" "$k")
    "$SYNTH" --out "$dir/$name" --size 2048 --frames 40 --apix 1 --box 128 --diameter 90 --atom 1.0 --dose 1.0 \
      --noise 3 "${drift[@]}" --seed $((SEED * 100 + k)) --particle_seed "$SEED" --truth "$dir/truth.mrc" > /dev/null
    movies+=("$name")
  done
  for run in "0|--mw_skeme 0" "1|--mw_skeme 1" "2|--mw_skeme 2" "3|--mw_skeme 3" "3, D_b 0|--mw_skeme 3 --D_b 0"; do
    label=${run%%|*} opts=${run#*|}
    # shellcheck disable=SC2086
    (cd "$dir" && "$LOMBAR" --apix 1 --newsize 128 $opts "${movies[@]}" > lombar.out) || {
      echo "lombar failed in $dir" >&2; tail -5 "$dir/lombar.out" >&2; exit 1; }
    res=$(cd "$dir" && "$FRC" --ref truth.mrc --apix 1 ./*_wave.mrc)
    printf "%-6s %-10s %s\n" "$profile" "$label" "$res" >> "$WORK/frc.txt"
  done
  [ "$KEEP" = 1 ] || rm -f "$dir"/*.mrc
done

# ---- Speed
dir="$WORK/speed"
rm -rf "$dir" && mkdir -p "$dir"
"$SYNTH" --out "$dir/movie.mrc" --size "$SPEED_SIZE" --frames 40 --apix 1 --box 360 --count 1 --noise 3 \
  --seed "$SEED" > /dev/null
python3 - "$dir" "$SPEED_MOVIES" "$SPEED_BOXES" "$SPEED_SIZE" "$SEED" <<'PY'
import os, random, shutil, sys
d, m, b, size, seed = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
r = random.Random(seed)
for k in range(m):
    name = os.path.join(d, "s%03d" % k)
    os.symlink("movie.mrc", name + ".mrc")
    shutil.copy(os.path.join(d, "movie_dose_drift.txt"), name + "_dose_drift.txt")
    with open(name + "_zavik.box", "w") as f:
        for _ in range(b):
            f.write("%d\t%d\t360\t360\n" % (r.randrange(0, size - 360), r.randrange(0, size - 360)))
PY
smi=""
if command -v nvidia-smi > /dev/null 2>&1; then
  nvidia-smi --query-gpu=memory.used --format=csv,noheader,nounits -lms 100 > "$dir/gpumem.txt" 2> /dev/null &
  smi=$!
fi
(cd "$dir" && /usr/bin/time -v "$LOMBAR" --apix 1 --newsize 360 s*.mrc > lombar.out 2> time.txt) || {
  echo "lombar failed in $dir" >&2; tail -5 "$dir/lombar.out" >&2; exit 1; }
gpu=""
if [ -n "$smi" ]; then
  kill "$smi" 2> /dev/null || true
  gpu=$(sort -n "$dir/gpumem.txt" | tail -1)
  [ -n "$gpu" ] && gpu=", peak GPU memory (all processes) $gpu MB"
fi
n=$((SPEED_MOVIES * SPEED_BOXES))
wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {
  k = split($2, p, ":"); s = 0; for (i = 1; i <= k; i++) s = s * 60 + p[i]; print s }' "$dir/time.txt")
rss=$(awk -F': ' '/Maximum resident set size/ {printf "%.0f", $2 / 1024}' "$dir/time.txt")
cpu=$(awk -F': ' '/User time|System time/ {s += $2} END {print s}' "$dir/time.txt")
movie_s=$(awk '/TIME.*MOVIE/ {s += $NF + 0; n++} END {if (n) printf "%.2f", s / n}' "$dir/lombar.out")
[ "$KEEP" = 1 ] || rm -f "$dir"/*.mrc

if grep -q "back end stands in" "$dir/lombar.out"; then
  echo "Back end: host, $(nproc) cores"
else
  echo "Back end: GPU $(nvidia-smi --query-gpu=name --format=csv,noheader 2>/dev/null | head -1)"
fi
echo
echo "Resolution (A) at FRC 0.5 of the mean of all weighted particles against the clean particle,"
echo "$FRC_MOVIES movies x 256 particles of 128 px, 40 frames; scheme 0 is the plain average"
echo "drift  scheme"
cat "$WORK/frc.txt"
echo
echo "Speed: $SPEED_MOVIES movies of ${SPEED_SIZE} px x 40 frames, $SPEED_BOXES particles of 360 px each ($n in all)"
printf "wall %.1f s, %.1f particles/s, %.2f s a movie, CPU %.1f s, peak RSS %s MB%s\n" "$wall" \
  "$(echo "$n / $wall" | bc -l)" "$movie_s" "$cpu" "$rss" "$gpu"
