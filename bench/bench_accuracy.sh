#!/usr/bin/env bash
# How well the picker finds known particles as the noise grows.
#
#   bench/bench_accuracy.sh [--build DIR] [--n N] [--work DIR] [--noise "0.5 1 1.5 2"] [--no-relion]
#
# For each noise level (in units of a particle's peak contrast) generates N
# micrographs of 3838 x 3710 with zavik_synth (particles at known places,
# contamination, a CTF) and picks them with the generated template and with
# a stack of 6 templates at 5 degrees.  A pick is right when it lies within a
# quarter of the particle diameter of a true centre not yet taken; recall
# counts the true particles whose box lies inside the micrograph.  Where
# relion_autopick is installed its Laplacian-of-Gaussian and template pickers
# are scored on the same micrographs.  Prints recall, precision and the
# number of picks per micrograph for each picker and level.
set -euo pipefail

BUILD=build N=3 WORK=/tmp/zavik_accuracy NOISE="0.5 1 1.5 2" RELION=1
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --noise) NOISE="$2"; shift 2 ;;
    --no-relion) RELION=0; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
ZAVIK="$BUILD/zavik" SYNTH="$BUILD/zavik_synth"
[ -x "$ZAVIK" ] && [ -x "$SYNTH" ] || { echo "build zavik and zavik_synth in $BUILD first" >&2; exit 1; }
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to score the picks" >&2; exit 1; }
command -v relion_autopick >/dev/null 2>&1 || RELION=0

APIX=1.34 DIAM=200 NX=3838 NY=3710
BOX=$(awk -v d=$DIAM -v a=$APIX 'BEGIN {print int(d * 1.33 / a / 2) * 2}')
TOL=$(awk -v d=$DIAM -v a=$APIX 'BEGIN {print d / a / 4}')

# Scores the coordinate files of one picker against the truth files:
# score <label> <truth dir> <suffix of the picker's files in that dir>.
score() {
  python3 - "$1" "$2" "$3" "$TOL" "$BOX" "$NX" "$NY" <<'PY'
import glob, math, os, sys
label, tdir, suffix, tol, box, nx, ny = sys.argv[1], sys.argv[2], sys.argv[3], float(sys.argv[4]), int(sys.argv[5]), int(sys.argv[6]), int(sys.argv[7])

def box_centres(name):
    out = []
    for line in open(name):
        w = line.split()
        if len(w) >= 4:
            out.append((float(w[0]) + float(w[2]) / 2, float(w[1]) + float(w[3]) / 2))
    return out

def star_centres(name):
    labels, out = [], []
    for line in open(name):
        s = line.strip()
        if s.startswith("_rln"):
            labels.append(s.split()[0])
        elif labels and s and not s.startswith(("data_", "loop_", "#", "_")):
            w = s.split()
            if len(w) >= len(labels):
                out.append((float(w[labels.index("_rlnCoordinateX")]), float(w[labels.index("_rlnCoordinateY")])))
    return out

tp = fp = n_truth = n_picks = mics = 0
for tname in sorted(glob.glob(os.path.join(tdir, "*_truth.box"))):
    stem = tname[: -len("_truth.box")]
    picks_name = stem + suffix
    if not os.path.exists(picks_name):
        print("%-30s missing %s" % (label, picks_name)); sys.exit(1)
    truth = [c for c in box_centres(tname)
             if box / 2 <= c[0] <= nx - box / 2 and box / 2 <= c[1] <= ny - box / 2]
    picks = star_centres(picks_name) if picks_name.endswith(".star") else box_centres(picks_name)
    used = [False] * len(truth)
    for p in picks:
        best, bd = -1, tol
        for i, t in enumerate(truth):
            d = math.hypot(p[0] - t[0], p[1] - t[1])
            if not used[i] and d <= bd:
                best, bd = i, d
        if best >= 0:
            used[best] = True
            tp += 1
        else:
            fp += 1
    n_truth += len(truth)
    n_picks += len(picks)
    mics += 1
recall = tp / n_truth if n_truth else 0.0
precision = tp / n_picks if n_picks else 0.0
print("%-30s recall %5.3f  precision %5.3f  picks/mic %6.1f  (true particles/mic %.1f)"
      % (label, recall, precision, n_picks / mics, n_truth / mics))
PY
}

mkdir -p "$WORK"
[ -s "$WORK/templates.mrcs" ] ||
  "$SYNTH" --out "$WORK/tmp_t.mrc" --nx 64 --ny 64 --count 0 --contamination 0 --apix $APIX --diameter $DIAM \
    --templates "$WORK/templates.mrcs" --ntemplates 6 >/dev/null
echo "micrographs: $N of $NX x $NY per noise level, diameter $DIAM A at $APIX A/px; a pick is right within $TOL px"
for noise in $NOISE; do
  d="$WORK/noise_$noise"
  mkdir -p "$d"
  for i in $(seq 1 "$N"); do
    m="$d/m$i.mrc"
    [ -s "$m" ] || "$SYNTH" --out "$m" --nx $NX --ny $NY --apix $APIX --diameter $DIAM --noise "$noise" \
      --contamination 2 --seed $((100 + i)) --truth "$d/m${i}_truth.box" >/dev/null
  done
  echo
  echo "noise $noise"
  rm -f "$d"/*_zavik.box "$d"/*_zavik.star
  "$ZAVIK" --apixM $APIX --diameter $DIAM "$d"/m*.mrc >"$d/zavik_gen.log" 2>&1
  for f in "$d"/m*_zavik.box; do mv "$f" "${f%_zavik.box}_gen.box"; done
  rm -f "$d"/*_zavik.star
  score "zavik, generated template" "$d" "_gen.box"
  "$ZAVIK" --apixM $APIX --diameter $DIAM --T "$WORK/templates.mrcs" --apixT $APIX "$d"/m*.mrc >"$d/zavik_t6.log" 2>&1
  score "zavik, 6 templates" "$d" "_zavik.box"
  if [ "$RELION" = 1 ]; then
    rm -rf "$d/relion_log" "$d/relion_ref"
    relion_autopick --i "$d/m*.mrc" --odir "$d/relion_log/" --pickname autopick --angpix $APIX \
      --LoG --LoG_diam_min 150 --LoG_diam_max 250 --shrink 0 --lowpass 20 >"$d/relion_log.log" 2>&1
    relion_autopick --i "$d/m*.mrc" --odir "$d/relion_ref/" --pickname autopick --angpix $APIX \
      --ref "$WORK/templates.mrcs" --angpix_ref $APIX --invert --ang 5 --particle_diameter $DIAM --shrink 0 \
      --lowpass 20 >"$d/relion_ref.log" 2>&1
    # The reference picker writes beside a copy of the input path under its output folder.
    for kind in log ref; do
      for i in $(seq 1 "$N"); do
        f=$(find "$d/relion_$kind" -name "m${i}_autopick.star" | head -1)
        [ -n "$f" ] && cp "$f" "$d/m${i}_relion_$kind.star"
      done
    done
    score "relion_autopick, LoG" "$d" "_relion_log.star"
    score "relion_autopick, 6 templates" "$d" "_relion_ref.star"
  fi
done
