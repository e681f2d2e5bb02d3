#include "ctf/ctf_sim.h"

#include <cmath>
#include <vector>

#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"

namespace {

ZkCtfTrial trial_of(const CTF_INFO& c, RESO r) {
  return zk_ctf_trial(c.kV, c.Cs, c.ac, c.ps, c.defU, c.defV, c.defA, c.B, r.resL, r.resH);
}

// A band given in either order, as resL >= resH.
void order_band(float& resL, float& resH) {
  if (resL < resH) {
    const float t = resL;
    resL = resH;
    resH = t;
  }
}

// The value of a mode letter at a frequency s and pixel coordinates (x, Y).
HDI float zk_ctf_mode_xy(const ZkCtfTrial& t, float s, float x, float Y, float ps, char mode) {
  if (!zk_ctf_in_band(t, s)) return 0.0f;
  const float gamma = hd_ctf_gamma_z(s, zk_ctf_z_xy(t, x, Y), t.lambda, t.Ccs);
  return hd_ctf_mode_value(s, gamma, t.ac, ps, t.B, mode);
}

HDI float zk_s_1dh(unsigned int i, int n, float apix) { return (float)i / (2.0f * (float)(n - 1) * apix); }
HDI float zk_s_2d(int X, int Y, int nx, float apix) { return sqrtf((float)(X * X + Y * Y)) / ((float)nx * apix); }

// Host staging of the record family: the device form into a temporary.
template <class F>
void stage_to_host(float* h, size_t n, F&& fill) {
  ZkDeviceArray<float> d(n);
  fill(d.get());
  ZK_CHECK(memcpy_D2H(h, d.get(), n * sizeof(float)));
}

}  // namespace

// ===========================================================================
// |C| curves and planes

void hcuda_ctf_mod_simulate_1d(float* d, float apix, int n, float ps, float kV, float Cs, float ac, float Z, float B,
                               float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, Z, Z, 0.0f, B, resL, resH);
  launch_1d((size_t)n, [=] HD(unsigned int i) { d[i] = zk_ctf_mod_value(t, zk_s_1dh(i, n, apix), t.zmean); });
}

void hcuda_ctf_phase_simulate_1d(float* d, float apix, int n, float ps, float kV, float Cs, float ac, float Z, float B,
                                 float resL, float resH) {
  (void)B;
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, Z, Z, 0.0f, 0.0f, resL, resH);
  launch_1d((size_t)n, [=] HD(unsigned int i) {
    const float s = zk_s_1dh(i, n, apix);
    d[i] = zk_ctf_in_band(t, s) ? hd_ctf_phase_from_gamma(hd_ctf_gamma_z(s, t.zmean, t.lambda, t.Ccs), t.ac, ps) : 0.0f;
  });
}

void hcuda_ctf_mod_simulate_1ds(float* d, float apix, int n, int m, float ps, float kV, float Cs, float ac, float Z,
                                float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, Z, Z, 0.0f, B, resL, resH);
  launch_2d(n, m, [=] HD(int x, int y) {
    d[(size_t)y * n + x] = zk_ctf_mod_value(t, zk_s_1dh((unsigned int)x, n, apix), t.zmean);
  });
}

void hcuda_ctf_mod_simulate_1ds_multi_defocus(float* d, float apix, int n, float ps, float kV, float Cs, float ac,
                                              const float* d_Z, int m, float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, 0.0f, 0.0f, 0.0f, B, resL, resH);
  launch_2d(n, m, [=] HD(int x, int y) {
    d[(size_t)y * n + x] = zk_ctf_mod_value(t, zk_s_1dh((unsigned int)x, n, apix), d_Z[y]);
  });
}

void hcuda_ctf_mod_simulate_2d(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac, float U,
                               float V, float A, float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, B, resL, resH);
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int X = x - nx / 2, Y = y - ny / 2;
    d[(size_t)y * nx + x] = zk_ctf_mod_value(t, zk_s_2d(X, Y, nx, apix), zk_ctf_z_xy(t, (float)X, (float)Y));
  });
}

void hcuda_ctf_mod_simulate_2d_half(float* d, float apix, int nx, int ny, float kV, float Cs, float ac, float ps,
                                    float U, float V, float A, float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, B, resL, resH);
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int Y = y - ny / 2;
    d[(size_t)y * nx + x] = zk_ctf_mod_value(t, zk_ctf_s_half(x, Y, nx, apix), zk_ctf_z_xy(t, (float)x, (float)Y));
  });
}
void hcuda_ctf_mod_simulate_2d_half2(float* d, float apix, int nx, int ny, const CTF_INFO* c, RESO r) {
  hcuda_ctf_mod_simulate_2d_half(d, apix, nx, ny, c->kV, c->Cs, c->ac, c->ps, c->defU, c->defV, c->defA, c->B, r.resL,
                                 r.resH);
}

void hcuda_ctf_modsquare_simulate_2d_half(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac,
                                          float U, float V, float A, float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, B, resL, resH);
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int Y = y - ny / 2;
    const float s = zk_ctf_s_half(x, Y, nx, apix);
    float v = 0.0f;
    if (zk_ctf_in_band(t, s)) {
      const float c = zk_ctf_contrast(t, s, zk_ctf_z_xy(t, (float)x, (float)Y));
      v = (c * c) * hd_bfac(s, t.B);
    }
    d[(size_t)y * nx + x] = v;
  });
}
void hcuda_ctf_modsquare_simulate_2d_half2(float* d, float apix, int nx, int ny, const CTF_INFO* c, RESO r) {
  hcuda_ctf_modsquare_simulate_2d_half(d, apix, nx, ny, c->ps, c->kV, c->Cs, c->ac, c->defU, c->defV, c->defA, c->B,
                                       r.resL, r.resH);
}

// ===========================================================================
// Score

void hcuda_ctf_sim_mul_real_2d_half(float* d, const float* real, float apix, int nx, int ny, float kV, float Cs,
                                    float ac, float ps, float U, float V, float A, float B, float resL, float resH) {
  order_band(resL, resH);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, B, resL, resH);
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int Y = y - ny / 2;
    const size_t i = (size_t)y * nx + x;
    const float m = zk_ctf_mod_value(t, zk_ctf_s_half(x, Y, nx, apix), zk_ctf_z_xy(t, (float)x, (float)Y));
    d[i] = m == 0.0f ? 0.0f : real[i] * m;
  });
}

float ctf_ccc_sim_with_real_2d_half(float* d, const float* real, float apix, int nx, int ny, float kV, float Cs,
                                    float ac, float ps, float U, float V, float A, float B, float resL, float resH) {
  hcuda_ctf_sim_mul_real_2d_half(d, real, apix, nx, ny, kV, Cs, ac, ps, U, V, A, B, resL, resH);
  return hcuda_fast_sum_inplace(d, (size_t)nx * ny);
}
float ctf_ccc_sim_with_real_2d_half_inplace(float* real, float apix, int nx, int ny, float kV, float Cs, float ac,
                                            float ps, float U, float V, float A, float B, float resL, float resH) {
  return ctf_ccc_sim_with_real_2d_half(real, real, apix, nx, ny, kV, Cs, ac, ps, U, V, A, B, resL, resH);
}

void hcuda_2d_half_phase_flip(const float2* in, float2* out, float apix, int nx, int ny, float ps, float kV, float Cs,
                              float ac, float U, float V, float A) {
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, 0.0f, 1.0f, 1.0f);
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int Y = y - ny / 2;
    const size_t i = (size_t)y * nx + x;
    const float c = zk_ctf_contrast(t, zk_ctf_s_half(x, Y, nx, apix), zk_ctf_z_xy(t, (float)x, (float)Y));
    out[i] = c > 0.0f ? in[i] : make_f2(-in[i].x, -in[i].y);
  });
}

void hcuda_2d_half_res_based_square(float* out, const float* in, float apix, int nx, int ny, float resL, float resH) {
  order_band(resL, resH);
  const float sL = 1.0f / resL, sH = 1.0f / resH;
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const float s = zk_ctf_s_half(x, y - ny / 2, nx, apix);
    const size_t i = (size_t)y * nx + x;
    out[i] = (s < sL || s > sH) ? 0.0f : in[i] * in[i];
  });
}

void hcuda_x2d_half_res_based_multiply_inplace(float* a, const float* b, float apix, int nx, int ny, float resL,
                                               float resH) {
  order_band(resL, resH);
  const float sL = 1.0f / resL, sH = 1.0f / resH;
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const float s = zk_ctf_s_half(x, y - ny / 2, nx, apix);
    const size_t i = (size_t)y * nx + x;
    a[i] = (s < sL || s > sH) ? 0.0f : a[i] * b[i];
  });
}

// ===========================================================================
// Record family

void hcuda_ctf_sim_1dh(float* d, int n, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  const float ps = ctf.ps;
  launch_1d((size_t)n,
            [=] HD(unsigned int i) { d[i] = zk_ctf_mode_xy(t, zk_s_1dh(i, n, apix), (float)i, 0.0f, ps, mode); });
}
void gpu_ctf_sim_1dh(float* h, int n, float apix, CTF_INFO ctf, RESO reso, char mode) {
  stage_to_host(h, (size_t)n, [&](float* d) { hcuda_ctf_sim_1dh(d, n, apix, ctf, reso, mode); });
}
void cpu_ctf_sim_1dh(float* h, int n, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  for (int i = 0; i < n; ++i)
    h[i] = zk_ctf_mode_xy(t, zk_s_1dh((unsigned int)i, n, apix), (float)i, 0.0f, ctf.ps, mode);
}

namespace {
HDI float zk_sim_2dh_at(const ZkCtfTrial& t, int x, int y, int nx, int ny, float apix, float ps, char mode) {
  const int Y = y - ny / 2;
  return zk_ctf_mode_xy(t, zk_ctf_s_half(x, Y, nx, apix), (float)x, (float)Y, ps, mode);
}
HDI float zk_sim_2d_at(const ZkCtfTrial& t, int x, int y, int nx, int ny, float apix, float ps, char mode) {
  const int X = x - nx / 2, Y = y - ny / 2;
  return zk_ctf_mode_xy(t, zk_s_2d(X, Y, nx, apix), (float)X, (float)Y, ps, mode);
}
}  // namespace

void hcuda_ctf_sim_2dh(float* d, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  const float ps = ctf.ps;
  launch_2d(nx, ny, [=] HD(int x, int y) { d[(size_t)y * nx + x] = zk_sim_2dh_at(t, x, y, nx, ny, apix, ps, mode); });
}
void gpu_ctf_sim_2dh(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  stage_to_host(h, (size_t)nx * ny, [&](float* d) { hcuda_ctf_sim_2dh(d, nx, ny, apix, ctf, reso, mode); });
}
void cpu_ctf_sim_2dh(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) h[(size_t)y * nx + x] = zk_sim_2dh_at(t, x, y, nx, ny, apix, ctf.ps, mode);
}

void hcuda_ctf_sim_2d(float* d, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  const float ps = ctf.ps;
  launch_2d(nx, ny, [=] HD(int x, int y) { d[(size_t)y * nx + x] = zk_sim_2d_at(t, x, y, nx, ny, apix, ps, mode); });
}
void gpu_ctf_sim_2d(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  stage_to_host(h, (size_t)nx * ny, [&](float* d) { hcuda_ctf_sim_2d(d, nx, ny, apix, ctf, reso, mode); });
}
void cpu_ctf_sim_2d(float* h, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) h[(size_t)y * nx + x] = zk_sim_2d_at(t, x, y, nx, ny, apix, ctf.ps, mode);
}

void hcuda_ctf_simXraw_2dh(float* d, const float* raw, int nx, int ny, float apix, CTF_INFO ctf, RESO reso, char mode) {
  const ZkCtfTrial t = trial_of(ctf, reso);
  const float ps = ctf.ps;
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const size_t i = (size_t)y * nx + x;
    d[i] = raw[i] * zk_sim_2dh_at(t, x, y, nx, ny, apix, ps, mode);
  });
}
float hcuda_ctf_sim_dot_raw_2dh(float* d, const float* raw, int nx, int ny, float apix, CTF_INFO ctf, RESO reso,
                                char mode) {
  hcuda_ctf_simXraw_2dh(d, raw, nx, ny, apix, ctf, reso, mode);
  return hcuda_fast_sum_inplace(d, (size_t)nx * ny);
}

void hcuda_ctf_sim_1dhs(float* d, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) hcuda_ctf_sim_1dh(d + (size_t)k * n, n, apix, ctfs[k], reso, mode);
}
void gpu_ctf_sim_1dhs(float* h, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) gpu_ctf_sim_1dh(h + (size_t)k * n, n, apix, ctfs[k], reso, mode);
}
void cpu_ctf_sim_1dhs(float* h, int n, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) cpu_ctf_sim_1dh(h + (size_t)k * n, n, apix, ctfs[k], reso, mode);
}
void hcuda_ctf_sim_2dhs(float* d, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) hcuda_ctf_sim_2dh(d + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}
void gpu_ctf_sim_2dhs(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) gpu_ctf_sim_2dh(h + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}
void cpu_ctf_sim_2dhs(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) cpu_ctf_sim_2dh(h + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}
void hcuda_ctf_sim_2ds(float* d, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) hcuda_ctf_sim_2d(d + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}
void gpu_ctf_sim_2ds(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) gpu_ctf_sim_2d(h + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}
void cpu_ctf_sim_2ds(float* h, int nx, int ny, float apix, const CTF_INFO* ctfs, int m, RESO reso, char mode) {
  for (int k = 0; k < m; ++k) cpu_ctf_sim_2d(h + (size_t)k * nx * ny, nx, ny, apix, ctfs[k], reso, mode);
}

// Record-free forms: the same samples from separate values.
void hcuda_ctf_sim_1dh_c(float* d, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                         float resL, float resH, char mode) {
  hcuda_ctf_sim_1dh(d, (int)n, apix, CTF_INFO(kV, Cs, ac, ps, Z, Z, 0.0f, B), RESO{resL, resH}, mode);
}
void gpu_ctf_sim_1dh_c(float* h, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                       float resL, float resH, char mode) {
  gpu_ctf_sim_1dh(h, (int)n, apix, CTF_INFO(kV, Cs, ac, ps, Z, Z, 0.0f, B), RESO{resL, resH}, mode);
}
void cpu_ctf_sim_1dh_c(float* h, unsigned int n, float apix, float kV, float Cs, float ac, float ps, float Z, float B,
                       float resL, float resH, char mode) {
  cpu_ctf_sim_1dh(h, (int)n, apix, CTF_INFO(kV, Cs, ac, ps, Z, Z, 0.0f, B), RESO{resL, resH}, mode);
}
void hcuda_ctf_sim_2dh_c(float* d, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                         float U, float V, float A, float B, float resL, float resH, char mode) {
  hcuda_ctf_sim_2dh(d, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void gpu_ctf_sim_2dh_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                       float U, float V, float A, float B, float resL, float resH, char mode) {
  gpu_ctf_sim_2dh(h, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void cpu_ctf_sim_2dh_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                       float U, float V, float A, float B, float resL, float resH, char mode) {
  cpu_ctf_sim_2dh(h, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void hcuda_ctf_sim_2d_c(float* d, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                        float U, float V, float A, float B, float resL, float resH, char mode) {
  hcuda_ctf_sim_2d(d, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void gpu_ctf_sim_2d_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                      float U, float V, float A, float B, float resL, float resH, char mode) {
  gpu_ctf_sim_2d(h, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void cpu_ctf_sim_2d_c(float* h, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac, float ps,
                      float U, float V, float A, float B, float resL, float resH, char mode) {
  cpu_ctf_sim_2d(h, (int)nx, (int)ny, apix, CTF_INFO(kV, Cs, ac, ps, U, V, A, B), RESO{resL, resH}, mode);
}
void hcuda_ctf_sim_1dhs_c(float* d, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                          const float* Z, float B, float resL, float resH, char mode) {
  for (int i = 0; i < m; ++i)
    hcuda_ctf_sim_1dh_c(d + (size_t)i * n, n, apix, kV, Cs, ac, ps, Z[i], B, resL, resH, mode);
}
void gpu_ctf_sim_1dhs_c(float* h, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                        const float* Z, float B, float resL, float resH, char mode) {
  for (int i = 0; i < m; ++i) gpu_ctf_sim_1dh_c(h + (size_t)i * n, n, apix, kV, Cs, ac, ps, Z[i], B, resL, resH, mode);
}
void cpu_ctf_sim_1dhs_c(float* h, unsigned int n, float apix, int m, float kV, float Cs, float ac, float ps,
                        const float* Z, float B, float resL, float resH, char mode) {
  for (int i = 0; i < m; ++i) cpu_ctf_sim_1dh_c(h + (size_t)i * n, n, apix, kV, Cs, ac, ps, Z[i], B, resL, resH, mode);
}

void hcuda_phase_flip_c2dh_c(float2* d, unsigned int nxh, unsigned int ny, float apix, float kV, float Cs, float ac,
                             float ps, float U, float V, float A) {
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, ac, ps, U, V, A, 0.0f, 1.0f, 1.0f);
  const int nx = (int)nxh, h = (int)ny;
  launch_2d(nx, h, [=] HD(int x, int y) {
    const int Y = y - h / 2;
    const size_t i = (size_t)y * nx + x;
    if (zk_ctf_contrast(t, zk_ctf_s_half(x, Y, nx, apix), zk_ctf_z_xy(t, (float)x, (float)Y)) < 0.0f)
      d[i] = make_f2(-d[i].x, -d[i].y);
  });
}

void hcuda_phase_flip_r2dh_c(float* d_image, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac,
                             float ps, float U, float V, float A) {
  const unsigned int nxh = nx / 2 + 1;
  ZkDeviceArray<float2> f((size_t)nxh * ny), g((size_t)nxh * ny);
  hcuda_2d_fft_r2c(d_image, f.get(), nx, ny);
  // Rows to the middle, so that the spectrum has the half layout's origin.
  hcuda_complex2d_center_swap(g.get(), f.get(), nxh, ny);
  hcuda_phase_flip_c2dh_c(g.get(), nxh, ny, apix, kV, Cs, ac, ps, U, V, A);
  hcuda_complex2d_center_swap_norm(f.get(), g.get(), nxh, ny, (float)nx * (float)ny);
  hcuda_2d_fft_c2r(f.get(), d_image, nx, ny);
}
void gpu_phase_flip_r2dh_c(float* h_image, unsigned int nx, unsigned int ny, float apix, float kV, float Cs, float ac,
                           float ps, float U, float V, float A) {
  const size_t n = (size_t)nx * ny;
  ZkDeviceArray<float> d(n);
  ZK_CHECK(memcpy_H2D(d.get(), h_image, n * sizeof(float)));
  hcuda_phase_flip_r2dh_c(d.get(), nx, ny, apix, kV, Cs, ac, ps, U, V, A);
  ZK_CHECK(memcpy_D2H(h_image, d.get(), n * sizeof(float)));
}

void host_ctf_simulate_2d(float* d, float apix, int nx, int ny, float ps, float kV, float Cs, float ac, float U,
                          float V, float A, float B, float resL, float resH) {
  order_band(resL, resH);
  const double v = 1000.0 * kV;
  const double lambda = 12.2643247 / sqrt(v * (1.0 + 0.978466e-6 * v));
  const double ccs = ZK_CTF_PI / 2.0 * 1.0e7 * Cs * lambda * lambda * lambda;
  const double w = sqrt(1.0 - (double)ac * ac);
  const double arad = A * ZK_CTF_PI / 180.0, prad = ps * ZK_CTF_PI / 180.0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const double X = x - nx / 2, Y = y - ny / 2;
      const double s = sqrt(X * X + Y * Y) / ((double)nx * apix);
      double val = 0.0;
      if (s >= 1.0 / resL && s <= 1.0 / resH) {
        const double t = atan2(Y, X) - arad;
        const double z = U * cos(t) * cos(t) + V * sin(t) * sin(t);
        const double g = ZK_CTF_PI * lambda * z * s * s - ccs * s * s * s * s + prad;
        val = fabs(w * sin(g) + ac * cos(g)) * exp(-B * s * s / 4.0);
      }
      d[(size_t)y * nx + x] = (float)val;
    }
}
