#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "picking/img_filter.h"
#include "test_util.h"

namespace {

using DevFilter = std::function<void(float* d_img, int n)>;

std::vector<float> noise_image(int nx, int ny, unsigned seed) { return zk_normal((size_t)nx * ny, seed); }

// An image through a device filter in place.
std::vector<float> filtered(const std::vector<float>& img, int n, const DevFilter& f) {
  Dev d;
  float* d_img = d.put(img);
  f(d_img, n);
  return from_dev(d_img, img.size());
}

// The weights that a plain filter puts on the half spectrum of N by N: the
// impulse at the origin has a flat spectrum of ones, so the transform of the
// filtered impulse is w*N^2.
std::vector<float> spectrum_weights(int N, const DevFilter& f) {
  std::vector<float> imp((size_t)N * N, 0.0f);
  imp[0] = 1.0f;
  Dev d;
  float* d_imp = d.put(imp);
  f(d_imp, N);
  const size_t nh = (size_t)(N / 2 + 1) * N;
  float2* spectrum = d.c(nh);
  hcuda_2d_fft_r2c(d_imp, spectrum, N, N);
  std::vector<float2> h = from_dev(spectrum, nh);
  std::vector<float> w(nh);
  const double N2 = (double)N * N;
  for (size_t i = 0; i < nh; ++i) w[i] = (float)(h[i].x / N2);
  return w;
}

double radius(int kx, int ky, int N) {
  const int fy = ky < N / 2 ? ky : ky - N;
  return std::sqrt((double)kx * kx + (double)fy * fy);
}
double guas(double x, double s) { return 0.39894229 * std::exp(-x * x / (2.0 * s * s)); }

}  // namespace

class BandPass : public BackendTest {};

// The limits of the padded Gaussian of the documented example (n = 1024
// pads to N = 2048), by hand.
TEST(BandPassRadii, ExampleAtN2048) {
  EXPECT_NEAR(hd_band_rl(2048, 5.36f, 40.0f, 1000.0f), 10.977, 1e-3);
  EXPECT_NEAR(hd_band_rh(2048, 5.36f, 40.0f, 1000.0f), 274.4, 0.05);
}

// Every element of the half spectrum of the three bands and the two cuts,
// against the curves written out in double.
TEST_P(BandPass, CurvesOverTheWholeSpectrum) {
  const int N = 64;
  const int nh = N / 2 + 1;
  // apix 1: a = 32 A gives rl = 2, b = 4 A gives rh = 16, both exact.
  std::vector<float> soft =
      spectrum_weights(N, [](float* d, int n) { hcuda_2d_bandpass_softR_inplace(d, n, 1.0f, 32.0f, 4.0f, 6.0f); });
  std::vector<float> sharp =
      spectrum_weights(N, [](float* d, int n) { hcuda_2d_bandpass_sharp_inplace(d, n, 1.0f, 4.0f, 32.0f); });
  std::vector<float> gaus =
      spectrum_weights(N, [](float* d, int n) { hcuda_2d_bandpass_guas_inplace(d, n, 1.0f, 32.0f, 4.0f); });
  // Limits between pixels: rl = 64 / 30 = 2.13, rh = 64 / 4.5 = 14.2; nothing is rounded.
  std::vector<float> frac =
      spectrum_weights(N, [](float* d, int n) { hcuda_2d_bandpass_sharp_inplace(d, n, 1.0f, 4.5f, 30.0f); });
  std::vector<float> low = spectrum_weights(N, [](float* d, int n) {
    float* o = d_alloc_float((size_t)n * n);
    hcuda_2d_lowpass_sharp(d, o, n, 1.0f, 4.0f);
    memcpy_D2D(d, o, (size_t)n * n * sizeof(float));
    device_free(o);
  });
  std::vector<float> high = spectrum_weights(N, [](float* d, int n) {
    float* o = d_alloc_float((size_t)n * n);
    hcuda_c2d_highpass_sharp(d, o, n, 1.0f, 32.0f);
    memcpy_D2D(d, o, (size_t)n * n * sizeof(float));
    device_free(o);
  });
  for (int ky = 0; ky < N; ++ky)
    for (int kx = 0; kx < nh; ++kx) {
      const double r = radius(kx, ky, N);
      const size_t i = (size_t)ky * nh + kx;
      const double w_soft = r < 2 ? 0.0 : r <= 16 ? 1.0 : r <= 22 ? guas(r - 16, 2.0) : 0.0;
      const double w_sharp = (r < 2 || r > 16) ? 0.0 : 1.0;
      const double w_gaus = (r < 2 || r > 16) ? 0.0 : guas(r, 16.0 / 3) * guas(33 - r, 31.0 / 3);
      EXPECT_NEAR(soft[i], w_soft, 1e-5) << kx << "," << ky;
      EXPECT_NEAR(sharp[i], w_sharp, 1e-5) << kx << "," << ky;  // r = 2 and r = 16 stay
      EXPECT_NEAR(frac[i], (r < 64.0 / 30 || r > 64.0 / 4.5) ? 0.0 : 1.0, 1e-5) << kx << "," << ky;
      EXPECT_NEAR(gaus[i], w_gaus, 1e-6) << kx << "," << ky;
      EXPECT_NEAR(low[i], r <= 16 ? 1.0 : 0.0, 1e-5) << kx << "," << ky;
      EXPECT_NEAR(high[i], r >= 2 ? 1.0 : 0.0, 1e-5) << kx << "," << ky;
    }
}

TEST_P(BandPass, OrderOfTheLimitsDoesNotMatter) {
  const int n = 48;
  std::vector<float> img = noise_image(n, n, 3);
  auto run = [&](float a, float b) {
    return std::vector<std::vector<float>>{
        filtered(img, n, [=](float* d, int m) { hcuda_2d_bandpass_sharp_inplace(d, m, 1.5f, a, b); }),
        filtered(img, n, [=](float* d, int m) { hcuda_2d_bandpass_softR_inplace(d, m, 1.5f, a, b, 3.0f); }),
        filtered(img, n, [=](float* d, int m) { hcuda_2d_bandpass_guas_mpad_inplace(d, m, 1.5f, a, b); }),
        filtered(img, n, [=](float* d, int m) { hcuda_2d_bandpass_softR_mpad_inplace(d, m, 1.5f, a, b, 8.0f); }),
    };
  };
  auto ab = run(40.0f, 6.0f), ba = run(6.0f, 40.0f);
  for (size_t k = 0; k < ab.size(); ++k) EXPECT_TRUE(same_bits(ab[k], ba[k])) << "filter " << k;
}

TEST_P(BandPass, NoSoftWidthIsTheHardBand) {
  const int n = 40;
  std::vector<float> img = noise_image(n, n, 5);
  std::vector<float> hard =
      filtered(img, n, [](float* d, int m) { hcuda_2d_bandpass_sharp_inplace(d, m, 1.0f, 30.0f, 4.0f); });
  std::vector<float> soft0 =
      filtered(img, n, [](float* d, int m) { hcuda_2d_bandpass_softR_inplace(d, m, 1.0f, 30.0f, 4.0f, 0.0f); });
  EXPECT_TRUE(same_bits(hard, soft0));
  // The staged soft form takes the hard band below one pixel of width.
  std::vector<float> g_soft = img, g_hard = img;
  gpu_2d_bandpass_softR_inplace(g_soft.data(), n, 1.0f, 30.0f, 4.0f, 0.5f);
  gpu_2d_bandpass_sharp_inplace(g_hard.data(), n, 1.0f, 30.0f, 4.0f);
  EXPECT_TRUE(same_bits(g_soft, g_hard));
  EXPECT_TRUE(same_bits(g_hard, hard));
  // A width of one pixel or more is the soft curve.
  std::vector<float> g_soft1 = img;
  gpu_2d_bandpass_softR_inplace(g_soft1.data(), n, 1.0f, 30.0f, 4.0f, 1.0f);
  EXPECT_FALSE(same_bits(g_soft1, g_hard));
}

// The padded forms are the plain filter of the mirror-padded image (N = 2n,
// the same limits in angstrom), cut back to the first quadrant.
TEST_P(BandPass, PaddedFormsFilterTheMirrorPaddedImage) {
  const int n = 24, N = 2 * n;
  std::vector<float> img = noise_image(n, n, 9);
  std::vector<float> pad((size_t)N * N);
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x) {
      const int sx = x < n ? x : N - 1 - x, sy = y < n ? y : N - 1 - y;
      pad[(size_t)y * N + x] = img[(size_t)sy * n + sx];
    }
  auto quadrant = [&](const std::vector<float>& big) {
    std::vector<float> q((size_t)n * n);
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) q[(size_t)y * n + x] = big[(size_t)y * N + x];
    return q;
  };
  std::vector<float> g_ref =
      quadrant(filtered(pad, N, [](float* d, int m) { hcuda_2d_bandpass_guas_inplace(d, m, 2.0f, 10.0f, 60.0f); }));
  std::vector<float> s_ref = quadrant(
      filtered(pad, N, [](float* d, int m) { hcuda_2d_bandpass_softR_inplace(d, m, 2.0f, 4.0f, 60.0f, 8.0f); }));
  std::vector<float> g_pad =
      filtered(img, n, [](float* d, int m) { hcuda_2d_bandpass_guas_mpad_inplace(d, m, 2.0f, 10.0f, 60.0f); });
  std::vector<float> s_pad = filtered(
      img, n, [](float* d, int m) { hcuda_2d_bandpass_softR_mpad_inplace(d, m, 2.0f, 4.0f, 60.0f, 8.0f); });
  EXPECT_TRUE(same_bits(g_pad, g_ref));
  EXPECT_TRUE(same_bits(s_pad, s_ref));

  // Out of place, and the staged forms, give the same bits.
  Dev d;
  float *d_in = d.put(img), *d_out = d.f(img.size());
  hcuda_2d_bandpass_guas_mpad(d_in, d_out, n, 2.0f, 10.0f, 60.0f);
  EXPECT_TRUE(same_bits(from_dev(d_out, img.size()), g_pad));
  EXPECT_TRUE(same_bits(from_dev(d_in, img.size()), img));
  std::vector<float> staged(img.size());
  gpu_2d_bandpass_guas_mpad(img.data(), staged.data(), n, 2.0f, 10.0f, 60.0f);
  EXPECT_TRUE(same_bits(staged, g_pad));
  gpu_2d_bandpass_guas_mpad_inplace(img.data(), n, 2.0f, 10.0f, 60.0f);
  EXPECT_TRUE(same_bits(img, g_pad));
}

TEST_P(BandPass, FileCommandFiltersTheFirstImage) {
  ZkTmpDir tmp;
  const int n = 32;
  std::vector<float> stack = noise_image(n, n * 2, 11);  // two images
  const std::string in = tmp / "in.mrc";
  mrcf_write_xyz_data(in.c_str(), stack.data(), n, n, 2);
  for (int type = 0; type <= 4; ++type) {
    const std::string out = tmp / ("out" + std::to_string(type) + ".mrc");
    mrcf_2d_bandpass(in.c_str(), out.c_str(), 2.0f, 8.0f, 50.0f, 4.0f, type);
    MRC_HEAD head;
    mrcf_read_head(out.c_str(), &head);
    ASSERT_EQ(head.nx, n);
    ASSERT_EQ(head.nz, 2);
    std::vector<float> got((size_t)n * n * 2);
    mrcf_read_all(out.c_str(), got.data());
    std::vector<float> want(stack.begin(), stack.begin() + n * n);
    if (type == 1) gpu_2d_bandpass_guas_inplace(want.data(), n, 2.0f, 8.0f, 50.0f);
    if (type == 2) gpu_2d_bandpass_softR_inplace(want.data(), n, 2.0f, 8.0f, 50.0f, 4.0f);
    if (type == 3) gpu_2d_bandpass_sharp_inplace(want.data(), n, 2.0f, 8.0f, 50.0f);
    if (type == 4) gpu_2d_bandpass_guas_mpad_inplace(want.data(), n, 2.0f, 8.0f, 50.0f);
    EXPECT_TRUE(same_bits(std::vector<float>(got.begin(), got.begin() + n * n), want)) << "type " << type;
    // The second image is carried over untouched.
    EXPECT_TRUE(same_bits(std::vector<float>(got.begin() + n * n, got.end()),
                           std::vector<float>(stack.begin() + n * n, stack.end())))
        << "type " << type;
  }
}

ZK_BACKEND_SUITE(BandPass);

TEST(BandPassFile, RectangleEndsTheRun) {
  ZkTmpDir tmp;
  std::vector<float> img((size_t)32 * 16, 1.0f);
  const std::string in = tmp / "rect.mrc", out = tmp / "out.mrc";
  mrcf_write_xyz_data(in.c_str(), img.data(), 32, 16, 1);
  EXPECT_FAILS("Can not do band-pass on rectangle data. Must be square.",
               mrcf_2d_bandpass(in.c_str(), out.c_str(), 1.0f, 8.0f, 50.0f, 4.0f, 1););
  EXPECT_FALSE(zk_exists(out));
}
