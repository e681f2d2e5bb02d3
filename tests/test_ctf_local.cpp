// The operations behind kesmar_more: the weights of a disc of boxes, the
// cutting of boxes, the three-parameter refinements on spectra with a known
// CTF, the validation grades and the refusals of unsupported box types.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "backend_fixture.h"
#include "ctf/ctf_local.h"
#include "ctf/ctf_refine3.h"
#include "ctf/ctf_sim.h"
#include "ctf/ctf_validation.h"
#include "test_util.h"

namespace {

class CtfLocal : public BackendTest {};

// exp(-(d^2/(2 R^2)) (s^2 res^2/2)) in double, s of the 2D half layout.
double weight_ref(int x, int y, int nxh, int ny, double d, double R, double apix, double res) {
  const double Y = y - ny / 2, s = sqrt((double)x * x + Y * Y) / (2.0 * (nxh - 1) * apix);
  return exp(-(d * d / (2 * R * R)) * (s * s * res * res / 2));
}

TEST_P(CtfLocal, WeightsAgainstDoubleReference) {
  const int nx = 32, ny = 24, nxh = nx / 2 + 1, n = 3;
  const float R = 300, apix = 1.5f, res = 5;
  const std::vector<float> dist = {0.0f, 150.0f, 420.0f};
  Dev dev;
  float* d_dist = dev.put(dist);
  float* w1 = dev.f(n);
  hcuda_2ds_fft_amp_local_w1d_gen(w1, n, d_dist, R);
  const std::vector<float> h1 = from_dev(w1, n);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(h1[i], exp(-(double)dist[i] * dist[i] / (2.0 * R * R)), 1e-6) << i;

  float* ws = dev.f((size_t)n * nxh * ny);
  hcuda_2ds_fft_amp_local_w2ds_gen(ws, nx, ny, n, d_dist, R, apix, res);
  const std::vector<float> hs = from_dev(ws, (size_t)n * nxh * ny);
  float* w2 = dev.f((size_t)nxh * ny);
  hcuda_2d_fft_amp_local_w2d_gen(w2, nx, ny, dist[2], R, apix, res);
  const std::vector<float> h2 = from_dev(w2, (size_t)nxh * ny);
  std::vector<float> c2((size_t)nxh * ny);
  cpu_2d_fft_amp_local_w2d_gen(c2.data(), nx, ny, dist[2], R, apix, res);
  // The device plane equals the host loop; plane 2 of the stack is that plane.
  EXPECT_TRUE(same_bits(h2, c2));
  EXPECT_TRUE(same_bits(std::vector<float>(hs.begin() + 2 * nxh * ny, hs.end()), h2));
  for (int i = 0; i < n; ++i)
    for (auto xy : {std::pair<int, int>{0, ny / 2}, {5, 3}, {nxh - 1, 0}, {nxh - 1, ny / 2}}) {
      const size_t k = (size_t)i * nxh * ny + (size_t)xy.second * nxh + xy.first;
      EXPECT_NEAR(hs[k], weight_ref(xy.first, xy.second, nxh, ny, dist[i], R, apix, res), 1e-6)
          << i << " " << xy.first << " " << xy.second;
    }
  EXPECT_EQ(hs[(size_t)2 * nxh * ny + (size_t)(ny / 2) * nxh], 1.0f);  // the origin keeps every box whole
  std::vector<float> curve(nxh);
  cpu_2d_fft_amp_local_w1d_gen(curve.data(), nxh, dist[1], R, apix, res);
  for (int x = 0; x < nxh; ++x) EXPECT_NEAR(curve[x], weight_ref(x, ny / 2, nxh, ny, dist[1], R, apix, res), 1e-6);
}

TEST_P(CtfLocal, BoxesWhollyInsideAreCutInListOrder) {
  const int nx = 40, ny = 30, box = 8;
  std::vector<float> img((size_t)nx * ny);
  for (size_t i = 0; i < img.size(); ++i) img[i] = (float)i;
  std::vector<PTCL_BOX> boxes(5);
  const int corners[5][2] = {{3, 4}, {-1, 0}, {32, 22}, {33, 0}, {0, 22}};  // 2nd and 4th stick out
  for (int k = 0; k < 5; ++k) boxes[k] = PTCL_BOX{corners[k][0], corners[k][1], box, box, 0, 0, 0, 0};
  Dev dev;
  float* d_img = dev.put(img);
  float* d_out = dev.f((size_t)5 * box * box);
  ASSERT_EQ(hcuda_2d_read_ptcls_to_2ds_from_boxes(d_out, d_img, nx, ny, boxes.data(), 5, box), 3);
  const std::vector<float> h = from_dev(d_out, (size_t)3 * box * box);
  const int kept[3] = {0, 2, 4};
  for (int m = 0; m < 3; ++m)
    for (int y = 0; y < box; ++y)
      for (int x = 0; x < box; ++x)
        ASSERT_EQ(h[(size_t)m * box * box + y * box + x],
                  img[(size_t)(corners[kept[m]][1] + y) * nx + corners[kept[m]][0] + x]);
}

// A clean spectrum: the model |C| exp(-B s^2/4) of a known CTF itself, over
// a wide band, so that each refinement must find that CTF again.
struct KnownSpectrum {
  static constexpr int box = 256, nxh = box / 2 + 1;
  static constexpr float kV = 300, Cs = 2.7f, ac = 0.1f, B = 50, resL = 30;
  float apix, resH;
  Dev dev;
  float *real, *tmp;
  KnownSpectrum(float U, float V, float A, float pixel = 1.0f) : apix(pixel), resH(4.0f * pixel) {
    real = dev.f((size_t)nxh * box);
    tmp = dev.f((size_t)nxh * box);
    hcuda_ctf_mod_simulate_2d_half(real, apix, nxh, box, kV, Cs, ac, 0.0f, U, V, A, B, resL, resH);
  }
};

TEST_P(CtfLocal, ThreeParameterRefinementsFindTheKnownCtf) {
  KnownSpectrum k(15200, 15900, 35);
  float U = 0, V = 0, A = 0, c = 0;
  std::string out = zk_stdout([&] {
    hcuda_ctfrefine_half2d_local(k.real, k.tmp, U, V, A, c, k.apix, k.box, k.box, k.kV, k.Cs, k.ac, 0.0f, 14800, 15500,
                                 34, 200, 1, k.B, k.resL, k.resH, nullptr);
  });
  EXPECT_NEAR(U, 15200, 5);
  EXPECT_NEAR(V, 15900, 5);
  // The angle stage stops for good once its two points lie within 0.5
  // degrees, which can happen before U and V have settled.
  EXPECT_NEAR(A, 35, 1.5);
  EXPECT_GT(c, 0.99);  // the model against itself: a correlation of 1
  EXPECT_FALSE(zk_has(out, "WARNING"));

  // The mean alone: the half difference and the angle stay as given.
  hcuda_ctfrefine_half2d_only_defave(k.real, k.tmp, U, V, c, k.apix, k.box, k.box, k.kV, k.Cs, k.ac, 0.0f, 14900, 15600,
                                     35, 200, k.B, k.resL, k.resH, nullptr);
  EXPECT_NEAR((U + V) / 2, 15550, 3);
  EXPECT_NEAR(V - U, 700, 0.01);
}

TEST_P(CtfLocal, ValidateRefinementReturnsTheSameCtfWhenUAndVComeBackExchanged) {
  KnownSpectrum k(15200, 15900, 35);
  float U = 0, V = 0, A = 0, c = 0;
  // A start with U and V exchanged and the angle turned: the same CTF.
  hcuda_ctfvalidate_half2d(k.real, k.tmp, U, V, A, c, k.apix, k.box, k.box, 0.0f, k.kV, k.Cs, k.ac, 15850, 15250, 124,
                           100, 3, k.B, k.resL, k.resH, nullptr);
  // Reported in the form nearer the start: U and V exchanged, the angle by 90.
  EXPECT_NEAR(U, 15900, 5);
  EXPECT_NEAR(V, 15200, 5);
  EXPECT_NEAR(A, 125, 0.5);
}

TEST(CtfValidation, GradesAtTheirLimits) {
  const float e = 1600;
  struct Row {
    float d;
    int grade;
  } rows[] = {{0, 5},       {612.29f, 5}, {612.3f, 4}, {1131.3f, 4}, {1131.4f, 3},
              {1599.9f, 3}, {1600, 2},    {3199, 2},   {3200, 1},    {1e9f, 1}};
  for (const Row& r : rows) EXPECT_EQ(ctf_validation_grade(r.d, e), r.grade) << r.d;
}

TEST_P(CtfLocal, ValidationGradesRightAndWrongStarts) {
  KnownSpectrum k(15200, 15900, 35, 2.0f);
  std::vector<CTF_VALIDATION_BAND> right, wrong;
  const std::string out = zk_stdout([&] {
    ctf_validation(k.real, k.tmp, 2.0f, k.box, k.box, 0.0f, k.kV, k.Cs, k.ac, 15200, 15900, 35, 0, k.B, k.resL, k.resH,
                   nullptr, &right);
  });
  // At 2 A per pixel only the bands whose high limit is above 4 A run.
  ASSERT_EQ(right.size(), 3u);
  EXPECT_EQ(right[0].resL, 20);
  EXPECT_EQ(right[2].resH, 5);
  EXPECT_TRUE(zk_has(out,
                     "\n......................................  VALIDATION  ......................................\n"
                     "Differences from Original Values:\n  RESOLUTION   Defocus_U   Defocus_V     Angle       CCC"
                     "      CONVERGENCE  \n  20-08A "))
      << out;
  EXPECT_TRUE(zk_has(out, "  12-05A "));
  EXPECT_FALSE(zk_has(out, "  10-04A "));
  (void)zk_stdout([&] {
    ctf_validation(k.real, k.tmp, 2.0f, k.box, k.box, 0.0f, k.kV, k.Cs, k.ac, 15200 * 0.8f, 15900 * 0.8f, 35, 0, k.B,
                   k.resL, k.resH, nullptr, &wrong);
  });
  ASSERT_EQ(wrong.size(), 3u);
  int lowest_wrong = 5;
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_GE(right[i].grade, 4) << i;
    lowest_wrong = std::min(lowest_wrong, wrong[i].grade);
  }
  EXPECT_LE(lowest_wrong, 2);
}

TEST(CtfLocalRefine, UnsupportedBoxTypesEndTheRun) {
  std::vector<float> img(64 * 64, 0.0f);
  auto call = [&](int boxtype) {
    ctf_local_refine_boxf("m.mrc", "none.box", img.data(), 64, 64, 30, 32, 0.5f, 0, boxtype, 0, 0, 14, 1, 300, 2.7f,
                          0.1f, 0, 10000, 10000, 0, 0, 300, 100, 15, 5, 0, nullptr);
  };
  EXPECT_FAILS("LOCAL_REFINE_GIVENBOX unsupported in the current version! Exit now!", call(2));
  EXPECT_FAILS("LOCAL_REFINE_AUTOGRID unsupported in the current version! Exit now!", call(3));
  EXPECT_FAILS("unrecognized local_boxtype! Exit now!", call(0));
}

ZK_BACKEND_SUITE(CtfLocal);

}  // namespace
