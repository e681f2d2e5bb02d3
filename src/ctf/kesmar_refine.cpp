// The alternating 2D refinement: mean defocus, half defocus difference, angle
// and phase shift improved one at a time, each by reflection, extension and
// bisection on a two-point state carried from cycle to cycle.
#include <cmath>
#include <utility>

#include "ctf/ctf_sim.h"
#include "ctf/kesmar.h"
#include "device/math_utils.h"

float KESMAR_A::kesmar_ccc_sim_with_real_2d_half(PUVA q) {
  const KESMAR_Para& p = *para;
  return ctf_ccc_sim_with_real_2d_half(d_tmp.get(), d_sub.get(), p.apix, nxh, ny, p.kV, p.cs, p.ac, q.ps, q.defU,
                                       q.defV, q.defA, B_cur, resL_cur, resH_cur);
}

void KESMAR_A::kesmar_set_refined_PUVAC(float ps, float U, float V, float A, float ccc) {
  ref_ps = ps;
  ref_defU = U;
  ref_defV = V;
  ref_defA = A;
  ref_ccc = ccc;
}
void KESMAR_A::kesmar_set_refined_PUVAC(PUVA q, float ccc) {
  kesmar_set_refined_PUVAC(q.ps, q.defU, q.defV, q.defA, ccc);
}

void KESMAR_A::kesmar_set_Bres() {
  const KESMAR_Para& p = *para;
  if (!ctrl.do_Hres) {
    B_cur = p.bfac;
    resL_cur = p.resL;
    resH_cur = p.resH;
  } else {
    B_cur = p.Href_bfac;
    resL_cur = p.Href_resL;
    resH_cur = p.Href_resH;
  }
}

void KESMAR_A::kesmar_set_init_defUVA_for_2D_refine(float ps) {
  const KESMAR_Para& p = *para;
  if (p.refine_input_ctf && !p.input_ctfstar_given && p.nfiles == 1) {
    init = PUVA{p.ps_init, p.defU_init, p.defV_init, p.defA_init};
    err = PUVA{p.ps_err, p.defU_err, p.defV_err, p.defA_err};
    def_err = (p.defU_err + p.defV_err) / 2.0f;
    return;
  }
  if (p.refine_input_ctf && p.input_ctfstar_given && p.ctfinit[imic].valid) {
    const CTF_INIT& c = p.ctfinit[imic];
    init = PUVA{c.ps, c.defU, c.defV, c.defA};
    err = PUVA{p.phase_shift_S, p.defU_err, p.defV_err, p.defA_err};
    def_err = (p.defU_err + p.defV_err) / 2.0f;
    printf(
        "input: PS = %f, defocus_U = %f, defocus_V = %f,  defocus_err = %f,  angle_azimuth = %f,  angle_err = %f  \n",
        init.ps, init.defU, init.defV, def_err, init.defA, err.defA);
    return;
  }
  init.ps = ps;
  init.defU = def_1d - p.astm / 2.0f;
  init.defV = def_1d + p.astm / 2.0f;
  kesmar_srand();
  init.defA = kesmar_start_angle(init);
  err.ps = ctrl.refine_ps ? p.phase_shift_S : 0.0f;
  err.defU = err.defV = def_err = p.defS;
  err.defA = 30.0f;
}

// The start angle of a refinement from the 1D result: the best of a sweep
// over [0, 180) in steps of 15 degrees at the assumed astigmatism.  A start
// far from the true angle (45 degrees is the worst) lets the line search on
// the defocus difference shrink it to nothing, after which the angle no
// longer matters and the refinement ends on a round CTF.
float KESMAR_A::kesmar_start_angle(PUVA start) {
  kesmar_set_Bres();
  float best = 0.0f, best_ccc = 0.0f;
  for (int k = 0; k < 12; ++k) {
    start.defA = 15.0f * (float)k;
    const float c = kesmar_ccc_sim_with_real_2d_half(start);
    if (k == 0 || c > best_ccc) {
      best = start.defA;
      best_ccc = c;
    }
  }
  return best;
}

void KESMAR_A::kesmar_set_init_for_Hres_ref() {
  const KESMAR_Para& p = *para;
  init = PUVA{ref_ps, ref_defU, ref_defV, ref_defA};
  err.defA = p.Href_A_err_given ? p.Href_A_err : 5.0f;
  err.ps = (p.do_phase_shift && p.Href_PS_err_given) ? p.Href_PS_err : 2.0f;
  err.defU = p.Href_U_err_given ? p.Href_U_err : 100.0f;
  err.defV = p.Href_V_err_given ? p.Href_V_err : 100.0f;
}

void KESMAR_A::kesmar_set_init_from_ref2d() {
  init = PUVA{ref_ps, ref_defU, ref_defV, ref_defA};
  err.defA = 5.0f;
  err.ps = 2.0f;
  err.defU = err.defV = 100.0f;
}

void KESMAR_A::kesmar_set_init_2DR_Para(CTF_2DR_Para& rp) {
  trial = init;
  const float dif0 = trial.defV - trial.defU;
  const float range = (err.defV + err.defU) / 2.0f;
  rp = CTF_2DR_Para{};
  rp.UV_ave_1 = (trial.defU + trial.defV) / 2.0f;
  rp.UV_ave_2 = rp.UV_ave_1 - range;
  rp.UV_dif_1 = dif0 / 2.0f;
  rp.UV_dif_2 = dif0 / 2.0f - range;
  kesmar_srand();
  rp.A_1 = init.defA;
  rp.A_2 = rp.A_1 - err.defA / 2.0f;
  rp.ps_1 = init.ps;
  rp.ps_2 = rp.ps_1 - err.ps + kesmar_rand_unit() * err.ps / 3.0f;
  if (ctrl.to_log)
    log("* *************************************   2D   REFINE    "
        "************************************************************ *\n");
  // A parameter whose stage is off keeps one point.
  if (!ctrl.refine_UVave) rp.UV_ave_2 = rp.UV_ave_1;
  if (!ctrl.refine_UVdif) rp.UV_dif_2 = rp.UV_dif_1;
  if (!ctrl.refine_A) rp.A_2 = rp.A_1;
  if (!ctrl.refine_ps) rp.ps_2 = rp.ps_1;

  if (ctrl.refine_UVave || ctrl.refine_UVdif) {
    def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, rp.UV_dif_1);
    rp.ccc_1 = kesmar_ccc_sim_with_real_2d_half(trial);
    def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, rp.UV_dif_2);
    rp.ccc_2 = kesmar_ccc_sim_with_real_2d_half(trial);
    if (rp.ccc_1 < rp.ccc_2) {
      std::swap(rp.ccc_1, rp.ccc_2);
      std::swap(rp.UV_dif_1, rp.UV_dif_2);
    }
    def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, rp.UV_dif_1);
  }
  if (ctrl.refine_A) {
    trial.defA = rp.A_1;
    rp.ccc_1 = kesmar_ccc_sim_with_real_2d_half(trial);
    trial.defA = rp.A_2;
    rp.ccc_2 = kesmar_ccc_sim_with_real_2d_half(trial);
    if (rp.ccc_1 < rp.ccc_2) {
      std::swap(rp.ccc_1, rp.ccc_2);
      std::swap(rp.A_1, rp.A_2);
    }
    trial.defA = rp.A_1;
  }
  if (ctrl.refine_ps) {
    trial.ps = rp.ps_1;
    rp.ccc_1 = kesmar_ccc_sim_with_real_2d_half(trial);
    trial.ps = rp.ps_2;
    rp.ccc_2 = kesmar_ccc_sim_with_real_2d_half(trial);
    if (rp.ccc_1 < rp.ccc_2) {
      std::swap(rp.ccc_1, rp.ccc_2);
      std::swap(rp.ps_1, rp.ps_2);
    }
  }
}

namespace {

// One step on one parameter: x1, x2 its two points, c1, c2 their scores,
// score(x) the score with the parameter at x.  jitter is added to the
// reflection so that a symmetric pair does not repeat itself.
template <class Score>
void line_step(float& x1, float& x2, float& xr, float& xe, float& c1, float& c2, float& cr, float& ce, float jitter,
               Score&& score) {
  xr = (float)(2.0 * (double)x1 - (double)x2 + (double)jitter);
  c2 = score(x2);
  cr = score(xr);
  if (cr <= c1) {
    x2 = cr <= c2 ? (x2 + x1) / 2.0f : (xr + x1) / 2.0f;
    c2 = score(x2);
    if (c1 < c2) {
      std::swap(c1, c2);
      std::swap(x1, x2);
    }
  } else {
    xe = 3.0f * x1 - 2.0f * x2;
    ce = score(xe);
    if (cr < ce) {
      cr = ce;
      xr = xe;
    }
    c2 = c1;
    c1 = cr;
    x2 = x1;
    x1 = xr;
  }
}

}  // namespace

void KESMAR_A::kesmar_hcuda_ctfrefine_A_half2d(CTF_2DR_Para& rp) {
  trial.defA = rp.A_1;
  rp.ccc_1 = kesmar_ccc_sim_with_real_2d_half(trial);
  if (ctrl.search_A && !ctrl.do_Hres) {
    for (int i = 1; i <= ctrl.n_search_A; ++i) {
      PUVA t = trial;
      t.defA = rp.A_1 + (float)i * 180.0f / (float)ctrl.n_search_A;
      const float c = kesmar_ccc_sim_with_real_2d_half(t);
      if (ctrl.to_log) log("          %10.2f %10.2f %10.2f %10.2f %10.6f  \n", t.defU, t.defV, t.defA, t.ps, c);
      if (c > rp.ccc_1) {
        const float shift = t.defA - rp.A_1;
        rp.ccc_1 = c;
        rp.A_1 += shift;
        rp.A_2 += shift;
      }
    }
  }
  const float jitter = kesmar_rand_unit() * ctrl.A_tol / 20.0f;
  line_step(rp.A_1, rp.A_2, rp.A_2r, rp.A_2re, rp.ccc_1, rp.ccc_2, rp.ccc_2r, rp.ccc_2re, jitter, [&](float a) {
    trial.defA = a;
    return kesmar_ccc_sim_with_real_2d_half(trial);
  });
  trial.defA = rp.A_1;
  if (ctrl.to_log)
    log("          %10.2f %10.2f %10.2f %10.2f %10.6f \n", rp.U_refined, rp.V_refined, rp.A_1, trial.ps, rp.ccc_1);
}

void KESMAR_A::kesmar_hcuda_ctfrefine_UVave_half2d(CTF_2DR_Para& rp) {
  const float jitter = kesmar_rand_unit() * ctrl.UV_tol / 20.0f;
  line_step(rp.UV_ave_1, rp.UV_ave_2, rp.UV_ave_2r, rp.UV_ave_2re, rp.ccc_1, rp.ccc_2, rp.ccc_2r, rp.ccc_2re, jitter,
            [&](float m) {
              def_AD2UV(trial.defU, trial.defV, m, rp.UV_dif_1);
              return kesmar_ccc_sim_with_real_2d_half(trial);
            });
  def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, rp.UV_dif_1);
  if (ctrl.to_log)
    log("          %10.2f %10.2f %10.2f  %10.2f %10.6f \n", trial.defU, trial.defV, trial.defA, trial.ps, rp.ccc_1);
}

void KESMAR_A::kesmar_hcuda_ctfrefine_UVdif_half2d(CTF_2DR_Para& rp) {
  const float jitter = kesmar_rand_unit() * ctrl.UV_tol / 20.0f;
  line_step(rp.UV_dif_1, rp.UV_dif_2, rp.UV_dif_2r, rp.UV_dif_2re, rp.ccc_1, rp.ccc_2, rp.ccc_2r, rp.ccc_2re, jitter,
            [&](float d) {
              def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, d);
              return kesmar_ccc_sim_with_real_2d_half(trial);
            });
  def_AD2UV(trial.defU, trial.defV, rp.UV_ave_1, rp.UV_dif_1);
  if (ctrl.to_log)
    log("          %10.2f %10.2f %10.2f %10.2f %10.6f \n", trial.defU, trial.defV, trial.defA, trial.ps, rp.ccc_1);
}

void KESMAR_A::kesmar_hcuda_ctfrefine_PS_half2d(CTF_2DR_Para& rp) {
  const float jitter = kesmar_rand_unit() * ctrl.ps_tol / 3.0f;
  line_step(rp.ps_1, rp.ps_2, rp.ps_2r, rp.ps_2re, rp.ccc_1, rp.ccc_2, rp.ccc_2r, rp.ccc_2re, jitter, [&](float s) {
    trial.ps = s;
    return kesmar_ccc_sim_with_real_2d_half(trial);
  });
  trial.ps = rp.ps_1;
  if (ctrl.to_log)
    log("          %10.2f %10.2f %10.2f %10.2f %10.6f\n", trial.defU, trial.defV, trial.defA, trial.ps, rp.ccc_1);
}

void KESMAR_A::kesmar_hcuda_ctfrefine_half2d() {
  const KESMAR_Para& p = *para;
  kesmar_set_Bres();
  CTF_2DR_Para rp;
  kesmar_set_init_2DR_Para(rp);
  if (ctrl.to_log) log("          defocus_U   defocus_V   angle   phase_shift    CCC         \n");
  int cycle = 0;
  for (; cycle < 100; ++cycle) {
    if (ctrl.to_log) log("Cycle: %02d\n", cycle);
    rp.U_refined = rp.UV_ave_1 - rp.UV_dif_1;
    rp.V_refined = rp.UV_ave_1 + rp.UV_dif_1;
    if (!ctrl.refine_A || fabsf(rp.A_1 - rp.A_2) <= ctrl.A_tol)
      ctrl.A_done = 1;
    else
      kesmar_hcuda_ctfrefine_A_half2d(rp);
    if (!ctrl.refine_UVave || fabsf(rp.UV_ave_1 - rp.UV_ave_2) <= ctrl.UV_tol)
      ctrl.UVave_done = 1;
    else
      kesmar_hcuda_ctfrefine_UVave_half2d(rp);
    if (!ctrl.refine_UVdif || fabsf(rp.UV_dif_1 - rp.UV_dif_2) <= ctrl.UV_tol)
      ctrl.UVdif_done = 1;
    else
      kesmar_hcuda_ctfrefine_UVdif_half2d(rp);
    // A run that targets the resolution limit never moves the phase shift here.
    if (p.phase_shift_T != 1 || !ctrl.refine_ps || fabsf(rp.ps_1 - rp.ps_2) <= ctrl.ps_tol)
      ctrl.ps_done = 1;
    else
      kesmar_hcuda_ctfrefine_PS_half2d(rp);
    if (ctrl.A_done && ctrl.UVave_done && ctrl.UVdif_done && ctrl.ps_done) {
      ctrl.reset_is_refined();
      rp.U_refined = rp.UV_ave_1 - rp.UV_dif_1;
      rp.V_refined = rp.UV_ave_1 + rp.UV_dif_1;
      rp.A_1 = hd_mod_angle_m90_p90(rp.A_1);
      if (ctrl.to_log)
        log("**************************************   LAST CYCLE    "
            "*************************************************************\n");
      break;
    }
  }
  if (cycle == 100 && ctrl.warn_cycles) {
    puts("\x1b[43mWARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\x1b[m");
    log("WARNING: Too man refinement cycles, Kesmar might have failed on this micrograph!\n");
  }
  kesmar_set_refined_PUVAC(rp.ps_1, rp.U_refined, rp.V_refined, rp.A_1, rp.ccc_1);
  kesmar_hcuda_ctfrefine_end_half2d();
}

void KESMAR_A::kesmar_hcuda_ctfrefine_end_half2d() {
  const KESMAR_Para& p = *para;
  hd_format_PUVA(ref_ps, ref_defU, ref_defV, ref_defA);
  hcuda_ctf_mod_simulate_2d_half(d_tmp.get(), p.apix, nxh, ny, p.kV, p.cs, p.ac, ref_ps, ref_defU, ref_defV, ref_defA,
                                 p.bfac, p.resL, p.resH);
  hcuda_2d_half_res_based_square(d_sq.get(), d_tmp.get(), p.apix, nxh, ny, p.resL, p.resH);
  ref_ccc /= sqrtf(hcuda_fast_sum_inplace(d_sq.get(), (size_t)nhalf));
  hcuda_2d_half_res_based_square(d_sq.get(), d_sub.get(), p.apix, nxh, ny, p.resL, p.resH);
  ref_ccc /= sqrtf(hcuda_fast_sum_inplace(d_sq.get(), (size_t)nhalf));
  kesmar_hcuda_ctfrefine_output_FinalValues();
}

void KESMAR_A::kesmar_hcuda_ctfrefine_output_FinalValues() {
  if (ctrl.to_log) {
    if (!ctrl.refine_ps) {
      log("\n   Defocus_U   Defocus_V       Angle        CCC\n");
      log("%12.2f%12.2f%12.2f%12.6f  Final Values\n\n", ref_defU, ref_defV, ref_defA, ref_ccc);
    } else {
      log("\n   Defocus_U   Defocus_V       Angle    Phase_shift     CCC\n");
      log("%12.2f%12.2f%12.2f%12.2f%12.6f  Final Values\n\n", ref_defU, ref_defV, ref_defA, ref_ps, ref_ccc);
    }
  }
  if (ctrl.to_screen) {
    if (!ctrl.refine_ps) {
      puts("\n   Defocus_U   Defocus_V       Angle          CCC");
      printf(ctrl.do_Hres ? "%12.2f%12.2f%12.2f%12.6f  Final Values (Hres refine)\n\n"
                          : "%12.2f%12.2f%12.2f%12.6f  Final Values\n\n",
             ref_defU, ref_defV, ref_defA, ref_ccc);
    } else {
      puts("\n   Defocus_U   Defocus_V       Angle      Phase_shift     CCC");
      printf(ctrl.do_Hres ? "%12.2f%12.2f%12.2f%12.2f%16.6f  Final Values (Hres refine)\n\n"
                          : "%12.2f%12.2f%12.2f%12.2f%16.6f  Final Values\n\n",
             ref_defU, ref_defV, ref_defA, ref_ps, ref_ccc);
    }
  }
}
