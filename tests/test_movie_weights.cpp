// Frame weights and the weighted frame average against independent
// double-precision formulae.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "movie/pre_shiny6_weights.h"
#include "test_util.h"

namespace {

const double PI = 3.14159265358979323846;

double dose_ref(double s, double dose, double a, double b) { return exp(-a * dose * pow(s, b)); }

double drift_ref(double s, double theta, double apix, double dx, double dy, double Da, double Db) {
  if (s <= 0) return 1.0;
  const double c = fabs(cos(theta - atan2(dy, dx)));
  const double K = 2 * PI * s * apix * fabs(hypot(dx, dy) * Da * ((1 - Db) * c + Db));
  return K == 0 ? 1.0 : sin(K) / K;
}

GPS_PARA gps(int scheme, int norm, float k = 0.0f, float Da = 1.0f, float Db = 1.0f) {
  GPS_PARA g = gps_para_default();
  g.mw_skeme = scheme;
  g.wnorm_type = norm;
  g.k = k;
  g.Da = Da;
  g.Db = Db;
  return g;
}

TEST(MovieWeights, DoseWeightAtChosenFrequencies) {
  for (double s : {0.01, 0.1, 0.25, 0.45})
    for (double dose : {0.5, 10.0, 42.0})
      for (double b : {1.0, 1.3, 1.7}) {
        const double want = dose_ref(s, dose, 0.5, b);
        EXPECT_NEAR(hd_dose_weight((float)s, (float)dose, 0.5f, (float)b), want, 2e-6 + 2e-5 * want)
            << s << " " << dose << " " << b;
      }
}

TEST(MovieWeights, DriftWeightAtChosenFrequencies) {
  struct Case {
    double s, theta, dx, dy, Da, Db;
  };
  const Case cases[] = {
      {0.05, 0.3, 1.5, -0.7, 1.0, 1.0},  {0.2, -2.0, 0.4, 0.9, 0.6, 0.3},  {0.31, 1.1, -2.0, 0.5, 1.0, 0.0},
      {0.12, 2.9, 0.0, -1.2, 0.8, 0.5},  {0.4, 0.0, 3.0, 3.0, 1.0, 1.0},   {0.02, -0.5, -0.3, -0.1, 0.2, 0.9},
  };
  for (const Case& c : cases) {
    const double want = drift_ref(c.s, c.theta, 1.2, c.dx, c.dy, c.Da, c.Db);
    const float got = hd_drift_weight((float)c.s, (float)c.theta, 1.2f, (float)c.dx, (float)c.dy, (float)c.Da,
                                      (float)c.Db);
    EXPECT_NEAR(got, want, 1e-5) << c.s << " " << c.theta;
    EXPECT_EQ(hd_drift_wsign((float)c.s, (float)c.theta, 1.2f, (float)c.dx, (float)c.dy, (float)c.Da, (float)c.Db),
              want < 0 ? -1.0f : 1.0f);
  }
}

TEST(MovieWeights, DriftWeightEdgeCases) {
  // No drift, no drift factor, or no frequency: weight 1.
  EXPECT_EQ(hd_drift_weight(0.2f, 0.4f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f), 1.0f);
  EXPECT_EQ(hd_drift_weight(0.2f, 0.4f, 1.0f, 2.0f, 1.0f, 0.0f, 0.5f), 1.0f);
  EXPECT_EQ(hd_drift_weight(0.0f, 0.4f, 1.0f, 2.0f, 1.0f, 1.0f, 1.0f), 1.0f);
  EXPECT_EQ(hd_drift_wsign(0.0f, 0.4f, 1.0f, 9.0f, 1.0f, 1.0f, 1.0f), 1.0f);
  // A long drift gives a negative lobe, and the sign says so.
  const float neg = hd_drift_weight(0.25f, 0.0f, 1.0f, 2.5f, 0.0f, 1.0f, 1.0f);
  EXPECT_LT(neg, 0.0f);
  EXPECT_NEAR(neg, drift_ref(0.25, 0, 1, 2.5, 0, 1, 1), 1e-6);
  EXPECT_EQ(hd_drift_wsign(0.25f, 0.0f, 1.0f, 2.5f, 0.0f, 1.0f, 1.0f), -1.0f);
}

TEST(MovieWeights, Atan2AgreesWithTheLibrary) {
  const float pts[][2] = {{1, 2}, {-1, 2}, {-1, -2}, {1, -2}, {0, 3}, {0, -3}, {3, 0}, {0.0f, -3}, {-0.0f, -3}, {0, 0}};
  for (const auto& p : pts) EXPECT_NEAR(hd_movie_atan2f(p[0], p[1]), atan2(p[0], p[1]), 2e-7) << p[0] << " " << p[1];
}

TEST(MovieWeights, EquivalentDoseByVoltage) {
  const float table[][2] = {{100, 10 / 0.68f}, {120, 10 / 0.75f}, {200, 10}, {300, 10 / 1.22f}, {400, 10 / 1.33f},
                            {80, 10},          {301, 10}};
  for (const auto& t : table) EXPECT_FLOAT_EQ(eq_dose(10.0f, t[0]), t[1]) << t[0];
}

// ---------------------------------------------------------------------------
// The weighted average against a double-precision reference.

struct Stack {
  int nx, ny, nxh, nz;
  float apix;
  std::vector<float2> in;
  std::vector<float> dose;
  std::vector<float2> drift;
  std::vector<float> ctfw;
};

Stack make_stack(int nx, int ny, int nz, unsigned seed) {
  Stack st{nx, ny, nx / 2 + 1, nz, 1.3f, {}, {}, {}, {}};
  std::mt19937 rng(seed);
  std::normal_distribution<float> g(0.0f, 1.0f);
  st.in.resize((size_t)st.nxh * ny * nz);
  for (float2& c : st.in) c = make_f2(g(rng), g(rng));
  for (int f = 0; f < nz; ++f) {
    st.dose.push_back(1.5f * (f + 1));
    st.drift.push_back(make_f2(0.3f * g(rng), 0.3f * g(rng)));
  }
  for (int r = 0; r < st.nxh; ++r) st.ctfw.push_back(0.5f + 0.5f * cosf(0.4f * r));
  return st;
}

// The average of element (i, j) in double: geometry, weights, norm and CTF
// weight written out afresh.
void wave_ref(const Stack& st, const GPS_PARA& g, int i, int j, double& re, double& im) {
  const int fy = j < st.ny / 2 ? j : j - st.ny;
  const double r = sqrt((double)i * i + (double)fy * fy);
  const double s = r / (st.ny * (double)st.apix), theta = atan2((double)fy, (double)i);
  double sum = 0;
  re = im = 0;
  for (int f = 0; f < st.nz; ++f) {
    double w = 1;
    if (s > 0) {
      const double wd = dose_ref(s, st.dose[f], g.Ne_a, g.Ne_b);
      const double wf = drift_ref(s, theta, st.apix, st.drift[f].x, st.drift[f].y, g.Da, g.Db);
      w = g.mw_skeme == 0 ? 1 : g.mw_skeme == 1 ? wd : g.mw_skeme == 2 ? wf : wd * wf;
    }
    sum += g.wnorm_type == 1 ? fabs(w) : w * w;
    const float2 v = st.in[((size_t)f * st.ny + j) * st.nxh + i];
    re += w * v.x;
    im += w * v.y;
  }
  const double norm = g.k + (g.wnorm_type == 1 ? sum : sqrt(sum));
  const double r2 = std::min(r, (double)st.nxh - 1);
  const int i0 = (int)r2;
  const double cw = i0 + 1 < st.nxh ? st.ctfw[i0] + (r2 - i0) * (st.ctfw[i0 + 1] - st.ctfw[i0]) : st.ctfw[i0];
  re = re / norm * cw;
  im = im / norm * cw;
}

std::vector<float2> run_wave(const Stack& st, const GPS_PARA& g) {
  Dev dev;
  float2* out = dev.c((size_t)st.nxh * st.ny);
  hcuda_2ds_fft_dose_dft_ctf_wave(dev.put(st.in), out, st.nxh, st.ny, st.nz, st.apix, dev.put(st.dose),
                                  dev.put(st.drift), dev.put(st.ctfw), g);
  return from_dev(out, (size_t)st.nxh * st.ny);
}

class MovieWave : public BackendTest {};

TEST_P(MovieWave, EverySchemeAndNormAgainstTheReference) {
  const Stack st = make_stack(20, 20, 6, 3);
  for (int scheme = 0; scheme <= 3; ++scheme)
    for (int norm = 1; norm <= 2; ++norm) {
      const GPS_PARA g = gps(scheme, norm, norm == 1 ? 0.25f : 0.0f, 0.9f, 0.4f);
      const std::vector<float2> got = run_wave(st, g);
      for (int j = 0; j < st.ny; ++j)
        for (int i = 0; i < st.nxh; ++i) {
          double re, im;
          wave_ref(st, g, i, j, re, im);
          const float2 v = got[(size_t)j * st.nxh + i];
          ASSERT_NEAR(v.x, re, 2e-5 * (1 + fabs(re))) << scheme << norm << " at " << i << "," << j;
          ASSERT_NEAR(v.y, im, 2e-5 * (1 + fabs(im))) << scheme << norm << " at " << i << "," << j;
        }
    }
}

// A movie whose later frames drift far: the drift weight takes those frames
// down by sin(K)/K, and the average follows the weights.
TEST_P(MovieWave, FarDriftingFramesAreWeightedDown) {
  const int nx = 64, nxh = 33, nz = 8;
  std::vector<float> dose(nz, 1.0f);
  std::vector<float2> drift(nz);
  for (int f = 0; f < nz; ++f) drift[f] = make_f2(f < 4 ? 0.1f : 0.5f * f, 0.0f);
  Dev dev;
  float* w = dev.f((size_t)nxh * nx * nz);
  const GPS_PARA g = gps(2, 2);
  hcuda_2ds_fft_dose_dft_wgen(w, nxh, nx, nz, 1.0f, dev.put(dose), dev.put(drift), g);
  const std::vector<float> h = from_dev(w, (size_t)nxh * nx * nz);
  const int i = 6, j = 0;  // s = 6/64 per pixel, along x
  for (int f = 0; f < nz; ++f) {
    const double want = drift_ref(6.0 / 64, 0, 1, drift[f].x, 0, 1, 1);
    EXPECT_NEAR(h[(size_t)f * nxh * nx + j * nxh + i], want, 1e-6) << f;
  }
  EXPECT_GT(h[i], 0.99f);
  EXPECT_LT(h[7 * nxh * nx + i], 0.5f);
}

// The staged and per-frame forms give the bits of the one-pass kernel.
TEST_P(MovieWave, RunningFormsMatchTheOnePassKernel) {
  const Stack st = make_stack(18, 18, 4, 6);
  const size_t plane = (size_t)st.nxh * st.ny;
  const GPS_PARA g = gps(3, 2, 0.0f, 0.7f, 0.2f);
  Dev dev;
  float* wsum = dev.f(plane);
  float2* acc = dev.c(plane);
  hcuda_empty(wsum, plane * sizeof(float));
  hcuda_empty(acc, plane * sizeof(float2));
  float2* in = dev.put(st.in);
  float* wadd = dev.f(plane);
  hcuda_empty(wadd, plane * sizeof(float));
  for (int f = 0; f < st.nz; ++f) {
    hcuda_2d_fft_dose_dft_wgen_wsum_one(in + f * plane, acc, wsum, st.nxh, st.ny, st.apix, st.dose[f], st.drift[f], g);
    hcuda_2d_fft_dose_dft_wadd(wadd, st.nxh, st.ny, st.apix, st.dose[f], st.drift[f], g);
  }
  const std::vector<float> ws = from_dev(wsum, plane);
  EXPECT_TRUE(same_bits(ws, from_dev(wadd, plane)));
  std::vector<float2> sum = from_dev(acc, plane);
  std::vector<float> ones(st.nxh, 1.0f);
  std::vector<float2> one_pass(plane);
  {
    float2* out = dev.c(plane);
    hcuda_2ds_fft_dose_dft_ctf_wave(in, out, st.nxh, st.ny, st.nz, st.apix, dev.put(st.dose), dev.put(st.drift),
                                    dev.put(ones), g);
    one_pass = from_dev(out, plane);
  }
  for (size_t n = 0; n < plane; ++n) {
    const float norm = sqrtf(ws[n]);
    ASSERT_EQ(sum[n].x / norm, one_pass[n].x) << n;
  }
  // The single-frame generator is plane f of the stack form; the swapped form
  // moves the rows' origin to the middle.
  float* stack = dev.f(plane * st.nz);
  float* swapped = dev.f(plane * st.nz);
  float* one = dev.f(plane);
  float* d_dose = dev.put(st.dose);
  float2* d_drift = dev.put(st.drift);
  hcuda_2ds_fft_dose_dft_wgen(stack, st.nxh, st.ny, st.nz, st.apix, d_dose, d_drift, g);
  hcuda_2ds_fft_dose_dft_wgen_swap(swapped, st.nxh, st.ny, st.nz, st.apix, d_dose, d_drift, g);
  hcuda_2d_fft_dose_dft_wgen(one, st.nxh, st.ny, st.apix, st.dose[2], st.drift[2], g);
  const std::vector<float> hs = from_dev(stack, plane * st.nz), hw = from_dev(swapped, plane * st.nz);
  EXPECT_TRUE(same_bits(from_dev(one, plane), std::vector<float>(hs.begin() + 2 * plane, hs.begin() + 3 * plane)));
  for (size_t n = 0; n < plane * st.nz; ++n) {
    const size_t f = n / plane, k = n % plane;
    ASSERT_EQ(hw[f * plane + (k + plane / 2) % plane], hs[n]) << n;
  }
}

TEST_P(MovieWave, WeightedSumAbc) {
  const int nx = 5, ny = 3, nz = 4;
  std::vector<float> base(nx * ny * nz), va = {1, 2, 3, 4}, vb = {0.5f, -1, 0, 2}, vc = {3, 3, -3, 1};
  for (size_t n = 0; n < base.size(); ++n) base[n] = 0.1f * n;
  Dev dev;
  float* out = dev.put(base);
  hcuda_2ds_weighted_sum_abc(out, nx, ny, nz, 2.0f, -1.0f, 0.5f, dev.put(va), dev.put(vb), dev.put(vc));
  const std::vector<float> got = from_dev(out, base.size());
  for (size_t n = 0; n < base.size(); ++n) {
    const size_t z = n / (nx * ny);
    EXPECT_FLOAT_EQ(got[n], base[n] + 2.0f * va[z] - vb[z] + 0.5f * vc[z]) << n;
  }
}

ZK_BACKEND_SUITE(MovieWave);

// Host and GPU weights agree bit for bit.
TEST(MovieWaveBackends, HostAndGpuAgree) {
  if (!zk_use_gpu()) GTEST_SKIP() << "no usable GPU";
  zk_use_host();
  const Stack st = make_stack(40, 40, 7, 8);
  std::vector<float2> out[2];
  for (int b = 0; b < 2; ++b) {
    if (b == 1) zk_use_gpu();
    out[b] = run_wave(st, gps(3, 2, 0.0f, 0.8f, 0.3f));
    zk_use_host();
  }
  EXPECT_TRUE(same_bits(out[0], out[1]));
}

// The host form: L1 norm whatever the type, no CTF weight, its own dose law.
TEST(MovieWaveHost, HostFormDiffers) {
  Stack st = make_stack(16, 16, 4, 9);
  const size_t plane = (size_t)st.nxh * st.ny;
  std::vector<float2> out(plane);
  const int i = 3, j = 14;  // fy = -2
  const size_t n = (size_t)j * st.nxh + i;
  const double s = sqrt(13.0) / (16 * (double)st.apix), theta = atan2(-2.0, 3.0);
  struct Case {
    int scheme;
    std::function<double(int)> w;
  };
  const std::vector<Case> cases = {
      {0, [](int) { return 1.0; }},
      {1, [&](int f) { return exp(-st.dose[f] * pow(s, 1.31489) / 1.35172); }},
      {2, [&](int f) { return drift_ref(s, theta, st.apix, st.drift[f].x, st.drift[f].y, 1, 1); }},
      {3, [&](int f) { return dose_ref(s, st.dose[f], 0.5, 1.3) * drift_ref(s, theta, st.apix, st.drift[f].x,
                                                                            st.drift[f].y, 1, 1); }},
  };
  for (const Case& c : cases) {
    GPS_PARA g = gps(c.scheme, 2, 0.5f);
    testing::internal::CaptureStdout();
    cpu_2ds_fft_dose_dft_ctf_wave(st.apix, st.in.data(), out.data(), st.nxh, st.ny, st.nz, st.dose.data(),
                                  st.drift.data(), g);
    const std::string text = testing::internal::GetCapturedStdout();
    double re = 0, sum = 0;
    for (int f = 0; f < st.nz; ++f) {
      re += c.w(f) * st.in[f * plane + n].x;
      sum += fabs(c.w(f));
    }
    EXPECT_NEAR(out[n].x, re / (0.5 + sum), 2e-5 * (1 + fabs(re))) << c.scheme;
    // Its trace: row 0, columns 0 and 200 (here 0 only), one line a frame.
    EXPECT_TRUE(zk_matches(text, "^i0, j0 0 s 0.000000 theta 0.000000 wm 1.000000 fftin ")) << text;
    EXPECT_TRUE(zk_matches(text, "\n\\.{32}\nn 0 s 0.000000 wsum 4.000000 fft_ave_out\\[n\\]\\.x ")) << text;
  }
}

TEST(MovieWaveHost, PrintedValues) {
  const float dose[] = {1.5f, 3.25f};
  const float2 drift[] = {make_f2(0.5f, -1.0f), make_f2(12.125f, 0.0f)};
  const float ctfw[] = {1.0f, 0.5f, 0.0f};
  testing::internal::CaptureStdout();
  print_dose_drif_ctfw(dose, drift, 2, ctfw, 3);
  GPS_PARA g = gps(3, 2, 0.0f);
  printf_psp(g);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "       0 dose    1.500 dftX    0.500 dftY   -1.000 \n"
            "       1 dose    3.250 dftX   12.125 dftY    0.000 \n"
            "CTFw        0    1.000 \nCTFw        1    0.500 \nCTFw        2    0.000 \n"
            "Ne_a=0.500000 Ne_b=1.300000 Da=1.000000 Db=1.000000 k=0.000000 mw_skeme=3  wnorm_type=2  device=2 \n");
}

}  // namespace
