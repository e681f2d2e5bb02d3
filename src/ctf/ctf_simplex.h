// A five-vertex simplex over (phase shift, defocus U, defocus V, angle) that
// maximises a score.  Each move offers a vertex three places: the centre of
// the simplex (the mean of all five vertices, the moving one included), its
// reflection through the centre and the reflection extended once more.
#pragma once
#include <functional>

#include "ctf/ctf_core.h"

// Field by field: the mean of the five vertices; 2 centre - vertex i;
// 3 centre - 2 vertex i.
PUVA ctf_simplex_center(const PUVA* s);
PUVA ctf_simplex_reflect(const PUVA* s, int i);
PUVA ctf_simplex_rextend(const PUVA* s, int i);

// Convergence of a simplex: every field differs between the best and the
// worst vertex by less than its tolerance.
struct CTF_SIMPLEX_TOL {
  float ps, UV, A;
};

// The best (highest score) and worst vertex; of equal scores the first counts.
void ctf_simplex_best_worst(const float* score, int& best, int& worst);

// Strategy 2 moves the worst vertex once per cycle, strategy 3 offers the
// moves to every vertex in turn.  The search stops when converged or after
// max_cycles - 1 cycles.  s (five vertices) is updated in place; best and
// best_score receive the result.  Returns the cycle counter at the end, which
// equals max_cycles when the search ran out.
int ctf_simplex_search(PUVA* s, int strategy, CTF_SIMPLEX_TOL tol, int max_cycles,
                       const std::function<float(PUVA)>& score, int& best, float& best_score);
