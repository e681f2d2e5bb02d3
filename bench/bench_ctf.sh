#!/usr/bin/env bash
# Accuracy and speed of the CTF engine on generated micrographs with known CTFs.
#
#   bench/bench_ctf.sh [--build DIR] [--n N] [--nps N] [--work DIR] [--noise "4 10"] [--seed S] [--keep]
#
# For each noise level (deviation of the white noise in units of the
# specimen image's) generates N micrographs of 3838 x 3710 at 1 A/px with
# ctf_synth: mean defocus 0.5 to 4 um, astigmatism 0 to 1500 A at random
# angles, B-factor 60 to 150; and NPS phase-plate micrographs with phase
# shifts 0 to 150 degrees.  Runs kesmar on each set (default options; the
# phase-plate set with --phase_shift_L 0 --phase_shift_H 180) and compares the
# summary STAR file with the generator's truth line by line: mean and worst
# absolute error of defocus U and V (A and %), of the angle where the
# astigmatism exceeds 300 A, of the phase shift, and the failures (a defocus
# error above 5 %).  Times the runs: seconds per micrograph over the whole
# list and after the one-time preparation, CPU seconds, and peak memory (resident set;
# on the GPU back end also the device memory reported by nvidia-smi).
#
# The back end is the build's: a CUDA build uses the GPU where one answers.
# OMP_WAIT_POLICY=passive is set unless given, so that the host back end's
# threads do not spin against other work on a shared machine.
set -euo pipefail

BUILD=build N=10 NPS=3 WORK=/tmp/kesmar_bench NOISE="4 10" SEED=1 KEEP=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --nps) NPS="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --noise) NOISE="$2"; shift 2 ;;
    --seed) SEED="$2"; shift 2 ;;
    --keep) KEEP=1; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
KESMAR="$BUILD/kesmar" SYNTH="$BUILD/ctf_synth"
[ -x "$KESMAR" ] && [ -x "$SYNTH" ] || { echo "build kesmar and ctf_synth in $BUILD first" >&2; exit 1; }
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to score the results" >&2; exit 1; }
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
mkdir -p "$WORK"

# The random CTFs of one set, one line each: name defU defV angle ps bfactor seed.
draw() {
  python3 - "$1" "$2" "$3" "$4" <<'PY'
import random, sys
prefix, n, with_ps, seed = sys.argv[1], int(sys.argv[2]), sys.argv[3] == "1", int(sys.argv[4])
r = random.Random(seed)
for i in range(n):
    mean = r.uniform(5000, 40000)
    astig = r.uniform(0, 1500)
    u, v = mean - astig / 2, mean + astig / 2
    ps = r.uniform(0, 150) if with_ps else 0.0
    angle, bfac, s = r.uniform(0, 180), r.uniform(60, 150), r.randrange(1, 1 << 30)
    print(f"{prefix}{i:03d}.mrc {u:.1f} {v:.1f} {angle:.2f} {ps:.2f} {bfac:.0f} {s}")
PY
}

score() {
  python3 - "$1" "$2" "$3" <<'PY'
import sys
label, truth, result = sys.argv[1], sys.argv[2], sys.argv[3]
def rows(path):
    out = {}
    for line in open(path):
        w = line.split()
        if len(w) >= 12 and not w[0].startswith(("_", "data_", "loop_")):
            out[w[0].split("/")[-1]] = w
    return out
t, r = rows(truth), rows(result)
dA, dP, aerr, perr, fails, missing = [], [], [], [], 0, 0
for name, tw in t.items():
    if name not in r:
        missing += 1
        continue
    rw = r[name]
    u, v, a = float(tw[2]), float(tw[3]), float(tw[4])
    U, V, A = float(rw[2]), float(rw[3]), float(rw[4])
    # U and V with the angle, or exchanged with the angle turned by 90: the same CTF.
    if abs(u - V) + abs(v - U) < abs(u - U) + abs(v - V):
        U, V, A = V, U, A + 90
    e = [abs(u - U), abs(v - V)]
    dA += e
    dP += [e[0] / u * 100, e[1] / v * 100]
    if max(e[0] / u, e[1] / v) > 0.05:
        fails += 1
    if abs(u - v) > 300:
        d = abs(A - a) % 180
        aerr.append(min(d, 180 - d))
    if len(tw) >= 13 and len(rw) >= 13:
        d = abs(float(rw[12]) - float(tw[12])) % 180
        perr.append(min(d, 180 - d))
def mw(x):
    return ("%8.3f %8.3f" % (sum(x) / len(x), max(x))) if x else "     n/a      n/a"
print(f"{label:22s} {len(t):4d} {mw(dA)} {mw(dP)} {mw(aerr)} {mw(perr)} {fails:5d} {missing:5d}")
PY
}

run_set() {  # run_set <dir> <kesmar options>
  local dir="$1"; shift
  local log="$dir/kesmar.out" tm="$dir/time.txt" smi=""
  if command -v nvidia-smi > /dev/null 2>&1; then
    nvidia-smi --query-gpu=memory.used --format=csv,noheader,nounits -lms 100 > "$dir/gpumem.txt" 2> /dev/null &
    smi=$!
  fi
  (cd "$dir" && /usr/bin/time -v "$KESMAR" --apix 1 "$@" --ctfstar result ./*.mrc > "$log" 2> "$tm") || {
    echo "kesmar failed in $dir" >&2; tail -5 "$log" >&2; exit 1; }
  local gpu=""
  if [ -n "$smi" ]; then
    kill "$smi" 2> /dev/null || true
    gpu=$(sort -n "$dir/gpumem.txt" | tail -1)
    [ -n "$gpu" ] && gpu=" (GPU, all processes: $gpu MB)"
  fi
  local n wall prep rss cpu
  n=$(ls "$dir"/*.mrc | wc -l)
  wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {
    n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s }' "$tm")
  prep=$(awk '/PREPARATION/ {print $NF+0}' "$log")
  rss=$(awk -F': ' '/Maximum resident set size/ {printf "%.0f", $2 / 1024}' "$tm")
  cpu=$(awk -F': ' '/User time|System time/ {s += $2} END {print s}' "$tm")
  printf "%-22s %4d %10.3f %10.3f %10.3f %8s MB%s\n" "$(basename "$dir")" "$n" "$(echo "$wall / $n" | bc -l)" \
    "$(echo "($wall - $prep) / $n" | bc -l)" "$(echo "$cpu / $n" | bc -l)" "$rss" "$gpu" >> "$WORK/timing.txt"
}

: > "$WORK/timing.txt"
: > "$WORK/accuracy.txt"
for noise in $NOISE; do
  for kind in std ps; do
    count=$N with=0 opts=()
    if [ "$kind" = ps ]; then count=$NPS with=1 opts=(--phase_shift_L 0 --phase_shift_H 180); fi
    [ "$count" -gt 0 ] || continue
    dir="$WORK/${kind}_noise$noise"
    rm -rf "$dir" && mkdir -p "$dir"
    set_seed=$((SEED * 1000 + ${noise%.*} * 10 + with))
    draw "m" "$count" "$with" "$set_seed" | while read -r name u v a ps b seed; do
      psopt=()
      [ "$with" = 1 ] && psopt=(--ps "$ps")
      "$SYNTH" --out "$dir/$name" --apix 1 --defu "$u" --defv "$v" --angle "$a" "${psopt[@]}" --bfactor "$b" \
        --noise "$noise" --seed "$seed" --truth "$dir/truth.star" > /dev/null
    done
    run_set "$dir" "${opts[@]}"
    score "$(basename "$dir")" "$dir/truth.star" "$dir/result.star" >> "$WORK/accuracy.txt"
    [ "$KEEP" = 1 ] || rm -f "$dir"/*.mrc "$dir"/*.ctf "$dir"/*.pow
  done
done

if grep -qh "back end stands in" "$WORK"/*/kesmar.out; then
  echo "Back end: host, $(nproc) cores"
else
  echo "Back end: GPU $(nvidia-smi --query-gpu=name --format=csv,noheader 2>/dev/null | head -1)"
fi
echo
echo "Accuracy: mean and worst absolute error; angle where astigmatism > 300 A; failures: defocus error > 5 %"
echo "set                       n  dF mean  dF max   dF% mean dF% max  ang mean ang max   ps mean  ps max  fails  lost"
cat "$WORK/accuracy.txt"
echo
echo "Speed: wall seconds per micrograph over the list and after preparation, CPU seconds per micrograph,"
echo "peak resident memory"
echo "set                       n    s/mic   s/mic-prep  cpu-s/mic   peak RSS"
cat "$WORK/timing.txt"
