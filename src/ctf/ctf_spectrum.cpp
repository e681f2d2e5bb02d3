#include "ctf/ctf_spectrum.h"

#include <vector>

#include "core/hd.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {

// The transform plan of one call, destroyed however the call ends.
struct PlanHolder {
  ZkFftPlan p;
  PlanHolder(int nx, int ny) : p(zk_fft_plan_r2c(nx, ny, 1)) {}
  ~PlanHolder() { zk_fft_plan_destroy(p); }
};

HDI void zk_copy_box(int x, int y, float* box, int bx, const float* img, int nx, int x0, int y0) {
  box[(size_t)y * bx + x] = img[(size_t)(y0 + y) * nx + (x0 + x)];
}

// Sum of |F| over the grid of boxes into d_amp (cleared first).
void grid_amplitude_sum(const float* d_image, float* d_amp, unsigned int nx, unsigned int ny, unsigned int bx,
                        unsigned int by, int step) {
  const size_t nhalf = (size_t)(bx / 2 + 1) * by;
  hcuda_empty_float(d_amp, nhalf);
  if (nx < bx || ny < by || step < 1) return;
  const unsigned int gx = (nx - bx) / (unsigned int)step + 1, gy = (ny - by) / (unsigned int)step + 1;
  PlanHolder plan((int)bx, (int)by);
  ZkDeviceArray<float> box((size_t)bx * by);
  ZkDeviceArray<float2> spec(nhalf);
  float* b = box.get();
  const int w = (int)bx, iw = (int)nx;
  for (unsigned int iy = 0; iy < gy; ++iy)
    for (unsigned int ix = 0; ix < gx; ++ix) {
      const int x0 = (int)(ix * step), y0 = (int)(iy * step);
      launch_2d(w, (int)by, [=] HD(int x, int y) { zk_copy_box(x, y, b, w, d_image, iw, x0, y0); });
      zk_fft_exec_r2c(plan.p, b, spec.get());
      hcuda_complex_mod_addto_center_swap(d_amp, spec.get(), nhalf);
    }
}

}  // namespace

void hcuda_2d_box_mean_running(const float* in, float* out, int nx, int ny, int w) {
  const int h = w / 2;
  ZkDeviceArray<float> rows((size_t)nx * ny);
  float* r = rows.get();
  // Row sums over x - h .. x + h - 1, a window that slides by one element.
  launch_2d_heavy(ny, 1, [=] HD(int y, int) {
    const float* a = in + (size_t)y * nx;
    float* o = r + (size_t)y * nx;
    double s = 0.0;
    int lo = 0, hi = h < nx ? h : nx;
    for (int k = lo; k < hi; ++k) s += a[k];
    for (int x = 0; x < nx; ++x) {
      const int nlo = x - h < 0 ? 0 : x - h, nhi = x + h > nx ? nx : x + h;
      while (hi < nhi) s += a[hi++];
      while (lo < nlo) s -= a[lo++];
      o[x] = (float)s;
    }
  });
  // Column sums of the row sums, divided by the clipped box's size.
  launch_2d_heavy(nx, 1, [=] HD(int x, int) {
    double s = 0.0;
    int lo = 0, hi = h < ny ? h : ny;
    for (int k = lo; k < hi; ++k) s += r[(size_t)k * nx + x];
    for (int y = 0; y < ny; ++y) {
      const int nlo = y - h < 0 ? 0 : y - h, nhi = y + h > ny ? ny : y + h;
      while (hi < nhi) s += r[(size_t)(hi++) * nx + x];
      while (lo < nlo) s -= r[(size_t)(lo++) * nx + x];
      const int xlo = x - h < 0 ? 0 : x - h, xhi = x + h > nx ? nx : x + h;
      out[(size_t)y * nx + x] = (float)(s / (double)((xhi - xlo) * (hi - lo)));
    }
  });
}

void hcuda_2d_fft_amp_subbg(float* out, const float* in, unsigned int bx, unsigned int by, int convsize) {
  ZkDeviceArray<float> f1((size_t)bx * by), f2((size_t)bx * by);
  hcuda_2d_fft_amp_half2full(f1.get(), in, bx, by);
  hcuda_2d_box_mean_running(f1.get(), f2.get(), (int)bx, (int)by, convsize);
  hcuda_x2d_sub_inplace(f1.get(), f2.get(), (int)bx, (int)by);
  hcuda_2d_fft_amp_full2half(out, f1.get(), bx, by);
}
void hcuda_2d_fft_amp_subbg_inplace(float* d, unsigned int bx, unsigned int by, int convsize) {
  hcuda_2d_fft_amp_subbg(d, d, bx, by, convsize);
}
void hcuda_2d_fft_amp_log_subbg_inplace(float* d, unsigned int bx, unsigned int by, int convsize) {
  hcuda_2d_logf_inplace(d, (int)(bx / 2 + 1), (int)by);
  hcuda_2d_fft_amp_subbg(d, d, bx, by, convsize);
}

void hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(const float* d_image, float* d_amp, float* d_log, float* d_sub,
                                             unsigned int nx, unsigned int ny, unsigned int bx, unsigned int by,
                                             int step, int convsize) {
  grid_amplitude_sum(d_image, d_amp, nx, ny, bx, by, step);
  hcuda_2d_logf(d_log, d_amp, (int)(bx / 2 + 1), (int)by);
  hcuda_2d_fft_amp_subbg(d_sub, d_log, bx, by, convsize);
}
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg(const float* d_image, float* d_sub, unsigned int nx, unsigned int ny,
                                            unsigned int bx, unsigned int by, int step, int convsize) {
  grid_amplitude_sum(d_image, d_sub, nx, ny, bx, by, step);
  hcuda_2d_fft_amp_log_subbg_inplace(d_sub, bx, by, convsize);
}
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(const float* d_image, float* d_log, float* d_sub, unsigned int nx,
                                             unsigned int ny, unsigned int bx, unsigned int by, int step,
                                             int convsize) {
  grid_amplitude_sum(d_image, d_log, nx, ny, bx, by, step);
  hcuda_2d_logf_inplace(d_log, (int)(bx / 2 + 1), (int)by);
  hcuda_2d_fft_amp_subbg(d_sub, d_log, bx, by, convsize);
}
void hcuda_2d_gridfft_r2c_amp_ave(const float* d_image, float* d_amp, unsigned int nx, unsigned int ny, unsigned int bx,
                                  unsigned int by, int step, int convsize) {
  (void)convsize;
  grid_amplitude_sum(d_image, d_amp, nx, ny, bx, by, step);
}

void hcuda_2ds_fft_r2c_amp_weighted_ave(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                        unsigned int nz, const float* d_weights) {
  const size_t nhalf = (size_t)(nx / 2 + 1) * ny, n = (size_t)nx * ny;
  hcuda_empty_float(d_amp, nhalf);
  PlanHolder plan((int)nx, (int)ny);
  ZkDeviceArray<float2> spec(nhalf);
  std::vector<float> w(nz, 1.0f);
  if (d_weights) ZK_CHECK(memcpy_D2H(w.data(), d_weights, nz * sizeof(float)));
  for (unsigned int k = 0; k < nz; ++k) {
    zk_fft_exec_r2c(plan.p, d_stack + k * n, spec.get());
    if (d_weights)
      hcuda_complex_mod_weighted_addto_center_swap(d_amp, spec.get(), nhalf, w[k]);
    else
      hcuda_complex_mod_addto_center_swap(d_amp, spec.get(), nhalf);
  }
}
void hcuda_2ds_fft_r2c_amp_ave(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny, unsigned int nz) {
  hcuda_2ds_fft_r2c_amp_weighted_ave(d_stack, d_amp, nx, ny, nz, nullptr);
}
void hcuda_2ds_fft_r2c_amp_ave_log(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                   unsigned int nz) {
  hcuda_2ds_fft_r2c_amp_ave(d_stack, d_amp, nx, ny, nz);
  hcuda_logf_inplace(d_amp, (size_t)(nx / 2 + 1) * ny);
}
void hcuda_2ds_fft_r2c_amp_ave_log_subbg(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                         unsigned int nz, int convsize) {
  hcuda_2ds_fft_r2c_amp_ave(d_stack, d_amp, nx, ny, nz);
  hcuda_2d_fft_amp_log_subbg_inplace(d_amp, nx, ny, convsize);
}
void hcuda_2ds_fft_r2c_amp_ave_sqrt(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                    unsigned int nz) {
  hcuda_2ds_fft_r2c_amp_ave(d_stack, d_amp, nx, ny, nz);
  hcuda_sqrtf_inplace(d_amp, (size_t)(nx / 2 + 1) * ny);
}
