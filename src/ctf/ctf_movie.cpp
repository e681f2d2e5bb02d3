// Per-frame CTF refinement of a movie or stack.
#include "ctf/ctf_movie.h"

#include "ctf/ctf_refine3.h"
#include "ctf/ctf_spectrum.h"
#include "ctf/curve_fit.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"

int ctf_movie_stack_refine(const float* h_stack, int nx, int ny, int nz, float apix, int boxsize, int step,
                           int convsize, float ps, float kV, float Cs, float ac, float U, float V, float A, float ccc,
                           float B, float resL, float resH, float err, FILE* log, int ave_type, int aveN, int fit,
                           int refine_astm, CTF_REF_CONTROL ctrl, std::vector<CTF_FRAME_VALUE>* values,
                           std::vector<CTF_FRAME_VALUE>* fitted) {
  (void)ccc;
  if (values) values->clear();
  if (fitted) fitted->clear();
  for (int i = 0; i < 127; ++i) putchar('-');
  putchar('\n');
  if (ctrl.refine_ps)
    ctf_say(log, "\n   Defocus_U   Defocus_V       Angle    Phase_shift     CCC\n");
  else
    ctf_say(log, "\n   Defocus_U   Defocus_V       Angle        CCC\n");
  if (ave_type != 1 || aveN < 1) return 0;

  const int nxh = boxsize / 2 + 1;
  const size_t nhalf = (size_t)nxh * boxsize, nimage = (size_t)nx * ny;
  std::vector<float> fU((size_t)nz), fV((size_t)nz), fA((size_t)nz), fC((size_t)nz), fI((size_t)nz);
  // The amplitude sum of every frame once; a group adds those of its frames
  // (amplitudes are averaged over the frames, not the images).
  const int nused = nz >= aveN ? nz : 0;
  ZkDeviceArray<float> d_frame(nimage), d_amp((size_t)(nused > 0 ? nused : 1) * nhalf), d_sum(nhalf), d_tmp(nhalf);
  for (int k = 0; k < nused; ++k) {
    ZK_CHECK(memcpy_H2D(d_frame.get(), h_stack + (size_t)k * nimage, nimage * sizeof(float)));
    hcuda_2d_gridfft_r2c_amp_ave(d_frame.get(), d_amp.get() + (size_t)k * nhalf, nx, ny, boxsize, boxsize, step,
                                 convsize);
  }
  int groups = 0;
  for (int i = 0; i + aveN <= nz; ++i, ++groups) {
    const int c = i + aveN / 2;
    hcuda_empty_float(d_sum.get(), nhalf);
    printf("\n# %d ", c);
    for (int k = i; k < i + aveN; ++k) {
      putchar('.');
      fflush(stdout);
      hcuda_x1d_add_inplace(d_sum.get(), d_amp.get() + (size_t)k * nhalf, nhalf);
    }
    hcuda_2d_fft_amp_log_subbg_inplace(d_sum.get(), boxsize, boxsize, convsize);
    float gU = U, gV = V, gA = A, gc = 0.0f;
    if (refine_astm)
      hcuda_ctfrefine_half2d_local(d_sum.get(), d_tmp.get(), gU, gV, gA, gc, apix, boxsize, boxsize, kV, Cs, ac, ps, U,
                                   V, A, err / 10.0f, 1.0f, B, resL, resH, log);
    // The mean defocus from the same start always gives U, V and the score.
    hcuda_ctfrefine_half2d_only_defave(d_sum.get(), d_tmp.get(), gU, gV, gc, apix, boxsize, boxsize, kV, Cs, ac, ps, U,
                                       V, A, err / 10.0f, B, resL, resH, log);
    fU[(size_t)c] = gU;
    fV[(size_t)c] = gV;
    fA[(size_t)c] = gA;
    fC[(size_t)c] = gc;
    ctf_say(log, "\n");
    if (ctrl.refine_ps)
      ctf_say(log, "%12.2f%12.2f%12.2f%12.2f%12.6f  STACK CTF Value %d\n", gU, gV, gA, ps, gc, c);
    else
      ctf_say(log, "%12.2f%12.2f%12.2f%12.6f  STACK CTF Value %d\n", gU, gV, gA, gc, c);
    if (values) values->push_back(CTF_FRAME_VALUE{c, gU, gV, gA, gc});
  }
  for (int i = 0; i < nz; ++i) fI[(size_t)i] = (float)i;
  if (fit == 1) {
    const int n = nz - aveN, o = aveN / 2;
    if (n < 2) {
      ctf_say(log, "Too few frame groups (%d) for a linear fit; it needs more than %d frames.\n", groups, aveN + 1);
      return 0;
    }
    float a[4], b[4];
    const std::vector<float>* series[4] = {&fU, &fV, &fA, &fC};
    for (int k = 0; k < 4; ++k) line_fit(fI.data() + o, series[k]->data() + o, n, a[k], b[k]);
    ctf_say(log, "Linear fitted stack/movie CTF values:\n");
    for (int i = 0; i < nz; ++i) {
      const float x = (float)i;
      const float u = a[0] * x + b[0], v = a[1] * x + b[1], an = a[2] * x + b[2], cc = a[3] * x + b[3];
      ctf_say(log, "%13.2f%13.2f%13.2f%13.2f STACK CTF Value %d\n", u, v, an, cc, i + 1);
      if (fitted) fitted->push_back(CTF_FRAME_VALUE{i, u, v, an, cc});
    }
  } else if (fit > 1) {
    ctf_say(log, "Does not support non-linear fitting of particle stack defocus in the current version\n");
  }
  return 0;
}
