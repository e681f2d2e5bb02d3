// Spectrum preparation, equiphase average and the .ctf picture of the CTF
// engine, against independent references.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "backend_fixture.h"
#include "ctf/ctf_epa.h"
#include "ctf/ctf_sim.h"
#include "ctf/ctf_spectrum.h"
#include "ctf/curve_fit.h"
#include "ctf/kesmar.h"
#include "device/hd_math.h"

namespace {

std::vector<float> test_image(int nx, int ny, unsigned seed) {
  std::vector<float> v((size_t)nx * ny);
  unsigned s = seed;
  for (auto& x : v) {
    s = s * 1664525u + 1013904223u;
    x = (float)((s >> 8) & 0xffff) / 65536.0f + 0.3f * sinf(0.05f * (float)(&x - v.data()));
  }
  return v;
}

// Mean over x - w/2 .. x + w/2 - 1 (y likewise) cut at the edges, in double.
double box_mean_ref(const std::vector<float>& a, int nx, int ny, int x, int y, int w) {
  const int h = w / 2;
  double s = 0;
  int n = 0;
  for (int j = std::max(0, y - h); j < std::min(ny, y + h); ++j)
    for (int i = std::max(0, x - h); i < std::min(nx, x + h); ++i, ++n) s += a[(size_t)j * nx + i];
  return s / n;
}

class CtfSpectrum : public BackendTest {};

TEST_P(CtfSpectrum, RunningBoxMeanEqualsDirectMean) {
  const int nx = 37, ny = 29;
  const std::vector<float> img = test_image(nx, ny, 3);
  Dev dev;
  float* in = dev.put(img);
  float* out = dev.f(img.size());
  for (int w : {1, 8, 9, 40}) {
    hcuda_2d_box_mean_running(in, out, nx, ny, w);
    const std::vector<float> h = from_dev(out, img.size());
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        if (w == 1) {  // an empty box: the mean of nothing
          EXPECT_TRUE(std::isnan(h[(size_t)y * nx + x]));
          continue;
        }
        ASSERT_NEAR(h[(size_t)y * nx + x], box_mean_ref(img, nx, ny, x, y, w), 1e-5) << w << " " << x << " " << y;
      }
  }
}

// Amplitudes summed over the grid of boxes, by a direct DFT per box; their
// logarithm; the logarithm less its box mean over the full plane.
TEST_P(CtfSpectrum, GridSpectrumAgainstDirectTransform) {
  const int nx = 200, ny = 150, bx = 64, by = 64, step = 32, conv = 10;
  const int nxh = bx / 2 + 1;
  const std::vector<float> img = test_image(nx, ny, 7);
  Dev dev;
  float* amp = dev.f((size_t)nxh * by);
  float* lg = dev.f((size_t)nxh * by);
  float* sub = dev.f((size_t)nxh * by);
  hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(dev.put(img), amp, lg, sub, nx, ny, bx, by, step, conv);
  const std::vector<float> ha = from_dev(amp, (size_t)nxh * by), hl = from_dev(lg, (size_t)nxh * by),
                           hs = from_dev(sub, (size_t)nxh * by);
  const int gx = (nx - bx) / step + 1, gy = (ny - by) / step + 1;  // 5 by 3; the last strips are not used
  auto amp_ref = [&](int kx, int ky) {
    double total = 0;
    for (int iy = 0; iy < gy; ++iy)
      for (int ix = 0; ix < gx; ++ix) {
        std::complex<double> f = 0;
        for (int y = 0; y < by; ++y)
          for (int x = 0; x < bx; ++x)
            f += (double)img[(size_t)(iy * step + y) * nx + ix * step + x] *
                 std::polar(1.0, -2 * M_PI * ((double)kx * x / bx + (double)ky * y / by));
        total += std::abs(f);
      }
    return total;
  };
  // Row by/2 holds ky = 0; row by/2 + k holds ky = k, row by/2 - k ky = -k.
  for (auto [kx, ky] : {std::pair{0, 0}, {3, 5}, {10, -7}, {32, 31}, {1, -32}}) {
    const size_t i = (size_t)((ky + by / 2 + by) % by) * nxh + kx;
    const double ref = amp_ref(kx, ky);
    EXPECT_NEAR(ha[i], ref, 2e-5 * ref) << kx << " " << ky;
    EXPECT_NEAR(hl[i], log(ref), 2e-5);
  }
  // The background removal on the full plane (half2full mirror of the half).
  std::vector<float> full((size_t)bx * by);
  for (int y = 0; y < by; ++y)
    for (int x = 0; x < bx; ++x)
      full[(size_t)y * bx + x] =
          x >= bx / 2 - 1 ? hl[(size_t)y * nxh + x - bx / 2 + 1] : hl[(size_t)((by - y) % by) * nxh + bx / 2 - 1 - x];
  for (auto [x, y] : {std::pair{0, 0}, {5, 32}, {20, 10}, {32, 63}}) {
    const double want = full[(size_t)y * bx + bx / 2 - 1 + x] - box_mean_ref(full, bx, by, bx / 2 - 1 + x, y, conv);
    EXPECT_NEAR(hs[(size_t)y * nxh + x], want, 1e-4) << x << " " << y;
  }
}

// The equiphase average of a noiseless astigmatic CTF^2 plane follows the
// rings: it matches the curve of the reference direction, and averaging
// along the mirrored angle does not.
TEST_P(CtfSpectrum, EquiphaseAverageFollowsTheRings) {
  const int nx = 257, ny = 512;
  const float apix = 1.0f, U = 9000, V = 11000, A = 35;
  Dev dev;
  float* plane = dev.f((size_t)nx * ny);
  hcuda_ctf_modsquare_simulate_2d_half(plane, apix, nx, ny, 0, 300, 2.7f, 0.1f, U, V, A, 0, 1000, 2.0f);
  float* model = dev.f(nx);
  const float zref = U * powf(cosf(A * (float)M_PI / 180), 2) + V * powf(sinf(A * (float)M_PI / 180), 2);
  auto corr = [&](const std::vector<float>& a, const std::vector<float>& b, int i0, int i1) {
    double sa = 0, sb = 0, sab = 0, saa = 0, sbb = 0;
    const int n = i1 - i0;
    for (int i = i0; i < i1; ++i) sa += a[i], sb += b[i];
    for (int i = i0; i < i1; ++i) {
      const double da = a[i] - sa / n, db = b[i] - sb / n;
      sab += da * db, saa += da * da, sbb += db * db;
    }
    return sab / sqrt(saa * sbb);
  };
  hcuda_ctf_sim_1dh(model, nx, apix, CTF_INFO(300, 2.7f, 0.1f, 0, zref, zref, 0, 0), RESO{1000, 2}, 'W');
  const std::vector<float> want = from_dev(model, nx);
  float* curve = dev.f(nx);
  for (float a : {A, -A}) {
    hcuda_2d_half_EPA_X_res(plane, curve, 1, apix, nx, ny, 300, 2.7f, 0.1f, 0, U, V, a, 50, 2.2f);
    const double c = corr(from_dev(curve, nx), want, 30, 230);
    if (a == A)
      EXPECT_GT(c, 0.97);
    else
      EXPECT_LT(c, 0.8);
  }
  std::vector<float> host = from_dev(plane, (size_t)nx * ny), binned(nx);
  host_2d_half_epa_binned(host.data(), binned.data(), 1, apix, nx, ny, 300, 2.7f, U, V, A, 50, 2.2f);
  EXPECT_GT(corr(binned, want, 30, 230), 0.97);

  // The resolution limit of the right fit reaches the end of the walk; a
  // wrong defocus is caught where its rings leave the data's.
  float right = 100, wrong = 100;
  ctf_epa_1d_ccf(right, 50, plane, plane, 4, apix, nx, ny, 0, 300, 2.7f, 0.1f, U, V, A, 50, 2.1f, 15, 6);
  ctf_epa_1d_ccf(wrong, 50, plane, plane, 4, apix, nx, ny, 0, 300, 2.7f, 0.1f, U + 400, V + 400, A, 50, 2.1f, 15, 6);
  EXPECT_LT(right, 2.4f);
  EXPECT_GT(wrong, right + 0.5f);
  float binned_right = 100;
  ctf_epa_1d_ccf_binned(binned_right, 50, host.data(), 4, apix, nx, ny, 0, 300, 2.7f, 0.1f, U, V, A, 50, 2.1f);
  EXPECT_LT(binned_right, 2.4f);
}

// Host and GPU give the same spectrum and score up to the FFT libraries.
TEST(CtfSpectrumBackends, HostAndGpuAgree) {
  if (!zk_use_gpu()) GTEST_SKIP() << "no usable GPU";
  zk_use_host();
  const int nx = 600, ny = 520, box = 256, nxh = box / 2 + 1;
  const std::vector<float> img = test_image(nx, ny, 11);
  std::vector<float> results[2];
  float scores[2];
  for (int b = 0; b < 2; ++b) {
    if (b == 1) zk_use_gpu();
    {
      Dev dev;
      float *amp = dev.f((size_t)nxh * box), *lg = dev.f((size_t)nxh * box), *sub = dev.f((size_t)nxh * box);
      hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(dev.put(img), amp, lg, sub, nx, ny, box, box, 128, 21);
      results[b] = from_dev(sub, (size_t)nxh * box);
      scores[b] = ctf_ccc_sim_with_real_2d_half(dev.f((size_t)nxh * box), sub, 1.0f, nxh, box, 300, 2.7f, 0.1f, 0,
                                                10000, 11000, 20, 150, 50, 4);
    }
    zk_use_host();
  }
  for (size_t i = 0; i < results[0].size(); ++i) ASSERT_NEAR(results[0][i], results[1][i], 1e-5) << i;
  EXPECT_NEAR(scores[0], scores[1], 1e-5 * fabs(scores[0]));
}

ZK_BACKEND_SUITE(CtfSpectrum);

// The picture: the simulation turned through 180 degrees on the left, the
// spectrum on the right, the centre 0.
TEST(CtfPicture, CombineHalves) {
  const int nx = 8, ny = 6, h = nx / 2 + 1;
  std::vector<float> sim((size_t)h * ny), raw((size_t)h * ny), out((size_t)nx * ny);
  for (int i = 0; i < h * ny; ++i) sim[i] = 1000.0f + (float)i, raw[i] = (float)i;
  host_2d_half_sim_raw_combine(out.data(), sim.data(), raw.data(), nx, ny);
  EXPECT_EQ(out[1 * nx + 0], sim[(size_t)5 * h + 3]);  // (0, 1) <- column 3 of row 5
  EXPECT_EQ(out[4 * nx + 2], sim[(size_t)2 * h + 1]);
  EXPECT_EQ(out[2 * nx + 3], raw[(size_t)2 * h + 0]);  // the origin column
  EXPECT_EQ(out[5 * nx + 7], raw[(size_t)5 * h + 4]);
  EXPECT_EQ(out[3 * nx + 4], 0.0f);
  host_2d_half_sim_raw_combine2(out.data(), sim.data(), raw.data(), nx, ny);
  EXPECT_EQ(out[1 * nx + 0], sim[(size_t)5 * h + 3]);
  EXPECT_EQ(out[4 * nx + 2], raw[(size_t)2 * h + 1]);
}

TEST(CtfCurves, ArcFunctionsLineFitAndBfactor) {
  for (double x = -30; x <= 30; x += 0.37) EXPECT_NEAR(hd_atan(x), atan(x), 4e-16 * (1 + fabs(atan(x))));
  for (double x = -1; x <= 1; x += 0.0123) EXPECT_NEAR(hd_asin(x), asin(x), 1e-15);
  EXPECT_EQ(hd_asin(1.0), asin(1.0));
  const float x[] = {1, 2, 3, 4, 5}, y[] = {3.5f, 5.5f, 7.5f, 9.5f, 11.5f};
  float a, b;
  line_fit(x, y, 5, a, b);
  EXPECT_NEAR(a, 2.0f, 1e-5);
  EXPECT_NEAR(b, 1.5f, 1e-5);
  // ln|F| = c - B s^2/4 gives B back.
  const int n = 513;
  const float apix = 1.2f;
  std::vector<float> epa(n);
  for (int i = 0; i < n; ++i) {
    const float s = i / (2.0f * (n - 1) * apix);
    epa[i] = 3.0f - 120.0f * s * s / 4.0f;
  }
  EXPECT_NEAR(bfac_estimation_from_epa_1d2(epa.data(), apix, n, 6, 15), 120.0f, 0.5f);
}

}  // namespace
