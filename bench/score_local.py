#!/usr/bin/env python3
"""Per-particle defocus error: a particle STAR file of kesmar_more local
against the generator's per-particle truth (matched by centre), and the error
the micrograph's single value would have.  The error is that of the mean
defocus (U + V)/2, which does not depend on how U, V and the angle are named.

    score_local.py truth.star local.star [summary.star micrograph]
Prints: n, mean and worst |dZ| of the local values (A), and, when the summary
is given, those of the whole-micrograph value."""
import sys


def rows(path):
    out = []
    for line in open(path):
        w = line.split()
        if len(w) >= 5 and not w[0].startswith(("_", "data_", "loop_", "#")):
            out.append(w)
    return out


def main():
    truth = {(int(float(w[0])), int(float(w[1]))): (float(w[2]) + float(w[3])) / 2 for w in rows(sys.argv[1])}
    local = rows(sys.argv[2])
    dz = []
    for w in local:
        key = (int(float(w[1])), int(float(w[2])))
        if key in truth:
            dz.append(abs((float(w[4]) + float(w[5])) / 2 - truth[key]))
    n = len(dz)
    if n == 0:
        print("no particle matched")
        return 1
    line = "%-6s n %d  local |dZ| mean %6.1f worst %6.1f" % (sys.argv[2].split("/")[-1].replace("_local.star", ""), n, sum(dz) / n,
                                                               max(dz))
    if len(sys.argv) > 4:
        whole = None
        for w in rows(sys.argv[3]):
            if w[0].endswith(sys.argv[4]):
                whole = (float(w[2]) + float(w[3])) / 2
        if whole is not None:
            e = [abs(whole - z) for z in truth.values()]
            line += "   whole-micrograph |dZ| mean %6.1f worst %6.1f" % (sum(e) / len(e), max(e))
    print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
