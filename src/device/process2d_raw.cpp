#include "device/process2d_raw.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/report.h"

namespace {

// A non-fatal error line in the system's error form.
void error_no_exit(const char* func, const char* file, int line, const char* msg) {
  printf("Error in function %s(), file %s on line %d: %s!\n", func, file, line, msg);
}
#define ZK_ERROR_GO_ON(msg) error_no_exit(__func__, zk_basename(__FILE__), __LINE__, (msg))

size_t npix(int nx, int ny) { return (size_t)nx * (size_t)ny; }

}  // namespace

// ===========================================================================
// Shrinking and squaring
// ===========================================================================

int get_max_extended_square_even_size(int nx, int ny, int s) {
  const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2;
  return sx > sy ? sx : sy;
}

int get_max_square_even_size(int nx, int ny) {
  const int ex = nx / 2 * 2, ey = ny / 2 * 2;
  return ex < ey ? ex : ey;
}

int2 get_max_square_clip_origin(int nx, int ny) {
  if (ny < nx) return make_i2((nx - ny) / 2, 0);
  return make_i2(0, (ny - nx) / 2);
}

// Mean of the s by s block at (x0, y0): a float running sum in row-major order
// from 0, divided in float by s*s (negative for the inverting form).
template <int S>
HDI float zk_block_sum_fixed(const float* in, int nx, int x0, int y0) {
  float sum = 0.0f;
  for (int j = 0; j < S; ++j)
    for (int i = 0; i < S; ++i) sum = sum + in[(size_t)(y0 + j) * nx + x0 + i];
  return sum;
}
HDI float zk_block_sum(const float* in, int nx, int x0, int y0, int s) {
  float sum = 0.0f;
  for (int j = 0; j < s; ++j)
    for (int i = 0; i < s; ++i) sum = sum + in[(size_t)(y0 + j) * nx + x0 + i];
  return sum;
}

HDI void cuda_2d_meanshrink(int x, int y, const float* in, float* out, int nx, int s, int out_stride,
                            float divisor) {
  out[(size_t)y * out_stride + x] = zk_block_sum(in, nx, x * s, y * s, s) / divisor;
}

namespace {

// Block means of the ox by oy blocks into out at row stride stride.  The
// common factors are unrolled; every factor sums in the same order.
void host_block_means(float* out, const float* in, int nx, int ox, int oy, int s, int stride, float divisor) {
#pragma omp parallel for schedule(static) if ((long long)ox * oy * s * s >= ZK_OMP_MIN)
  for (int y = 0; y < oy; ++y) {
    float* row = out + (size_t)y * stride;
    switch (s) {
      case 2:
        for (int x = 0; x < ox; ++x) row[x] = zk_block_sum_fixed<2>(in, nx, x * 2, y * 2) / divisor;
        break;
      case 3:
        for (int x = 0; x < ox; ++x) row[x] = zk_block_sum_fixed<3>(in, nx, x * 3, y * 3) / divisor;
        break;
      case 4:
        for (int x = 0; x < ox; ++x) row[x] = zk_block_sum_fixed<4>(in, nx, x * 4, y * 4) / divisor;
        break;
      default:
        for (int x = 0; x < ox; ++x) row[x] = zk_block_sum(in, nx, x * s, y * s, s) / divisor;
    }
  }
}

// Rows of ox values copied to row stride stride (the factor 1).
void host_copy_rows(float* out, const float* in, int nx, int ox, int oy, int stride) {
  for (int y = 0; y < oy; ++y) memcpy(out + (size_t)y * stride, in + (size_t)y * nx, (size_t)ox * sizeof(float));
}

// The mirror step; false when the sizes are outside ny/2 < nx < 2ny.
bool mirror_to_square(float* a, int nx, int ny) {
  if (nx == ny) return true;
  if (ny < nx && nx < 2 * ny) {
    for (int y = ny; y < nx; ++y) memcpy(a + (size_t)y * nx, a + (size_t)(2 * ny - 1 - y) * nx, nx * sizeof(float));
    return true;
  }
  if (nx < ny && ny < 2 * nx) {
    for (int y = 0; y < ny; ++y) {
      float* row = a + (size_t)y * ny;
      for (int x = nx; x < ny; ++x) row[x] = row[2 * nx - 1 - x];
    }
    return true;
  }
  return false;
}

}  // namespace

void cpu_2d_extend_to_square_mirror_inplace(float* a, int nx, int ny) {
  if (!mirror_to_square(a, nx, ny)) ZK_FATAL("Make sure: Ny/2 < Nx < 2Ny");
}

void cpu_2d_extend_to_square_mirror(float* out, const float* in, int nx, int ny) {
  const bool ok = nx == ny || (ny < nx && nx < 2 * ny) || (nx < ny && ny < 2 * nx);
  if (!ok) return;
  const int sq = nx > ny ? nx : ny;
  host_copy_rows(out, in, nx, nx, ny, sq);
  mirror_to_square(out, nx, ny);
}

void cpu_2d_extend_to_square_only_fill(float* a, int nx, int ny, float v) {
  const int sq = nx > ny ? nx : ny;
  for (int y = 0; y < sq; ++y)
    for (int x = (y < ny ? nx : 0); x < sq; ++x) a[(size_t)y * sq + x] = v;
}

void cpu_2d_extend_to_square(float* out, const float* in, int nx, int ny, float v) {
  const int sq = nx > ny ? nx : ny;
  host_copy_rows(out, in, nx, nx, ny, sq);
  cpu_2d_extend_to_square_only_fill(out, nx, ny, v);
}

void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int s) {
  if (s < 1) {
    ZK_ERROR_GO_ON("Wrong value of shrink_factor. Must be >=1");
    return;
  }
  const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2;
  const int sq = sx > sy ? sx : sy;
  if (s == 1)
    host_copy_rows(out, in, nx, sx, sy, sq);
  else
    host_block_means(out, in, nx, sx, sy, s, sq, (float)(s * s));
  if (sx != sy) cpu_2d_extend_to_square_mirror_inplace(out, sx, sy);
}

void cpu_2d_meanshrink_even(float* out, const float* in, int nx, int ny, int s) {
  if (s < 1) {
    ZK_ERROR_GO_ON("Wrong value of shrink_factor. Must be >=1");
    return;
  }
  const int sx = nx / (2 * s) * 2, sy = ny / (2 * s) * 2;
  if (s == 1)
    host_copy_rows(out, in, nx, sx, sy, sx);
  else
    host_block_means(out, in, nx, sx, sy, s, sx, (float)(s * s));
}

void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int s) {
  if (s < 1) {
    ZK_ERROR_GO_ON("Wrong value of shrink_factor. Must be >=1");
    return;
  }
  if (s == 1) {
    memcpy(out, in, npix(nx, ny) * sizeof(float));
    return;
  }
  host_block_means(out, in, nx, nx / s, ny / s, s, nx / s, (float)(s * s));
}

void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int s) {
  if (s < 1) {
    ZK_ERROR_GO_ON("Wrong value of shrink_factor. Must be >=1");
    return;
  }
  const size_t nin = npix(nx, ny), nout = npix(nx / s, ny / s);
  for (int k = 0; k < nz; ++k) cpu_2d_meanshrink(out + k * nout, in + k * nin, nx, ny, s);
}

void cpu_2d_meanshrink_invert(float* out, const float* in, int nx, int ny, int s) {
  if (s < 1) {
    ZK_ERROR_GO_ON("Wrong value of shrink_factor. Must be >=1");
    return;
  }
  host_block_means(out, in, nx, nx / s, ny / s, s, nx / s, (float)(-(s * s)));
}

void hcuda_2d_meanshrink(const float* in, float* out, int nx, int ny, int s) {
  const int ox = nx / s, oy = ny / s;
  const float divisor = (float)(s * s);
  launch_2d(ox, oy, [=] HD(int x, int y) { cuda_2d_meanshrink(x, y, in, out, nx, s, ox, divisor); });
}

// ===========================================================================
// Copies and padding
// ===========================================================================

HDI void cuda_x2d_cp_small_to_large(int x, int y, float* large, const float* small, int nxl, int nyl, int nxs, int ox,
                                    int oy) {
  const int lx = x + ox, ly = y + oy;
  // Whatever falls outside the large image is skipped, on every side.
  if (lx < 0 || ly < 0 || lx >= nxl || ly >= nyl) return;
  large[(size_t)ly * nxl + lx] = small[(size_t)y * nxs + x];
}

void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int nxl, int nyl, int nxs, int nys) {
  hcuda_x2d_cp_small_to_large(large, small, nxl, nyl, nxs, nys, (nxl - nxs) / 2, (nyl - nys) / 2);
}

void hcuda_x2d_cp_small_to_large(float* large, const float* small, int nxl, int nyl, int nxs, int nys, int ox,
                                 int oy) {
  launch_2d(nxs, nys,
            [=] HD(int x, int y) { cuda_x2d_cp_small_to_large(x, y, large, small, nxl, nyl, nxs, ox, oy); });
}

void cpu_x2d_cp_small_to_large(float* large, const float* small, int nxl, int nyl, int nxs, int nys, int ox, int oy) {
  for (int y = 0; y < nys; ++y)
    for (int x = 0; x < nxs; ++x) cuda_x2d_cp_small_to_large(x, y, large, small, nxl, nyl, nxs, ox, oy);
}

void cpu_x2d_cp_smalls_to_large(float* large, const float* smalls, int nxl, int nyl, int nxs, int nys,
                                const int2* origins, int n) {
  for (int k = 0; k < n; ++k)
    cpu_x2d_cp_small_to_large(large, smalls + (size_t)k * nxs * nys, nxl, nyl, nxs, nys, origins[k].x,
                              origins[k].y);
}

HDI void cuda_2d_mirror_pad(int x, int y, float* out, const float* in, int nx, int ny) {
  const int w = 2 * nx;
  const float v = in[(size_t)y * nx + x];
  out[(size_t)y * w + x] = v;
  out[(size_t)y * w + (w - 1 - x)] = v;
  out[(size_t)(2 * ny - 1 - y) * w + x] = v;
  out[(size_t)(2 * ny - 1 - y) * w + (w - 1 - x)] = v;
}

void hcuda_2d_mirror_pad(float* out, const float* in, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_mirror_pad(x, y, out, in, nx, ny); });
}

float* d_get_2d_mirror_pad(const float* in, int nx, int ny) {
  float* out = d_alloc_float(4 * npix(nx, ny));
  hcuda_2d_mirror_pad(out, in, nx, ny);
  return out;
}

HDI void cuda_2d_mirror_pad_inv(int x, int y, float* out, const float* in, int nx) {
  out[(size_t)y * nx + x] = in[(size_t)y * 2 * nx + x];
}

void hcuda_2d_mirror_pad_inv(float* out, const float* in, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_mirror_pad_inv(x, y, out, in, nx); });
}

float* d_get_2d_mirror_pad_inv(const float* in, int nx, int ny) {
  float* out = d_alloc_float(npix(nx, ny));
  hcuda_2d_mirror_pad_inv(out, in, nx, ny);
  return out;
}

HDI void cuda_2d_flipx(int x, int y, float* out, const float* in, int nx) {
  out[(size_t)y * nx + x] = in[(size_t)y * nx + (nx - 1 - x)];
}
HDI void cuda_2d_flipy(int x, int y, float* out, const float* in, int nx, int ny) {
  out[(size_t)y * nx + x] = in[(size_t)(ny - 1 - y) * nx + x];
}
HDI void cuda_2d_flipxy(int x, int y, float* out, const float* in, int nx, int ny) {
  out[(size_t)x * ny + y] = in[(size_t)y * nx + x];
}

void hcuda_2d_flipx(float* out, const float* in, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_flipx(x, y, out, in, nx); });
}
void hcuda_2d_flipy(float* out, const float* in, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_flipy(x, y, out, in, nx, ny); });
}
void hcuda_2d_flipxy(float* out, const float* in, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_flipxy(x, y, out, in, nx, ny); });
}

void hcuda_2d_memcpy(float* dst, const float* src, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { dst[(size_t)y * nx + x] = src[(size_t)y * nx + x]; });
}
void hcuda_2d_cx_empty(float2* a, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { a[(size_t)y * nx + x] = make_f2(0.0f, 0.0f); });
}
void hcuda_2d_empty(float* a, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { a[(size_t)y * nx + x] = 0.0f; });
}
void hcuda_2d_memset(float* a, float v, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { a[(size_t)y * nx + x] = v; });
}
void cpu_2d_memset(float* a, float v, int nx, int ny) {
  const size_t n = npix(nx, ny);
  for (size_t i = 0; i < n; ++i) a[i] = v;
}
void cpu_2d_empty(float* a, int nx, int ny) { cpu_2d_memset(a, 0.0f, nx, ny); }

// ===========================================================================
// Per-pixel arithmetic
// ===========================================================================

// The elementwise families run by the 2-D rule over nx by ny; each formula is
// one HDI function used by the device wrapper and, where there is one, the
// host form.
#define ZK_LAUNCH_PIXELS(nx, ny, body)                        \
  launch_2d((nx), (ny), [=] HD(int x_, int y_) {              \
    const unsigned int i = (unsigned int)(y_ * (nx) + x_);    \
    body;                                                     \
  })

HDI float zk_add(float a, float b) { return a + b; }
HDI float zk_sub(float a, float b) { return a - b; }
HDI float zk_mul(float a, float b) { return a * b; }
HDI float zk_div(float a, float b) { return a / b; }

void hcuda_2d_add(float* out, const float* in, int nx, int ny, float s) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_add(in[i], s));
}
void hcuda_2d_sub(float* out, const float* in, int nx, int ny, float s) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_sub(in[i], s));
}
void hcuda_2d_multi(float* out, const float* in, int nx, int ny, float s) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_mul(in[i], s));
}
void hcuda_2d_divide(float* out, const float* in, int nx, int ny, float s) {
  if (s == 0.0f) {
    printf("divisor must be non-zero value\n");
    ZK_FATAL("Zero divisor");
  }
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_div(in[i], s));
}
void hcuda_2d_sub_divide(float* out, const float* in, int nx, int ny, float s1, float s2) {
  if (s2 == 0.0f) {
    printf("divisor must be non-zero value\n");
    ZK_FATAL("Zero divisor");
  }
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = (in[i] - s1) / s2);
}
void hcuda_2d_add_inplace(float* a, int nx, int ny, float s) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_add(a[i], s)); }
void hcuda_2d_sub_inplace(float* a, int nx, int ny, float s) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_sub(a[i], s)); }
void hcuda_2d_multi_inplace(float* a, int nx, int ny, float s) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_mul(a[i], s)); }
void hcuda_2d_divide_inplace(float* a, int nx, int ny, float s) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_div(a[i], s)); }
void hcuda_2d_sub_divide_inplace(float* a, int nx, int ny, float s1, float s2) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = (a[i] - s1) / s2);
}

void hcuda_2d_sqr(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = in[i] * in[i]); }
void hcuda_2d_sqrt(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = sqrtf(in[i])); }
void hcuda_2d_abs(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = fabsf(in[i])); }
void hcuda_2d_sqr_inplace(float* a, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = a[i] * a[i]); }
void hcuda_2d_sqrt_inplace(float* a, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = sqrtf(a[i])); }
void hcuda_2d_abs_inplace(float* a, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, a[i] = fabsf(a[i])); }

void hcuda_2d_invert_inplace(float* a, int nx, int ny) { hcuda_2d_multi_inplace(a, nx, ny, -1.0f); }
void host_2d_invert_inplace(float* a, int nx, int ny) {
  const size_t n = npix(nx, ny);
  for (size_t i = 0; i < n; ++i) a[i] = zk_mul(a[i], -1.0f);
}

void hcuda_x2d_add(const float* a, const float* b, float* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_add(a[i], b[i]));
}
void hcuda_x2d_sub(const float* a, const float* b, float* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_sub(a[i], b[i]));
}
void hcuda_x2d_multi(const float* a, const float* b, float* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_mul(a[i], b[i]));
}
void hcuda_x2d_divide(const float* a, const float* b, float* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_div(a[i], b[i]));
}
void hcuda_x2d_add_inplace(float* a, const float* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_add(a[i], b[i]));
}
void hcuda_x2d_sub_inplace(float* a, const float* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_sub(a[i], b[i]));
}
void hcuda_x2d_multi_inplace(float* a, const float* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_mul(a[i], b[i]));
}
void hcuda_x2d_divide_inplace(float* a, const float* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_div(a[i], b[i]));
}
void hcuda_x2ds_multi_inplace(float* a, const float* b, int nx, int ny, int nz) {
  for (int k = 0; k < nz; ++k) hcuda_x2d_multi_inplace(a + k * npix(nx, ny), b, nx, ny);
}

void gpu_x2d_sub_inplace(float* a, const float* b, int nx, int ny) {
  const size_t n = npix(nx, ny);
  float* d_a = d_alloc_float(n);
  float* d_b = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_b, b, n * sizeof(float)));
  hcuda_x2d_sub_inplace(d_a, d_b, nx, ny);
  ZK_CHECK(memcpy_D2H(a, d_a, n * sizeof(float)));
  device_free(d_a);
  device_free(d_b);
}

void cpu_x2d_add_inplace(float* a, const float* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_add(a[i], b[i]);
}
void cpu_x2d_sub_inplace(float* a, const float* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_sub(a[i], b[i]);
}
void cpu_x2d_multi_inplace(float* a, const float* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_mul(a[i], b[i]);
}
void cpu_x2d_divide_inplace(float* a, const float* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_div(a[i], b[i]);
}

// Complex by complex.
HDI float2 zk_cadd(float2 a, float2 b) { return make_f2(a.x + b.x, a.y + b.y); }
HDI float2 zk_csub(float2 a, float2 b) { return make_f2(a.x - b.x, a.y - b.y); }
HDI float2 zk_cmul(float2 a, float2 b) { return make_f2(a.x * b.x - a.y * b.y, a.x * b.y + a.y * b.x); }
HDI float2 zk_cmulconj(float2 a, float2 b) { return make_f2(a.x * b.x + a.y * b.y, a.y * b.x - a.x * b.y); }
// a*conj(b)/|b|^2, no test of |b|.
HDI float2 zk_cdiv(float2 a, float2 b) {
  const float m = b.x * b.x + b.y * b.y;
  const float2 p = zk_cmulconj(a, b);
  return make_f2(p.x / m, p.y / m);
}
HDI float2 zk_cmulconj_div(float2 a, float2 b, float f) {
  const float2 p = zk_cmulconj(a, b);
  return make_f2(p.x / f, p.y / f);
}

void hcuda_cxc_2d_add(const float2* a, const float2* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_cadd(a[i], b[i]));
}
void hcuda_cxc_2d_sub(const float2* a, const float2* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_csub(a[i], b[i]));
}
void hcuda_cxc_2d_multi(const float2* a, const float2* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_cmul(a[i], b[i]));
}
void hcuda_cxc_2d_divide(const float2* a, const float2* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_cdiv(a[i], b[i]));
}
void hcuda_cxc_2d_multconj(const float2* a, const float2* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_cmulconj(a[i], b[i]));
}
void hcuda_cxc_2d_multconj_divide(const float2* a, const float2* b, float2* out, int nx, int ny, float f) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_cmulconj_div(a[i], b[i], f));
}
void hcuda_cxc_2d_add_inplace(float2* a, const float2* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_cadd(a[i], b[i]));
}
void hcuda_cxc_2d_sub_inplace(float2* a, const float2* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_csub(a[i], b[i]));
}
void hcuda_cxc_2d_multi_inplace(float2* a, const float2* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_cmul(a[i], b[i]));
}
void hcuda_cxc_2d_divide_inplace(float2* a, const float2* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_cdiv(a[i], b[i]));
}
void hcuda_cxc_2d_multconj_inplace(float2* a, const float2* b, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_cmulconj(a[i], b[i]));
}
void hcuda_cxc_2d_multconj_divide_inplace(float2* a, const float2* b, int nx, int ny, float f) {
  ZK_LAUNCH_PIXELS(nx, ny, a[i] = zk_cmulconj_div(a[i], b[i], f));
}
void cpu_cxc_2d_add_inplace(float2* a, const float2* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_cadd(a[i], b[i]);
}
void cpu_cxc_2d_sub_inplace(float2* a, const float2* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_csub(a[i], b[i]);
}
void cpu_cxc_2d_multi_inplace(float2* a, const float2* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_cmul(a[i], b[i]);
}
void cpu_cxc_2d_divide_inplace(float2* a, const float2* b, int nx, int ny) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = zk_cdiv(a[i], b[i]);
}

// Complex by real.
void hcuda_cxr_2d_multi(const float2* a, const float* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = make_f2(a[i].x * b[i], a[i].y * b[i]));
}
void hcuda_cxr_2d_divide(const float2* a, const float* b, float2* out, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = make_f2(a[i].x / b[i], a[i].y / b[i]));
}
void hcuda_cxr_2d_multi_inplace(float2* a, const float* b, int nx, int ny) { hcuda_cxr_2d_multi(a, b, a, nx, ny); }
void hcuda_cxr_2d_divide_inplace(float2* a, const float* b, int nx, int ny) { hcuda_cxr_2d_divide(a, b, a, nx, ny); }
void hcuda_cxr_2ds_multi_inplace(float2* a, const float* b, int nx, int ny, int nz) {
  for (int k = 0; k < nz; ++k) hcuda_cxr_2d_multi_inplace(a + k * npix(nx, ny), b, nx, ny);
}

// ===========================================================================
// Local and stack statistics
// ===========================================================================

// The box of a pixel, cut at the image edge: [x - bx/2, x + bx/2) by rows likewise.
HDI void zk_box_limits(int x, int n, int w, int* lo, int* hi) {
  const int h = w / 2;
  *lo = x - h < 0 ? 0 : x - h;
  *hi = x + h > n ? n : x + h;
}

HDI float zk_box_mean(const float* in, int nx, int ny, int x, int y, int bx, int by) {
  int x0, x1, y0, y1;
  zk_box_limits(x, nx, bx, &x0, &x1);
  zk_box_limits(y, ny, by, &y0, &y1);
  float sum = 0.0f;
  for (int j = y0; j < y1; ++j)
    for (int i = x0; i < x1; ++i) sum = sum + in[(size_t)j * nx + i];
  return sum / (float)((x1 - x0) * (y1 - y0));
}

HDI void cuda_2d_convolution_by_box(int x, int y, const float* in, float* out, int nx, int ny, int bx, int by) {
  out[(size_t)y * nx + x] = zk_box_mean(in, nx, ny, x, y, bx, by);
}

HDI void cuda_2d_std_by_box(int x, int y, const float* in, float* out, int nx, int ny, int bx, int by) {
  int x0, x1, y0, y1;
  zk_box_limits(x, nx, bx, &x0, &x1);
  zk_box_limits(y, ny, by, &y0, &y1);
  const float m = zk_box_mean(in, nx, ny, x, y, bx, by);
  float sum = 0.0f;
  for (int j = y0; j < y1; ++j)
    for (int i = x0; i < x1; ++i) {
      const float d = in[(size_t)j * nx + i] - m;
      sum = sum + d * d;
    }
  out[(size_t)y * nx + x] = sqrtf(sum / (float)((x1 - x0) * (y1 - y0)));
}

void hcuda_2d_convolution_by_box(const float* in, float* out, int nx, int ny, int bx, int by) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_convolution_by_box(x, y, in, out, nx, ny, bx, by); });
}
void hcuda_2d_std_by_box(const float* in, float* out, int nx, int ny, int bx, int by) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_std_by_box(x, y, in, out, nx, ny, bx, by); });
}

HDI void cuda_2ds_average(int x, int y, float* out, const float* in, int nx, int ny, int nz) {
  const size_t n = (size_t)nx * ny, i = (size_t)y * nx + x;
  float sum = 0.0f;
  for (int k = 0; k < nz; ++k) sum = sum + in[k * n + i];
  out[i] = sum / (float)nz;
}

void hcuda_2ds_average(float* out, const float* in, int nx, int ny, int nz) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2ds_average(x, y, out, in, nx, ny, nz); });
}

// One image at a time through the device: the same sums in the same order.
void gpu_2ds_average(float* out, const float* in, int nx, int ny, int nz) {
  const size_t n = npix(nx, ny);
  float* d_in = d_alloc_float(n);
  float* d_sum = d_alloc_float(n);
  hcuda_2d_empty(d_sum, nx, ny);
  for (int k = 0; k < nz; ++k) {
    ZK_CHECK(memcpy_H2D(d_in, in + k * n, n * sizeof(float)));
    hcuda_x2d_add_inplace(d_sum, d_in, nx, ny);
  }
  hcuda_2d_divide_inplace(d_sum, nx, ny, (float)nz);
  ZK_CHECK(memcpy_D2H(out, d_sum, n * sizeof(float)));
  device_free(d_in);
  device_free(d_sum);
}

// Radial profile of a half plane: each value is shared between the bins
// floor(r) and floor(r) + 1 by linear weights.
void rotational_average_2d_half(const float* in, float* out, int nxh, int ny) {
  std::vector<double> sum(nxh + 1, 0.0), wsum(nxh + 1, 0.0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nxh; ++x) {
      const float dy = (float)(y - ny / 2);
      const float r = sqrtf((float)x * (float)x + dy * dy);
      const int i = (int)r;
      if (i >= nxh) continue;
      const float f = r - (float)i;
      const float v = in[(size_t)y * nxh + x];
      sum[i] += (double)(v * (1.0f - f));
      wsum[i] += (double)(1.0f - f);
      sum[i + 1] += (double)(v * f);
      wsum[i + 1] += (double)f;
    }
  for (int i = 0; i < nxh; ++i) out[i] = wsum[i] > 0.0 ? (float)(sum[i] / wsum[i]) : 0.0f;
}

Pixel cpu_2d_get_unique_peak(const float* a, int nx, int ny) {
  Pixel p = {0, 0, a[0]};
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x)
      if (a[(size_t)y * nx + x] > p.value) p = Pixel{x, y, a[(size_t)y * nx + x]};
  return p;
}

void cpu_2ds_get_unique_peak(const float* a, int nx, int ny, int nz, Pixel* out) {
  for (int k = 0; k < nz; ++k) out[k] = cpu_2d_get_unique_peak(a + k * npix(nx, ny), nx, ny);
}

Pixel cpu_2d_get_middle_peak_from_equals(const float* a, int nx, int ny) {
  const Pixel first = cpu_2d_get_unique_peak(a, nx, ny);
  const size_t n = npix(nx, ny);
  size_t count = 0;
  for (size_t i = 0; i < n; ++i)
    if (a[i] == first.value) ++count;
  // The middle one of the equal maxima in row-major order.
  size_t want = count / 2, seen = 0;
  for (size_t i = 0; i < n; ++i)
    if (a[i] == first.value && seen++ == want) return Pixel{(int)(i % nx), (int)(i / nx), a[i]};
  return first;
}

// ===========================================================================
// Boxes on a grid
// ===========================================================================

namespace {

int autogrid_box(int nx, int ny, int& box, int step, int& gx, int& gy) {
  const int smaller = nx < ny ? nx : ny;
  if (box > smaller) {
    ZK_WARNING("boxsize larger than Nx or Ny, set as the smaller");
    box = smaller;
  }
  if (box < 1 || step < 1) ZK_FATAL("Box size and grid step must be positive");
  gx = (nx - box) / step + 1;
  gy = (ny - box) / step + 1;
  return gx * gy;
}

}  // namespace

HDI void cuda_2d_cut_box(int x, int y, float* out, const float* in, int nx, int box, int x0, int y0) {
  out[(size_t)y * box + x] = in[(size_t)(y0 + y) * nx + x0 + x];
}

int host_2d_read_ptcls_to_2ds_from_autogrids(float* out, const float* in, int nx, int ny, int& box, int step) {
  int gx, gy;
  const int n = autogrid_box(nx, ny, box, step, gx, gy);
  if (!out) return n;
  const size_t nb = npix(box, box);
  for (int iy = 0; iy < gy; ++iy)
    for (int ix = 0; ix < gx; ++ix) {
      float* o = out + (size_t)(iy * gx + ix) * nb;
      for (int y = 0; y < box; ++y)
        for (int x = 0; x < box; ++x) cuda_2d_cut_box(x, y, o, in, nx, box, ix * step, iy * step);
    }
  return n;
}

int hcuda_2d_read_ptcls_to_2ds_from_autogrids(float* out, const float* in, int nx, int ny, int& box, int step) {
  int gx, gy;
  const int n = autogrid_box(nx, ny, box, step, gx, gy);
  if (!out) return n;
  const size_t nb = npix(box, box);
  const int b = box;
  for (int iy = 0; iy < gy; ++iy)
    for (int ix = 0; ix < gx; ++ix) {
      float* o = out + (size_t)(iy * gx + ix) * nb;
      const int x0 = ix * step, y0 = iy * step;
      launch_2d(b, b, [=] HD(int x, int y) { cuda_2d_cut_box(x, y, o, in, nx, b, x0, y0); });
    }
  return n;
}

// ===========================================================================
// Host linear changes and fits
// ===========================================================================

void cpu_2d_multi_add(float* out, const float* in, int nx, int ny, float k, float b) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) out[i] = fmaf(in[i], k, b);
}
void cpu_2d_multi_add_inplace(float* a, int nx, int ny, float k, float b) { cpu_2d_multi_add(a, a, nx, ny, k, b); }
void cpu_2d_linear_norm_kb_inplace(float* a, int nx, int ny, float k, float b) {
  for (size_t i = 0, n = npix(nx, ny); i < n; ++i) a[i] = a[i] * k + b;
}

void cpu_x2d_get_linear_norm_factors(const float* a, const float* ref, int nx, int ny, float& k, float& b) {
  const size_t n = npix(nx, ny);
  double sa = 0, sr = 0;
  for (size_t i = 0; i < n; ++i) {
    sa += a[i];
    sr += ref[i];
  }
  const double ma = sa / (double)n, mr = sr / (double)n;
  double cov = 0, var = 0;
  for (size_t i = 0; i < n; ++i) {
    cov += (a[i] - ma) * (ref[i] - mr);
    var += (a[i] - ma) * (a[i] - ma);
  }
  // A flat image can only be moved to the reference's mean.
  const double kk = var > 0 ? cov / var : 0.0;
  k = (float)kk;
  b = (float)(mr - kk * ma);
}

void cpu_2d_norm_by_reference_inplace(float* a, const float* ref, int nx, int ny) {
  float k, b;
  cpu_x2d_get_linear_norm_factors(a, ref, nx, ny, k, b);
  cpu_2d_linear_norm_kb_inplace(a, nx, ny, k, b);
}
