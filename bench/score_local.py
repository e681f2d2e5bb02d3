#!/usr/bin/env python3
"""Per-particle defocus error: a particle STAR file of kesmar_more local
against the generator's per-particle truth (matched by centre), and the error
the micrograph's single value would have.

    score_local.py truth.star local.star [summary.star micrograph]
Prints: n, mean and worst |dU|, |dV| of the local values (A), and, when the
summary is given, the mean |dU| of the whole-micrograph value."""
import sys


def rows(path):
    out = []
    for line in open(path):
        w = line.split()
        if len(w) >= 5 and not w[0].startswith(("_", "data_", "loop_", "#")):
            out.append(w)
    return out


def main():
    truth = {(int(float(w[0])), int(float(w[1]))): (float(w[2]), float(w[3])) for w in rows(sys.argv[1])}
    local = rows(sys.argv[2])
    du, dv = [], []
    for w in local:
        key = (int(float(w[1])), int(float(w[2])))
        if key not in truth:
            continue
        u, v = truth[key]
        du.append(abs(float(w[4]) - u))
        dv.append(abs(float(w[5]) - v))
    n = len(du)
    if n == 0:
        print("no particle matched")
        return 1
    line = "n %d  local |dU| mean %.1f worst %.1f  |dV| mean %.1f worst %.1f" % (
        n, sum(du) / n, max(du), sum(dv) / n, max(dv))
    if len(sys.argv) > 4:
        whole = None
        for w in rows(sys.argv[3]):
            if w[0].endswith(sys.argv[4]):
                whole = float(w[2])
        if whole is not None:
            e = [abs(whole - truth[k][0]) for k in truth]
            line += "  whole-micrograph |dU| mean %.1f worst %.1f" % (sum(e) / len(e), max(e))
    print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
