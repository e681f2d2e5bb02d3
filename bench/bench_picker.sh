#!/usr/bin/env bash
# Throughput of the picker on synthetic 3838 x 3710 micrographs.
#
#   bench/bench_picker.sh [--build DIR] [--n N] [--work DIR] [--no-relion]
#
# Generates N micrographs (default 6) and a stack of 6 templates with the
# project's generator, then times zavik with the generated template and with
# the stack at the default 5 degree step: seconds per micrograph (wall time of
# the whole run over N, and the mean of each stage's clock lines), peak host
# memory, and peak GPU memory where nvidia-smi answers.  It also runs 2 and 20
# micrographs to show that memory does not grow along a list.  Where
# relion_autopick is installed it times its Laplacian-of-Gaussian picker and
# its template picker (same templates, same angular step) on the same
# micrographs, start-up included, and prints the ratios.
set -euo pipefail

BUILD=build N=6 WORK=/tmp/zavik_bench RELION=1
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --no-relion) RELION=0; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
ZAVIK="$BUILD/zavik" SYNTH="$BUILD/zavik_synth"
[ -x "$ZAVIK" ] && [ -x "$SYNTH" ] || { echo "build zavik and zavik_synth in $BUILD first" >&2; exit 1; }

APIX=1.34 DIAM=200
mkdir -p "$WORK/mics"
for i in $(seq 1 "$N"); do
  f="$WORK/mics/mic$(printf %03d "$i").mrc"
  [ -s "$f" ] || "$SYNTH" --out "$f" --nx 3838 --ny 3710 --apix $APIX --diameter $DIAM --noise 1.0 --seed "$i" >/dev/null
done
[ -s "$WORK/templates.mrcs" ] ||
  "$SYNTH" --out "$WORK/tmp_t.mrc" --nx 64 --ny 64 --count 0 --contamination 0 --apix $APIX --diameter $DIAM \
    --templates "$WORK/templates.mrcs" --ntemplates 6 >/dev/null
MICS=("$WORK"/mics/mic*.mrc)

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
if command -v nvidia-smi >/dev/null 2>&1 && nvidia-smi -L >/dev/null 2>&1; then
  GPU=1
  echo "gpu: $(nvidia-smi --query-gpu=name --format=csv,noheader | head -1)"
else
  GPU=0
fi
echo "micrographs: $N of 3838 x 3710 float, diameter $DIAM A at $APIX A/px"
echo

# Runs a command, prints nothing; sets WALL (s), RSS (MB), GPU_MB, LOG.
measure() {
  LOG="$WORK/last.log"
  local gpulog="$WORK/gpu.log" sampler=""
  rm -f "$gpulog"
  if [ "$GPU" = 1 ]; then
    nvidia-smi --query-gpu=memory.used --format=csv,noheader,nounits -lms 100 >"$gpulog" 2>/dev/null &
    sampler=$!
  fi
  local t0 t1
  t0=$(date +%s.%N)
  if [ -x /usr/bin/time ]; then
    /usr/bin/time -f "MAXRSS %M" "$@" >"$LOG" 2>&1 || { echo "failed: $*" >&2; tail -5 "$LOG" >&2; exit 1; }
  else
    "$@" >"$LOG" 2>&1 || { echo "failed: $*" >&2; tail -5 "$LOG" >&2; exit 1; }
  fi
  t1=$(date +%s.%N)
  [ -n "$sampler" ] && kill "$sampler" 2>/dev/null && wait "$sampler" 2>/dev/null || true
  WALL=$(awk -v a="$t0" -v b="$t1" 'BEGIN {printf "%.3f", b - a}')
  RSS=$(awk '/^MAXRSS/ {r = sprintf("%.0f", $2/1024)} END {print (r == "" ? "-" : r)}' "$LOG")
  GPU_MB=$([ -s "$gpulog" ] && sort -n "$gpulog" | tail -1 || echo "-")
}

div() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", a / b}'; }

# Mean seconds of one stage over the micrographs of the last log.
stage() { awk -v s="$1" -F': ' '$1 ~ ">>>>>>TIME<<<<<< *"s"$" {t+=$2; n++} END {if (n) printf "%.3f", t/n; else print "-"}' "$LOG"; }

# Seconds per micrograph once the run is under way: TOTAL less PREPARATION over N.
steady() { awk -v n="$N" -F': ' '$1 ~ /TOTAL$/ {t = $2} $1 ~ /PREPARATION$/ {p = $2} END {printf "%.3f", (t - p) / n}' "$LOG"; }

report() {
  printf "%-32s %7.3f s/mic wall (%s s/mic after preparation; stages: reading %s, normalization %s, picking %s; preparation %s s)  peak RSS %s MB  GPU %s MB\n" \
    "$1" "$(div "$WALL" "$N")" "$(steady)" "$(stage READING)" "$(stage NORMALIZATION)" "$(stage PICKING)" \
    "$(stage PREPARATION)" "$RSS" "$GPU_MB"
}

measure "$ZAVIK" --apixM $APIX --diameter $DIAM "${MICS[@]}"
Z_GEN=$(div "$WALL" "$N")
report "zavik, generated template"
measure "$ZAVIK" --apixM $APIX --diameter $DIAM --T "$WORK/templates.mrcs" --apixT $APIX "${MICS[@]}"
Z_T6=$(div "$WALL" "$N")
report "zavik, 6 templates at 5 degrees"

# The cost of the automatic cutoff and of filling the rejected areas.
PREC=(--cc_cutoff auto --fill_rejected 1)
measure "$ZAVIK" --apixM $APIX --diameter $DIAM "${PREC[@]}" "${MICS[@]}"
Z_GEN_P=$(div "$WALL" "$N")
report "zavik, generated, auto + fill"
measure "$ZAVIK" --apixM $APIX --diameter $DIAM --T "$WORK/templates.mrcs" --apixT $APIX "${PREC[@]}" "${MICS[@]}"
Z_T6_P=$(div "$WALL" "$N")
report "zavik, 6 templates, auto + fill"
awk -v a="$Z_GEN" -v b="$Z_GEN_P" -v c="$Z_T6" -v d="$Z_T6_P" \
  'BEGIN {printf "cost of --cc_cutoff auto --fill_rejected 1: %+.1f %% (generated template), %+.1f %% (6 templates)\n", 100 * (b / a - 1), 100 * (d / c - 1)}'

# Memory along a list: 2 and 20 micrographs (links to the same data).
mkdir -p "$WORK/list"
for i in $(seq 1 20); do
  ln -sf "${MICS[$(( (i - 1) % N ))]}" "$WORK/list/l$(printf %03d "$i").mrc"
done
measure "$ZAVIK" --apixM $APIX --diameter $DIAM "$WORK"/list/l00[12].mrc
RSS2=$RSS GPU2=$GPU_MB
measure "$ZAVIK" --apixM $APIX --diameter $DIAM "$WORK"/list/l*.mrc
echo "memory along a list: peak RSS $RSS2 MB for 2 micrographs, $RSS MB for 20; GPU $GPU2 MB and $GPU_MB MB"

if [ "$RELION" = 1 ] && command -v relion_autopick >/dev/null 2>&1; then
  echo
  rm -rf "$WORK/relion_log" "$WORK/relion_ref"
  measure relion_autopick --i "$WORK/mics/*.mrc" --odir "$WORK/relion_log/" --pickname autopick --angpix $APIX \
    --LoG --LoG_diam_min 150 --LoG_diam_max 250 --shrink 0 --lowpass 20
  R_LOG=$(div "$WALL" "$N")
  printf "%-34s %7.3f s/mic  peak RSS %s MB\n" "relion_autopick, LoG" "$R_LOG" "$RSS"
  measure relion_autopick --i "$WORK/mics/*.mrc" --odir "$WORK/relion_ref/" --pickname autopick --angpix $APIX \
    --ref "$WORK/templates.mrcs" --angpix_ref $APIX --invert --ang 5 --particle_diameter $DIAM --shrink 0 --lowpass 20
  R_REF=$(div "$WALL" "$N")
  printf "%-34s %7.3f s/mic  peak RSS %s MB\n" "relion_autopick, 6 templates" "$R_REF" "$RSS"
  echo
  printf "ratio zavik/relion, generated template vs LoG:   %.3f\n" "$(div "$Z_GEN" "$R_LOG")"
  printf "ratio zavik/relion, 6 templates at 5 degrees:    %.3f\n" "$(div "$Z_T6" "$R_REF")"
fi
