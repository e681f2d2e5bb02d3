#include "device/process2d_raw.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"

namespace {

// A non-fatal error line, in the form of the fatal report without its end.
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

void cpu_x2d_cp_ptcls_to_micrograph(float* mic, int nx, int ny, const float* stack, int bx, int by,
                                    const PTCL_BOX* boxes, int n) {
  for (int k = 0; k < n; ++k)
    cpu_x2d_cp_small_to_large(mic, stack + (size_t)k * bx * by, nx, ny, bx, by, boxes[k].x, boxes[k].y);
}

void cpu_x2d_norm_cp_ptcls_to_micrograph(float* mic, int nx, int ny, const float* stack, const float* ref, int bx,
                                         int by, const PTCL_BOX* boxes, int n) {
  const size_t nb = npix(bx, by);
  std::vector<float> r, p, slice(nb);
  r.reserve(nb);
  p.reserve(nb);
  for (int k = 0; k < n; ++k) {
    // The fit sees only the part of the box that lies on the micrograph.
    r.clear();
    p.clear();
    for (int y = 0; y < by; ++y)
      for (int x = 0; x < bx; ++x) {
        const int mx = boxes[k].x + x, my = boxes[k].y + y;
        if (mx < 0 || my < 0 || mx >= nx || my >= ny) continue;
        r.push_back(ref[k * nb + (size_t)y * bx + x]);
        p.push_back(mic[(size_t)my * nx + mx]);
      }
    if (r.empty()) continue;
    float fk, fb;
    cpu_x2d_get_linear_norm_factors(r.data(), p.data(), (int)r.size(), 1, fk, fb);
    for (size_t i = 0; i < nb; ++i) slice[i] = stack[k * nb + i] * fk + fb;
    cpu_x2d_cp_small_to_large(mic, slice.data(), nx, ny, bx, by, boxes[k].x, boxes[k].y);
  }
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
    ZK_FATAL_AFTER("divisor must be non-zero value\n", "Zero divisor");
  }
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = zk_div(in[i], s));
}
void hcuda_2d_sub_divide(float* out, const float* in, int nx, int ny, float s1, float s2) {
  if (s2 == 0.0f) {
    ZK_FATAL_AFTER("divisor must be non-zero value\n", "Zero divisor");
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

// ===========================================================================
// Resampling
// ===========================================================================

// The outside rule: 0 for a position off [0, nx-1] by [0, ny-1], the limits
// inside; the bilinear sample otherwise.
HDI float zk_sample_or_zero(const float* in, int nx, int ny, float xs, float ys) {
  if (xs < 0.0f || xs > (float)(nx - 1) || ys < 0.0f || ys > (float)(ny - 1)) return 0.0f;
  return hd_2d_frac_value(in, nx, xs, ys);
}

HDI void zk_sincos_deg(float psi, float* s, float* c) { hd_sincosf(psi * 0.017453292f, s, c); }

HDI void cuda_2d_rotate_anycenter(int x, int y, const float* in, float* out, int nx, int ny, float cx, float cy,
                                  float psi) {
  float s, c;
  zk_sincos_deg(psi, &s, &c);
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float xs = cx + (dx * c + dy * s);
  const float ys = cy + (dy * c - dx * s);
  out[(size_t)y * nx + x] = zk_sample_or_zero(in, nx, ny, xs, ys);
}

HDI void cuda_2d_rotate(int x, int y, const float* in, float* out, int nx, int ny, float psi) {
  cuda_2d_rotate_anycenter(x, y, in, out, nx, ny, (float)(nx - 1) * 0.5f, (float)(ny - 1) * 0.5f, psi);
}

void hcuda_2d_rotate(const float* in, float* out, int nx, int ny, float psi) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_rotate(x, y, in, out, nx, ny, psi); });
}

void hcuda_2d_rotate_anycenter(const float* in, float* out, int nx, int ny, float cx, float cy, float psi) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_rotate_anycenter(x, y, in, out, nx, ny, cx, cy, psi); });
}

HDI void cuda_2d_translate(int x, int y, const float* in, float* out, int nx, int ny, float tx, float ty) {
  out[(size_t)y * nx + x] = zk_sample_or_zero(in, nx, ny, (float)x - tx, (float)y - ty);
}

void hcuda_2d_translate(const float* in, float* out, int nx, int ny, float tx, float ty) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_translate(x, y, in, out, nx, ny, tx, ty); });
}
void hcuda_2d_translate_x(const float* in, float* out, int nx, int ny, float tx) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_translate(x, y, in, out, nx, ny, tx, 0.0f); });
}
void hcuda_2d_translate_y(const float* in, float* out, int nx, int ny, float ty) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_translate(x, y, in, out, nx, ny, 0.0f, ty); });
}

HDI void cuda_2d_rotate_translate(int x, int y, const float* in, float* out, int nx, int ny, float psi, float tx,
                                  float ty) {
  float s, c;
  zk_sincos_deg(psi, &s, &c);
  const float cx = (float)(nx - 1) * 0.5f, cy = (float)(ny - 1) * 0.5f;
  const float dx = ((float)x - tx) - cx, dy = ((float)y - ty) - cy;
  out[(size_t)y * nx + x] = zk_sample_or_zero(in, nx, ny, cx + (dx * c + dy * s), cy + (dy * c - dx * s));
}

HDI void cuda_2d_translate_rotate(int x, int y, const float* in, float* out, int nx, int ny, float tx, float ty,
                                  float psi) {
  float s, c;
  zk_sincos_deg(psi, &s, &c);
  const float cx = (float)(nx - 1) * 0.5f, cy = (float)(ny - 1) * 0.5f;
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float xs = cx + (dx * c + dy * s) - tx;
  const float ys = cy + (dy * c - dx * s) - ty;
  out[(size_t)y * nx + x] = zk_sample_or_zero(in, nx, ny, xs, ys);
}

void hcuda_2d_rotate_translate(const float* in, float* out, int nx, int ny, float psi, float tx, float ty) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_rotate_translate(x, y, in, out, nx, ny, psi, tx, ty); });
}
void hcuda_2d_translate_rotate(const float* in, float* out, int nx, int ny, float tx, float ty, float psi) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_translate_rotate(x, y, in, out, nx, ny, tx, ty, psi); });
}

// The source of output pixel (x, y) is m applied to (x - cx, y - cy), plus
// the centre; m has been inverted before when it maps input to output.
HDI void cuda_2d_transform(int x, int y, const float* in, float* out, int nx, int ny, double cx, double cy,
                           RT_Mat2D m) {
  const double dx = x - cx, dy = y - cy;
  const double xs = cx + m.R11 * dx + m.R12 * dy + m.Tx;
  const double ys = cy + m.R21 * dx + m.R22 * dy + m.Ty;
  out[(size_t)y * nx + x] = zk_sample_or_zero(in, nx, ny, (float)xs, (float)ys);
}

void hcuda_2d_transform(const float* in, float* out, int nx, int ny, float cx, float cy, RT_Mat2D m, int inverse) {
  if (inverse == 0) {
    const double det = m.R11 * m.R22 - m.R12 * m.R21;
    if (det == 0.0) ZK_FATAL("Singular transform matrix");
    RT_Mat2D v;
    v.R11 = m.R22 / det;
    v.R12 = -m.R12 / det;
    v.R21 = -m.R21 / det;
    v.R22 = m.R11 / det;
    v.Tx = -(v.R11 * m.Tx + v.R12 * m.Ty);
    v.Ty = -(v.R21 * m.Tx + v.R22 * m.Ty);
    m = v;
  }
  const double dcx = cx, dcy = cy;
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_transform(x, y, in, out, nx, ny, dcx, dcy, m); });
}

// Samples along the arc through the pixel about (cx, cy), from -range/2 to
// +range/2 degrees in steps of one pixel of arc length.
HDI void cuda_2d_rotate_ave_anycenter(int x, int y, const float* in, float* out, int nx, int ny, float cx, float cy,
                                      float range) {
  const float dx = (float)x - cx, dy = (float)y - cy;
  const float r = sqrtf(dx * dx + dy * dy);
  const float half = range * 0.5f * 0.017453292f;
  int steps = r > 0.0f ? (int)(half * r) : 0;
  float sum = 0.0f;
  int count = 0;
  for (int k = -steps; k <= steps; ++k) {
    float s, c;
    hd_sincosf(r > 0.0f ? (float)k / r : 0.0f, &s, &c);
    const float xs = cx + (dx * c + dy * s), ys = cy + (dy * c - dx * s);
    if (xs < 0.0f || xs > (float)(nx - 1) || ys < 0.0f || ys > (float)(ny - 1)) continue;
    sum = sum + hd_2d_frac_value(in, nx, xs, ys);
    ++count;
  }
  out[(size_t)y * nx + x] = count > 0 ? sum / (float)count : 0.0f;
}

void hcuda_2d_rotate_ave_anycenter(const float* in, float* out, int nx, int ny, float cx, float cy, float range) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_rotate_ave_anycenter(x, y, in, out, nx, ny, cx, cy, range); });
}

// Output (x, y) of the (nxo, nyo) image samples the input at the point that
// shares the images' centre: offsets from the centre scaled by 1/f.
HDI void cuda_2d_scale(int x, int y, float* out, const float* in, int nx, int ny, int nxo, int nyo, float inv_f) {
  const float sx = (float)(nx - 1) * 0.5f + inv_f * ((float)x - (float)(nxo - 1) * 0.5f);
  const float sy = (float)(ny - 1) * 0.5f + inv_f * ((float)y - (float)(nyo - 1) * 0.5f);
  out[(size_t)y * nxo + x] = zk_sample_or_zero(in, nx, ny, sx, sy);
}

void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float f) {
  const int nxo = get_2d_scaled_size(nx, f), nyo = get_2d_scaled_size(ny, f);
  const float inv_f = 1.0f / f;
  launch_2d(nxo, nyo, [=] HD(int x, int y) { cuda_2d_scale(x, y, out, in, nx, ny, nxo, nyo, inv_f); });
}

void hcuda_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float f) {
  const size_t no = npix(get_2d_scaled_size(nx, f), get_2d_scaled_size(ny, f));
  for (int k = 0; k < nz; ++k) hcuda_2d_scale(out + k * no, in + k * npix(nx, ny), nx, ny, f);
}

void gpu_2d_scale(float* out, const float* in, int nx, int ny, float f) { gpu_2ds_scale(out, in, nx, ny, 1, f); }

void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float f) {
  const size_t ni = npix(nx, ny), no = npix(get_2d_scaled_size(nx, f), get_2d_scaled_size(ny, f));
  float* d_in = d_alloc_float(ni);
  float* d_out = d_alloc_float(no);
  for (int k = 0; k < nz; ++k) {
    ZK_CHECK(memcpy_H2D(d_in, in + k * ni, ni * sizeof(float)));
    hcuda_2d_scale(d_out, d_in, nx, ny, f);
    ZK_CHECK(memcpy_D2H(out + k * no, d_out, no * sizeof(float)));
  }
  device_free(d_in);
  device_free(d_out);
}

// ===========================================================================
// Soft circular masks
// ===========================================================================

// One rule for both forms; only the soft edge differs: hd_guasf on the device
// (0.39894229 at r), hd_guasf1 on the host (1 at r).
HDI float zk_rmask_value(float d2, float r, float soft, bool host_edge) {
  const float outer = r + soft;
  if (d2 > outer * outer) return 0.0f;
  if (d2 <= r * r) return 1.0f;
  const float d = sqrtf(d2) - r;
  return host_edge ? hd_guasf1(d, soft / 3.0f) : hd_guasf(d, soft / 3.0f);
}

HDI void cuda_2d_generate_rmask_soft(int x, int y, float* mask, int nx, float cx, float cy, float r, float soft,
                                     bool host_edge) {
  const float dx = (float)x - cx, dy = (float)y - cy;
  mask[(size_t)y * nx + x] = zk_rmask_value(dx * dx + dy * dy, r, soft, host_edge);
}

void hcuda_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_generate_rmask_soft(x, y, mask, nx, cx, cy, r, soft, false); });
}

void cpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft) {
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) cuda_2d_generate_rmask_soft(x, y, mask, nx, cx, cy, r, soft, true);
}

void gpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft) {
  float* d_m = d_alloc_float(npix(nx, ny));
  hcuda_2d_generate_rmask_soft(d_m, nx, ny, cx, cy, r, soft);
  ZK_CHECK(memcpy_D2H(mask, d_m, npix(nx, ny) * sizeof(float)));
  device_free(d_m);
}

void hcuda_2d_generate_central_rmask(float* mask, int nx, int ny, float r, float soft) {
  hcuda_2d_generate_rmask_soft(mask, nx, ny, (float)(nx - 1) * 0.5f, (float)(ny - 1) * 0.5f, r, soft);
}
void cpu_2d_generate_central_rmask(float* mask, int nx, int ny, float r, float soft) {
  cpu_2d_generate_rmask_soft(mask, nx, ny, (float)(nx - 1) * 0.5f, (float)(ny - 1) * 0.5f, r, soft);
}
void hcuda_2d_generate_central_sharp_rmask(float* mask, int nx, int ny, float r) {
  hcuda_2d_generate_central_rmask(mask, nx, ny, r, 0.0f);
}

namespace {

// The host mask of a call, allocated and filled.
std::vector<float> host_rmask(int nx, int ny, float cx, float cy, float r, float soft) {
  std::vector<float> m(npix(nx, ny));
  cpu_2d_generate_rmask_soft(m.data(), nx, ny, cx, cy, r, soft);
  return m;
}

}  // namespace

void cpu_2d_normz_withRmask(float* out, const float* in, int nx, int ny, float cx, float cy, float r, float soft) {
  std::vector<float> m = host_rmask(nx, ny, cx, cy, r, soft);
  hm_normz_withmask(out, in, m.data(), m.size());
}
void cpu_2d_normz_withRmask_inplace(float* a, int nx, int ny, float cx, float cy, float r, float soft) {
  std::vector<float> m = host_rmask(nx, ny, cx, cy, r, soft);
  hm_normz_withmask_inplace(a, m.data(), m.size());
}
void cpu_2d_normz_withRmask_applymask(float* out, const float* in, int nx, int ny, float cx, float cy, float r,
                                      float soft) {
  std::vector<float> m = host_rmask(nx, ny, cx, cy, r, soft);
  hm_normz_withmask_applymask(out, in, m.data(), m.size());
}
void cpu_2d_normz_withRmask_applymask_inplace(float* a, int nx, int ny, float cx, float cy, float r, float soft) {
  std::vector<float> m = host_rmask(nx, ny, cx, cy, r, soft);
  hm_normz_withmask_applymask_inplace(a, m.data(), m.size());
}

float cpu_x2d_ccc_with2maskfs(const float* a, const float* ma, const float* b, const float* mb, int nx, int ny) {
  const size_t n = npix(nx, ny);
  std::vector<float> m(n), ca(a, a + n), cb(b, b + n);
  for (size_t i = 0; i < n; ++i) m[i] = ma[i] * mb[i];
  hm_normz_withmask_applymask_inplace(ca.data(), m.data(), n);
  hm_normz_withmask_applymask_inplace(cb.data(), m.data(), n);
  return hm_ccc_norm_inplace(ca.data(), cb.data(), n);
}

// ===========================================================================
// Unary functions with the shared single-precision routines
// ===========================================================================

void hcuda_2d_pow(float* out, const float* in, int nx, int ny, float p) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_powf(in[i], p));
}
void hcuda_2d_exp(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_expf(in[i])); }
void hcuda_2d_log(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_logf(in[i])); }
void hcuda_2d_logf(float* out, const float* in, int nx, int ny) { ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_logf(in[i])); }
void hcuda_2d_log2(float* out, const float* in, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_log2f(in[i]));
}
void hcuda_2d_log10(float* out, const float* in, int nx, int ny) {
  ZK_LAUNCH_PIXELS(nx, ny, out[i] = hd_log10f(in[i]));
}
void hcuda_2d_pow_inplace(float* a, int nx, int ny, float p) { hcuda_2d_pow(a, a, nx, ny, p); }
void hcuda_2d_exp_inplace(float* a, int nx, int ny) { hcuda_2d_exp(a, a, nx, ny); }
void hcuda_2d_log_inplace(float* a, int nx, int ny) { hcuda_2d_log(a, a, nx, ny); }
void hcuda_2d_logf_inplace(float* a, int nx, int ny) { hcuda_2d_logf(a, a, nx, ny); }
void hcuda_2d_log2_inplace(float* a, int nx, int ny) { hcuda_2d_log2(a, a, nx, ny); }
void hcuda_2d_log10_inplace(float* a, int nx, int ny) { hcuda_2d_log10(a, a, nx, ny); }

void hcuda_2d_log_subbg_boxconv_inplace(float* a, int nx, int ny, int b) {
  hcuda_2d_logf_inplace(a, nx, ny);
  float* bg = d_alloc_float(npix(nx, ny));
  hcuda_2d_convolution_by_box(a, bg, nx, ny, b, b);
  hcuda_x2d_sub_inplace(a, bg, nx, ny);
  device_free(bg);
}

// ===========================================================================
// Hot pixels and low frequencies
// ===========================================================================

// Reads the untouched copy, so a replaced pixel never feeds its neighbour.
HDI void cuda_2d_rm_hotpixels_inplace(int x, int y, float* a, const float* orig, int nx, int ny, float mean,
                                      float limit) {
  const size_t i = (size_t)y * nx + x;
  if (fabsf(orig[i] - mean) > limit) a[i] = hd_2d_ave_nb8(orig, nx, ny, x, y, 1);
}

void hcuda_2ds_rm_hotpixels_inplace(float* a, int nx, int ny, int nz, float k) {
  const size_t n = npix(nx, ny);
  float* d_a = d_alloc_float(n);
  float* d_orig = d_alloc_float(n);
  for (int z = 0; z < nz; ++z) {
    ZK_CHECK(memcpy_H2D(d_a, a + z * n, n * sizeof(float)));
    ZK_CHECK(memcpy_D2D(d_orig, d_a, n * sizeof(float)));
    const float m = hcuda_fast_mean(d_a, n);
    const float limit = hcuda_stdv(d_a, n) * k;
    launch_2d(nx, ny, [=] HD(int x, int y) { cuda_2d_rm_hotpixels_inplace(x, y, d_a, d_orig, nx, ny, m, limit); });
    ZK_CHECK(memcpy_D2H(a + z * n, d_a, n * sizeof(float)));
    printf(".");
    fflush(stdout);
  }
  printf("\n");
  device_free(d_a);
  device_free(d_orig);
}

// The radius of the resolution q at pixel size p on a half plane of nxh columns.
HDI float zk_lowfreq_radius(int nxh, float p, float q) { return 2.0f * (float)(nxh - 1) * p / q; }

HDI void cuda_2dh_low_frequency(int x, int y, float* a, int nxh, int ny, float r0, bool zero) {
  const float dy = (float)(y - ny / 2);
  const float r = sqrtf((float)x * (float)x + dy * dy);
  if (r >= r0) return;
  const size_t i = (size_t)y * nxh + x;
  a[i] = zero ? 0.0f : a[i] * hd_guasf1(r0 - r, r0 / 3.0f);
}

void hcuda_2dh_smooth_low_frequency_inplace(float* a, int nxh, int ny, float p, float q) {
  const float r0 = zk_lowfreq_radius(nxh, p, q);
  launch_2d(nxh, ny, [=] HD(int x, int y) { cuda_2dh_low_frequency(x, y, a, nxh, ny, r0, false); });
}
void cpu_2dh_smooth_low_frequency_inplace(float* a, int nxh, int ny, float p, float q) {
  const float r0 = zk_lowfreq_radius(nxh, p, q);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nxh; ++x) cuda_2dh_low_frequency(x, y, a, nxh, ny, r0, false);
}
void cpu_2dh_zero_low_frequency_inplace(float* a, int nxh, int ny, float p, float q) {
  const float r0 = zk_lowfreq_radius(nxh, p, q);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nxh; ++x) cuda_2dh_low_frequency(x, y, a, nxh, ny, r0, true);
}
