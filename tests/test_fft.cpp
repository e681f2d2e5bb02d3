#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "test_util.h"

namespace {

typedef std::complex<double> cd;
const double kPi = 3.14159265358979323846;

// Naive forward DFT in double, exponent -2*pi*i, unnormalised, half spectrum.
std::vector<cd> naive_r2c(const float* a, int nx, int ny) {
  const int nxh = nx / 2 + 1;
  std::vector<cd> out((size_t)nxh * ny);
  for (int ky = 0; ky < ny; ++ky)
    for (int kx = 0; kx < nxh; ++kx) {
      cd s = 0;
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x)
          s += (double)a[y * nx + x] * std::polar(1.0, -2 * kPi * ((double)kx * x / nx + (double)ky * y / ny));
      out[ky * nxh + kx] = s;
    }
  return out;
}

// Half spectra against the naive DFT of each image of a stack, scaled by 1/div.
void expect_naive_spectra(const std::vector<float2>& f, const std::vector<float>& a, int nx, int ny, int nz,
                          double div, double tol) {
  const int n = nx * ny, nc = (nx / 2 + 1) * ny;
  for (int k = 0; k < nz; ++k) {
    std::vector<cd> ref = naive_r2c(a.data() + k * n, nx, ny);
    for (int i = 0; i < nc; ++i) {
      EXPECT_NEAR(f[k * nc + i].x, ref[i].real() / div, tol) << nx << "x" << ny << " image " << k << " i=" << i;
      EXPECT_NEAR(f[k * nc + i].y, ref[i].imag() / div, tol) << nx << "x" << ny << " image " << k << " i=" << i;
    }
  }
}

void expect_near_all(const std::vector<float>& got, const std::vector<float>& want, double scale, double tol) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], want[i] * scale, tol) << i;
}

}  // namespace

class Fft : public BackendTest {};

// Small even sizes with odd factors against the naive DFT: layout, sign,
// scale and the rows ky >= ny/2; the inverse brings back n times the image,
// the normalised pairs (device and staged) the image itself.
TEST_P(Fft, TransformsMatchNaiveDft) {
  const int sizes[][2] = {{6, 10}, {14, 6}, {18, 30}, {2, 2}};
  for (auto& s : sizes) {
    const int nx = s[0], ny = s[1], n = nx * ny, nc = (nx / 2 + 1) * ny;
    const std::vector<float> a = zk_uniform(n, nx * 100 + ny), a0 = a;
    Dev d;
    float* d_a = d.put(a);
    float2* d_f = d.c(nc);
    float* d_r = d.f(n);
    hcuda_2d_fft_r2c(d_a, d_f, nx, ny);
    std::vector<float2> f = from_dev(d_f, nc);
    expect_naive_spectra(f, a, nx, ny, 1, 1.0, 1e-4);
    hcuda_2d_fft_c2r(d_f, d_r, nx, ny);
    expect_near_all(from_dev(d_r, n), a, n, 1e-3);
    hcuda_2d_fft_r2c_normz(d_a, d_f, nx, ny);
    expect_naive_spectra(from_dev(d_f, nc), a, nx, ny, 1, sqrt((double)n), 1e-5);
    hcuda_2d_fft_c2r_normz(d_f, d_r, nx, ny);
    expect_near_all(from_dev(d_r, n), a, 1.0, 1e-5);
    // The staged forms keep their inputs.
    std::vector<float2> hf(nc);
    std::vector<float> r(n);
    gpu_2d_fft_r2c(a.data(), hf.data(), nx, ny);
    expect_naive_spectra(hf, a, nx, ny, 1, sqrt((double)n), 1e-5);
    const std::vector<float2> hf0 = hf;
    gpu_2d_fft_c2r(hf.data(), r.data(), nx, ny);
    expect_near_all(r, a, 1.0, 1e-5);
    EXPECT_EQ(a, a0);
    EXPECT_TRUE(same_bits(hf, hf0));
  }
}

TEST_P(Fft, StackFormsMatchSingleTransforms) {
  const int nx = 18, ny = 10, nz = 3, n = nx * ny, nc = (nx / 2 + 1) * ny;
  std::vector<float> a = zk_uniform(n * nz, 11);
  Dev d;
  float2* d_f = d.c((size_t)nc * nz);
  float* d_r = d.f((size_t)n * nz);
  hcuda_2ds_fft_r2c(d.put(a), d_f, nx, ny, nz);
  expect_naive_spectra(from_dev(d_f, (size_t)nc * nz), a, nx, ny, nz, 1.0, 1e-4);
  hcuda_2ds_fft_c2r(d_f, d_r, nx, ny, nz);
  expect_near_all(from_dev(d_r, (size_t)n * nz), a, n, 1e-3);
  // Staged stack form: normalised image by image, one dot when done.
  std::vector<float2> hf((size_t)nc * nz);
  EXPECT_EQ(zk_stdout([&] { gpu_2ds_fft_r2c(a.data(), hf.data(), nx, ny, nz); }), ".");
  expect_naive_spectra(hf, a, nx, ny, nz, sqrt((double)n), 1e-5);
  // The log modulus of each spectrum.
  const int sx = 6, sy = 4, sn = sx * sy, snc = (sx / 2 + 1) * sy;
  std::vector<float> b = zk_uniform(sn * 2, 31);
  float* d_o = d.f(snc * 2);
  hcuda_2ds_fft_r2c_logmod(d.put(b), d_o, sx, sy, 2);
  std::vector<float> o = from_dev(d_o, snc * 2);
  for (int k = 0; k < 2; ++k) {
    std::vector<cd> ref = naive_r2c(b.data() + k * sn, sx, sy);
    for (int i = 0; i < snc; ++i) EXPECT_NEAR(o[k * snc + i], log(std::abs(ref[i])), 1e-4);
  }
}

// The explicit plan API gives the bits of the cached plans, also for arrays
// of another alignment.
TEST_P(Fft, ExplicitPlansGiveTheCachedBits) {
  const int nx = 30, ny = 18, n = nx * ny, nc = (nx / 2 + 1) * ny;
  std::vector<float> a = zk_uniform(n + 2, 21);
  Dev d;
  float* d_a = d.put(a);
  float2* d_f = d.c(nc);
  float* d_r = d.f(n);
  auto run = [&]() {
    hcuda_2d_fft_r2c(d_a, d_f, nx, ny);
    std::vector<float2> f = from_dev(d_f, nc);
    hcuda_2d_fft_c2r(d_f, d_r, nx, ny);
    return std::make_pair(f, from_dev(d_r, n));
  };
  const auto cached = run();
  ZkFftPlan pf = zk_fft_plan_r2c(nx, ny, 1);
  ZkFftPlan pb = zk_fft_plan_c2r(nx, ny, 1);
  zk_fft_exec_r2c(pf, d_a, d_f);
  EXPECT_TRUE(same_bits(cached.first, from_dev(d_f, nc)));
  zk_fft_exec_c2r(pb, d_f, d_r);
  EXPECT_TRUE(same_bits(cached.second, from_dev(d_r, n)));

  // Arrays of another alignment (two floats in: off FFTW's SIMD alignment,
  // still what cuFFT demands); the result is still the transform.
  memcpy_H2D(d_a + 2, a.data(), n * sizeof(float));
  zk_fft_exec_r2c(pf, d_a + 2, d_f);
  std::vector<float2> f = from_dev(d_f, nc);
  for (int i = 0; i < nc; ++i) EXPECT_NEAR(f[i].x, cached.first[i].x, 1e-4);
  zk_fft_plan_destroy(pf);
  zk_fft_plan_destroy(pb);
}

ZK_BACKEND_SUITE(Fft);

// Host threads of FFTW do not change a single bit.
TEST(FftHostThreads, BitIdenticalForEveryThreadCount) {
  zk_use_host();
  for (int s : {958, 1024, 1916}) {
    const size_t n = (size_t)s * s;
    Dev d;
    float* d_a = d.put(zk_uniform((int)n, s));
    float2* d_f = d.c((size_t)(s / 2 + 1) * s);
    float* d_r = d.f(n);
    std::vector<float> ref;
    for (int t = 1; t <= 3; ++t) {
      zk_fft_set_host_threads(t);
      hcuda_2d_fft_r2c(d_a, d_f, s, s);
      hcuda_2d_fft_c2r(d_f, d_r, s, s);
      std::vector<float> r = from_dev(d_r, n);
      if (ref.empty()) ref = r;
      EXPECT_TRUE(same_bits(ref, r)) << s << " threads " << t;
    }
    zk_fft_set_host_threads(0);
    zk_fft_cache_clear();
  }
}

TEST(FftErrors, ErrorStrings) {
  EXPECT_STREQ(cuFFT_GetErrorString(99), "Unkown error");
  EXPECT_STREQ(cuFFT_GetErrorString(-1), "Unkown error");
  EXPECT_STREQ(cuFFT_GetErrorString(0), "CUFFT_SUCCESS, cuFFT operation was successful");
  EXPECT_STREQ(cuFFT_GetErrorString(3), "CUFFT_INVALID_TYPE");
  EXPECT_STREQ(cuFFT_GetErrorString(10), "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call");
  EXPECT_STREQ(cuFFT_GetErrorString(14),
               "CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.");
}

class FftOps : public BackendTest {};

TEST_P(FftOps, OriginSwap) {
  // Out of place the lag (dx, dy) comes to (nx/2 + dx, ny/2 + dy); in place
  // is the same map, and twice is the identity.
  const int nx = 10, ny = 6, n = nx * ny;
  std::vector<float> a = zk_uniform(n, 9);
  Dev d;
  float *d_a = d.put(a), *d_o = d.f(n);
  hcuda_2d_swap_ccf(d_a, d_o, nx, ny);
  std::vector<float> o = from_dev(d_o, n);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) EXPECT_EQ(o[((y + ny / 2) % ny) * nx + (x + nx / 2) % nx], a[y * nx + x]);
  hcuda_2d_swap_ccf_inplace(d_a, nx, ny);
  EXPECT_EQ(from_dev(d_a, n), o);
  hcuda_2d_swap_ccf_inplace(d_a, nx, ny);
  EXPECT_EQ(from_dev(d_a, n), a);
  hcuda_2d_swap_norm_ccf_inplace(d_a, nx, ny, 4.0f);
  std::vector<float> q = from_dev(d_a, n);
  for (int i = 0; i < n; ++i) EXPECT_EQ(q[i], o[i] / 4.0f);
}

TEST_P(FftOps, CorrelationsAndShifts) {
  const int nx = 64, ny = 48, n = nx * ny;
  std::vector<float> a = zk_uniform(n, 17), b(n), cc(n);
  // b is a moved by (+3, -2), periodically: b(x, y) = a(x - 3, y + 2).
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) b[y * nx + x] = a[((y + 2) % ny) * nx + (x - 3 + nx) % nx];
  gpu_x2d_ccf(b.data(), a.data(), cc.data(), nx, ny);
  int best = 0;
  for (int i = 1; i < n; ++i)
    if (cc[i] > cc[best]) best = i;
  EXPECT_EQ(best % nx, nx / 2 + 3);
  EXPECT_EQ(best / nx, ny / 2 - 2);
  EXPECT_NEAR(cc[best], 1.0f, 1e-4);
  // A phase shift by (2, -1) moves content the other way; shift2 moves it that way.
  const int sx = 16, sy = 10;
  std::vector<float> s = zk_uniform(sx * sy, 23), o(sx * sy);
  gpu_2d_shift(s.data(), o.data(), sx, sy, 2.0f, -1.0f);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x) EXPECT_NEAR(o[y * sx + x], s[((y - 1 + sy) % sy) * sx + (x + 2) % sx], 1e-5);
  gpu_2d_shift2(s.data(), o.data(), sx, sy, 2.0f, -1.0f);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x) EXPECT_NEAR(o[y * sx + x], s[((y + 1) % sy) * sx + (x - 2 + sx) % sx], 1e-5);
  o = s;
  gpu_2d_shift_inplace(o.data(), sx, sy, 0.0f, 0.0f);
  for (int i = 0; i < sx * sy; ++i) EXPECT_NEAR(o[i], s[i], 1e-5);
}

TEST_P(FftOps, CrossProductSums) {
  const int nx = 37, ny = 11, n = nx * ny;
  std::vector<float> a = zk_uniform(n, 1), b(n);
  double ab = 0;
  for (int i = 0; i < n; ++i) {
    b[i] = 2.0f * a[i] + 5.0f;
    ab += (double)a[i] * b[i];
  }
  EXPECT_NEAR(gpu_x2d_ccc(a.data(), b.data(), nx, ny), ab, 1e-3);
  EXPECT_NEAR(gpu_x2d_norm_ccc(a.data(), b.data(), nx, ny), 1.0f, 1e-5);
  for (int i = 0; i < n; ++i) b[i] = -b[i];
  Dev d;
  float *d_a = d.put(a), *d_b = d.put(b);
  EXPECT_NEAR(hcuda_x2d_norm_ccc(d_a, d_b, nx, ny), -1.0f, 1e-5);
  EXPECT_EQ(from_dev(d_a, n), a);  // kept
  EXPECT_NEAR(hcuda_x2d_norm_ccc_inplace(d_a, d_b, nx, ny), -1.0f, 1e-5);
  double s = 0;
  for (float v : from_dev(d_a, n)) s += v;
  EXPECT_NEAR(s / n, 0.0, 1e-5);  // means subtracted in place
}

TEST_P(FftOps, RadialWeightAtChosenFrequencies) {
  const int nxh = 9, ny = 16, n = nxh * ny;  // real size 16 by 16
  Dev d;
  float2 *d_c = d.put(std::vector<float2>(n, make_f2(1.0f, -2.0f))), *d_o = d.c(n);
  std::vector<float2> o;
  auto weight = [&](int kx, int ky) { return o[ky * nxh + kx].x; };
  hcuda_c2dh_rweight(d_o, d_c, nxh, ny, 0.25f, 0.15f);
  o = from_dev(d_o, n);
  EXPECT_EQ(weight(0, 0), 0.0f);
  EXPECT_NEAR(weight(2, 0), 2.0 / 16, 1e-7);                                         // r = 0.125 < rc
  EXPECT_NEAR(weight(0, 15), 1.0 / 16, 1e-7);                                        // row 15 is frequency -1
  EXPECT_NEAR(weight(4, 0), 0.25, 1e-7);                                             // r = rc
  EXPECT_NEAR(weight(6, 0), 0.25 * exp(-0.125 * 0.125 / (2 * 0.05 * 0.05)), 1e-6);  // r = 0.375
  // rc + soft beyond 0.5: s = 0.5 - rc.
  hcuda_c2dh_rweight(d_o, d_c, nxh, ny, 0.4f, 0.3f);
  o = from_dev(d_o, n);
  EXPECT_NEAR(weight(8, 0), 0.4 * exp(-0.1 * 0.1 / (2 * (0.1 / 3) * (0.1 / 3))), 1e-6);
  // rc above 0.5 is 0.5 with s = 0: r = 0.5 keeps 0.5, beyond it 0.
  hcuda_c2dh_rweight_inplace(d_c, nxh, ny, 0.7f, 0.1f);
  o = from_dev(d_c, n);
  EXPECT_NEAR(weight(8, 0), 0.5, 1e-7);
  EXPECT_EQ(weight(8, 8), 0.0f);

  // The real form demands even sizes; a constant image has only the zero
  // frequency, whose weight is 0.
  float* r = d.f(16 * 8);
  hcuda_empty_float(r, 15 * 8);
  EXPECT_FAILS("Error in function hcuda_r2d_rweight_inplace\\(\\), file cuda_fft.cpp on line [0-9]+: 15 not an even number! "
      "Exit now!",
               hcuda_r2d_rweight_inplace(r, 15, 8, 0.2f, 0.1f););
  hcuda_memset_float(r, 3.0f, 16 * 6);
  float* ro = d.f(16 * 6);
  hcuda_r2d_rweight(ro, r, 16, 6, 0.2f, 0.1f);
  for (float v : from_dev(ro, 16 * 6)) EXPECT_NEAR(v, 0.0f, 1e-6);
}

TEST_P(FftOps, ModulusFamily) {
  const size_t n = 6;
  const std::vector<float> mod = {5, 2, 1, 0, 10, 13};
  Dev d;
  float2* d_c = d.put(std::vector<float2>{{3, 4}, {0, -2}, {1, 0}, {0, 0}, {-6, 8}, {5, 12}});
  float* d_o = d.f(n);
  hcuda_complex_mod(d_o, d_c, n);
  EXPECT_EQ(from_dev(d_o, n), mod);
  hcuda_c1d_mod(d_o, d_c, n);
  EXPECT_EQ(from_dev(d_o, n), mod);
  hcuda_complex_mod_square(d_o, d_c, n);
  EXPECT_EQ(from_dev(d_o, n), (std::vector<float>{25, 4, 1, 0, 100, 169}));
  hcuda_complex_logmod(d_o, d_c, n);
  std::vector<float> o = from_dev(d_o, n);
  EXPECT_NEAR(o[0], log(5.0), 1e-6);
  EXPECT_TRUE(std::isinf(o[3]) && o[3] < 0);
  hcuda_complex_logmod_forced_positive(d_o, d_c, n);
  o = from_dev(d_o, n);
  EXPECT_NEAR(o[0], log(6.0), 1e-6);
  EXPECT_EQ(o[3], 0.0f);
  // Centre swaps shift by n/2 = 3.
  hcuda_complex_mod_center_swap(d_o, d_c, n);
  EXPECT_EQ(from_dev(d_o, n), (std::vector<float>{0, 10, 13, 5, 2, 1}));
  hcuda_complex_logmod_center_swap(d_o, d_c, n);
  EXPECT_NEAR(from_dev(d_o, n)[3], log(5.0), 1e-6);
  hcuda_memset_float(d_o, 1.0f, n);
  hcuda_complex_mod_addto_center_swap(d_o, d_c, n);
  EXPECT_EQ(from_dev(d_o, n), (std::vector<float>{1, 11, 14, 6, 3, 2}));
  hcuda_complex_mod_weighted_addto_center_swap(d_o, d_c, n, 0.5f);
  EXPECT_EQ(from_dev(d_o, n), (std::vector<float>{1, 16, 20.5f, 8.5f, 4, 2.5f}));
  hcuda_memset_float(d_o, 0.0f, n);
  hcuda_complex_mod_Ws_addto_center_swap(d_o, d_c, n, d.put(std::vector<float>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(from_dev(d_o, n), (std::vector<float>{0, 20, 39, 20, 10, 6}));
}

TEST_P(FftOps, SpectrumRearrangements) {
  // Complex centre swap by half the array, with and without a divisor.
  const int nxh = 3, ny = 4, n = nxh * ny;
  std::vector<float2> c(n), st(3 * n);
  for (int i = 0; i < n; ++i) c[i] = make_f2((float)i, (float)-i);
  Dev d;
  float2 *d_c = d.put(c), *d_o = d.c(n);
  hcuda_complex2d_center_swap(d_o, d_c, nxh, ny);
  std::vector<float2> o = from_dev(d_o, n);
  for (int i = 0; i < n; ++i) EXPECT_EQ(o[(i + n / 2) % n].x, (float)i);
  hcuda_complex2d_center_swap_norm(d_o, d_c, nxh, ny, 2.0f);
  o = from_dev(d_o, n);
  for (int i = 0; i < n; ++i) EXPECT_EQ(o[(i + n / 2) % n].y, -i / 2.0f);
  hcuda_complex2d_norm(d_o, d_c, nxh, ny, 4.0f);
  EXPECT_EQ(from_dev(d_o, n)[5].x, 1.25f);
  // Mean of three spectra, on the device and in both host forms.
  for (int k = 0; k < 3; ++k)
    for (int i = 0; i < n; ++i) st[k * n + i] = make_f2((float)(i + k), (float)(2 * k));
  hcuda_c2ds_ave(d_o, d.put(st), nxh, ny, 3);
  std::vector<float2> h(n), g(n);
  cpu_2ds_fftout_r2c_ave(h.data(), st.data(), 4, ny, 3);  // real width 4: nxh 3
  gpu_c2ds_ave(g.data(), st.data(), nxh, ny, 3);
  o = from_dev(d_o, n);
  for (int i = 0; i < n; ++i) {
    EXPECT_TRUE(o[i].x == (float)(i + 1) && o[i].y == 2.0f) << i;
    EXPECT_TRUE(h[i].x == o[i].x && g[i].x == o[i].x && g[i].y == o[i].y) << i;
  }
}

TEST_P(FftOps, HalfPlaneToFullPlaneAndBack) {
  const int nx = 8, ny = 4, nxh = nx / 2 + 1;
  std::vector<float> half(nxh * ny), rows(nx * ny);
  for (int i = 0; i < nxh * ny; ++i) half[i] = (float)(i + 1);
  Dev d;
  float *d_h = d.put(half), *d_f = d.f(nx * ny);
  hcuda_2d_fft_amp_half2full(d_f, d_h, nx, ny);
  std::vector<float> full = from_dev(d_f, nx * ny);
  for (int y = 0; y < ny; ++y) {
    for (int x = 3; x < nx; ++x) EXPECT_EQ(full[y * nx + x], half[y * nxh + x - 3]);  // zero column at x = 3
    for (int x = 0; x < 3; ++x) EXPECT_EQ(full[y * nx + x], half[((ny - y) % ny) * nxh + 3 - x]);
  }
  hcuda_empty_float(d_h, nxh * ny);
  hcuda_2d_fft_amp_full2half(d_h, d_f, nx, ny);
  EXPECT_EQ(from_dev(d_h, nxh * ny), half);
  // Rows move by half the height.
  for (int i = 0; i < nx * ny; ++i) rows[i] = (float)i;
  hcuda_float_center_swap(d.put(rows), d_f, nx, ny);
  full = from_dev(d_f, nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) EXPECT_EQ(full[((y + 2) % ny) * nx + x], rows[y * nx + x]);
}

ZK_BACKEND_SUITE(FftOps);
