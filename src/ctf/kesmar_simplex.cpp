// Refinement strategies 2 and 3: the simplex over (phase shift, U, V, angle)
// in place of the alternating line search, with the same score, band and
// finish.
#include <cstdio>

#include "ctf/ctf_simplex.h"
#include "ctf/kesmar.h"

void KESMAR_A::kesmar_set_init_simplex(float ps) {
  const KESMAR_Para& p = *para;
  const float a = p.astm, U0 = def_1d - a / 2.0f, V0 = def_1d + a / 2.0f;
  const float A0 = kesmar_rand_unit() * 60.0f;
  const float dP = (p.do_phase_shift && ctrl.refine_ps) ? p.phase_shift_S : 0.0f;
  simplex[0] = PUVA{ps, U0, V0, A0};
  simplex[1] = PUVA{ps + dP, U0 - a, V0, A0};
  simplex[2] = PUVA{ps, U0 - a, V0 + a, A0};
  simplex[3] = PUVA{ps, U0, V0 + a, A0 + 30.0f};
  simplex[4] = PUVA{ps + dP, U0, V0, A0 + 30.0f};
}

void KESMAR_A::kesmar_set_init_simplex_from_ref2d() {
  const float P0 = ref_ps, U0 = ref_defU, V0 = ref_defV, A0 = ref_defA;
  const float dP = para->do_phase_shift ? -para->phase_shift_S : 0.0f;
  simplex[0] = PUVA{P0, U0, V0, A0};
  simplex[1] = PUVA{P0 + dP, U0 + 100.0f, V0, A0};
  simplex[2] = PUVA{P0, U0 + 100.0f, V0 - 100.0f, A0};
  simplex[3] = PUVA{P0, U0, V0 - 100.0f, A0 + 5.0f};
  simplex[4] = PUVA{P0 + dP, U0, V0, A0 + 5.0f};
}

PUVA KESMAR_A::kesmar_get_ctf_simplex_center() { return ctf_simplex_center(simplex); }
PUVA KESMAR_A::kesmar_get_ctf_simplex_reflect(int i) { return ctf_simplex_reflect(simplex, i); }
PUVA KESMAR_A::kesmar_get_ctf_simplex_rextend(int i) { return ctf_simplex_rextend(simplex, i); }

void KESMAR_A::kesmar_hcuda_ctfrefine_simplex_half2d(int strategy) {
  kesmar_set_Bres();
  char line[128];
  snprintf(line, sizeof line, "******** ******** ********  using refinement strategy: %d  ******** ******** ********\n",
           strategy);
  if (ctrl.to_log) log("%s", line);
  if (ctrl.to_screen) fputs(line, stdout);
  // Strategy 3 holds the phase shift to the angle's tolerance and the angle
  // to the phase shift's.
  const CTF_SIMPLEX_TOL tol = strategy == 2 ? CTF_SIMPLEX_TOL{ctrl.ps_tol, ctrl.UV_tol, ctrl.A_tol}
                                            : CTF_SIMPLEX_TOL{ctrl.A_tol, ctrl.UV_tol, ctrl.ps_tol};
  float best_score = 0.0f;
  const int cycle = ctf_simplex_search(
      simplex, strategy, tol, 300, [this](PUVA q) { return kesmar_ccc_sim_with_real_2d_half(q); }, best_vertex,
      best_score);
  if (cycle == 300 && ctrl.warn_cycles) {
    puts("\x1b[43mWARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\x1b[m");
    log("WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\n");
  }
  kesmar_set_refined_PUVAC(simplex[best_vertex], best_score);
  kesmar_hcuda_ctfrefine_end_half2d();
}

void KESMAR_A::kesmar_hcuda_ctfrefine_simplex2_half2d() { kesmar_hcuda_ctfrefine_simplex_half2d(2); }
void KESMAR_A::kesmar_hcuda_ctfrefine_simplex3_half2d() { kesmar_hcuda_ctfrefine_simplex_half2d(3); }
