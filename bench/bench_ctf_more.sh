#!/usr/bin/env bash
# Accuracy and speed of kesmar_more on generated data with known CTFs.
#
#   bench/bench_ctf_more.sh [--build DIR] [--n N] [--size PX] [--work DIR] [--noise S] [--seed S] [--keep]
#
# Three sets of N each, PX x PX (default 4096) at 1 A/px, mean defocus 1 to 3 um,
# astigmatism 0 to 800 A, white noise S times the specimen image's deviation:
#  - tilted: the specimen tilted by 30 degrees about a random axis, 60
#    particles each.  kesmar finds the whole-micrograph CTF, kesmar_more local
#    the per-particle CTF; both are compared with the defocus at each particle.
#  - movies: 12 frames whose defocus grows by 40 A per frame.  kesmar, then
#    kesmar_more frames (groups of 5, a fitted line): the group values and the
#    fitted line against each frame's defocus.
#  - flat: kesmar, then kesmar_more validate of kesmar's result and of that
#    result with both defoci 20 % low.  A result is sound when no band grades
#    below 3 (USABLE).
# Times every operation per micrograph (wall seconds; host back end unless the
# build has CUDA and a GPU answers).
set -euo pipefail

BUILD=build N=1 SIZE=4096 WORK=/tmp/kesmar_more_bench NOISE=3 SEED=1 KEEP=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --size) SIZE="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --noise) NOISE="$2"; shift 2 ;;
    --seed) SEED="$2"; shift 2 ;;
    --keep) KEEP=1; shift ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
KESMAR="$BUILD/kesmar" MORE="$BUILD/kesmar_more" SYNTH="$BUILD/ctf_synth"
for b in "$KESMAR" "$MORE" "$SYNTH"; do [ -x "$b" ] || { echo "build $(basename "$b") in $BUILD first" >&2; exit 1; }; done
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to score the results" >&2; exit 1; }
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
rm -rf "$WORK" && mkdir -p "$WORK"
TIMES="$WORK/times.txt"
: > "$TIMES"

# Wall seconds of a command, added to the times table under a label.
timed() {
  local label="$1"; shift
  local t0 t1
  t0=$(date +%s.%N)
  "$@"
  t1=$(date +%s.%N)
  echo "$label $(echo "$t1 - $t0" | bc -l)" >> "$TIMES"
}

draw() {  # name defU defV angle axis seed, one line per micrograph
  python3 - "$1" "$2" <<'PY'
import random, sys
n, seed = int(sys.argv[1]), int(sys.argv[2])
r = random.Random(seed)
for i in range(n):
    mean, astig = r.uniform(10000, 30000), r.uniform(0, 800)
    print(f"{i:03d} {mean - astig / 2:.1f} {mean + astig / 2:.1f} {r.uniform(0, 180):.2f} "
          f"{r.uniform(0, 180):.2f} {r.randrange(1, 1 << 30)}")
PY
}

# ---- tilted specimens: per-particle defocus
T="$WORK/tilted"; mkdir -p "$T"
draw "$N" "$((SEED * 10 + 1))" | while read -r i u v a axis seed; do
  "$SYNTH" --out "$T/t$i.mrc" --nx "$SIZE" --ny "$SIZE" --apix 1 --defu "$u" --defv "$v" --angle "$a" --tilt 30 --tilt_axis "$axis" \
    --tilt_step 60 --noise "$NOISE" --seed "$seed" --particles 60 --pbox 200 --boxes "$T/t${i}_zavik.box" \
    --ptruth "$T/t${i}_truth.star" > /dev/null
done
(cd "$T" && timed kesmar "$KESMAR" --apix 1 --ctfstar sum ./t*.mrc > kesmar.out)
for m in "$T"/t???.mrc; do
  b="${m%.mrc}"
  (cd "$T" && timed local "$MORE" local --ctfstar sum.star --boxsuffix _zavik.box "$(basename "$m")" > "${b}_more.out")
  python3 "$ROOT/bench/score_local.py" "${b}_truth.star" "${b}_local.star" "$T/sum.star" "$(basename "$m")" \
    >> "$WORK/local.txt"
done

# ---- drifting movies: per-frame defocus
M="$WORK/movies"; mkdir -p "$M"
draw "$N" "$((SEED * 10 + 2))" | while read -r i u v a axis seed; do
  "$SYNTH" --out "$M/m$i.mrc" --nx "$SIZE" --ny "$SIZE" --apix 1 --defu "$u" --defv "$v" --angle "$a" --frames 12 --drift 40 \
    --noise "$NOISE" --seed "$seed" --ftruth "$M/m${i}_frames.txt" > /dev/null
done
(cd "$M" && timed kesmar-movie "$KESMAR" --apix 1 --mdef_ave_type 1 --ctfstar sum ./m*.mrc > kesmar.out)
for m in "$M"/m???.mrc; do
  b="${m%.mrc}"
  (cd "$M" && timed frames "$MORE" frames --ctfstar sum.star --aveN 5 "$(basename "$m")" > "${b}_more.out")
  python3 - "${b}_frames.txt" "${b}_more.out" >> "$WORK/frames.txt" <<'PY'
import re, sys
truth = {}
for line in open(sys.argv[1]):
    if not line.startswith("#"):
        f, u, v = line.split()
        truth[int(f)] = (float(u) + float(v)) / 2
group, fitted, in_fit = [], [], False
for line in open(sys.argv[2]):
    m = re.match(r"\s*([-\d.]+)\s+([-\d.]+)\s+([-\d.]+)\s+([-\d.]+)\s+STACK CTF Value (\d+)", line)
    if "Linear fitted" in line:
        in_fit = True
    if not m:
        continue
    # The mean defocus: U and V may come exchanged with the angle turned by 90.
    u, k = (float(m.group(1)) + float(m.group(2))) / 2, int(m.group(5))
    if in_fit:
        fitted.append(abs(u - truth[k - 1]))
    else:
        group.append(abs(u - truth[k]))
def mw(x):
    return "%7.1f %7.1f" % (sum(x) / len(x), max(x)) if x else "    n/a     n/a"
print("%-6s groups %2d  group |dZ| %s   fitted |dZ| %s   drift 40 A/frame, total %d A" % (
    sys.argv[1].split("/")[-1][:4], len(group), mw(group), mw(fitted), 40 * (len(truth) - 1)))
PY
done

# ---- validation of right and wrong results
F="$WORK/flat"; mkdir -p "$F"
draw "$N" "$((SEED * 10 + 3))" | while read -r i u v a axis seed; do
  "$SYNTH" --out "$F/f$i.mrc" --nx "$SIZE" --ny "$SIZE" --apix 1 --defu "$u" --defv "$v" --angle "$a" --noise "$NOISE" --seed "$seed" > /dev/null
done
(cd "$F" && "$KESMAR" --apix 1 --ctfstar sum ./f*.mrc > kesmar.out)
python3 - "$F/sum.star" "$F/wrong.star" <<'PY'
import sys
out = open(sys.argv[2], "w")
for line in open(sys.argv[1]):
    w = line.split()
    if len(w) >= 12 and not w[0].startswith(("_", "data_", "loop_")):
        w[2], w[3] = "%.6f" % (float(w[2]) * 0.8), "%.6f" % (float(w[3]) * 0.8)
        line = " ".join(w) + "\n"
    out.write(line)
PY
for m in "$F"/f???.mrc; do
  n="$(basename "$m")"
  for which in sum wrong; do
    (cd "$F" && timed validate "$MORE" validate --ctfstar "$which.star" "$n" > "${m%.mrc}_$which.out")
    low=$(grep -o "Lowest validation score of .*: [0-9] ([A-Z]*)" "${m%.mrc}_$which.out" | sed 's/.*: //')
    grades=$(grep -oE "(PERFECT|GOOD|USABLE|BAD|WRONG) " "${m%.mrc}_$which.out" | tr -d ' ' | tr '\n' ' ')
    verdict=unsound
    case "$low" in [345]*) verdict=sound ;; esac
    printf "%-8s %-22s lowest %-12s %-8s bands: %s\n" "$n" "$([ $which = sum ] && echo "kesmar's result" ||
      echo "defocus 20 % low")" "$low" "$verdict" "$grades" >> "$WORK/validation.txt"
  done
done

if grep -qh "back end stands in" "$T/kesmar.out"; then
  echo "Back end: host, $(nproc) cores"
else
  echo "Back end: GPU $(nvidia-smi --query-gpu=name --format=csv,noheader 2>/dev/null | head -1)"
fi
echo
echo "Per-particle mean defocus, 30 degree tilt, 1 A/px, 60 particles per micrograph (error against each particle's):"
cat "$WORK/local.txt"
echo
echo "Per-frame mean defocus, 12 frames drifting 40 A per frame, groups of 5:"
cat "$WORK/frames.txt"
echo
echo "Validation (sound: no band below USABLE):"
cat "$WORK/validation.txt"
echo
echo "Wall seconds per micrograph (kesmar for the whole list divided by its length):"
awk -v n="$N" '{ s[$1] += $2; c[$1]++ } END {
  for (k in s) printf "  %-14s %8.2f\n", k, (k ~ /^kesmar/ ? s[k] / n : s[k] / c[k]) }' "$TIMES" | sort
[ "$KEEP" = 1 ] || rm -f "$T"/*.mrc "$M"/*.mrc "$F"/*.mrc "$T"/*.ctf "$M"/*.ctf "$F"/*.ctf "$T"/*.pow "$M"/*.pow "$F"/*.pow
