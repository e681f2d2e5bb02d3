#include "device/cuda_fft.h"

#include <fftw3.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "core/report.h"
#include "device/launch.h"
#include "device/math_utils.h"

#if defined(ZAVIK_HAVE_CUDA)
#include <cufft.h>
#endif
#if defined(ZAVIK_HAVE_FFTW_OMP)
#include <omp.h>
#endif

// ===========================================================================
// Plans
// ===========================================================================

namespace {

// Transform types by their cuFFT codes.
constexpr int ZK_R2C = 0x2a;
constexpr int ZK_C2R = 0x2c;

// Below this many real elements a host transform stays on one thread.
constexpr long long ZK_FFT_THREAD_MIN = 1 << 18;

// The FFTW planner is not thread-safe; every plan creation and destruction
// happens under this lock.  Execution needs none.
std::mutex g_fftw_lock;
bool g_fftw_threads_ready = false;

// The cache of the one-shot wrappers.
std::mutex g_cache_lock;
bool g_cache_on = true;
// Made once and never destroyed: the cached plans live to the end of the
// process, reachable from here, and no destructor at exit tears the map down
// under a plan still in use.
using PlanCache = std::map<std::tuple<int, int, int, int, int, int>, ZkFftPlan>;
PlanCache& g_cache = *new PlanCache();

int g_host_threads = 0;

// An FFTW plan fits only arrays of the alignment it was made for, so a host
// plan holds one FFTW plan for each pair of alignments it has met.
struct ZkHostPlan {
  int align_in, align_out;
  fftwf_plan p;
};

}  // namespace

struct ZkFftPlanRec {
  int nx, ny, batch, type;
  int nthreads;  // FFTW threads of the host plans
  bool gpu;
#if defined(ZAVIK_HAVE_CUDA)
  cufftHandle handle;
#endif
  std::vector<ZkHostPlan> host;
};

const char* cuFFT_GetErrorString(int result) {
  switch (result) {
    case 0: return "CUFFT_SUCCESS, cuFFT operation was successful";
    case 1: return "CUFFT_INVALID_PLAN, cuFFT was passed an invalid plan handle";
    case 2: return "CUFFT_ALLOC_FAILED, cuFFT failed to allocate GPU or CPU memory";
    case 3: return "CUFFT_INVALID_TYPE";
    case 4: return "CUFFT_INVALID_VALUE, An invalid pointer or parameter has been specified";
    case 5: return "CUFFT_INTERNAL_ERROR, Driver or internal cuFFT library error";
    case 6: return "CUFFT_EXEC_FAILED, Failed to execute an FFT on the GPU";
    case 7: return "CUFFT_SETUP_FAILED, The cuFFT library failed to initialize";
    case 8: return "CUFFT_INVALID_SIZE, User specified an invalid transform size";
    case 9: return "CUFFT_UNALIGNED_DATA";
    case 10: return "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call";
    case 11: return "CUFFT_INVALID_DEVICE, Execution of a plan was on different GPU than plan creation";
    case 12: return "CUFFT_PARSE_ERROR,  Internal plan database error";
    case 13: return "CUFFT_NO_WORKSPACE, No workspace has been provided prior to plan execution";
    case 14: return "CUFFT_NOT_IMPLEMENTED, Function does not implement functionality for parameters given.";
    default: return "Unkown error";
  }
}

namespace {

#if defined(ZAVIK_HAVE_CUDA)
void cufft_check(cufftResult r, const char* file, int line) {
  if (r == CUFFT_SUCCESS) return;
  throw ZkError(ZkError::DEVICE, "", "", file, line, cuFFT_GetErrorString((int)r));
}
#define ZK_CUFFT_CHECK(call) cufft_check((call), zk_basename(__FILE__), __LINE__)
#endif

int host_threads_for(int nx, int ny, int batch) {
#if defined(ZAVIK_HAVE_FFTW_OMP)
  if (g_host_threads > 0) return g_host_threads;
  if ((long long)nx * ny * batch < ZK_FFT_THREAD_MIN) return 1;
  int n = omp_get_max_threads();
  return n < 1 ? 1 : n;
#else
  (void)nx;
  (void)ny;
  (void)batch;
  return 1;
#endif
}

ZkFftPlan plan_create(int nx, int ny, int batch, int type) {
  if (nx < 1 || ny < 1 || batch < 1) ZK_FATAL("Invalid size of a Fourier transform");
  ZkFftPlan p = new ZkFftPlanRec;
  p->nx = nx;
  p->ny = ny;
  p->batch = batch;
  p->type = type;
  p->nthreads = host_threads_for(nx, ny, batch);
  p->gpu = zk_on_gpu();
#if defined(ZAVIK_HAVE_CUDA)
  p->handle = 0;
  if (p->gpu) {
    cufftType t = type == ZK_R2C ? CUFFT_R2C : CUFFT_C2R;
    if (batch == 1) {
      ZK_CUFFT_CHECK(cufftPlan2d(&p->handle, ny, nx, t));
    } else {
      int n[2] = {ny, nx};
      // Null embeddings: the basic layout, images and spectra without gaps.
      ZK_CUFFT_CHECK(cufftPlanMany(&p->handle, 2, n, nullptr, 1, 0, nullptr, 1, 0, t, batch));
    }
  }
#endif
  return p;
}

// The FFTW plan of p for these arrays, made on first use.
fftwf_plan host_plan_for(ZkFftPlan p, void* in, void* out) {
  if (in == out) ZK_FATAL("Fourier transforms are done out of place");
  const int ai = fftwf_alignment_of((float*)in);
  const int ao = fftwf_alignment_of((float*)out);
  std::lock_guard<std::mutex> lock(g_fftw_lock);
  for (const ZkHostPlan& h : p->host)
    if (h.align_in == ai && h.align_out == ao) return h.p;
#if defined(ZAVIK_HAVE_FFTW_OMP)
  if (!g_fftw_threads_ready) {
    fftwf_init_threads();
    g_fftw_threads_ready = true;
  }
  fftwf_plan_with_nthreads(p->nthreads);
#endif
  const int n[2] = {p->ny, p->nx};
  const int real_dist = p->nx * p->ny;
  const int cx_dist = (p->nx / 2 + 1) * p->ny;
  // FFTW_ESTIMATE neither reads nor writes the arrays while planning.
  fftwf_plan fp;
  if (p->type == ZK_R2C)
    fp = fftwf_plan_many_dft_r2c(2, n, p->batch, (float*)in, nullptr, 1, real_dist, (fftwf_complex*)out, nullptr,
                                 1, cx_dist, FFTW_ESTIMATE);
  else
    fp = fftwf_plan_many_dft_c2r(2, n, p->batch, (fftwf_complex*)in, nullptr, 1, cx_dist, (float*)out, nullptr,
                                 1, real_dist, FFTW_ESTIMATE);
  if (!fp) ZK_FATAL("FFTW could not plan the transform");
  p->host.push_back(ZkHostPlan{ai, ao, fp});
  return fp;
}

void check_backend(ZkFftPlan p, int type) {
  if (!p) ZK_FATAL("Null FFT plan");
  if (p->type != type) ZK_FATAL("FFT plan of the other direction");
  if (p->gpu != zk_on_gpu()) ZK_FATAL("FFT plan of the other back end");
}

// A plan of the cache, made on first use; owned by the cache.
ZkFftPlan cached_plan(int nx, int ny, int batch, int type) {
  std::lock_guard<std::mutex> lock(g_cache_lock);
  auto key = std::make_tuple(zk_on_gpu() ? 1 : 0, type, nx, ny, batch, host_threads_for(nx, ny, batch));
  auto it = g_cache.find(key);
  if (it != g_cache.end()) return it->second;
  ZkFftPlan p = plan_create(nx, ny, batch, type);
  g_cache[key] = p;
  return p;
}

// One transform through the cache, or through a plan of its own when the
// cache is off.
void fft_once_r2c(const float* in, float2* out, int nx, int ny, int batch) {
  if (g_cache_on) {
    zk_fft_exec_r2c(cached_plan(nx, ny, batch, ZK_R2C), in, out);
  } else {
    ZkFftPlan p = zk_fft_plan_r2c(nx, ny, batch);
    zk_fft_exec_r2c(p, in, out);
    zk_fft_plan_destroy(p);
  }
}
void fft_once_c2r(float2* in, float* out, int nx, int ny, int batch) {
  if (g_cache_on) {
    zk_fft_exec_c2r(cached_plan(nx, ny, batch, ZK_C2R), in, out);
  } else {
    ZkFftPlan p = zk_fft_plan_c2r(nx, ny, batch);
    zk_fft_exec_c2r(p, in, out);
    zk_fft_plan_destroy(p);
  }
}

}  // namespace

ZkFftPlan zk_fft_plan_r2c(int nx, int ny, int batch) { return plan_create(nx, ny, batch, ZK_R2C); }
ZkFftPlan zk_fft_plan_c2r(int nx, int ny, int batch) { return plan_create(nx, ny, batch, ZK_C2R); }

void zk_fft_exec_r2c(ZkFftPlan plan, const float* in, float2* out) {
  check_backend(plan, ZK_R2C);
#if defined(ZAVIK_HAVE_CUDA)
  if (plan->gpu) {
    ZK_CUFFT_CHECK(cufftExecR2C(plan->handle, (cufftReal*)in, (cufftComplex*)out));
    return;
  }
#endif
  fftwf_plan fp = host_plan_for(plan, (void*)in, (void*)out);
  fftwf_execute_dft_r2c(fp, (float*)in, (fftwf_complex*)out);
}

void zk_fft_exec_c2r(ZkFftPlan plan, float2* in, float* out) {
  check_backend(plan, ZK_C2R);
#if defined(ZAVIK_HAVE_CUDA)
  if (plan->gpu) {
    ZK_CUFFT_CHECK(cufftExecC2R(plan->handle, (cufftComplex*)in, (cufftReal*)out));
    return;
  }
#endif
  fftwf_plan fp = host_plan_for(plan, (void*)in, (void*)out);
  fftwf_execute_dft_c2r(fp, (fftwf_complex*)in, out);
}

void zk_fft_plan_destroy(ZkFftPlan plan) {
  if (!plan) return;
#if defined(ZAVIK_HAVE_CUDA)
  if (plan->gpu) ZK_CUFFT_CHECK(cufftDestroy(plan->handle));
#endif
  {
    std::lock_guard<std::mutex> lock(g_fftw_lock);
    for (ZkHostPlan& h : plan->host) fftwf_destroy_plan(h.p);
  }
  delete plan;
}

void zk_fft_set_cache(bool on) {
  if (!on) zk_fft_cache_clear();
  std::lock_guard<std::mutex> lock(g_cache_lock);
  g_cache_on = on;
}

void zk_fft_cache_clear() {
  std::map<std::tuple<int, int, int, int, int, int>, ZkFftPlan> old;
  {
    std::lock_guard<std::mutex> lock(g_cache_lock);
    old.swap(g_cache);
  }
  for (auto& kv : old) zk_fft_plan_destroy(kv.second);
}

void zk_fft_set_host_threads(int n) { g_host_threads = n < 0 ? 0 : n; }

// ===========================================================================
// Transforms
// ===========================================================================

namespace {

// sqrt(nx*ny) as the float divisor of the normalised transforms.
float fft_norm_factor(unsigned int nx, unsigned int ny) { return (float)sqrt((double)nx * (double)ny); }

size_t half_count(unsigned int nx, unsigned int ny) { return (size_t)(nx / 2 + 1) * ny; }

}  // namespace

void hcuda_2d_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny) {
  fft_once_r2c(in, out, (int)nx, (int)ny, 1);
}

void hcuda_2d_fft_c2r(float2* in, float* out, unsigned int nx, unsigned int ny) {
  fft_once_c2r(in, out, (int)nx, (int)ny, 1);
}

void hcuda_2d_fft_r2c_normz(const float* in, float2* out, unsigned int nx, unsigned int ny) {
  hcuda_2d_fft_r2c(in, out, nx, ny);
  hcuda_complex2d_norm_inplace(out, nx / 2 + 1, ny, fft_norm_factor(nx, ny));
}

void hcuda_2d_fft_c2r_normz(float2* in, float* out, unsigned int nx, unsigned int ny) {
  hcuda_2d_fft_c2r(in, out, nx, ny);
  const float f = fft_norm_factor(nx, ny);
  const unsigned int n = nx * ny;
  launch_1d(n, [=] HD(unsigned int i) { out[i] = out[i] / f; });
}

void hcuda_2ds_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny, unsigned int nz) {
  fft_once_r2c(in, out, (int)nx, (int)ny, (int)nz);
}

void hcuda_2ds_fft_c2r(float2* in, float* out, unsigned int nx, unsigned int ny, unsigned int nz) {
  fft_once_c2r(in, out, (int)nx, (int)ny, (int)nz);
}

void gpu_2d_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny) {
  const size_t nr = (size_t)nx * ny, nc = half_count(nx, ny);
  float* d_in = d_alloc_float(nr);
  float2* d_out = d_alloc_float2(nc);
  ZK_CHECK(memcpy_H2D(d_in, in, nr * sizeof(float)));
  hcuda_2d_fft_r2c_normz(d_in, d_out, nx, ny);
  ZK_CHECK(memcpy_D2H(out, d_out, nc * sizeof(float2)));
  device_free(d_in);
  device_free(d_out);
}

void gpu_2d_fft_c2r(const float2* in, float* out, unsigned int nx, unsigned int ny) {
  const size_t nr = (size_t)nx * ny, nc = half_count(nx, ny);
  float2* d_in = d_alloc_float2(nc);
  float* d_out = d_alloc_float(nr);
  ZK_CHECK(memcpy_H2D(d_in, in, nc * sizeof(float2)));
  hcuda_2d_fft_c2r_normz(d_in, d_out, nx, ny);
  ZK_CHECK(memcpy_D2H(out, d_out, nr * sizeof(float)));
  device_free(d_in);
  device_free(d_out);
}

void gpu_2ds_fft_r2c(const float* in, float2* out, unsigned int nx, unsigned int ny, unsigned int nz) {
  const size_t nr = (size_t)nx * ny, nc = half_count(nx, ny);
  float* d_in = d_alloc_float(nr);
  float2* d_out = d_alloc_float2(nc);
  for (unsigned int k = 0; k < nz; ++k) {
    ZK_CHECK(memcpy_H2D(d_in, in + k * nr, nr * sizeof(float)));
    hcuda_2d_fft_r2c_normz(d_in, d_out, nx, ny);
    ZK_CHECK(memcpy_D2H(out + k * nc, d_out, nc * sizeof(float2)));
  }
  device_free(d_in);
  device_free(d_out);
  printf(".");
  fflush(stdout);
}

// ===========================================================================
// Products and origin swaps
// ===========================================================================

void hcuda_c2d_multconj_norm(const float2* a, const float2* b, float2* out, unsigned int nxh, unsigned int ny,
                             float scale) {
  const int w = (int)nxh;
  launch_2d(w, (int)ny, [=] HD(int x, int y) { cuda_c2d_multconj_norm(x, y, a, b, out, w, scale); });
}

HDI void cuda_c2d_multconj_norm_inplace(int x, int y, float2* a, const float2* b, int nxh, float scale) {
  cuda_c2d_multconj_norm(x, y, a, b, a, nxh, scale);
}

void hcuda_c2d_multconj_norm_inplace(float2* a, const float2* b, unsigned int nxh, unsigned int ny, float scale) {
  const int w = (int)nxh;
  launch_2d(w, (int)ny, [=] HD(int x, int y) { cuda_c2d_multconj_norm_inplace(x, y, a, b, w, scale); });
}

// Thread (x, y) of the upper half rows exchanges its element with the one half
// a period away in both directions; each pair is met exactly once.
HDI void cuda_2d_swap_norm_ccf_inplace(int x, int y, float* a, int nx, int ny, float f) {
  const int i = y * nx + x;
  const int j = ((y + ny / 2) % ny) * nx + (x + nx / 2) % nx;
  const float t = a[i];
  a[i] = a[j] / f;
  a[j] = t / f;
}

HDI void cuda_2d_swap_ccf_inplace(int x, int y, float* a, int nx, int ny) {
  const int i = y * nx + x;
  const int j = ((y + ny / 2) % ny) * nx + (x + nx / 2) % nx;
  const float t = a[i];
  a[i] = a[j];
  a[j] = t;
}

void hcuda_2d_swap_ccf_inplace(float* a, unsigned int nx, unsigned int ny) {
  const int w = (int)nx, h = (int)ny;
  launch_2d(w, h / 2, [=] HD(int x, int y) { cuda_2d_swap_ccf_inplace(x, y, a, w, h); });
}

void hcuda_2d_swap_norm_ccf_inplace(float* a, unsigned int nx, unsigned int ny, float f) {
  const int w = (int)nx, h = (int)ny;
  launch_2d(w, h / 2, [=] HD(int x, int y) { cuda_2d_swap_norm_ccf_inplace(x, y, a, w, h, f); });
}

HDI void cuda_2d_swap_ccf(int x, int y, const float* in, float* out, int nx, int ny) {
  out[((y + ny / 2) % ny) * nx + (x + nx / 2) % nx] = in[y * nx + x];
}

void hcuda_2d_swap_ccf(const float* in, float* out, unsigned int nx, unsigned int ny) {
  const int w = (int)nx, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_2d_swap_ccf(x, y, in, out, w, h); });
}

// ===========================================================================
// Per-element spectrum kernels
// ===========================================================================

HDI float zk_cmod(float2 c) { return sqrtf(c.x * c.x + c.y * c.y); }

HDI void cuda_c1d_mod(unsigned int i, float* out, const float2* c) { out[i] = zk_cmod(c[i]); }
HDI void cuda_complex_mod(unsigned int i, float* out, const float2* c) { out[i] = zk_cmod(c[i]); }
HDI void cuda_complex_mod_square(unsigned int i, float* out, const float2* c) {
  out[i] = c[i].x * c[i].x + c[i].y * c[i].y;
}
HDI void cuda_complex_mod_center_swap(unsigned int i, float* out, const float2* c, unsigned int n) {
  out[(i + n / 2) % n] = zk_cmod(c[i]);
}
HDI void cuda_complex_mod_addto_center_swap(unsigned int i, float* out, const float2* c, unsigned int n) {
  const unsigned int j = (i + n / 2) % n;
  out[j] = out[j] + zk_cmod(c[i]);
}
HDI void cuda_complex_mod_weighted_addto_center_swap(unsigned int i, float* out, const float2* c, unsigned int n,
                                                     float w) {
  const unsigned int j = (i + n / 2) % n;
  out[j] = fmaf(zk_cmod(c[i]), w, out[j]);
}
HDI void cuda_complex_mod_Ws_addto_center_swap(unsigned int i, float* out, const float2* c, unsigned int n,
                                               const float* ws) {
  const unsigned int j = (i + n / 2) % n;
  out[j] = out[j] + zk_cmod(c[i]) * ws[j];
}

void hcuda_c1d_mod(float* out, const float2* c, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_c1d_mod(i, out, c); });
}
void hcuda_complex_mod(float* out, const float2* c, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod(i, out, c); });
}
void hcuda_complex_mod_square(float* out, const float2* c, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod_square(i, out, c); });
}
void hcuda_complex_mod_center_swap(float* out, const float2* c, size_t n) {
  const unsigned int m = (unsigned int)n;
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod_center_swap(i, out, c, m); });
}
void hcuda_complex_mod_addto_center_swap(float* out, const float2* c, size_t n) {
  const unsigned int m = (unsigned int)n;
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod_addto_center_swap(i, out, c, m); });
}
void hcuda_complex_mod_weighted_addto_center_swap(float* out, const float2* c, size_t n, float w) {
  const unsigned int m = (unsigned int)n;
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod_weighted_addto_center_swap(i, out, c, m, w); });
}
void hcuda_complex_mod_Ws_addto_center_swap(float* out, const float2* c, size_t n, const float* ws) {
  const unsigned int m = (unsigned int)n;
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_mod_Ws_addto_center_swap(i, out, c, m, ws); });
}

HDI void cuda_complex2d_norm(int x, int y, float2* out, const float2* in, int nxh, float f) {
  const int i = y * nxh + x;
  out[i] = make_f2(in[i].x / f, in[i].y / f);
}
HDI void cuda_complex2d_norm_inplace(int x, int y, float2* a, int nxh, float f) {
  cuda_complex2d_norm(x, y, a, a, nxh, f);
}
HDI void cuda_complex2d_center_swap(int x, int y, float2* out, const float2* in, int nxh, int ny) {
  const unsigned int n = (unsigned int)nxh * ny;
  const unsigned int i = (unsigned int)(y * nxh + x);
  out[(i + n / 2) % n] = in[i];
}
HDI void cuda_complex2d_center_swap_norm(int x, int y, float2* out, const float2* in, int nxh, int ny, float f) {
  const unsigned int n = (unsigned int)nxh * ny;
  const unsigned int i = (unsigned int)(y * nxh + x);
  out[(i + n / 2) % n] = make_f2(in[i].x / f, in[i].y / f);
}

void hcuda_complex2d_norm(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float f) {
  const int w = (int)nxh;
  launch_2d(w, (int)ny, [=] HD(int x, int y) { cuda_complex2d_norm(x, y, out, in, w, f); });
}
void hcuda_complex2d_norm_inplace(float2* a, unsigned int nxh, unsigned int ny, float f) {
  const int w = (int)nxh;
  launch_2d(w, (int)ny, [=] HD(int x, int y) { cuda_complex2d_norm_inplace(x, y, a, w, f); });
}
void hcuda_complex2d_center_swap(float2* out, const float2* in, unsigned int nxh, unsigned int ny) {
  const int w = (int)nxh, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_complex2d_center_swap(x, y, out, in, w, h); });
}
void hcuda_complex2d_center_swap_norm(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float f) {
  const int w = (int)nxh, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_complex2d_center_swap_norm(x, y, out, in, w, h, f); });
}

// Mean over the nz spectra of a stack, each part summed in stack order.
HDI void cuda_c2ds_ave(int x, int y, float2* out, const float2* in, int nxh, int ny, int nz) {
  const size_t n = (size_t)nxh * ny;
  const size_t i = (size_t)y * nxh + x;
  float re = 0.0f, im = 0.0f;
  for (int k = 0; k < nz; ++k) {
    re = re + in[k * n + i].x;
    im = im + in[k * n + i].y;
  }
  out[i] = make_f2(re / (float)nz, im / (float)nz);
}

void hcuda_c2ds_ave(float2* out, const float2* in, unsigned int nxh, unsigned int ny, unsigned int nz) {
  const int w = (int)nxh, h = (int)ny, d = (int)nz;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_c2ds_ave(x, y, out, in, w, h, d); });
}

void hcuda_c2ds_fftout_r2c_ave(float2* out, const float2* in, unsigned int nx, unsigned int ny, unsigned int nz) {
  hcuda_c2ds_ave(out, in, nx / 2 + 1, ny, nz);
}

void gpu_c2ds_ave(float2* out, const float2* in, unsigned int nxh, unsigned int ny, unsigned int nz) {
  const size_t n = (size_t)nxh * ny;
  float2* d_in = d_alloc_float2(n * nz);
  float2* d_out = d_alloc_float2(n);
  ZK_CHECK(memcpy_H2D(d_in, in, n * nz * sizeof(float2)));
  hcuda_c2ds_ave(d_out, d_in, nxh, ny, nz);
  ZK_CHECK(memcpy_D2H(out, d_out, n * sizeof(float2)));
  device_free(d_in);
  device_free(d_out);
}

void cpu_2ds_fftout_r2c_ave(float2* out, const float2* in, unsigned int nx, unsigned int ny, unsigned int nz) {
  const int nxh = (int)(nx / 2 + 1);
  for (int y = 0; y < (int)ny; ++y)
    for (int x = 0; x < nxh; ++x) cuda_c2ds_ave(x, y, out, in, nxh, (int)ny, (int)nz);
}

// Half plane to full plane: the zero column lands at nx/2 - 1, the left part
// is the Friedel mate of the right.
HDI void cuda_2d_fft_amp_half2full(int x, int y, float* out, const float* in, int nx, int ny) {
  const int nxh = nx / 2 + 1;
  if (x >= nx / 2 - 1)
    out[y * nx + x] = in[y * nxh + x - nx / 2 + 1];
  else
    out[y * nx + x] = in[((ny - y) % ny) * nxh + nx / 2 - 1 - x];
}
HDI void cuda_2d_fft_amp_full2half(int x, int y, float* out, const float* in, int nx) {
  out[y * (nx / 2 + 1) + x] = in[y * nx + nx / 2 - 1 + x];
}

void hcuda_2d_fft_amp_half2full(float* out, const float* in, unsigned int nx, unsigned int ny) {
  const int w = (int)nx, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_2d_fft_amp_half2full(x, y, out, in, w, h); });
}
void hcuda_2d_fft_amp_full2half(float* out, const float* in, unsigned int nx, unsigned int ny) {
  const int w = (int)nx;
  launch_2d(w / 2 + 1, (int)ny, [=] HD(int x, int y) { cuda_2d_fft_amp_full2half(x, y, out, in, w); });
}

HDI void cuda_float_center_swap(int x, int y, const float* in, float* out, int nx, int ny) {
  out[((y + ny / 2) % ny) * nx + x] = in[y * nx + x];
}
void hcuda_float_center_swap(const float* in, float* out, unsigned int nx, unsigned int ny) {
  const int w = (int)nx, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_float_center_swap(x, y, in, out, w, h); });
}

HDI void cuda_complex_logmod(unsigned int i, float* out, const float2* c) { out[i] = hd_logf(zk_cmod(c[i])); }
HDI void cuda_complex_logmod_forced_positive(unsigned int i, float* out, const float2* c) {
  out[i] = hd_logf(zk_cmod(c[i]) + 1.0f);
}
HDI void cuda_complex_logmod_center_swap(unsigned int i, float* out, const float2* c, unsigned int n) {
  out[(i + n / 2) % n] = hd_logf(zk_cmod(c[i]));
}

void hcuda_complex_logmod(float* out, const float2* c, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_logmod(i, out, c); });
}
void hcuda_complex_logmod_forced_positive(float* out, const float2* c, size_t n) {
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_logmod_forced_positive(i, out, c); });
}
void hcuda_complex_logmod_center_swap(float* out, const float2* c, size_t n) {
  const unsigned int m = (unsigned int)n;
  launch_1d(n, [=] HD(unsigned int i) { cuda_complex_logmod_center_swap(i, out, c, m); });
}

void hcuda_2ds_fft_r2c_logmod(const float* in, float* out, unsigned int nx, unsigned int ny, unsigned int nz) {
  const size_t nr = (size_t)nx * ny, nc = half_count(nx, ny);
  float2* d_f = d_alloc_float2(nc);
  for (unsigned int k = 0; k < nz; ++k) {
    hcuda_2d_fft_r2c(in + k * nr, d_f, nx, ny);
    hcuda_complex_logmod(out + k * nc, d_f, nc);
  }
  device_free(d_f);
}

// ===========================================================================
// Correlation
// ===========================================================================

void hcuda_x2d_ccf(const float* a, const float* b, float* out, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny, nc = half_count(nx, ny);
  ZkFftPlan plan_a = zk_fft_plan_r2c((int)nx, (int)ny, 1);
  ZkFftPlan plan_b = zk_fft_plan_r2c((int)nx, (int)ny, 1);
  ZkFftPlan plan_cc = zk_fft_plan_c2r((int)nx, (int)ny, 1);
  float2* fa = d_alloc_float2(nc);
  float2* fb = d_alloc_float2(nc);
  zk_fft_exec_r2c(plan_a, a, fa);
  zk_fft_exec_r2c(plan_b, b, fb);
  const float den = sqrtf(hcuda_fast_sumsqr(a, n) * hcuda_fast_sumsqr(b, n)) * (float)n;
  hcuda_c2d_multconj_norm_inplace(fa, fb, nx / 2 + 1, ny, den);
  zk_fft_exec_c2r(plan_cc, fa, out);
  hcuda_2d_swap_ccf_inplace(out, nx, ny);
  device_free(fa);
  device_free(fb);
  zk_fft_plan_destroy(plan_a);
  zk_fft_plan_destroy(plan_b);
  zk_fft_plan_destroy(plan_cc);
}

namespace {

// A device copy of a host image with its mean subtracted.
float* d_copy_submean(const float* h, size_t n) {
  float* d = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d, h, n * sizeof(float)));
  const float m = hcuda_fast_mean(d, n);
  launch_1d(n, [=] HD(unsigned int i) { d[i] = d[i] - m; });
  return d;
}

}  // namespace

void gpu_x2d_ccf(const float* a, const float* b, float* out, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny;
  float* d_a = d_copy_submean(a, n);
  float* d_b = d_copy_submean(b, n);
  float* d_o = d_alloc_float(n);
  hcuda_x2d_ccf(d_a, d_b, d_o, nx, ny);
  ZK_CHECK(memcpy_D2H(out, d_o, n * sizeof(float)));
  device_free(d_a);
  device_free(d_b);
  device_free(d_o);
}

// One thread a row: the row's products summed in order, in float.
HDI void cuda_x2d_ccc_lineX(unsigned int y, const float* a, const float* b, float* rows, unsigned int nx) {
  const size_t o = (size_t)y * nx;
  float s = 0.0f;
  for (unsigned int x = 0; x < nx; ++x) s = s + a[o + x] * b[o + x];
  rows[y] = s;
}

double hcuda_x2d_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny) {
  float* d_rows = d_alloc_float(ny);
  launch_1d(ny, [=] HD(unsigned int y) { cuda_x2d_ccc_lineX(y, a, b, d_rows, nx); });
  std::vector<float> rows(ny);
  ZK_CHECK(memcpy_D2H(rows.data(), d_rows, ny * sizeof(float)));
  device_free(d_rows);
  return hm_sum(rows.data(), ny);
}

double gpu_x2d_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny;
  float* d_a = d_alloc_float(n);
  float* d_b = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_b, b, n * sizeof(float)));
  const double s = hcuda_x2d_ccc(d_a, d_b, nx, ny);
  device_free(d_a);
  device_free(d_b);
  return s;
}

float hcuda_x2d_norm_ccc_inplace(float* a, float* b, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny;
  const float ma = hcuda_fast_mean(a, n), mb = hcuda_fast_mean(b, n);
  launch_1d(n, [=] HD(unsigned int i) {
    a[i] = a[i] - ma;
    b[i] = b[i] - mb;
  });
  const double ab = hcuda_x2d_ccc(a, b, nx, ny);
  const double aa = hcuda_x2d_ccc(a, a, nx, ny);
  const double bb = hcuda_x2d_ccc(b, b, nx, ny);
  return (float)(ab / sqrt(aa * bb));
}

float hcuda_x2d_norm_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny;
  float* d_a = d_alloc_float(n);
  float* d_b = d_alloc_float(n);
  ZK_CHECK(memcpy_D2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_D2D(d_b, b, n * sizeof(float)));
  const float c = hcuda_x2d_norm_ccc_inplace(d_a, d_b, nx, ny);
  device_free(d_a);
  device_free(d_b);
  return c;
}

float gpu_x2d_norm_ccc(const float* a, const float* b, unsigned int nx, unsigned int ny) {
  const size_t n = (size_t)nx * ny;
  float* d_a = d_alloc_float(n);
  float* d_b = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, a, n * sizeof(float)));
  ZK_CHECK(memcpy_H2D(d_b, b, n * sizeof(float)));
  const float c = hcuda_x2d_norm_ccc_inplace(d_a, d_b, nx, ny);
  device_free(d_a);
  device_free(d_b);
  return c;
}

// ===========================================================================
// Phase shifts
// ===========================================================================

HDI void cuda_c2d_linear_Pshift(int kx, int ky, const float2* in, float2* out, int nxh, int ny, float dx, float dy) {
  const int i = ky * nxh + kx;
  const float phase = translation_to_phase_shift_2d(kx, ky, 2 * (nxh - 1), ny, dx, dy);
  float s, c;
  hd_sincosf(phase, &s, &c);
  const float2 v = in[i];
  out[i] = make_f2(v.x * c - v.y * s, v.x * s + v.y * c);
}

void hcuda_c2d_linear_Pshift(const float2* in, float2* out, unsigned int nxh, unsigned int ny, float dx, float dy) {
  const int w = (int)nxh, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_c2d_linear_Pshift(x, y, in, out, w, h, dx, dy); });
}

void hcuda_c2d_linear_Pshift_inplace(float2* a, unsigned int nxh, unsigned int ny, float dx, float dy) {
  hcuda_c2d_linear_Pshift(a, a, nxh, ny, dx, dy);
}

void hcuda_2d_shift(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy) {
  float2* d_f = d_alloc_float2(half_count(nx, ny));
  hcuda_2d_fft_r2c_normz(in, d_f, nx, ny);
  hcuda_c2d_linear_Pshift_inplace(d_f, nx / 2 + 1, ny, dx, dy);
  hcuda_2d_fft_c2r_normz(d_f, out, nx, ny);
  device_free(d_f);
}

void hcuda_2d_shift_inplace(float* a, unsigned int nx, unsigned int ny, float dx, float dy) {
  float2* d_f = d_alloc_float2(half_count(nx, ny));
  hcuda_2d_fft_r2c_normz(a, d_f, nx, ny);
  hcuda_c2d_linear_Pshift_inplace(d_f, nx / 2 + 1, ny, dx, dy);
  hcuda_2d_fft_c2r_normz(d_f, a, nx, ny);
  device_free(d_f);
}

void gpu_2d_shift(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy) {
  const size_t n = (size_t)nx * ny;
  float* d_a = d_alloc_float(n);
  ZK_CHECK(memcpy_H2D(d_a, in, n * sizeof(float)));
  hcuda_2d_shift_inplace(d_a, nx, ny, dx, dy);
  ZK_CHECK(memcpy_D2H(out, d_a, n * sizeof(float)));
  device_free(d_a);
}

void gpu_2d_shift_inplace(float* a, unsigned int nx, unsigned int ny, float dx, float dy) {
  gpu_2d_shift(a, a, nx, ny, dx, dy);
}

void gpu_2d_shift2(const float* in, float* out, unsigned int nx, unsigned int ny, float dx, float dy) {
  gpu_2d_shift(in, out, nx, ny, -dx, -dy);
}

// ===========================================================================
// Radial weight
// ===========================================================================

// fy counts from the nearer edge (ny - ky on the far half), so the weight is
// symmetric in the row frequency.
HDI void cuda_c2dh_rweight(int kx, int ky, float2* out, const float2* in, int nxh, int ny, float rc, float s) {
  const int i = ky * nxh + kx;
  const int fy = ky < ny / 2 ? ky : ny - ky;
  const float fx = (float)kx / (float)(2 * (nxh - 1));
  const float fyn = (float)fy / (float)ny;
  const float r = sqrtf(fx * fx + fyn * fyn);
  const float w = r < rc ? r : rc * hd_guasf1(r - rc, s / 3.0f);
  out[i] = make_f2(in[i].x * w, in[i].y * w);
}

void hcuda_c2dh_rweight(float2* out, const float2* in, unsigned int nxh, unsigned int ny, float rc, float soft) {
  if (rc > 0.5f) rc = 0.5f;
  const float s = rc + soft > 0.5f ? 0.5f - rc : soft;
  const int w = (int)nxh, h = (int)ny;
  launch_2d(w, h, [=] HD(int x, int y) { cuda_c2dh_rweight(x, y, out, in, w, h, rc, s); });
}

void hcuda_c2dh_rweight_inplace(float2* a, unsigned int nxh, unsigned int ny, float rc, float soft) {
  hcuda_c2dh_rweight(a, a, nxh, ny, rc, soft);
}

namespace {

void demand_even(unsigned int n, const char* func, int line) {
  if (n % 2 == 0) return;
  char msg[64];
  snprintf(msg, sizeof msg, "%u not an even number", n);
  zk_fatal(func, zk_basename(__FILE__), line, msg);
}

}  // namespace

void hcuda_r2d_rweight(float* out, const float* in, unsigned int nx, unsigned int ny, float rc, float soft) {
  demand_even(nx, __func__, __LINE__);
  demand_even(ny, __func__, __LINE__);
  float2* d_f = d_alloc_float2(half_count(nx, ny));
  hcuda_2d_fft_r2c_normz(in, d_f, nx, ny);
  hcuda_c2dh_rweight_inplace(d_f, nx / 2 + 1, ny, rc, soft);
  hcuda_2d_fft_c2r_normz(d_f, out, nx, ny);
  device_free(d_f);
}

void hcuda_r2d_rweight_inplace(float* a, unsigned int nx, unsigned int ny, float rc, float soft) {
  demand_even(nx, __func__, __LINE__);
  demand_even(ny, __func__, __LINE__);
  float2* d_f = d_alloc_float2(half_count(nx, ny));
  hcuda_2d_fft_r2c_normz(a, d_f, nx, ny);
  hcuda_c2dh_rweight_inplace(d_f, nx / 2 + 1, ny, rc, soft);
  hcuda_2d_fft_c2r_normz(d_f, a, nx, ny);
  device_free(d_f);
}
