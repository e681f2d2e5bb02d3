#!/usr/bin/env bash
# The library's layers point down, and library code never ends the process.
#
# core                  failure reports, host/device markers, shared records, text helpers
# parallel              the ranks of an MPI job (the one unit with mpi.h), beside core
# formats, device       file formats; device memory and compute (siblings: neither includes the other)
# imagefile             whole files to and from device arrays
# picking, ctf, volume  the engines
# movie                 frame weighting, on picking's extraction and the CTF model
# driver, toolbox       the front ends: the picker's, and zktool's sub-commands
# programs              one file with main for each executable, on top of everything
#
# Prints every include that points up or sideways and every call of exit or
# abort in library code; status 1 if there is any.
set -uo pipefail
cd "$(dirname "$0")/../src" || exit 1

declare -A may=(
  [core]="core"
  [parallel]="parallel"
  [formats]="core parallel formats"
  [device]="core parallel device"
  [imagefile]="core parallel formats device imagefile"
  [picking]="core parallel formats device imagefile picking"
  [ctf]="core parallel formats device imagefile ctf"
  [volume]="core parallel formats device imagefile volume"
  [movie]="core parallel formats device imagefile picking ctf movie"
  [driver]="core parallel formats device imagefile picking ctf volume movie driver"
  [toolbox]="core parallel formats device imagefile picking ctf volume movie toolbox"
  [programs]="core parallel formats device imagefile picking ctf volume movie driver toolbox"
)
library="core parallel formats device imagefile picking ctf volume movie"

bad=0
for dir in */; do
  layer=${dir%/}
  allowed=${may[$layer]:-}
  if [ -z "$allowed" ]; then
    echo "src/$layer: a folder without a place in the layers (add it to scripts/check_layers.sh)"
    bad=1
    continue
  fi
  while IFS= read -r hit; do
    target=$(sed -E 's/^[^:]*:[0-9]+:.*#include *"([^/"]+)\/.*/\1/' <<<"$hit")
    case " $allowed " in
      *" $target "*) ;;
      *) echo "src/$hit   <- $layer may not include $target/"; bad=1 ;;
    esac
  done < <(grep -rnE '^\s*#\s*include\s*"[^/"]+/' "$layer" --include='*.h' --include='*.cpp' --include='*.cu')
done

for layer in $library; do
  [ -d "$layer" ] || continue
  while IFS= read -r hit; do
    echo "src/$hit   <- library code reports failures to its caller instead of ending the process"
    bad=1
  done < <(grep -rnE '(^|[^_a-zA-Z0-9.>:])(std::)?(exit|abort|_Exit|quick_exit) *\(' "$layer" \
             --include='*.h' --include='*.cpp' --include='*.cu' | grep -vE '^[^:]*:[0-9]+:\s*//')
done

[ "$bad" = 0 ] && echo "Layers point down; no library code ends the process."
exit "$bad"
