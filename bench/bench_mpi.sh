#!/usr/bin/env bash
# Throughput of MPI jobs against one process, on the same micrographs.
#
#   bench/bench_mpi.sh [--build DIR] [--n N] [--ranks "2"] [--work DIR] [--size PX] [--templates]
#
# Generates N micrographs of PX x PX (default 8 of 3838 x 3710 when --size is
# not given) with zavik_synth, then runs zavik, and kesmar, over them as one
# process and as jobs of each rank count in --ranks.  Prints micrographs per second and the speed-up over
# one process, and checks that every output file of each job is the one
# process's byte for byte.  On the host back end the cores are shared out:
# one process takes them all through OpenMP, each of R ranks nproc / R of
# them.  On a GPU machine every rank is given --gid 0, so that N ranks on one
# GPU are measured against one process on it.
set -euo pipefail

BUILD=build N=8 RANKS="2" WORK=/tmp/zavik_bench_mpi NX=3838 NY=3710 TEMPLATES=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --ranks) RANKS="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --size) NX="$2"; NY="$2"; shift 2 ;;
    --templates) TEMPLATES=1; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
ZAVIK="$BUILD/zavik" KESMAR="$BUILD/kesmar" SYNTH="$BUILD/zavik_synth"
[ -x "$ZAVIK" ] && [ -x "$KESMAR" ] && [ -x "$SYNTH" ] || { echo "build zavik, kesmar and zavik_synth in $BUILD first" >&2; exit 1; }
command -v mpirun >/dev/null 2>&1 || { echo "mpirun not found (apt-get install openmpi-bin)" >&2; exit 1; }

CORES=$(nproc)
echo "machine: $CORES cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
GPU=0
if command -v nvidia-smi >/dev/null 2>&1 && nvidia-smi -L >/dev/null 2>&1; then
  GPU=1
  echo "gpu: $(nvidia-smi -L | head -1)"
fi
echo "micrographs: $N of $NX x $NY float"

APIX=1.34 DIAM=200
mkdir -p "$WORK/src"
for i in $(seq 1 "$N"); do
  f="$WORK/src/mic$(printf %03d "$i").mrc"
  [ -s "$f" ] || "$SYNTH" --out "$f" --nx "$NX" --ny "$NY" --apix $APIX --diameter $DIAM --noise 1.0 \
    --defocus 1.5 --seed "$i" >/dev/null
done
ZARGS=(--apixM $APIX --diameter $DIAM)
if [ "$TEMPLATES" = 1 ]; then
  [ -s "$WORK/templates.mrcs" ] ||
    "$SYNTH" --out "$WORK/tmp_t.mrc" --nx 64 --ny 64 --count 0 --contamination 0 --apix $APIX --diameter $DIAM \
      --templates "$WORK/templates.mrcs" --ntemplates 6 >/dev/null
  ZARGS+=(--T "$WORK/templates.mrcs" --apixT $APIX)
fi
KARGS=(--apix $APIX --boxsize 512)

# Runs one job of $1 ranks of program $2 in a fresh copy of the micrographs,
# folder $3; sets SECS.
job() {
  local ranks="$1" prog="$2" dir="$3"
  shift 3
  rm -rf "$dir" && mkdir -p "$dir" && cp "$WORK"/src/*.mrc "$dir"/
  local launch=() threads=$CORES
  if [ "$ranks" -gt 1 ]; then
    threads=$((CORES / ranks)); [ "$threads" -ge 1 ] || threads=1
    launch=(mpirun --oversubscribe --allow-run-as-root --bind-to none -np "$ranks" -x OMP_NUM_THREADS=$threads
            -x OMP_WAIT_POLICY=passive)
  fi
  local t0 t1
  t0=$(date +%s.%N)
  (cd "$dir" && OMP_NUM_THREADS=$threads OMP_WAIT_POLICY=passive "${launch[@]}" "$prog" "$@" ./*.mrc > run.log 2>&1)
  t1=$(date +%s.%N)
  SECS=$(echo "$t1 - $t0" | bc -l)
}

# Every file of folder $2 against the one-process folder $1, but the logs.
same_files() {
  local a="$1" b="$2" f bad=0
  for f in "$a"/*; do
    case "$(basename "$f")" in run.log) continue ;; esac
    cmp -s "$f" "$b/$(basename "$f")" || { echo "  differs: $(basename "$f")"; bad=1; }
  done
  [ "$bad" = 0 ] && echo "  every output byte equal to one process"
}

for prog in zavik kesmar; do
  if [ "$prog" = zavik ]; then exe=$ZAVIK args=("${ZARGS[@]}"); else exe=$KESMAR args=("${KARGS[@]}"); fi
  [ "$GPU" = 1 ] && args+=(--gid 0)
  job 1 "$exe" "$WORK/$prog.1" "${args[@]}"
  base=$SECS
  printf "%-7s 1 process : %8.2f s, %6.2f mic/s\n" "$prog" "$base" "$(echo "$N / $base" | bc -l)"
  for r in $RANKS; do
    job "$r" "$exe" "$WORK/$prog.$r" "${args[@]}"
    printf "%-7s %d ranks   : %8.2f s, %6.2f mic/s, speed-up %.2f\n" "$prog" "$r" "$SECS" \
      "$(echo "$N / $SECS" | bc -l)" "$(echo "$base / $SECS" | bc -l)"
    same_files "$WORK/$prog.1" "$WORK/$prog.$r"
  done
done
