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

std::vector<float> random_image(int n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = u(g);
  return v;
}

// Naive forward DFT in double, exponent -2*pi*i, unnormalised, half spectrum.
std::vector<cd> naive_r2c(const std::vector<float>& a, int nx, int ny) {
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

// Naive inverse, exponent +2*pi*i, from the half spectrum by Hermitian symmetry.
std::vector<double> naive_c2r(const std::vector<cd>& h, int nx, int ny) {
  const int nxh = nx / 2 + 1;
  std::vector<double> out((size_t)nx * ny, 0.0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      cd s = 0;
      for (int ky = 0; ky < ny; ++ky)
        for (int kx = 0; kx < nx; ++kx) {
          cd c = kx < nxh ? h[ky * nxh + kx] : std::conj(h[((ny - ky) % ny) * nxh + (nx - kx)]);
          s += c * std::polar(1.0, 2 * kPi * ((double)kx * x / nx + (double)ky * y / ny));
        }
      out[y * nx + x] = s.real();
    }
  return out;
}

// Device round trips of plain host vectors.
template <class T>
T* to_dev(const std::vector<T>& h) {
  T* d = nullptr;
  safe_cudaMalloc((void**)&d, h.size() * sizeof(T));
  memcpy_H2D(d, h.data(), h.size() * sizeof(T));
  return d;
}
template <class T>
std::vector<T> from_dev(const T* d, size_t n) {
  std::vector<T> h(n);
  memcpy_D2H(h.data(), d, n * sizeof(T));
  return h;
}

std::vector<float2> r2c_dev(const std::vector<float>& a, int nx, int ny) {
  float* d_a = to_dev(a);
  float2* d_f = d_alloc_float2((size_t)(nx / 2 + 1) * ny);
  hcuda_2d_fft_r2c(d_a, d_f, nx, ny);
  std::vector<float2> f = from_dev(d_f, (size_t)(nx / 2 + 1) * ny);
  device_free(d_a);
  device_free(d_f);
  return f;
}

bool same_bits(const void* a, const void* b, size_t bytes) { return memcmp(a, b, bytes) == 0; }

}  // namespace

class Fft : public BackendTest {};

// Forward transforms of small even sizes with odd factors against the naive DFT:
// layout, sign, scale and the rows ky >= ny/2.
TEST_P(Fft, ForwardMatchesNaiveDft) {
  const int sizes[][2] = {{6, 10}, {14, 6}, {18, 30}, {2, 2}};
  for (auto& s : sizes) {
    const int nx = s[0], ny = s[1], nxh = nx / 2 + 1;
    std::vector<float> a = random_image(nx * ny, nx * 100 + ny);
    std::vector<float2> f = r2c_dev(a, nx, ny);
    std::vector<cd> ref = naive_r2c(a, nx, ny);
    for (int i = 0; i < nxh * ny; ++i) {
      EXPECT_NEAR(f[i].x, ref[i].real(), 1e-4) << nx << "x" << ny << " i=" << i;
      EXPECT_NEAR(f[i].y, ref[i].imag(), 1e-4) << nx << "x" << ny << " i=" << i;
    }
  }
}

// A plane wave of frequency (1, -2) lands in row ny - 2 only, with nx*ny/2.
TEST_P(Fft, NegativeRowFrequencies) {
  const int nx = 14, ny = 6, nxh = nx / 2 + 1;
  std::vector<float> a(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[y * nx + x] = (float)cos(2 * kPi * ((double)x / nx - 2.0 * y / ny));
  std::vector<float2> f = r2c_dev(a, nx, ny);
  for (int ky = 0; ky < ny; ++ky)
    for (int kx = 0; kx < nxh; ++kx) {
      const float want = (kx == 1 && ky == ny - 2) ? nx * ny / 2.0f : 0.0f;
      EXPECT_NEAR(f[ky * nxh + kx].x, want, 1e-4) << kx << "," << ky;
      EXPECT_NEAR(f[ky * nxh + kx].y, 0.0f, 1e-4) << kx << "," << ky;
    }
  // The row ny/2 counts as -ny/2: cos(pi*y) has its whole weight there.
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[y * nx + x] = (y % 2) ? -1.0f : 1.0f;
  f = r2c_dev(a, nx, ny);
  EXPECT_NEAR(f[(ny / 2) * nxh].x, (float)(nx * ny), 1e-4);
}

TEST_P(Fft, InverseMatchesNaiveAndRoundTripScales) {
  const int sizes[][2] = {{6, 10}, {14, 6}, {18, 30}};
  for (auto& s : sizes) {
    const int nx = s[0], ny = s[1], nxh = nx / 2 + 1, n = nx * ny;
    std::vector<float> a = random_image(n, 7 + nx);
    // A Hermitian-consistent half spectrum: the transform of a real image.
    std::vector<cd> h = naive_r2c(a, nx, ny);
    std::vector<float2> hf(nxh * ny);
    for (int i = 0; i < nxh * ny; ++i) hf[i] = make_f2((float)h[i].real(), (float)h[i].imag());
    std::vector<double> ref = naive_c2r(h, nx, ny);
    float2* d_f = to_dev(hf);
    float* d_r = d_alloc_float(n);
    hcuda_2d_fft_c2r(d_f, d_r, nx, ny);
    std::vector<float> r = from_dev(d_r, n);
    for (int i = 0; i < n; ++i) {
      EXPECT_NEAR(r[i], ref[i], 1e-3) << nx << "x" << ny << " i=" << i;
      EXPECT_NEAR(r[i], a[i] * n, 1e-3);
    }
    // The normalised pair returns the image.
    float* d_a = to_dev(a);
    hcuda_2d_fft_r2c_normz(d_a, d_f, nx, ny);
    std::vector<float2> fn = from_dev(d_f, nxh * ny);
    EXPECT_NEAR(fn[0].x, h[0].real() / sqrt((double)n), 1e-5);
    hcuda_2d_fft_c2r_normz(d_f, d_r, nx, ny);
    r = from_dev(d_r, n);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(r[i], a[i], 1e-5);
    device_free(d_a);
    device_free(d_f);
    device_free(d_r);
  }
}

// Sizes with a large prime factor: a separable image u(x)v(y) has the
// spectrum U(kx)V(ky), checked against 1-D naive transforms.
TEST_P(Fft, LargePrimeFactorSeparable) {
  const int nx = 958, ny = 958, nxh = nx / 2 + 1;
  std::vector<float> u = random_image(nx, 3), v = random_image(ny, 4);
  std::vector<float> a((size_t)nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[(size_t)y * nx + x] = u[x] * v[y];
  std::vector<cd> U(nxh), V(ny);
  for (int k = 0; k < nxh; ++k)
    for (int x = 0; x < nx; ++x) U[k] += (double)u[x] * std::polar(1.0, -2 * kPi * k * x / nx);
  for (int k = 0; k < ny; ++k)
    for (int y = 0; y < ny; ++y) V[k] += (double)v[y] * std::polar(1.0, -2 * kPi * k * y / ny);
  std::vector<float2> f = r2c_dev(a, nx, ny);
  double worst = 0;
  for (int ky = 0; ky < ny; ky += 37)
    for (int kx = 0; kx < nxh; kx += 13) {
      cd want = U[kx] * V[ky];
      cd got(f[(size_t)ky * nxh + kx].x, f[(size_t)ky * nxh + kx].y);
      worst = std::max(worst, std::abs(got - want));
    }
  EXPECT_LT(worst, 0.05);  // magnitudes run to several hundred
}

TEST_P(Fft, StackFormsMatchSingleTransforms) {
  const int nx = 18, ny = 10, nz = 3, n = nx * ny, nc = (nx / 2 + 1) * ny;
  std::vector<float> a = random_image(n * nz, 11);
  float* d_a = to_dev(a);
  float2* d_f = d_alloc_float2((size_t)nc * nz);
  hcuda_2ds_fft_r2c(d_a, d_f, nx, ny, nz);
  std::vector<float2> f = from_dev(d_f, (size_t)nc * nz);
  for (int k = 0; k < nz; ++k) {
    std::vector<float> one(a.begin() + k * n, a.begin() + (k + 1) * n);
    std::vector<cd> ref = naive_r2c(one, nx, ny);
    for (int i = 0; i < nc; ++i) {
      EXPECT_NEAR(f[k * nc + i].x, ref[i].real(), 1e-4);
      EXPECT_NEAR(f[k * nc + i].y, ref[i].imag(), 1e-4);
    }
  }
  float* d_r = d_alloc_float((size_t)n * nz);
  hcuda_2ds_fft_c2r(d_f, d_r, nx, ny, nz);
  std::vector<float> r = from_dev(d_r, (size_t)n * nz);
  for (int i = 0; i < n * nz; ++i) EXPECT_NEAR(r[i], a[i] * n, 1e-3);
  // Staged stack form: normalised image by image, one dot when done.
  std::vector<float2> hf((size_t)nc * nz);
  testing::internal::CaptureStdout();
  gpu_2ds_fft_r2c(a.data(), hf.data(), nx, ny, nz);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ".");
  for (int i = 0; i < nc * nz; ++i) EXPECT_NEAR(hf[i].x, f[i].x / sqrt((double)n), 1e-5);
  device_free(d_a);
  device_free(d_f);
  device_free(d_r);
}

TEST_P(Fft, StagedFormsAreNormalisedAndKeepInput) {
  const int nx = 6, ny = 10, n = nx * ny, nc = (nx / 2 + 1) * ny;
  std::vector<float> a = random_image(n, 5), a0 = a;
  std::vector<float2> f(nc);
  gpu_2d_fft_r2c(a.data(), f.data(), nx, ny);
  std::vector<cd> ref = naive_r2c(a, nx, ny);
  for (int i = 0; i < nc; ++i) EXPECT_NEAR(f[i].y, ref[i].imag() / sqrt((double)n), 1e-5);
  std::vector<float2> f0 = f;
  std::vector<float> r(n);
  gpu_2d_fft_c2r(f.data(), r.data(), nx, ny);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(r[i], a[i], 1e-5);
  EXPECT_TRUE(same_bits(a.data(), a0.data(), n * sizeof(float)));
  EXPECT_TRUE(same_bits(f.data(), f0.data(), nc * sizeof(float2)));
}

// Cached plans, fresh plans and the explicit plan API give the same bits, also
// for arrays of another alignment.
TEST_P(Fft, CacheAndExplicitPlansGiveSameBits) {
  const int nx = 30, ny = 18, n = nx * ny, nc = (nx / 2 + 1) * ny;
  std::vector<float> a = random_image(n + 1, 21);
  float* d_a = to_dev(a);
  float2* d_f = d_alloc_float2(nc + 1);
  float* d_r = d_alloc_float(n + 1);
  auto run = [&](const float* in, float2* fo, float* ro) {
    hcuda_2d_fft_r2c(in, fo, nx, ny);
    std::vector<float2> f = from_dev(fo, nc);
    hcuda_2d_fft_c2r(fo, ro, nx, ny);
    std::vector<float> r = from_dev(ro, n);
    return std::make_pair(f, r);
  };
  auto cached = run(d_a, d_f, d_r);
  auto cached2 = run(d_a, d_f, d_r);
  zk_fft_set_cache(false);
  auto fresh = run(d_a, d_f, d_r);
  zk_fft_set_cache(true);
  EXPECT_TRUE(same_bits(cached.first.data(), fresh.first.data(), nc * sizeof(float2)));
  EXPECT_TRUE(same_bits(cached.second.data(), fresh.second.data(), n * sizeof(float)));
  EXPECT_TRUE(same_bits(cached.second.data(), cached2.second.data(), n * sizeof(float)));

  ZkFftPlan pf = zk_fft_plan_r2c(nx, ny, 1);
  ZkFftPlan pb = zk_fft_plan_c2r(nx, ny, 1);
  zk_fft_exec_r2c(pf, d_a, d_f);
  std::vector<float2> f = from_dev(d_f, nc);
  zk_fft_exec_c2r(pb, d_f, d_r);
  std::vector<float> r = from_dev(d_r, n);
  EXPECT_TRUE(same_bits(cached.first.data(), f.data(), nc * sizeof(float2)));
  EXPECT_TRUE(same_bits(cached.second.data(), r.data(), n * sizeof(float)));

  // Misaligned arrays: one float in; the result is still the transform.
  memcpy_H2D(d_a + 1, a.data(), n * sizeof(float));
  zk_fft_exec_r2c(pf, d_a + 1, d_f);
  f = from_dev(d_f, nc);
  for (int i = 0; i < nc; ++i) EXPECT_NEAR(f[i].x, cached.first[i].x, 1e-4);
  zk_fft_plan_destroy(pf);
  zk_fft_plan_destroy(pb);
  device_free(d_a);
  device_free(d_f);
  device_free(d_r);
}

ZK_BACKEND_SUITE(Fft);

// Host threads of FFTW do not change a single bit.
TEST(FftHostThreads, BitIdenticalForEveryThreadCount) {
  zk_use_host();
  const int sizes[] = {958, 1024, 1916};
  for (int s : sizes) {
    const size_t n = (size_t)s * s, nc = (size_t)(s / 2 + 1) * s;
    std::vector<float> a = random_image((int)n, s);
    float* d_a = to_dev(a);
    float2* d_f = d_alloc_float2(nc);
    float* d_r = d_alloc_float(n);
    std::vector<float> ref;
    for (int t = 1; t <= 3; ++t) {
      zk_fft_set_host_threads(t);
      hcuda_2d_fft_r2c(d_a, d_f, s, s);
      hcuda_2d_fft_c2r(d_f, d_r, s, s);
      std::vector<float> r = from_dev(d_r, n);
      if (ref.empty())
        ref = r;
      else
        EXPECT_TRUE(same_bits(ref.data(), r.data(), n * sizeof(float))) << s << " threads " << t;
    }
    zk_fft_set_host_threads(0);
    zk_fft_cache_clear();
    device_free(d_a);
    device_free(d_f);
    device_free(d_r);
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
