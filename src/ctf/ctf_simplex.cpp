// The simplex search of the CTF refinement's strategies 2 and 3.
#include "ctf/ctf_simplex.h"

#include <cmath>

PUVA ctf_simplex_center(const PUVA* s) {
  PUVA c = {0.0f, 0.0f, 0.0f, 0.0f};
  for (int i = 0; i < 5; ++i) {
    c.ps += s[i].ps;
    c.defU += s[i].defU;
    c.defV += s[i].defV;
    c.defA += s[i].defA;
  }
  c.ps /= 5.0f;
  c.defU /= 5.0f;
  c.defV /= 5.0f;
  c.defA /= 5.0f;
  return c;
}

PUVA ctf_simplex_reflect(const PUVA* s, int i) {
  const PUVA c = ctf_simplex_center(s);
  return PUVA{2.0f * c.ps - s[i].ps, 2.0f * c.defU - s[i].defU, 2.0f * c.defV - s[i].defV, 2.0f * c.defA - s[i].defA};
}

PUVA ctf_simplex_rextend(const PUVA* s, int i) {
  const PUVA c = ctf_simplex_center(s);
  return PUVA{3.0f * c.ps - 2.0f * s[i].ps, 3.0f * c.defU - 2.0f * s[i].defU, 3.0f * c.defV - 2.0f * s[i].defV,
              3.0f * c.defA - 2.0f * s[i].defA};
}

void ctf_simplex_best_worst(const float* score, int& best, int& worst) {
  float hi = -1e10f, lo = 1e10f;
  best = worst = 0;
  for (int i = 0; i < 5; ++i) {
    if (score[i] > hi) {
      hi = score[i];
      best = i;
    }
    if (score[i] < lo) {
      lo = score[i];
      worst = i;
    }
  }
}

namespace {

bool converged(const PUVA& a, const PUVA& b, CTF_SIMPLEX_TOL tol) {
  return fabsf(a.ps - b.ps) < tol.ps && fabsf(a.defU - b.defU) < tol.UV && fabsf(a.defV - b.defV) < tol.UV &&
         fabsf(a.defA - b.defA) < tol.A;
}

// Offers vertex i the centre, the reflection and the extension; m is its
// score, updated when it moves.  The centre must beat the vertex; of the
// reflection and the extension the better wins only when it also beats the
// centre.
void move_vertex(PUVA* s, int i, float& m, const std::function<float(PUVA)>& score) {
  const PUVA c = ctf_simplex_center(s), r = ctf_simplex_reflect(s, i), e = ctf_simplex_rextend(s, i);
  const float sc = score(c), sr = score(r), se = score(e);
  if (!(m < sc)) return;
  if (sr <= sc) {
    s[i] = c;
    m = sc;
  } else if (se <= sr) {
    s[i] = r;
    m = sr;
  } else {
    s[i] = e;
    m = se;
  }
}

}  // namespace

int ctf_simplex_search(PUVA* s, int strategy, CTF_SIMPLEX_TOL tol, int max_cycles,
                       const std::function<float(PUVA)>& score, int& best, float& best_score) {
  float sv[5];
  for (int i = 0; i < 5; ++i) sv[i] = score(s[i]);
  int worst = 0;
  ctf_simplex_best_worst(sv, best, worst);
  int cycle = 1;
  for (; cycle < max_cycles; ++cycle) {
    if (strategy == 2) {
      sv[worst] = score(s[worst]);
      move_vertex(s, worst, sv[worst], score);
    } else {
      for (int i = 0; i < 5; ++i) {
        sv[i] = score(s[i]);
        move_vertex(s, i, sv[i], score);
      }
    }
    ctf_simplex_best_worst(sv, best, worst);
    if (converged(s[best], s[worst], tol)) break;
  }
  best_score = sv[best];
  return cycle;
}
