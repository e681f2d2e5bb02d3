#!/usr/bin/env bash
# How well the picker finds known particles, by condition, noise and option.
#
#   bench/bench_accuracy.sh [--build DIR] [--n N] [--work DIR] [--noise "0.5 1 2 3"]
#                           [--conditions "contamination carbon aggregates gradient"]
#                           [--kinds "gen t6"] [--no-relion] [--relion-templates]
#
# For each condition and noise level (in units of a particle's peak contrast)
# generates N micrographs of 3838 x 3710 with zavik_synth: particles at known
# places, two contamination discs, and per condition a carbon edge over a
# quarter of the micrograph, six dark aggregates of one to three particle
# sizes, or an ice gradient.  Picks them with the generated template ("gen")
# and with a stack of 6 templates at 5 degrees ("t6"), each with the default
# cutoff of 0.15, with --cc_cutoff auto, and with --cc_cutoff auto
# --fill_rejected.  For the automatic rows the best F1 over every fixed cutoff
# (from a run that keeps every candidate) is printed beside the F1 reached.
# Where relion_autopick is installed its Laplacian-of-Gaussian picker is
# scored on the same micrographs (and its template picker with
# --relion-templates).  A pick is right within a quarter of the diameter of a
# true centre; false picks within two diameters of contamination, an
# aggregate or the carbon film are counted apart.
set -euo pipefail

BUILD=build N=2 WORK=/tmp/zavik_accuracy NOISE="0.5 1 2 3" RELION=1 RELION_REF=0
CONDITIONS="contamination carbon aggregates gradient" KINDS="gen t6"
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --noise) NOISE="$2"; shift 2 ;;
    --conditions) CONDITIONS="$2"; shift 2 ;;
    --kinds) KINDS="$2"; shift 2 ;;
    --no-relion) RELION=0; shift ;;
    --relion-templates) RELION_REF=1; shift ;;
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
DPX=$(awk -v d=$DIAM -v a=$APIX 'BEGIN {print d / a}')
score() { python3 "$ROOT/bench/score_picks.py" "$1" "$2" "$3" "$TOL" "$BOX" "$NX" "$NY" "$DPX" "$4"; }

condition_args() {
  case "$1" in
    contamination) echo "" ;;
    carbon) echo "--carbon 0.25" ;;
    aggregates) echo "--aggregates 6" ;;
    gradient) echo "--gradient 0.5" ;;
    *) echo "unknown condition $1" >&2; exit 1 ;;
  esac
}

# One zavik run over the micrographs of $d, its outputs in $d/$name: run <d> <name> <options...>.
run() {
  local d="$1" name="$2"
  shift 2
  rm -rf "${d:?}/$name"
  mkdir -p "$d/$name"
  for m in "$d"/m*.mrc; do ln -s "$m" "$d/$name/"; cp "${m%.mrc}_truth.box" "${m%.mrc}_features.txt" "$d/$name/"; done
  "$ZAVIK" --apixM $APIX --diameter $DIAM "$@" "$d/$name"/m*.mrc >"$d/$name.log" 2>&1
}

mkdir -p "$WORK"
[ -s "$WORK/templates.mrcs" ] ||
  "$SYNTH" --out "$WORK/tmp_t.mrc" --nx 64 --ny 64 --count 0 --contamination 0 --apix $APIX --diameter $DIAM \
    --templates "$WORK/templates.mrcs" --ntemplates 6 >/dev/null
echo "micrographs: $N of $NX x $NY per condition and noise level, diameter $DIAM A at $APIX A/px;"
echo "a pick is right within $TOL px; 'near' counts false picks within two diameters of contamination,"
echo "an aggregate or the carbon film"
for cond in $CONDITIONS; do
  for noise in $NOISE; do
    d="$WORK/$cond/noise_$noise"
    mkdir -p "$d"
    for i in $(seq 1 "$N"); do
      m="$d/m$i.mrc"
      # shellcheck disable=SC2046
      [ -s "$m" ] || "$SYNTH" --out "$m" --nx $NX --ny $NY --apix $APIX --diameter $DIAM --noise "$noise" \
        --contamination 2 $(condition_args "$cond") --seed $((100 + i)) --truth "$d/m${i}_truth.box" \
        --features "$d/m${i}_features.txt" >/dev/null
    done
    echo
    echo "$cond, noise $noise"
    for kind in $KINDS; do
      T=()
      [ "$kind" = t6 ] && T=(--T "$WORK/templates.mrcs" --apixT $APIX)
      run "$d" "${kind}_all" "${T[@]}" --cc_cutoff -10
      score "zavik $kind, cutoff 0.15" "$d/${kind}_all" _zavik.box 0.15
      run "$d" "${kind}_auto" "${T[@]}" --cc_cutoff auto
      score "zavik $kind, auto" "$d/${kind}_auto" _zavik.box "auto:$d/${kind}_auto.log"
      score "  (every fixed cutoff)" "$d/${kind}_all" _zavik.box sweep
      run "$d" "${kind}_fill_all" "${T[@]}" --cc_cutoff -10 --fill_rejected 1
      run "$d" "${kind}_fill_auto" "${T[@]}" --cc_cutoff auto --fill_rejected 1
      score "zavik $kind, auto, fill_rejected" "$d/${kind}_fill_auto" _zavik.box "auto:$d/${kind}_fill_auto.log"
      score "  (every fixed cutoff)" "$d/${kind}_fill_all" _zavik.box sweep
    done
    if [ "$RELION" = 1 ]; then
      rm -rf "$d/relion_log"
      relion_autopick --i "$d/m*.mrc" --odir "$d/relion_log/" --pickname autopick --angpix $APIX \
        --LoG --LoG_diam_min 150 --LoG_diam_max 250 --shrink 0 --lowpass 20 >"$d/relion_log.log" 2>&1
      # The reference picker writes beside a copy of the input path under its output folder.
      for i in $(seq 1 "$N"); do
        f=$(find "$d/relion_log" -name "m${i}_autopick.star" | head -1)
        [ -n "$f" ] && cp "$f" "$d/m${i}_relion_log.star"
      done
      score "relion_autopick, LoG" "$d" _relion_log.star -1e30
      if [ "$RELION_REF" = 1 ]; then
        rm -rf "$d/relion_ref"
        relion_autopick --i "$d/m*.mrc" --odir "$d/relion_ref/" --pickname autopick --angpix $APIX \
          --ref "$WORK/templates.mrcs" --angpix_ref $APIX --invert --ang 5 --particle_diameter $DIAM --shrink 0 \
          --lowpass 20 >"$d/relion_ref.log" 2>&1
        for i in $(seq 1 "$N"); do
          f=$(find "$d/relion_ref" -name "m${i}_autopick.star" | head -1)
          [ -n "$f" ] && cp "$f" "$d/m${i}_relion_ref.star"
        done
        score "relion_autopick, 6 templates" "$d" _relion_ref.star -1e30
      fi
    fi
  done
done
