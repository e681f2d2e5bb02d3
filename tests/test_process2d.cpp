#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "device/process1d_raw.h"
#include "device/process2d_raw.h"
#include "test_util.h"

namespace {

std::vector<float> ramp_image(int nx, int ny, unsigned seed) { return zk_uniform((size_t)nx * ny, seed, -2.0f, 2.0f); }

// out(x, y) must be in(src(x, y)).  A right-angle rotation is an index
// permutation up to rounding of the sine and cosine: a source on the border
// may round to just outside and read 0.
template <class F>
void expect_moved(const std::vector<float>& o, const std::vector<float>& a, int nx, int ny, F src) {
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const std::pair<int, int> s = src(x, y);
      const bool border = s.first == 0 || s.second == 0 || s.first == nx - 1 || s.second == ny - 1;
      if (border && o[y * nx + x] == 0.0f) continue;
      EXPECT_NEAR(o[y * nx + x], a[s.second * nx + s.first], 1e-5) << nx << "x" << ny << ": " << x << "," << y;
    }
}

}  // namespace

class Image2d : public BackendTest {};

TEST_P(Image2d, RotationsMoveContentByTheAngle) {
  Dev d;
  for (int n : {5, 6}) {
    std::vector<float> a = ramp_image(n, n, n);
    float *d_a = d.put(a), *d_o = d.f(n * n);
    // Content turns from +x toward +y: out(x, y) = in(y, n-1-x).
    hcuda_2d_rotate(d_a, d_o, n, n, 90.0f);
    expect_moved(from_dev(d_o, n * n), a, n, n, [n](int x, int y) { return std::make_pair(y, n - 1 - x); });
  }
  // 45 degrees: the corners come from outside and are cleared.
  const int n = 9;
  float* d_r = d.f(n * n);
  hcuda_2d_rotate(d.put(std::vector<float>(n * n, 1.0f)), d_r, n, n, 45.0f);
  std::vector<float> o = from_dev(d_r, n * n);
  EXPECT_EQ(o[0], 0.0f);
  EXPECT_FLOAT_EQ(o[4 * n + 4], 1.0f);
}

TEST_P(Image2d, TranslationsAndAffineTransform) {
  const int nx = 7, ny = 5;
  std::vector<float> a = ramp_image(nx, ny, 8);
  Dev d;
  float *d_a = d.put(a), *d_o = d.f(nx * ny);
  hcuda_2d_translate(d_a, d_o, nx, ny, 2.0f, -1.0f);  // samples (x - 2, y + 1)
  std::vector<float> o = from_dev(d_o, nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int sx = x - 2, sy = y + 1;
      EXPECT_EQ(o[y * nx + x], (sx < 0 || sy >= ny) ? 0.0f : a[sy * nx + sx]);
    }
  hcuda_2d_translate_x(d_a, d_o, nx, ny, 1.0f);
  EXPECT_EQ(from_dev(d_o, nx * ny)[3], a[2]);
  hcuda_2d_translate_y(d_a, d_o, nx, ny, 1.0f);
  EXPECT_EQ(from_dev(d_o, nx * ny)[nx + 3], a[3]);
  // A quarter turn as a matrix: the source is R*(x - c) + c; inverse = 1
  // uses m as given, inverse = 0 inverts it first.  Exact in double.
  const int n = 6;
  std::vector<float> b = ramp_image(n, n, 4);
  float *d_b = d.put(b), *d_r = d.f(n * n), *d_t = d.f(n * n);
  hcuda_2d_transform(d_b, d_t, n, n, 2.5f, 2.5f, RT_Mat2D{0, 1, -1, 0, 0, 0}, 1);
  std::vector<float> t = from_dev(d_t, n * n);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) EXPECT_EQ(t[y * n + x], b[(n - 1 - x) * n + y]);
  hcuda_2d_transform(d_b, d_r, n, n, 2.5f, 2.5f, RT_Mat2D{0, -1, 1, 0, 0, 0}, 0);
  EXPECT_EQ(from_dev(d_r, n * n), t);
  // translate_rotate and rotate_translate by 0 degrees are translations.
  hcuda_2d_translate_rotate(d_b, d_t, n, n, 1.0f, 0.0f, 0.0f);
  hcuda_2d_translate(d_b, d_r, n, n, 1.0f, 0.0f);
  EXPECT_EQ(from_dev(d_t, n * n), from_dev(d_r, n * n));
  hcuda_2d_rotate_translate(d_b, d_t, n, n, 0.0f, 0.0f, 1.0f);
  hcuda_2d_translate(d_b, d_r, n, n, 0.0f, 1.0f);
  EXPECT_EQ(from_dev(d_t, n * n), from_dev(d_r, n * n));
  // An angular average over a constant image keeps the constant.
  hcuda_2d_rotate_ave_anycenter(d.put(std::vector<float>(n * n, 3.0f)), d_t, n, n, 2.5f, 2.5f, 30.0f);
  for (float v : from_dev(d_t, n * n)) EXPECT_FLOAT_EQ(v, 3.0f);
}

TEST_P(Image2d, CopiesPaddingAndScaling) {
  const int nxl = 9, nyl = 8, nxs = 4, nys = 3;
  std::vector<float> small(nxs * nys), host(nxl * nyl, 0.0f);
  for (int i = 0; i < nxs * nys; ++i) small[i] = (float)(i + 1);
  Dev d;
  float *d_l = d.put(std::vector<float>(nxl * nyl, -1.0f)), *d_s = d.put(small);
  hcuda_x2d_cp_small_to_large_center(d_l, d_s, nxl, nyl, nxs, nys);
  std::vector<float> o = from_dev(d_l, nxl * nyl);
  const int ox = 2, oy = 2;  // (9 - 4)/2 and (8 - 3)/2, truncated
  for (int y = 0; y < nyl; ++y)
    for (int x = 0; x < nxl; ++x) {
      const bool in = x >= ox && x < ox + nxs && y >= oy && y < oy + nys;
      EXPECT_EQ(o[y * nxl + x], in ? small[(y - oy) * nxs + x - ox] : -1.0f) << x << "," << y;
    }
  // Off the right and bottom edges: the rest is skipped, on both forms.
  cpu_x2d_cp_small_to_large(host.data(), small.data(), nxl, nyl, nxs, nys, 7, 6);
  hcuda_2d_empty(d_l, nxl, nyl);
  hcuda_x2d_cp_small_to_large(d_l, d_s, nxl, nyl, nxs, nys, 7, 6);
  EXPECT_EQ(from_dev(d_l, nxl * nyl), host);
  EXPECT_EQ(host[7 * nxl + 8], small[nxs + 1]);
  // The host form also clips on the left and top.
  std::fill(host.begin(), host.end(), 0.0f);
  cpu_x2d_cp_small_to_large(host.data(), small.data(), nxl, nyl, nxs, nys, -3, -2);
  EXPECT_EQ(host[0], small[2 * nxs + 3]);
  int2 origins[2] = {make_i2(0, 0), make_i2(5, 5)};
  std::fill(host.begin(), host.end(), 0.0f);
  cpu_x2d_cp_smalls_to_large(host.data(), small.data(), nxl, nyl, 2, 2, origins, 2);
  EXPECT_EQ(host[0], 1.0f);
  EXPECT_EQ(host[5 * nxl + 5], 5.0f);  // second 2 by 2 image starts at element 4

  // Mirror padding to twice the size, and back.
  float* p = d.keep(d_get_2d_mirror_pad(d.put(std::vector<float>{1.0f, 2.0f}), 2, 1));
  EXPECT_EQ(from_dev(p, 8), (std::vector<float>{1, 2, 2, 1, 1, 2, 2, 1}));
  const int nx = 5, ny = 3, w = 2 * nx;
  std::vector<float> a = ramp_image(nx, ny, 2);
  float *d_a = d.put(a), *d_p = d.f(4 * nx * ny);
  hcuda_2d_mirror_pad(d_p, d_a, nx, ny);
  o = from_dev(d_p, 4 * nx * ny);
  for (int y = 0; y < 2 * ny; ++y)
    for (int x = 0; x < w; ++x) {
      const int sx = x < nx ? x : w - 1 - x, sy = y < ny ? y : 2 * ny - 1 - y;
      EXPECT_EQ(o[y * w + x], a[sy * nx + sx]) << x << "," << y;
    }
  EXPECT_EQ(from_dev(d.keep(d_get_2d_mirror_pad_inv(d_p, nx, ny)), nx * ny), a);
  hcuda_2d_empty(d_a, nx, ny);
  hcuda_2d_mirror_pad_inv(d_a, d_p, nx, ny);
  EXPECT_EQ(from_dev(d_a, nx * ny), a);

  // Scaling keeps the centre.  f = 0.5 on 5 by 5: 2 by 2; output (0,0)
  // samples (1,1) and (1,1) samples (3,3).
  const int n = 5;
  std::vector<float> c = ramp_image(n, n, 6), st = c;
  float *d_c = d.put(c), *d_o = d.f(n * n);
  EXPECT_EQ(get_2d_scaled_size(5, 0.5f), 2);
  hcuda_2d_scale(d_o, d_c, n, n, 0.5f);
  o = from_dev(d_o, 4);
  EXPECT_TRUE(o[0] == c[1 * n + 1] && o[1] == c[1 * n + 3] && o[3] == c[3 * n + 3]);
  // Staged stack form, image by image.
  st.insert(st.end(), c.begin(), c.end());
  std::vector<float> so(2 * 4);
  gpu_2ds_scale(so.data(), st.data(), n, n, 2, 0.5f);
  EXPECT_EQ(so, (std::vector<float>{o[0], o[1], o[2], o[3], o[0], o[1], o[2], o[3]}));
}

TEST_P(Image2d, SoftMaskProfilesOfBothForms) {
  const int nx = 24, ny = 21;
  const float cx = 10.0f, cy = 10.0f, r = 4.0f, soft = 3.0f;
  std::vector<float> dev(nx * ny), host(nx * ny);
  gpu_2d_generate_rmask_soft(dev.data(), nx, ny, cx, cy, r, soft);
  cpu_2d_generate_rmask_soft(host.data(), nx, ny, cx, cy, r, soft);
  auto at = [&](const std::vector<float>& m, int x) { return m[10 * nx + x]; };
  EXPECT_EQ(at(dev, 10), 1.0f);
  EXPECT_EQ(at(dev, 14), 1.0f);  // d = r
  EXPECT_EQ(at(host, 14), 1.0f);
  EXPECT_NEAR(at(dev, 15), 0.39894229 * exp(-0.5), 1e-6);  // d - r = 1 = soft/3
  EXPECT_NEAR(at(host, 15), exp(-0.5), 1e-6);
  EXPECT_NEAR(at(dev, 17), 0.39894229 * exp(-4.5), 1e-7);  // d = r + soft
  EXPECT_NEAR(at(host, 17), exp(-4.5), 1e-7);
  EXPECT_EQ(at(dev, 18), 0.0f);
  EXPECT_EQ(at(host, 18), 0.0f);
  // soft = 0: a hard disc in both forms.
  gpu_2d_generate_rmask_soft(dev.data(), nx, ny, cx, cy, r, 0.0f);
  cpu_2d_generate_rmask_soft(host.data(), nx, ny, cx, cy, r, 0.0f);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const float d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
      EXPECT_EQ(dev[y * nx + x], d2 <= r * r ? 1.0f : 0.0f);
      EXPECT_EQ(host[y * nx + x], d2 <= r * r ? 1.0f : 0.0f);
    }
  // Central forms use ((nx - 1)/2, (ny - 1)/2).
  Dev d;
  float* d_m = d.f(nx * ny);
  hcuda_2d_generate_central_rmask(d_m, nx, ny, 2.0f, 1.0f);
  gpu_2d_generate_rmask_soft(dev.data(), nx, ny, 11.5f, 10.0f, 2.0f, 1.0f);
  EXPECT_EQ(from_dev(d_m, nx * ny), dev);
  cpu_2d_generate_central_rmask(host.data(), nx, ny, 2.0f, 1.0f);
  std::vector<float> ref(nx * ny);
  cpu_2d_generate_rmask_soft(ref.data(), nx, ny, 11.5f, 10.0f, 2.0f, 1.0f);
  EXPECT_EQ(host, ref);
  hcuda_2d_generate_central_sharp_rmask(d_m, nx, ny, 2.0f);
  gpu_2d_generate_rmask_soft(dev.data(), nx, ny, 11.5f, 10.0f, 2.0f, 0.0f);
  EXPECT_EQ(from_dev(d_m, nx * ny), dev);
  // The 1-D forms agree with each other and with the same profile.
  std::vector<float> d1(12), h1(12);
  gpu_1d_generate_rmask_soft(d1.data(), 12, 5.0f, 2.0f, 3.0f);
  cpu_1d_generate_rmask_soft(h1.data(), 12, 5.0f, 2.0f, 3.0f);
  EXPECT_EQ(d1, h1);
  EXPECT_TRUE(h1[3] == 1.0f && h1[11] == 0.0f);  // d = r, beyond r + soft
  EXPECT_NEAR(h1[8], exp(-0.5), 1e-6);           // d - r = 1 = soft/3
}

TEST_P(Image2d, PixelArithmetic) {
  const int nx = 3, ny = 2, n = 6;
  std::vector<float> a = {1, 4, 9, -16, 0.5f, 2};
  std::vector<float> b = {2, 2, 3, 4, 0.25f, -1};
  Dev d;
  float *d_a = d.put(a), *d_b = d.put(b), *d_o = d.f(n);
  auto get = [&]() { return from_dev(d_o, n); };
  hcuda_2d_add(d_o, d_a, nx, ny, 1.0f);
  EXPECT_EQ(get(), (std::vector<float>{2, 5, 10, -15, 1.5f, 3}));
  hcuda_2d_sub_divide(d_o, d_a, nx, ny, 1.0f, 2.0f);
  EXPECT_EQ(get(), (std::vector<float>{0, 1.5f, 4, -8.5f, -0.25f, 0.5f}));
  hcuda_2d_sqr(d_o, d_a, nx, ny);
  EXPECT_EQ(get()[3], 256.0f);
  hcuda_2d_abs(d_o, d_a, nx, ny);
  EXPECT_EQ(get()[3], 16.0f);
  hcuda_2d_sqrt(d_o, d_a, nx, ny);
  std::vector<float> o = get();
  EXPECT_TRUE(o[2] == 3.0f && std::isnan(o[3]));
  hcuda_2d_pow(d_o, d_a, nx, ny, 2.0f);
  EXPECT_NEAR(get()[2], 81.0f, 1e-4);
  hcuda_2d_log2(d_o, d_a, nx, ny);
  EXPECT_NEAR(get()[1], 2.0f, 1e-6);
  hcuda_2d_log10(d_o, d_b, nx, ny);
  EXPECT_NEAR(get()[0], log10(2.0), 1e-6);
  hcuda_2d_exp(d_o, d_b, nx, ny);
  EXPECT_NEAR(get()[0], exp(2.0), 1e-5);
  hcuda_2d_logf(d_o, d_b, nx, ny);
  EXPECT_NEAR(get()[2], log(3.0), 1e-6);
  hcuda_x2d_divide(d_a, d_b, d_o, nx, ny);
  EXPECT_EQ(get(), (std::vector<float>{0.5f, 2, 3, -4, 2, -2}));
  hcuda_x2d_multi(d_a, d_b, d_o, nx, ny);
  EXPECT_EQ(get()[3], -64.0f);
  std::vector<float> h = a;
  cpu_x2d_sub_inplace(h.data(), b.data(), nx, ny);
  gpu_x2d_sub_inplace(a.data(), b.data(), nx, ny);
  EXPECT_EQ(h, a);
  EXPECT_EQ(a[0], -1.0f);
  host_2d_invert_inplace(h.data(), nx, ny);
  EXPECT_EQ(h[0], 1.0f);
  hcuda_2d_invert_inplace(d_b, nx, ny);
  EXPECT_EQ(from_dev(d_b, n)[5], 1.0f);
  // A divisor of exactly 0 ends the run; the in-place form does not check.
  EXPECT_FAILS("divisor must be non-zero value\nError in function hcuda_2d_divide\\(\\)",
               hcuda_2d_divide(d_o, d_a, nx, ny, 0.0f););
  hcuda_2d_divide_inplace(d_o, nx, ny, 0.0f);
  // Flips and the transposition.
  const std::vector<float> f = {1, 2, 3, 4, 5, 6};
  float* d_f = d.put(f);
  hcuda_2d_flipx(d_o, d_f, nx, ny);
  EXPECT_EQ(get(), (std::vector<float>{3, 2, 1, 6, 5, 4}));
  hcuda_2d_flipy(d_o, d_f, nx, ny);
  EXPECT_EQ(get(), (std::vector<float>{4, 5, 6, 1, 2, 3}));
  hcuda_2d_flipxy(d_o, d_f, nx, ny);
  EXPECT_EQ(get(), (std::vector<float>{1, 4, 2, 5, 3, 6}));
}

TEST_P(Image2d, ComplexArithmetic) {
  const int nx = 2, ny = 1;
  const std::vector<float2> a = {{1, 2}, {3, -1}}, b = {{0, 1}, {2, 2}};
  Dev d;
  float2 *d_a = d.put(a), *d_b = d.put(b), *d_o = d.c(2);
  // Both elements of out, as x0, y0, x1, y1.
  auto got = [&](const float2* p) {
    std::vector<float2> o = from_dev(p, 2);
    return std::vector<float>{o[0].x, o[0].y, o[1].x, o[1].y};
  };
  hcuda_cxc_2d_multi(d_a, d_b, d_o, nx, ny);
  EXPECT_EQ(got(d_o), (std::vector<float>{-2, 1, 8, 4}));
  hcuda_cxc_2d_multconj(d_a, d_b, d_o, nx, ny);
  EXPECT_EQ(got(d_o), (std::vector<float>{2, -1, 4, -8}));
  hcuda_cxc_2d_divide(d_a, d_b, d_o, nx, ny);  // a*conj(b)/|b|^2
  EXPECT_EQ(got(d_o), (std::vector<float>{2, -1, 0.5f, -1}));
  hcuda_cxc_2d_multconj_divide(d_a, d_b, d_o, nx, ny, 2.0f);
  EXPECT_EQ(got(d_o), (std::vector<float>{1, -0.5f, 2, -4}));
  std::vector<float2> h = a;
  cpu_cxc_2d_divide_inplace(h.data(), b.data(), nx, ny);
  EXPECT_TRUE(h[1].x == 0.5f && h[1].y == -1);
  hcuda_cxc_2d_sub(d_a, d_b, d_o, nx, ny);
  EXPECT_EQ(got(d_o), (std::vector<float>{1, 1, 1, -3}));
  float* d_w = d.put(std::vector<float>{2, 4});
  hcuda_cxr_2d_multi(d_a, d_w, d_o, nx, ny);
  EXPECT_EQ(got(d_o), (std::vector<float>{2, 4, 12, -4}));
  hcuda_cxr_2d_divide_inplace(d_a, d_w, nx, ny);
  EXPECT_EQ(got(d_a), (std::vector<float>{0.5f, 1, 0.75f, -0.25f}));
  hcuda_2d_cx_empty(d_a, nx, ny);
  EXPECT_EQ(got(d_a), std::vector<float>(4, 0.0f));
}

TEST_P(Image2d, BoxStatisticsCutAtTheEdge) {
  const int nx = 5, ny = 4;
  std::vector<float> a(nx * ny);
  for (int i = 0; i < nx * ny; ++i) a[i] = (float)i;
  Dev d;
  float *d_a = d.put(a), *d_o = d.f(nx * ny);
  hcuda_2d_convolution_by_box(d_a, d_o, nx, ny, 2, 2);
  std::vector<float> o = from_dev(d_o, nx * ny);
  // Box [x-1, x+1) by [y-1, y+1): at (0, 0) only the pixel itself.
  EXPECT_EQ(o[0], 0.0f);
  EXPECT_EQ(o[1 * nx + 1], (0 + 1 + 5 + 6) / 4.0f);
  hcuda_2d_std_by_box(d_a, d_o, nx, ny, 2, 2);
  o = from_dev(d_o, nx * ny);
  EXPECT_EQ(o[0], 0.0f);
  EXPECT_FLOAT_EQ(o[1 * nx + 1], sqrtf((9.0f + 4.0f + 4.0f + 9.0f) / 4.0f));  // values 0 1 5 6, mean 3
  // log, then less the box mean: a constant image goes to 0.
  float* d_c = d.put(std::vector<float>(nx * ny, 5.0f));
  hcuda_2d_log_subbg_boxconv_inplace(d_c, nx, ny, 3);
  for (float v : from_dev(d_c, nx * ny)) EXPECT_NEAR(v, 0.0f, 1e-6);
}

TEST_P(Image2d, StackAverageAndHotPixels) {
  const int nx = 6, ny = 5, nz = 3, n = nx * ny;
  std::vector<float> st = ramp_image(n, nz, 14), g(n);
  Dev d;
  float* d_o = d.f(n);
  hcuda_2ds_average(d_o, d.put(st), nx, ny, nz);
  std::vector<float> o = from_dev(d_o, n);
  gpu_2ds_average(g.data(), st.data(), nx, ny, nz);
  EXPECT_EQ(o, g);
  EXPECT_FLOAT_EQ(o[7], (st[7] + st[n + 7] + st[2 * n + 7]) / 3.0f);
  // One hot pixel among ones becomes the weighted mean of its neighbours.
  std::vector<float> img(2 * n, 1.0f);
  img[2 * nx + 3] = 100.0f;
  img[n + 0] = 50.0f;  // a corner of the second image
  img[n + 1] = 4.0f;
  EXPECT_EQ(zk_stdout([&] { hcuda_2ds_rm_hotpixels_inplace(img.data(), nx, ny, 2, 2.0f); }), "..\n");
  EXPECT_EQ(img[2 * nx + 3], 1.0f);
  EXPECT_EQ(img[n + 1], 4.0f);
  // Corner (0, 0): left and up fall back on the pixel itself (50).
  EXPECT_FLOAT_EQ(img[n + 0], (2.0f * (50 + 4 + 50 + 1) + (50 + 4 + 1 + 1)) / 12.0f);
}

TEST_P(Image2d, LowFrequenciesOfAHalfPlane) {
  const int nxh = 9, ny = 16;  // R = 2*8*1/4 = 4 pixels
  std::vector<float> a(nxh * ny, 1.0f), h = a, z = a;
  Dev d;
  float* d_a = d.put(a);
  hcuda_2dh_smooth_low_frequency_inplace(d_a, nxh, ny, 1.0f, 4.0f);
  std::vector<float> o = from_dev(d_a, nxh * ny);
  cpu_2dh_smooth_low_frequency_inplace(h.data(), nxh, ny, 1.0f, 4.0f);
  EXPECT_EQ(o, h);
  EXPECT_NEAR(o[8 * nxh + 0], exp(-4.5), 1e-7);                                // the origin (0, ny/2)
  EXPECT_NEAR(o[8 * nxh + 3], exp(-1.0 / (2 * (4.0 / 3) * (4.0 / 3))), 1e-6);  // r = 3
  EXPECT_EQ(o[8 * nxh + 4], 1.0f);                                             // r = R
  cpu_2dh_zero_low_frequency_inplace(z.data(), nxh, ny, 1.0f, 4.0f);
  EXPECT_EQ(z[8 * nxh + 3], 0.0f);
  EXPECT_EQ(z[8 * nxh + 4], 1.0f);
  EXPECT_EQ(z[5 * nxh + 0], 0.0f);  // r = 3, three rows above the origin
  EXPECT_EQ(z[3 * nxh + 0], 1.0f);  // r = 5
}

TEST_P(Image2d, GridBoxesAndFlatMasks) {
  // Boxes on a grid: 10 by 8 with box 4, step 3: 3 by 2 boxes.
  std::vector<float> img(80);
  for (int i = 0; i < 80; ++i) img[i] = (float)i;
  int box = 4;
  EXPECT_EQ(host_2d_read_ptcls_to_2ds_from_autogrids(nullptr, img.data(), 10, 8, box, 3), 6);
  std::vector<float> st(6 * 16);
  host_2d_read_ptcls_to_2ds_from_autogrids(st.data(), img.data(), 10, 8, box, 3);
  EXPECT_EQ(st[16 * 4 + 0], img[3 * 10 + 3]);  // box 4 = (ix 1, iy 1)
  Dev d;
  float* d_st = d.f(6 * 16);
  EXPECT_EQ(hcuda_2d_read_ptcls_to_2ds_from_autogrids(d_st, d.put(img), 10, 8, box, 3), 6);
  EXPECT_EQ(from_dev(d_st, 96), st);
  box = 9;
  testing::internal::CaptureStdout();
  EXPECT_EQ(host_2d_read_ptcls_to_2ds_from_autogrids(nullptr, img.data(), 10, 8, box, 2), 2);
  EXPECT_TRUE(zk_has(testing::internal::GetCapturedStdout(), "boxsize larger than Nx or Ny, set as the smaller"));
  EXPECT_EQ(box, 8);
  // Masks combined pixel by pixel.
  std::vector<float> a = {0, 0.5f, 1, 0.2f}, b = {1, 0.25f, 0, 0.4f}, o(4), c = a;
  gpu_1d_mask_A_or_B(a.data(), b.data(), o.data(), 4);
  EXPECT_EQ(o, (std::vector<float>{1, 0.5f, 1, 0.4f}));
  cpu_1d_mask_A_and_B(a.data(), b.data(), o.data(), 4);
  EXPECT_EQ(o, (std::vector<float>{0, 0.125f, 0, 0.2f * 0.4f}));
  gpu_1d_mask_A_and_B_inplace(c.data(), b.data(), 4);
  EXPECT_EQ(c, o);
  float* dd = d.f(5);
  hcuda_1d_auto0123(dd, 5);
  EXPECT_EQ(from_dev(dd, 5), (std::vector<float>{0, 1, 2, 3, 4}));
}

ZK_BACKEND_SUITE(Image2d);

TEST(Image2dHost, PeaksProfilesAndFits) {
  std::vector<float> a = {1, 5, 2, 5, 0, 5};
  Pixel p = cpu_2d_get_unique_peak(a.data(), 3, 2);
  EXPECT_TRUE(p.x == 1 && p.y == 0 && p.value == 5.0f);
  p = cpu_2d_get_middle_peak_from_equals(a.data(), 3, 2);
  EXPECT_TRUE(p.x == 0 && p.y == 1);  // the second of three equal maxima
  Pixel two[2];
  cpu_2ds_get_unique_peak(a.data(), 3, 1, 2, two);
  EXPECT_TRUE(two[0].x == 1 && two[1].x == 0 && two[1].value == 5.0f);
  // A constant half plane has a constant profile.
  std::vector<float> half(9 * 16, 2.0f), prof(9);
  rotational_average_2d_half(half.data(), prof.data(), 9, 16);
  for (float v : prof) EXPECT_FLOAT_EQ(v, 2.0f);
  // Linear fit: ref = 2a + 3.
  std::vector<float> x = {0, 1, 2, 3, 4, 5}, ref(6);
  for (int i = 0; i < 6; ++i) ref[i] = 2 * x[i] + 3;
  float k, b;
  cpu_x2d_get_linear_norm_factors(x.data(), ref.data(), 3, 2, k, b);
  EXPECT_FLOAT_EQ(k, 2.0f);
  EXPECT_FLOAT_EQ(b, 3.0f);
  cpu_2d_norm_by_reference_inplace(x.data(), ref.data(), 3, 2);
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(x[i], ref[i]);
  cpu_2d_multi_add_inplace(x.data(), 3, 2, 0.5f, -1.0f);
  EXPECT_FLOAT_EQ(x[1], 1.5f);
}

TEST(Image2dHost, MaskedNormalisation) {
  const int n = 16;
  std::vector<float> a = ramp_image(n, n, 12), m(n * n);
  for (float& v : a) v = v * 3.0f + 7.0f;
  cpu_2d_normz_withRmask_applymask_inplace(a.data(), n, n, 7.5f, 7.5f, 5.0f, 2.0f);
  cpu_2d_generate_rmask_soft(m.data(), n, n, 7.5f, 7.5f, 5.0f, 2.0f);
  // a is now (v - mean)/s*m: recover the weighted statistics.
  double w = 0, s1 = 0, s2 = 0;
  for (int i = 0; i < n * n; ++i) {
    if (m[i] == 0.0f) {
      EXPECT_EQ(a[i], 0.0f);
      continue;
    }
    const double v = a[i] / m[i];
    w += m[i];
    s1 += m[i] * v;
    s2 += m[i] * v * v;
  }
  EXPECT_NEAR(s1 / w, 0.0, 1e-5);
  EXPECT_NEAR(s2 / w, 1.0, 1e-4);
  std::vector<float> b = ramp_image(n, n, 13), ones(n * n, 1.0f);
  EXPECT_NEAR(cpu_x2d_ccc_with2maskfs(b.data(), ones.data(), b.data(), m.data(), n, n), 1.0f, 1e-5);
}

// The plain paste, clipped at an edge, is checked through its file command;
// here the fitted form against a value worked out by hand.
TEST(Image2dHost, FittedParticlePastedOverAMicrograph) {
  const int nx = 8, ny = 6, b = 2;
  PTCL_BOX box = {};
  box.x = 1;
  box.y = 1;
  // The reference 2*r + 10 matches the patch, so the slice is scaled by the
  // same factors before it is pasted.
  std::vector<float> m2(nx * ny);
  for (int i = 0; i < nx * ny; ++i) m2[i] = (float)(i % 5);
  std::vector<float> ref(4), st = {1, 1, 1, 1};
  for (int y = 0; y < b; ++y)
    for (int x = 0; x < b; ++x) ref[y * b + x] = (m2[(1 + y) * nx + 1 + x] - 10.0f) / 2.0f;
  cpu_x2d_norm_cp_ptcls_to_micrograph(m2.data(), nx, ny, st.data(), ref.data(), b, b, &box, 1);
  EXPECT_FLOAT_EQ(m2[1 * nx + 1], 12.0f);
  EXPECT_FLOAT_EQ(m2[2 * nx + 2], 12.0f);
}
