// The CTF model against independent double-precision formulae.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "backend_fixture.h"
#include "ctf/ctf_core.h"
#include "ctf/ctf_sim.h"
#include "device/math_utils.h"

namespace {

const double PI = 3.14159265358979323846;

double lambda_ref(double kv) {
  const double v = kv * 1000.0;
  // h / sqrt(2 m0 e V (1 + e V / (2 m0 c^2))), in A.
  const double h = 6.62607015e-34, m0 = 9.1093837015e-31, e = 1.602176634e-19, c = 299792458.0;
  return h / sqrt(2.0 * m0 * e * v * (1.0 + e * v / (2.0 * m0 * c * c))) * 1e10;
}

struct Ref {
  double kv, cs, ac, ps, u, v, a, b;
  double z(double theta) const {
    const double t = theta - a * PI / 180.0;
    return u * cos(t) * cos(t) + v * sin(t) * sin(t);
  }
  double gamma(double s, double theta) const {
    const double l = lambda_ref(kv);
    return PI * l * z(theta) * s * s - PI / 2.0 * cs * 1e7 * l * l * l * s * s * s * s;
  }
  double phase(double s, double theta) const { return gamma(s, theta) + asin(ac) + ps * PI / 180.0; }
  double env(double s) const { return exp(-b * s * s / 4.0); }
  // |sin(phase)| exp(-B s^2/4) inside [1/resL, 1/resH].
  double mod(double s, double theta, double resL, double resH) const {
    if (s < 1.0 / resL || s > 1.0 / resH) return 0.0;
    return fabs(sin(phase(s, theta))) * env(s);
  }
};

const Ref R{300, 2.7, 0.07, 30, 15000, 17000, 20, 100};
CTF_INFO info(const Ref& r) {
  return CTF_INFO((float)r.kv, (float)r.cs, (float)r.ac, (float)r.ps, (float)r.u, (float)r.v, (float)r.a, (float)r.b);
}

TEST(CtfModel, WavelengthMatchesRelativisticFormula) {
  for (double kv : {120.0, 200.0, 300.0})
    EXPECT_NEAR(hd_kV_to_lambda((float)kv), lambda_ref(kv), 2e-5 * lambda_ref(kv));
}

TEST(CtfModel, ModeValuesAtChosenPoints) {
  const CTF_INFO c = info(R);
  for (double s : {0.05, 0.13, 0.24})
    for (double theta : {0.0, 0.3, -1.2}) {
      const double ph = R.phase(s, theta);
      const double tol = 1e-5 * fabs(ph) + 1e-5;  // float s and the rounded wavelength constant
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'G'), R.gamma(s, theta), tol);
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'P'), ph, tol);
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'E'), ph - floor(ph / PI) * PI, tol);
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'F'), sin(ph) * R.env(s), tol);
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'A'), fabs(sin(ph)) * R.env(s), tol);
      EXPECT_NEAR(hd_ctfinfo_s((float)s, (float)theta, c, 'W'), sin(ph) * sin(ph) * R.env(s), tol);
      EXPECT_EQ(hd_ctfinfo_s((float)s, (float)theta, c, 'S'), sin(ph) < 0 ? -1.0f : 1.0f);
      EXPECT_EQ(hd_ctfinfo_s((float)s, (float)theta, c, 'Q'), 0.0f);
    }
  // The band test of the _r forms: 0 outside, the value inside.
  EXPECT_EQ(hd_ctfinfo_s_r(0.01f, 0.0f, c, RESO{50, 4}, 'A'), 0.0f);
  EXPECT_EQ(hd_ctfinfo_s_r(0.3f, 0.0f, c, RESO{50, 4}, 'A'), 0.0f);
  EXPECT_GT(hd_ctfinfo_s_r(0.1f, 0.0f, c, RESO{50, 4}, 'W'), 0.0f);
}

// First zeros and inverse formulae: the smaller root of Cz s^2 - Ccs s^4 = gamma.
TEST(CtfModel, FirstZeroAndInverseFormulae) {
  struct Case {
    double kv, cs, ac, ps, z;
  } cases[] = {
      {300, 2.7, 0.1, 0, 20000}, {200, 2.0, 0.07, 90, 8000}, {300, 0.0, 0.1, 0, 12000}, {120, 0.005, 0.0, 0, 30000}};
  for (const Case& k : cases) {
    const CTF_INFO c((float)k.kv, (float)k.cs, (float)k.ac, (float)k.ps, (float)k.z, (float)k.z, 0, 0);
    const double l = lambda_ref(k.kv), cz = PI * l * k.z, ccs = PI / 2 * k.cs * 1e7 * l * l * l;
    const double g = PI - asin(k.ac) - k.ps * PI / 180;
    const double s_ref = k.cs <= 0.01 ? sqrt(g / cz) : sqrt((cz - sqrt(cz * cz - 4 * ccs * g)) / (2 * ccs));
    EXPECT_NEAR(get_first_zero_s(c), s_ref, 2e-4 * s_ref) << k.kv << " " << k.cs;
    // The CTF vanishes there: |sin(phase)| small against its slope.
    const Ref r{k.kv, k.cs, k.ac, k.ps, k.z, k.z, 0, 0};
    EXPECT_NEAR(sin(r.phase(get_first_zero_s(c), 0)), 0.0, 2e-3);
  }
  // Phase to frequency and back, along an astigmatic azimuth.
  const CTF_INFO c = info(R);
  for (double ph : {2.0, 10.0, 40.0}) {
    const float s = phase_theta_to_s((float)ph, 0.9f, c);
    EXPECT_NEAR(R.phase(s, 0.9), ph, 2e-3 * ph);
    EXPECT_NEAR(gamma_theta_to_s0((float)R.gamma(0.1, 0), c), 0.1, 2e-5);
  }
}

TEST(CtfModel, NormalForms) {
  struct Uva {
    float a_in, a_out;
    bool swapped;
  } uva[] = {{90, 0, true}, {-10, 80, true}, {45, 45, false}, {0, 0, false}, {179, 89, true}, {-100, 80, false}};
  for (const Uva& t : uva) {
    float U = 1, V = 2, A = t.a_in;
    hd_format_UVA(U, V, A);
    EXPECT_NEAR(A, t.a_out, 1e-4) << t.a_in;
    EXPECT_EQ(U, t.swapped ? 2.0f : 1.0f) << t.a_in;
  }
  // The older form leaves a non-negative wrapped angle where it was.
  float U = 1, V = 2, A = 200;
  kesmar_format_UVA(U, V, A);
  EXPECT_EQ(A, 200.0f);
  A = 100;
  kesmar_format_UVA(U, V, A);
  EXPECT_NEAR(A, 10.0f, 1e-4);
  EXPECT_EQ(U, 2.0f);
  struct Ps {
    float in, out;
  } ps[] = {{170, -10}, {160, -20}, {-30, 150}, {-20, -20}, {90, 90}, {520, 160 - 180}};
  for (const Ps& t : ps) {
    float P = t.in;
    hd_format_PS(P);
    EXPECT_NEAR(P, t.out, 1e-4) << t.in;
  }
  float ave, dif;
  def_UV2AD(ave, dif, 15000, 17000);
  EXPECT_EQ(ave, 16000);
  EXPECT_EQ(dif, 1000);
  def_AD2UV(U, V, ave, dif);
  EXPECT_EQ(U, 15000);
  EXPECT_EQ(V, 17000);
  const CTF_INFO d = ctf2d_default();
  EXPECT_EQ(d.kV, 300);
  EXPECT_EQ(d.defU, 20000);
  EXPECT_EQ(d.B, 150);
  EXPECT_EQ(ctf2d_to_ctfinit(CTF_INFO(300, 2.7f, 0.1f, 0, 0, 1, 0, 0)).valid, 0);
  EXPECT_EQ(ctf2d_to_ctfinit(d).valid, 1);
  const CTF_INFO one = hd_ctf2d_to_ctf1d(CTF_INFO(300, 2.7f, 0.1f, 40, 10, 30, 5, 0), 'm');
  EXPECT_EQ(one.defU, 20);
  EXPECT_EQ(one.ps, 0);
  EXPECT_EQ(hd_ctf2d_to_ctf1d(CTF_INFO(300, 2.7f, 0.1f, 40, 10, 30, 5, 0), 'v').defV, 30);
}

class CtfSim : public BackendTest {};

// Every sample of the 2D half plane against the double formula, with the
// azimuth atan2(y - ny/2, x): rows above ny/2 are positive frequencies.
TEST_P(CtfSim, HalfPlaneAgainstDoubleReference) {
  const int nx = 65, ny = 128;
  const float apix = 1.2f;
  Dev dev;
  float* d = dev.f((size_t)nx * ny);
  hcuda_ctf_mod_simulate_2d_half(d, apix, nx, ny, (float)R.kv, (float)R.cs, (float)R.ac, (float)R.ps, (float)R.u,
                                 (float)R.v, (float)R.a, (float)R.b, 30, 2.6f);
  const std::vector<float> h = from_dev(d, (size_t)nx * ny);
  double worst = 0;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const double Y = y - ny / 2, s = sqrt(x * x + Y * Y) / (2.0 * (nx - 1) * apix);
      const double ref = R.mod(s, atan2(Y, (double)x), 30, 2.6);
      if (fabs(1 / s - 30) < 1e-3 || fabs(1 / s - 2.6) < 1e-3) continue;  // on a band edge
      worst = std::max(worst, fabs(h[(size_t)y * nx + x] - ref));
    }
  EXPECT_LT(worst, 3e-4);
  EXPECT_EQ(h[(size_t)(ny / 2) * nx], 0.0f);  // the origin lies outside every band with finite resL

  // The score is the sum of the products with a spectrum.
  std::vector<float> real((size_t)nx * ny);
  for (size_t i = 0; i < real.size(); ++i) real[i] = (float)sin(0.37 * i) + 0.5f;
  float* dr = dev.put(real);
  double ref = 0;
  for (size_t i = 0; i < real.size(); ++i) ref += (double)real[i] * h[i];
  const float score =
      ctf_ccc_sim_with_real_2d_half(dev.f(real.size()), dr, apix, nx, ny, (float)R.kv, (float)R.cs, (float)R.ac,
                                    (float)R.ps, (float)R.u, (float)R.v, (float)R.a, (float)R.b, 30, 2.6f);
  EXPECT_NEAR(score, ref, 1e-5 * fabs(ref) + 1e-3);

  // The square form is C^2 exp(-B s^2/4) of the same samples.
  hcuda_ctf_modsquare_simulate_2d_half(d, apix, nx, ny, (float)R.ps, (float)R.kv, (float)R.cs, (float)R.ac, (float)R.u,
                                       (float)R.v, (float)R.a, 0, 30, 2.6f);
  const std::vector<float> sq = from_dev(d, (size_t)nx * ny);
  const int x = 20, y = ny / 2 + 11;
  const double s = sqrt(20.0 * 20 + 11 * 11) / (2.0 * (nx - 1) * apix), p = R.phase(s, atan2(11.0, 20.0));
  EXPECT_NEAR(sq[(size_t)y * nx + x], sin(p) * sin(p), 2e-4);
}

// One launch of many defoci gives the rows of the single curve.
TEST_P(CtfSim, CurvesAndFullPlane) {
  const int n = 257, m = 5;
  const float apix = 1.0f;
  Dev dev;
  std::vector<float> zs = {5000, 9000, 12500, 20000, 41000};
  float* rows = dev.f((size_t)n * m);
  hcuda_ctf_mod_simulate_1ds_multi_defocus(rows, apix, n, 10, 300, 2.7f, 0.1f, dev.put(zs), m, 150, 4, 50);
  const std::vector<float> all = from_dev(rows, (size_t)n * m);
  for (int j = 0; j < m; ++j) {
    float* one = dev.f(n);
    hcuda_ctf_mod_simulate_1d(one, apix, n, 10, 300, 2.7f, 0.1f, zs[j], 150, 50, 4);
    EXPECT_TRUE(same_bits(from_dev(one, n), std::vector<float>(all.begin() + j * n, all.begin() + (j + 1) * n)));
    const Ref r{300, 2.7, 0.1, 10, zs[j], zs[j], 0, 150};
    for (int i = 30; i < n; i += 37) {
      const double s = i / (2.0 * (n - 1) * apix);
      EXPECT_NEAR(all[(size_t)j * n + i], r.mod(s, 0, 50, 4), 3e-4);
    }
  }
  // The phase curve is continuous: gamma + ps + asin(ac).
  float* ph = dev.f(n);
  hcuda_ctf_phase_simulate_1d(ph, apix, n, 10, 300, 2.7f, 0.1f, 12500, 0, 50, 2);
  const std::vector<float> hp = from_dev(ph, n);
  const Ref r{300, 2.7, 0.1, 10, 12500, 12500, 0, 0};
  EXPECT_NEAR(hp[200], r.phase(200 / (2.0 * (n - 1)), 0), 1e-4 * hp[200]);
  EXPECT_EQ(hp[3], 0.0f);

  // Full layout against the whole-double host form.
  const int nx = 96, ny = 80;
  float* full = dev.f((size_t)nx * ny);
  hcuda_ctf_mod_simulate_2d(full, 1.3f, nx, ny, 20, 300, 2.7f, 0.1f, 9000, 11000, 35, 60, 40, 3);
  const std::vector<float> hf = from_dev(full, (size_t)nx * ny);
  std::vector<float> href((size_t)nx * ny);
  host_ctf_simulate_2d(href.data(), 1.3f, nx, ny, 20, 300, 2.7f, 0.1f, 9000, 11000, 35, 60, 40, 3);
  for (size_t i = 0; i < hf.size(); ++i) ASSERT_NEAR(hf[i], href[i], 5e-4) << i;
}

// The record family against the per-value forms and the host loop.
TEST_P(CtfSim, RecordFamilyMatchesHostLoop) {
  const int nx = 33, ny = 64;
  const CTF_INFO c = info(R);
  const RESO band{40, 3};
  for (char mode : {'G', 'E', 'F', 'W', 'S'}) {
    std::vector<float> g((size_t)nx * ny), h((size_t)nx * ny);
    gpu_ctf_sim_2dh(g.data(), nx, ny, 1.1f, c, band, mode);
    cpu_ctf_sim_2dh(h.data(), nx, ny, 1.1f, c, band, mode);
    EXPECT_TRUE(same_bits(g, h)) << mode;
    const int x = 9, y = ny / 2 - 7;
    const double s = sqrt(81.0 + 49.0) / (2.0 * (nx - 1) * 1.1), th = atan2(-7.0, 9.0), p = R.phase(s, th);
    const double want = mode == 'G'   ? R.gamma(s, th)
                        : mode == 'E' ? p - floor(p / PI) * PI
                        : mode == 'F' ? sin(p) * R.env(s)
                        : mode == 'W' ? sin(p) * sin(p) * R.env(s)
                                      : (sin(p) < 0 ? -1 : 1);
    EXPECT_NEAR(g[(size_t)y * nx + x], want, 1e-4 * (1 + fabs(want))) << mode;
  }
  // Flipping twice gives back the image (a round CTF keeps the spectrum Hermitian).
  const int n = 64;
  std::vector<float> img((size_t)n * n);
  for (size_t i = 0; i < img.size(); ++i) img[i] = (float)cos(0.11 * i) + 0.1f * (float)(i % 7);
  std::vector<float> back = img;
  gpu_phase_flip_r2dh_c(back.data(), n, n, 1.0f, 300, 2.7f, 0.1f, 0, 8000, 8000, 10);
  double moved = 0;
  for (size_t i = 0; i < img.size(); ++i) moved += fabs(back[i] - img[i]);
  EXPECT_GT(moved, 1.0);
  gpu_phase_flip_r2dh_c(back.data(), n, n, 1.0f, 300, 2.7f, 0.1f, 0, 8000, 8000, 10);
  for (size_t i = 0; i < img.size(); ++i) ASSERT_NEAR(back[i], img[i], 1e-4);
}

ZK_BACKEND_SUITE(CtfSim);

}  // namespace
