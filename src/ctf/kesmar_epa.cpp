// The run's uses of the equiphase average: the .epa picture and the
// refinement on the average, and the resolution limit of the fit.
#include "ctf/ctf_epa.h"
#include "ctf/kesmar.h"

void KESMAR_A::kesmar_do_epa_2d() {
  const KESMAR_Para& p = *para;
  hcuda_2d_half_EPA(d_sub.get(), d_epa.get(), p.apix, nxh, ny, ref_ps, p.kV, p.cs, p.ac, ref_defU, ref_defV, ref_defA,
                    p.ctfout_resL, p.ctfout_resH);
  ZK_CHECK(memcpy_D2H(h_epa_half.data(), d_epa.get(), (size_t)nhalf * sizeof(float)));
}

// The resolution limit of the summary line: the highest resolution at which
// the refined CTF still agrees with the spectrum, that is the first
// resolution finer than resL where the local correlation between the
// equiphase average of d_sub and the simulated |CTF| turns negative (the
// highest resolution of the walk, near Nyquist, when it never does).  The
// average is the binned one, a single pass over the plane.
void KESMAR_A::kesmar_set_res_limit() {
  const KESMAR_Para& p = *para;
  res_limit = p.resL;
  ZK_CHECK(memcpy_D2H(h_epa_half.data(), d_sub.get(), (size_t)nhalf * sizeof(float)));
  ctf_epa_1d_ccf_binned(res_limit, p.resL, h_epa_half.data(), p.EPA_oversmp, p.apix, nxh, ny, ref_ps, p.kV, p.cs, p.ac,
                        ref_defU, ref_defV, ref_defA, p.resL, 2.0f * p.apix + 0.1f);
  log("Resolution limit estimated by EPA: RES_LIMIT %.3f \n", res_limit);
}

void KESMAR_A::kesmar_epa_1d_ccf_B_estimation() {
  const KESMAR_Para& p = *para;
  for (int i = 0; i < 127; ++i) putchar('-');
  putchar('\n');
  if (p.estimate_B) {
    float res = 20.0f;
    ctf_epa_1d_ccf_B_estimation(log_fp, mic_name, res, 20.0f, d_sub.get(), d_bg.get(), p.EPA_oversmp, p.apix, nxh, ny,
                                ref_ps, p.kV, p.cs, p.ac, ref_defU, ref_defV, ref_defA, p.resL, 2.0f * p.apix + 0.1f,
                                p.B_resL, p.B_resH, p.estimate_B);
  }
  for (int i = 0; i < 127; ++i) putchar('-');
  putchar('\n');
}
