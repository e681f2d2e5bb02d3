#include "ctf/ctf_epa.h"

#include <cmath>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "ctf/ctf_core.h"
#include "ctf/ctf_sim.h"
#include "ctf/curve_fit.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"
#include "formats/safe_output.h"

namespace {

// The constants of one equiphase walk.
struct EpaConst {
  float lambda, Ccs, U, V, A_rad, zref, Czref;
  bool linear;  // Cs <= 0.01: gamma = Cz s^2
};

EpaConst epa_const(float kV, float Cs, float U, float V, float A) {
  EpaConst c;
  c.lambda = hd_kV_to_lambda(kV);
  c.Ccs = hd_ctf_Ccs(Cs, c.lambda);
  c.U = U;
  c.V = V;
  c.A_rad = (float)((double)A * ZK_CTF_PI / 180.0);
  float sn, cs;
  hd_sincosf(c.A_rad, &sn, &cs);
  c.zref = U * (cs * cs) + V * (sn * sn);
  c.Czref = hd_ctf_Cz(c.zref, c.lambda);
  c.linear = Cs <= 0.01f;
  return c;
}

// The frequency where the CTF with this Cz reaches gamma: the smaller root;
// NaN where there is none.
HDI float epa_gamma_to_s(const EpaConst& c, float Cz, float gamma) {
  if (c.linear) return sqrtf(gamma / Cz);
  return sqrtf((Cz - sqrtf(Cz * Cz - 4.0f * c.Ccs * gamma)) / (2.0f * c.Ccs));
}

// One sample of the curve: the weighted mean of the plane along the curve of
// the reference phase at s, over a strip a quarter period wide.
HDI float epa_curve_sample(const EpaConst& c, const float* in, int i, int oversmp, float apix, int nx, int ny, float sL,
                           float sH) {
  const float scale = 2.0f * (float)(nx - 1) * apix;  // pixels per 1/A
  const float s = (float)i / ((float)oversmp * scale);
  if (s <= sL || s >= sH) return 0.0f;
  const float s2 = s * s;
  const float g0 = c.Czref * s2 - c.Ccs * (s2 * s2);
  const float half_pi = 1.57079633f;
  float sum = 0.0f, weight = 0.000001f;
  const float step = 0.75f / (float)i;
  for (float th = -half_pi; th < half_pi; th += step) {
    float st, ct, sn, cs;
    hd_sincosf(th - c.A_rad, &st, &ct);
    const float Cz = hd_ctf_Cz(c.U * (ct * ct) + c.V * (st * st), c.lambda);
    const float r0 = scale * epa_gamma_to_s(c, Cz, g0);
    float r1 = r0 + 2.0f;
    if (c.linear || Cz * Cz - 4.0f * c.Ccs * (g0 + half_pi) > 0.0f) r1 = scale * epa_gamma_to_s(c, Cz, g0 + half_pi);
    float w = r1 - r0;
    if (w >= 10.0f) w = sqrtf(10.0f * w);
    if (!(w > 0.25f)) w = 0.25f;  // keeps the weight finite on a degenerate strip
    const float sig2 = 2.0f * (w / 3.0f) * (w / 3.0f);
    hd_sincosf(th, &sn, &cs);
    for (float r = r0 - w; r <= r1; r += 0.5f) {
      const float x = r * cs, y = (float)(ny / 2) + r * sn;
      if (x >= 0.0f && x <= (float)(nx - 1) && y >= 0.0f && y <= (float)(ny - 1)) {
        const float d = r - r0;
        const float g = hd_expf(-(d * d) / sig2);
        sum += g * hd_2d_frac_value(in, nx, x, y);
        weight += g;
      }
    }
  }
  return sum / weight;
}

void epa_curve(const float* d_in, float* d_1d, int ncurve, int oversmp, float apix, int nx, int ny, const EpaConst& c,
               float resL, float resH) {
  const float sL = 1.0f / resL, sH = 1.0f / resH;
  // Each thread walks a whole curve: heavy work for one sample.
  launch_2d_heavy(ncurve, 1,
                  [=] HD(int i, int) { d_1d[i] = epa_curve_sample(c, d_in, i, oversmp, apix, nx, ny, sL, sH); });
}

}  // namespace

void hcuda_2d_half_EPA_X_res(const float* d_in, float* d_1d, int oversmp, float apix, int nx, int ny, float kV,
                             float Cs, float ac, float ps, float U, float V, float A, float resL, float resH) {
  (void)ac;
  (void)ps;
  const EpaConst c = epa_const(kV, Cs, U, V, A);
  epa_curve(d_in, d_1d, (nx - 1) * oversmp + 1, oversmp, apix, nx, ny, c, resL, resH);
}

void hcuda_2d_half_EPA_from_1d(const float* d_1d, const float* d_in, float* d_out, float apix, int nx, int ny, float ps,
                               float kV, float Cs, float ac, float U, float V, float A, float resL, float resH) {
  (void)ps;
  (void)ac;
  const EpaConst c = epa_const(kV, Cs, U, V, A);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, 0.0f, 0.0f, U, V, A, 0.0f, resL, resH);
  const float sL = 1.0f / resL, sH = 1.0f / resH;
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const size_t k = (size_t)y * nx + x;
    const int Y = y - ny / 2;
    const float scale = 2.0f * (float)(nx - 1) * apix;
    const float r = sqrtf((float)(x * x + Y * Y));
    const float s = r / scale;
    if (s <= sL) {
      d_out[k] = 0.0f;
      return;
    }
    if (s >= sH) {
      d_out[k] = d_in[k];
      return;
    }
    const float gamma = hd_ctf_gamma_z(s, zk_ctf_z_xy(t, (float)x, (float)Y), c.lambda, c.Ccs);
    const float rr = scale * epa_gamma_to_s(c, c.Czref, gamma);
    if (!(rr >= 0.0f) || rr >= (float)(nx - 1)) {
      d_out[k] = d_in[k];
      return;
    }
    const int i = (int)rr;
    const float f = rr - (float)i;
    d_out[k] = ((1.0f - f) * d_1d[i] + f * d_1d[i + 1]) * (1.0f + 10.0f * rr / (float)nx);
  });
}

void hcuda_2d_half_EPA(const float* d_in, float* d_out, float apix, int nx, int ny, float ps, float kV, float Cs,
                       float ac, float U, float V, float A, float resL, float resH) {
  ZkDeviceArray<float> curve((size_t)nx);
  hcuda_2d_half_EPA_X_res(d_in, curve.get(), 1, apix, nx, ny, kV, Cs, ac, ps, U, V, A, resL, 2.0f * apix);
  hcuda_2d_half_EPA_from_1d(curve.get(), d_in, d_out, apix, nx, ny, ps, kV, Cs, ac, U, V, A, resL, resH);
}

namespace {

// The curves of one resolution-limit estimate and the smoothed local
// correlation of the EPA with the model; fills the walk's range.
struct EpaFit {
  int ncurve = 0, iL = 0, iH = 0, w1 = 0;
  std::vector<float> mod, a, b, phase, sm;
};

// The smoothed local correlation of curve a with the model over sliding
// windows that narrow from w0 to w1 samples as the resolution rises.
void epa_correlate(EpaFit& f, int nx, float apix, float resL, float resH) {
  const int ncurve = f.ncurve;
  const int w0 = (nx * 256) / 513, w1 = (nx * 64) / 513;
  const int iL = (int)(2.0f * (float)ncurve * apix / resL);
  const int iH = (int)(2.0f * (float)ncurve * apix / resH);
  f.iL = iL;
  f.iH = iH;
  f.w1 = w1;
  std::vector<float> ccc((size_t)ncurve + 1, 0.0f), wa, wm;
  for (int i = 0; i < w0 / 2 + iL && i < ncurve; ++i) ccc[i] = 1.0f;
  for (int i = w0 / 2 + iL; i <= iH - w1 - 1 && i < ncurve; ++i) {
    const int w = (int)((float)(i - iL) * (float)(w1 - w0) / (float)(iH - w1 - iL) + (float)w0);
    int start = i - w / 2;
    if (start < 0) start = 0;
    int n = w;
    if (start + n > ncurve) n = ncurve - start;
    if (n < 2) continue;
    wa.assign(f.a.begin() + start, f.a.begin() + start + n);
    wm.assign(f.mod.begin() + start, f.mod.begin() + start + n);
    const float v = hm_ccc_norm_inplace(wa.data(), wm.data(), (size_t)n);
    ccc[i] = (v >= -1.0f && v <= 1.0f) ? v : 0.0f;  // a flat window counts as 0
  }
  f.sm = ccc;
  for (int i = iL + 1; i < iH - 30 && i < iH - w1 - 10 && i < ncurve; ++i) {
    float num = 0.0f, den = 0.0f;
    for (int j = i - 10; j < i + 10; ++j) {
      if (j < 0 || j >= ncurve) continue;
      const float e = hd_expf(-(float)((j - i) * (j - i)) / (400.0f / 4.5f));
      num += ccc[j] * e;
      den += e;
    }
    f.sm[i] = num / den;
  }
}

// The model curve (no envelope, up to Nyquist) along the reference direction.
void epa_model(EpaFit& f, const EpaConst& c, float apix, float ps, float kV, float Cs, float ac, float resL,
               bool with_phase) {
  const int ncurve = f.ncurve;
  ZkDeviceArray<float> d((size_t)ncurve);
  hcuda_ctf_mod_simulate_1d(d.get(), apix, ncurve, ps, kV, Cs, ac, c.zref, 0.0f, resL, 2.0f * apix);
  f.mod.resize((size_t)ncurve);
  ZK_CHECK(memcpy_D2H(f.mod.data(), d.get(), (size_t)ncurve * sizeof(float)));
  if (with_phase) {
    hcuda_ctf_phase_simulate_1d(d.get(), apix, ncurve, ps, kV, Cs, ac, c.zref, 0.0f, resL, 2.0f * apix);
    f.phase.resize((size_t)ncurve);
    ZK_CHECK(memcpy_D2H(f.phase.data(), d.get(), (size_t)ncurve * sizeof(float)));
  }
}

void epa_fit(EpaFit& f, bool with_b, const float* d_a, const float* d_b, int oversmp, float apix, int nx, int ny,
             float ps, float kV, float Cs, float ac, float U, float V, float A, float resL, float resH) {
  const int ncurve = (nx - 1) * oversmp + 1;
  f.ncurve = ncurve;
  const EpaConst c = epa_const(kV, Cs, U, V, A);
  epa_model(f, c, apix, ps, kV, Cs, ac, resL, with_b);
  ZkDeviceArray<float> d_curve((size_t)ncurve);
  epa_curve(d_a, d_curve.get(), ncurve, oversmp, apix, nx, ny, c, resL, 2.0f * apix);
  f.a.resize((size_t)ncurve);
  ZK_CHECK(memcpy_D2H(f.a.data(), d_curve.get(), (size_t)ncurve * sizeof(float)));
  if (with_b) {
    epa_curve(d_b, d_curve.get(), ncurve, oversmp, apix, nx, ny, c, resL, 2.0f * apix);
    f.b.resize((size_t)ncurve);
    ZK_CHECK(memcpy_D2H(f.b.data(), d_curve.get(), (size_t)ncurve * sizeof(float)));
  }
  epa_correlate(f, nx, apix, resL, resH);
}

// The walk: the first negative smoothed correlation below limit A; the table,
// when given, receives every step of the walk.
void epa_walk(const EpaFit& f, float& res, float limit, float apix, FILE* table) {
  bool found = false;
  for (int i = f.iL + 1; i < f.iH - f.w1 - 10 && i < f.ncurve; ++i) {
    const float R = (float)f.ncurve * 2.0f * apix / (float)i;
    if (table)
      fprintf(table, "%12.6f  %12.6f  %12.6f   %12.6f   %12.6f \n", R, f.mod[i], f.b.empty() ? 0.0f : f.b[i], f.a[i],
              f.sm[i]);
    if (found) continue;
    res = R;
    if (f.sm[i] < 0.0f && R < limit) {
      found = true;
      if (!table) return;
    }
  }
}

}  // namespace

void ctf_epa_1d_ccf(float& res, float limit, const float* d_a, const float* d_b, int oversmp, float apix, int nx,
                    int ny, float ps, float kV, float Cs, float ac, float U, float V, float A, float resL, float resH,
                    float B_resL, float B_resH) {
  (void)B_resL;
  (void)B_resH;
  EpaFit f;
  epa_fit(f, false, d_a, d_b, oversmp, apix, nx, ny, ps, kV, Cs, ac, U, V, A, resL, resH);
  epa_walk(f, res, limit, apix, nullptr);
}

float ctf_epa_1d_ccf_B_estimation(FILE* log, const char* mic_name, float& res, float limit, const float* d_a,
                                  const float* d_b, int oversmp, float apix, int nx, int ny, float ps, float kV,
                                  float Cs, float ac, float U, float V, float A, float resL, float resH, float B_resL,
                                  float B_resH, int estimate_B) {
  EpaFit f;
  epa_fit(f, true, d_a, d_b, oversmp, apix, nx, ny, ps, kV, Cs, ac, U, V, A, resL, resH);
  char name[ZK_TXT_LEN];
  replace_file_suffix(name, "_EPA.log", mic_name, ".mrc");
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  fprintf(fp, "  Resolution      |CTFsim|    EPA( Ln|F| )    EPA(Ln|F| - Bg)    CCC\n");
  epa_walk(f, res, limit, apix, fp);
  zk_out_commit(out);
  printf("Resolution limit estimated by EPA: \x1b[1m %.3f \x1b[m\n", res);
  if (log) fprintf(log, "Resolution limit estimated by EPA: RES_LIMIT %.3f \n", res);
  float B = 0.0f;
  if (estimate_B) {
    B = bfac_estimation_from_epa_1d2(f.b.data(), apix, f.ncurve, B_resL, B_resH);
    printf("Estimated Bfactor: \x1b[1m %.2f \x1b[m\n", B);
    if (log) fprintf(log, "Estimated Bfactor: B_FACTOR  %.2f \n", B);
  }
  return B;
}

void host_2d_half_epa_binned(const float* h_in, float* curve, int oversmp, float apix, int nx, int ny, float kV,
                             float Cs, float U, float V, float A, float resL, float resH) {
  const int ncurve = (nx - 1) * oversmp + 1;
  const EpaConst c = epa_const(kV, Cs, U, V, A);
  const ZkCtfTrial t = zk_ctf_trial(kV, Cs, 0.0f, 0.0f, U, V, A, 0.0f, resL, resH);
  const float scale = 2.0f * (float)(nx - 1) * apix, sL = 1.0f / resL, sH = 1.0f / resH;
  std::vector<double> sum((size_t)ncurve + 1, 0.0), wsum((size_t)ncurve + 1, 0.0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int Y = y - ny / 2;
      const float s = sqrtf((float)(x * x + Y * Y)) / scale;
      if (s <= sL || s >= sH) continue;
      const float gamma = hd_ctf_gamma_z(s, zk_ctf_z_xy(t, (float)x, (float)Y), c.lambda, c.Ccs);
      const float p = (float)oversmp * scale * epa_gamma_to_s(c, c.Czref, gamma);
      if (!(p >= 0.0f) || p >= (float)(ncurve - 1)) continue;
      const int k = (int)p;
      const double f = (double)(p - (float)k), v = (double)h_in[(size_t)y * nx + x];
      sum[k] += (1.0 - f) * v;
      wsum[k] += 1.0 - f;
      sum[k + 1] += f * v;
      wsum[k + 1] += f;
    }
  for (int i = 0; i < ncurve; ++i) {
    const float s = (float)i / ((float)oversmp * scale);
    curve[i] = (s <= sL || s >= sH || wsum[i] <= 0.0) ? 0.0f : (float)(sum[i] / wsum[i]);
  }
}

void ctf_epa_1d_ccf_binned(float& res, float limit, const float* h_a, int oversmp, float apix, int nx, int ny, float ps,
                           float kV, float Cs, float ac, float U, float V, float A, float resL, float resH) {
  EpaFit f;
  f.ncurve = (nx - 1) * oversmp + 1;
  const EpaConst c = epa_const(kV, Cs, U, V, A);
  epa_model(f, c, apix, ps, kV, Cs, ac, resL, false);
  f.a.resize((size_t)f.ncurve);
  host_2d_half_epa_binned(h_a, f.a.data(), oversmp, apix, nx, ny, kV, Cs, U, V, A, resL, 2.0f * apix);
  epa_correlate(f, nx, apix, resL, resH);
  epa_walk(f, res, limit, apix, nullptr);
}

float bfac_estimation_from_epa_1d2(const float* epa, float apix, int n, float r1, float r2) {
  if (r1 < r2) {
    const float t = r1;
    r1 = r2;
    r2 = t;
  }
  const int iL = (int)(2.0f * (float)(n - 1) * apix / r1), iH = (int)(2.0f * (float)(n - 1) * apix / r2);
  std::vector<float> x, y;
  for (int i = iL > 1 ? iL : 1; i < iH && i < n; ++i) {
    const float R = 2.0f * (float)(n - 1) * apix / (float)i;
    x.push_back(1.0f / (R * R));
    y.push_back(epa[i]);
  }
  if (x.size() < 2) return 0.0f;
  float a, b;
  line_fit(x.data(), y.data(), (int)x.size(), a, b);
  return -4.0f * a;
}

float bfac_estimation_from_epa_1d(const float* epa, const float* phase, float apix, int n, float r1, float r2) {
  const float half_pi = 1.57079633f;
  const int iL = (int)(2.0f * (float)(n - 1) * apix / r1), iH = (int)(2.0f * (float)(n - 1) * apix / r2);
  std::vector<float> v, x;
  for (int i = iL > 1 ? iL : 1; i < iH && i < n; ++i) {
    const int k = (int)(2.0f * phase[i] / ZK_CTF_PI_F), k0 = (int)(2.0f * phase[i - 1] / ZK_CTF_PI_F);
    if (k <= k0) continue;
    const float target = (float)k * half_pi;
    const int idx = fabsf(phase[i] - target) < fabsf(target - phase[i - 1]) ? i : i - 1;
    const float R = 2.0f * (float)(n - 1) * apix / (float)idx;
    v.push_back(epa[idx]);
    x.push_back(1.0f / (R * R));
  }
  if (v.size() < 4) return 0.0f;
  for (size_t j = 1; j + 1 < v.size(); ++j)
    printf("id res PT  PTdiff %d %f %f %f\n", (int)j - 1, x[j], v[j], fabsf(v[j] - (v[j - 1] + v[j + 1]) / 2.0f));
  float a, b;
  line_fit(x.data() + 1, v.data() + 1, (int)v.size() - 2, a, b);
  return -4.0f * a;
}
