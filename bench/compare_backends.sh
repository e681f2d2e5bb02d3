#!/usr/bin/env bash
# Picks the same synthetic micrographs on the GPU and on the host back end and
# compares every output file, byte for byte.
#
#   bench/compare_backends.sh [--build DIR] [--n N] [--work DIR] [--size NX NY]
#
# Needs a build with the CUDA back end and a GPU; the host run hides the GPU
# from the CUDA runtime (CUDA_VISIBLE_DEVICES=""), so the host back end stands
# in.  Runs the generated template and a stack of 6 templates at 5 degrees.
set -euo pipefail
BUILD=build N=3 WORK=/tmp/zavik_cmp NX=3838 NY=3710
while [ $# -gt 0 ]; do
  case "$1" in
    --build) BUILD="$2"; shift 2 ;;
    --n) N="$2"; shift 2 ;;
    --work) WORK="$2"; shift 2 ;;
    --size) NX="$2"; NY="$3"; shift 3 ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
done
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
case "$BUILD" in /*) ;; *) BUILD="$ROOT/$BUILD" ;; esac
ZAVIK="$BUILD/zavik" SYNTH="$BUILD/zavik_synth"
APIX=1.34 DIAM=200

rm -rf "$WORK"
mkdir -p "$WORK/src"
for i in $(seq 1 "$N"); do
  "$SYNTH" --out "$WORK/src/m$i.mrc" --nx "$NX" --ny "$NY" --apix $APIX --diameter $DIAM --noise 1.0 --seed "$i" >/dev/null
done
"$SYNTH" --out "$WORK/t.mrc" --nx 64 --ny 64 --count 0 --contamination 0 --apix $APIX --diameter $DIAM \
  --templates "$WORK/T.mrcs" --ntemplates 6 >/dev/null

# Coordinate files: every column but the score must agree exactly; the
# largest score difference is printed.
compare_coords() {
  paste -d'|' "$1" "$2" | awk -F'|' '
    { na = split($1, a, /[ \t]+/); nb = split($2, b, /[ \t]+/)
      if (na != nb) { bad++; next }
      for (i = 1; i <= na; i++) {
        if (a[i] == b[i]) continue
        if (a[i] ~ /^-?[0-9]+\.[0-9]+$/ && b[i] ~ /^-?[0-9]+\.[0-9]+$/ && (i == 5 || i == na)) {
          d = a[i] - b[i]; if (d < 0) d = -d; if (d > maxd) maxd = d; nd++
        } else bad++
      } }
    END { printf "    %d lines; %d other fields differ; %d scores differ, by at most %g\n", NR, bad, nd, maxd }'
  [ "$(wc -l <"$1")" = "$(wc -l <"$2")" ] || echo "    line counts differ: $(wc -l <"$1") and $(wc -l <"$2")"
}
# MRC images: the largest difference relative to the largest value.
compare_mrc() {
  python3 - "$1" "$2" <<'PY' 2>/dev/null || echo "    (python3 with numpy needed for the image comparison)"
import sys, numpy as np
a = np.fromfile(sys.argv[1], dtype=np.float32, offset=1024)
b = np.fromfile(sys.argv[2], dtype=np.float32, offset=1024)
print("    %d samples; largest difference %.3g of the largest value %.3g" % (a.size, np.abs(a - b).max(), np.abs(a).max()))
PY
}

status=0
run_case() {  # name, zavik options...
  local name="$1"
  shift
  for side in gpu host; do
    mkdir -p "$WORK/$name/$side"
    for f in "$WORK"/src/*.mrc; do ln -sf "$f" "$WORK/$name/$side/$(basename "$f")"; done
  done
  "$ZAVIK" "$@" "$WORK/$name"/gpu/*.mrc >"$WORK/$name/gpu.log" 2>&1
  CUDA_VISIBLE_DEVICES="" "$ZAVIK" "$@" "$WORK/$name"/host/*.mrc >"$WORK/$name/host.log" 2>&1
  grep -q "stands in" "$WORK/$name/gpu.log" && echo "note: the GPU run did not use a GPU"
  grep -q "stands in" "$WORK/$name/host.log" || echo "note: the host run used a GPU"
  local same=0 differ=0
  for g in "$WORK/$name"/gpu/*_*; do
    h="$WORK/$name/host/$(basename "$g")"
    if cmp -s "$g" "$h"; then
      same=$((same + 1))
    else
      differ=$((differ + 1))
      status=1
      echo "  differs: $(basename "$g")"
      case "$g" in
        *.box | *.star) compare_coords "$h" "$g" ;;
        *.mrc | *.mrcs) compare_mrc "$h" "$g" ;;
      esac
    fi
  done
  echo "$name: $same output files identical, $differ different"
}
run_case generated --apixM $APIX --diameter $DIAM --write_ccmax_mic 1 --write_bgfree_mic 1 --write_mic_mask 1
run_case templates6 --apixM $APIX --diameter $DIAM --T "$WORK/T.mrcs" --apixT $APIX
exit $status
