// The coarse searches: the one defocus whose round CTF matches the radial
// average of the spectrum best, and on a phase-plate run a full search and
// refinement at every trial phase shift.
#include <cstring>

#include "ctf/ctf_epa.h"
#include "ctf/ctf_sim.h"
#include "ctf/kesmar.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {

bool refines(int refine_2d_T) { return refine_2d_T >= 1 && refine_2d_T <= 3; }

}  // namespace

// A refinement from the 1D result (from_1d) or from the refined values, by
// the run's strategy: the alternating line search or one of the simplexes.
void KESMAR_A::kesmar_refine_by_strategy(bool from_1d, float ps) {
  const int T = para->refine_2d_T;
  if (T == 2 || T == 3) {
    if (from_1d)
      kesmar_set_init_simplex(ps);
    else
      kesmar_set_init_simplex_from_ref2d();
    kesmar_hcuda_ctfrefine_simplex_half2d(T);
  } else if (T == 1) {
    kesmar_hcuda_ctfrefine_half2d();
  }
}

void KESMAR_A::kesmar_1D_search2(float ps) {
  const KESMAR_Para& p = *para;
  rotational_average_2d_half(h_sub_half.data(), h_rot1d.data(), nxh, ny);
  ZK_CHECK(memcpy_H2D(d_rot1d.get(), h_rot1d.data(), (size_t)nxh * sizeof(float)));
  for (int i = 0; i < ndef; ++i) h_def_value[i] = (float)i * p.defS + p.defL;
  ZK_CHECK(memcpy_H2D(d_def_value.get(), h_def_value.data(), (size_t)ndef * sizeof(float)));
  hcuda_ctf_mod_simulate_1ds_multi_defocus(d_sim1d.get(), p.apix, nxh, ps, p.kV, p.cs, p.ac, d_def_value.get(), ndef,
                                           p.bfac, p.resL, p.resH);
  hcuda_dot_manydata_with_one(d_sim1d.get(), d_rot1d.get(), nxh, d_def_ccc.get(), (size_t)ndef);
  ZK_CHECK(memcpy_D2H(h_def_ccc.data(), d_def_ccc.get(), (size_t)ndef * sizeof(float)));
  def_1d = h_def_value[max_index(h_def_ccc.data(), (size_t)ndef)];
  for (int i = 0; i < ndef; ++i) {
    if (ctrl.to_log)
      log("%8d %10.3f %10.6f\n", i, h_def_value[i], h_def_ccc[i]);
    else if (ctrl.to_screen)
      printf("%8d %10.3f %10.6f\n", i, h_def_value[i], h_def_ccc[i]);
  }
}

int KESMAR_A::kesmar_1D_search_2D_refine_simplex_noPS() {
  const KESMAR_Para& p = *para;
  ctrl.do_Hres = 0;
  kesmar_1D_search2(0.0f);
  // Without a refinement the result is the round CTF of the search.
  kesmar_set_refined_PUVAC(0.0f, def_1d, def_1d, 0.0f, 0.0f);
  if (refines(p.refine_2d_T)) {
    if (p.refine_2d_T == 1) kesmar_set_init_defUVA_for_2D_refine(0.0f);
    kesmar_refine_by_strategy(true, 0.0f);
    if (p.do_Hres_ref) {
      ctrl.set_PHSLC(0, 1, 1, 1, 1);
      if (p.refine_2d_T == 1) kesmar_set_init_for_Hres_ref();
      kesmar_refine_by_strategy(false, 0.0f);
    }
  }
  return 0;
}

int KESMAR_A::kesmar_1D_search_2D_refine_simplex_PS() {
  const KESMAR_Para& p = *para;
  const bool refine = refines(p.refine_2d_T);
  const bool line = p.refine_2d_T == 1;
  float best_res = 20.0f, best_ccc = -1.0f;
  const float limit = 20.0f;
  PUVA best = {0.0f, 0.0f, 0.0f, 0.0f};
  if (p.phase_shift_T == 1)
    puts("searching phase shift ... \n Phase_shift      def_U         def_V         Angle       CCC        ");
  else
    puts(
        "searching phase shift ... \n Phase_shift      def_U         def_V         Angle       CCC          Res_limit");
  for (float ps = p.phase_shift_L; ps < p.phase_shift_H; ps += p.phase_shift_S) {
    ctrl.set_PHSLC(p.cosearch_refine_ps ? 1 : 0, 0, 0, 0, 0);
    kesmar_1D_search2(ps);
    kesmar_set_refined_PUVAC(ps, def_1d, def_1d, 0.0f, 0.0f);
    if (refine) {
      if (line) kesmar_set_init_defUVA_for_2D_refine(ps);
      kesmar_refine_by_strategy(true, ps);
    }
    const PUVA here = {ref_ps, ref_defU, ref_defV, ref_defA};
    if (p.phase_shift_T == 1) {
      say("%12.2f %12.2f %12.2f %12.2f %12.6f \n", ref_ps, ref_defU, ref_defV, ref_defA, ref_ccc);
      if (ref_ccc > best_ccc) {
        best = here;
        best_ccc = ref_ccc;
      }
    } else {
      float res = limit;
      ctf_epa_1d_ccf(res, limit, d_sub.get(), d_bg.get(), p.EPA_oversmp, p.apix, nxh, ny, ref_ps, p.kV, p.cs, p.ac,
                     ref_defU, ref_defV, ref_defA, p.resL, 2.0f * p.apix + 0.1f, p.B_resL, p.B_resH);
      say("%12.2f %12.2f %12.2f %12.2f %12.6f %12.4f \n", ref_ps, ref_defU, ref_defV, ref_defA, ref_ccc, res);
      if (res < best_res) {
        best_res = res;
        best_ccc = ref_ccc;
        best = here;
      }
    }
    if (!(p.phase_shift_S > 0.0f)) break;  // a step of 0 tries the lowest shift once
  }

  ctrl.set_PHSLC(1, 0, 1, 1, 1);
  kesmar_set_refined_PUVAC(best, best_ccc);
  if (!p.only_search_ps) {
    init = best;
    if (refine) {
      if (line) kesmar_set_init_from_ref2d();
      kesmar_refine_by_strategy(false, 0.0f);
    }
  } else {
    kesmar_hcuda_ctfrefine_output_FinalValues();
  }

  if (p.refine_after_EPA) {
    say("Refining after EPA ...     phase_shfift  defocus_U  defocus_V  angle  ccc \nInput: %12.2f %12.2f %12.2f "
        "%12.2f "
        "%12.6f",
        ref_ps, ref_defU, ref_defV, ref_defA, ref_ccc);
    kesmar_do_epa_2d();
    ZK_CHECK(memcpy_D2H(h_sub_half.data(), d_sub.get(), (size_t)nhalf * sizeof(float)));
    ZK_CHECK(memcpy_D2D(d_sub.get(), d_epa.get(), (size_t)nhalf * sizeof(float)));
    if (refine) {
      if (line) kesmar_set_init_defUVA_for_2D_refine(ref_ps);
      kesmar_refine_by_strategy(false, 0.0f);
    }
    ZK_CHECK(memcpy_H2D(d_sub.get(), h_sub_half.data(), (size_t)nhalf * sizeof(float)));
  }
  ctrl.refine_ps = 0;
  return 0;
}
