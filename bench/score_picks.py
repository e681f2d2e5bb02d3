#!/usr/bin/env python3
"""Scores the picks of one picker against the known particles of bench_accuracy.sh.

score_picks.py LABEL DIR SUFFIX TOL BOX NX NY DIAM_PX [CUTOFF | sweep | auto:LOG]

For every DIR/*_truth.box the picks are DIR/<stem>SUFFIX (.box or .star).  A
pick is right when it lies within TOL pixels of a true centre not yet taken
(picks taken in order of falling score); recall counts the true particles
whose box lies inside the micrograph.  The last word chooses the picks:
a number keeps those at or above that score, "sweep" also reports the best
F1 over every fixed cutoff, "auto:LOG" takes each micrograph's cutoff from
the "Automatic cutoff for ..." lines of a zavik log.  False picks within two
diameters of contamination, an aggregate or the carbon film (from
DIR/<stem>_features.txt when there is one) are counted apart.
"""
import glob
import math
import os
import re
import sys


def box_centres(name):
    out = []
    for line in open(name):
        w = line.split()
        if len(w) >= 4:
            score = float(w[4]) if len(w) > 4 else 0.0
            out.append((float(w[0]) + float(w[2]) / 2, float(w[1]) + float(w[3]) / 2, score))
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
                score = float(w[labels.index("_rlnAutopickFigureOfMerit")]) if "_rlnAutopickFigureOfMerit" in labels else 0.0
                out.append((float(w[labels.index("_rlnCoordinateX")]), float(w[labels.index("_rlnCoordinateY")]), score))
    return out


def near_feature(p, features, reach):
    for kind, a, b, c in features:
        if kind in ("contamination", "aggregate"):
            if math.hypot(p[0] - a, p[1] - b) - c < reach:
                return True
        elif kind == "carbon" and a * p[0] + b * p[1] > c - reach:
            return True
    return False


def main():
    label, d, suffix = sys.argv[1], sys.argv[2], sys.argv[3]
    tol, box, nx, ny, diam = float(sys.argv[4]), int(sys.argv[5]), int(sys.argv[6]), int(sys.argv[7]), float(sys.argv[8])
    mode = sys.argv[9] if len(sys.argv) > 9 else "-1e30"
    auto = {}
    if mode.startswith("auto:"):
        for line in open(mode[5:]):
            m = re.match(r"Automatic cutoff for (\S+): (\S+),", line)
            if m:
                auto[os.path.basename(m.group(1))] = float(m.group(2))
            m = re.match(r"Automatic cutoff for (\S+): no candidate", line)
            if m:
                auto[os.path.basename(m.group(1))] = math.inf
    rows = []  # (score, right, near) of every pick
    n_truth = mics = 0
    for tname in sorted(glob.glob(os.path.join(d, "*_truth.box"))):
        stem = tname[: -len("_truth.box")]
        pname = stem + suffix
        if not os.path.exists(pname):
            sys.exit("%s: missing %s" % (label, pname))
        truth = [c for c in box_centres(tname) if box / 2 <= c[0] <= nx - box / 2 and box / 2 <= c[1] <= ny - box / 2]
        picks = star_centres(pname) if pname.endswith(".star") else box_centres(pname)
        if mode.startswith("auto:"):
            cut = auto.get(os.path.basename(stem) + ".mrc", math.inf)
            picks = [p for p in picks if p[2] >= cut]
        features = []
        fname = stem + "_features.txt"
        if os.path.exists(fname):
            for line in open(fname):
                w = line.split()
                features.append((w[0], float(w[1]), float(w[2]), float(w[3])))
        used = [False] * len(truth)
        for p in sorted(picks, key=lambda q: -q[2]):
            best, bd = -1, tol
            for i, t in enumerate(truth):
                dd = math.hypot(p[0] - t[0], p[1] - t[1])
                if not used[i] and dd <= bd:
                    best, bd = i, dd
            if best >= 0:
                used[best] = True
            rows.append((p[2], best >= 0, best < 0 and near_feature(p, features, 2 * diam)))
        n_truth += len(truth)
        mics += 1

    def stats(cut):
        sel = [r for r in rows if r[0] >= cut]
        tp = sum(1 for r in sel if r[1])
        r = tp / n_truth if n_truth else 1.0
        p = tp / len(sel) if sel else 1.0
        f = 2 * p * r / (p + r) if p + r > 0 else 0.0
        return r, p, f, len(sel), sum(1 for x in sel if x[2])

    cut = -1e30 if mode in ("sweep",) or mode.startswith("auto:") else float(mode)
    r, p, f, n, near = stats(cut)
    line = "%-34s recall %5.3f  precision %5.3f  F1 %5.3f  picks/mic %6.1f  false near features %3d" % (
        label, r, p, f, n / max(mics, 1), near)
    if mode == "sweep":
        best = max((stats(s)[2], s) for s in sorted(set(x[0] for x in rows)))
        line += "  best F1 %5.3f at %.3f" % best
    print(line)


if __name__ == "__main__":
    main()
