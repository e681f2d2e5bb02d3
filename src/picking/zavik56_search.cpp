#include "picking/zavik56_search.h"

#include <omp.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#if defined(ZAVIK_HAVE_CUDA)
#include <cuda_runtime.h>
#endif

#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"

namespace {

HDI void cuda_update_ccmax_psi_2d(int x, int y, float* ccmax, const float* cc, float* psi, float angle, int nx) {
  const int i = y * nx + x;
  if (ccmax[i] < cc[i]) {
    ccmax[i] = cc[i];
    psi[i] = angle;
  }
}

HDI void cuda_update_ccmax_2d(int x, int y, float* ccmax, const float* cc, int nx) {
  const int i = y * nx + x;
  if (ccmax[i] < cc[i]) ccmax[i] = cc[i];
}

HDI void cuda_update_ccmax_psi_2d_map(int x, int y, float* ccmax, const float* other, float* psi,
                                      const float* other_psi, int nx) {
  const int i = y * nx + x;
  if (ccmax[i] < other[i]) {
    ccmax[i] = other[i];
    psi[i] = other_psi[i];
  }
}

}  // namespace

// Merges a map of maxima of later angles into ccmax, by the update's rule.
void hcuda_update_ccmax_psi_2d_map(float* ccmax, const float* other, float* psi, const float* other_psi, int nx,
                                   int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmax_psi_2d_map(x, y, ccmax, other, psi, other_psi, nx); });
}

void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, float angle, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmax_psi_2d(x, y, ccmax, cc, psi, angle, nx); });
}

void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmax_2d(x, y, ccmax, cc, nx); });
}

void hcuda_update_noise_max_2d(float* noise, const float* ccmin, int nx, int ny) {
  launch_2d(nx, ny, [=] HD(int x, int y) {
    const int i = y * nx + x;
    if (noise[i] < -ccmin[i]) noise[i] = -ccmin[i];
  });
}

float zavik_score_divisor(float sum_T2, float sum_mic2_mask, float sum_mask, float R) {
  // The area of the template's disc, in double with this pi, kept as float.
  const float area = (float)((double)R * 3.141592653589793 * (double)R);
  return sqrtf(sum_T2 * sum_mic2_mask * area / sum_mask);
}

int zavik_ccmax_psi_by_one_template(const float* mic, const float* mask, float* ccmax, float* psi, int do_psi, int nx,
                                    int ny, const float* T, int Tx, int Ty, float R, float psi0, float psi1,
                                    float dpsi) {
  const size_t npix = (size_t)nx * ny, nspec = (size_t)(nx / 2 + 1) * ny;
  float* d_T_pad = d_alloc_float(npix);
  float* d_cc = d_alloc_float(npix);
  float* d_T_rot = d_alloc_float((size_t)Tx * Ty);
  float2* d_mic_f = d_alloc_float2(nspec);
  float2* d_T_f = d_alloc_float2(nspec);
  float2* d_cc_f = d_alloc_float2(nspec);
  ZkFftPlan plan_r2c = zk_fft_plan_r2c(nx, ny, 1);
  ZkFftPlan plan_c2r = zk_fft_plan_c2r(nx, ny, 1);
  const bool with_psi = do_psi && psi;

  zk_fft_exec_r2c(plan_r2c, mic, d_mic_f);
  hcuda_2d_empty(d_T_pad, nx, ny);
  hcuda_2d_memset(ccmax, -INFINITY, nx, ny);
  for (float angle = psi0; angle < psi1; angle += dpsi) {
    printf(".");
    fflush(stdout);
    hcuda_2d_rotate(T, d_T_rot, Tx, Ty, angle);
    // The box is wholly rewritten at each angle, so the pad is cleared once.
    hcuda_x2d_cp_small_to_large_center(d_T_pad, d_T_rot, nx, ny, Tx, Ty);
    zk_fft_exec_r2c(plan_r2c, d_T_pad, d_T_f);
    hcuda_c2d_multconj_norm(d_mic_f, d_T_f, d_cc_f, nx / 2 + 1, ny, (float)ny * (float)nx);
    zk_fft_exec_c2r(plan_c2r, d_cc_f, d_cc);
    if (with_psi)
      hcuda_update_ccmax_psi_2d(ccmax, d_cc, psi, angle, nx, ny);
    else
      hcuda_update_ccmax_2d(ccmax, d_cc, nx, ny);
  }
  printf("\n");

  const float D = zavik_score_divisor(hcuda_fast_sumsqr(T, (size_t)Tx * Ty),
                                      hcuda_fast_sumsqr_withmask(mic, mask, npix), hcuda_fast_sum(mask, npix), R);
  hcuda_2d_swap_ccf_inplace(ccmax, nx, ny);
  if (with_psi) hcuda_2d_swap_ccf_inplace(psi, nx, ny);
  hcuda_2d_divide_inplace(ccmax, nx, ny, D);

  zk_fft_plan_destroy(plan_r2c);
  zk_fft_plan_destroy(plan_c2r);
  device_free(d_T_pad);
  device_free(d_cc);
  device_free(d_T_rot);
  device_free(d_mic_f);
  device_free(d_T_f);
  device_free(d_cc_f);
  return 0;
}

int zavik_ccmax_by_one_template(const float* mic, const float* mask, float* ccmax, int nx, int ny, const float* T,
                                int Tx, int Ty, float R, float psi0, float psi1, float dpsi) {
  return zavik_ccmax_psi_by_one_template(mic, mask, ccmax, nullptr, 0, nx, ny, T, Tx, Ty, R, psi0, psi1, dpsi);
}

// ---------------------------------------------------------------------------
// The search of a whole run.

namespace {

// Work areas of one worker: a host thread, or the GPU with its batch.
struct SearchWorker {
  ZkDeviceArray<float> T_rot;   // Tx*Ty
  ZkDeviceArray<float> T_pad;   // nx*ny, cleared once: only the centre box is ever rewritten
  ZkDeviceArray<float2> T_f;    // batch spectra of the templates not kept
  ZkDeviceArray<float2> cc_f;   // batch spectra of the products
  ZkDeviceArray<float> cc;      // batch correlation maps
  ZkDeviceArray<float> ccmax;   // nx*ny partial maxima (host workers after the first)
  ZkDeviceArray<float> psi;
  ZkDeviceArray<float> ccmin;   // nx*ny partial minima, when asked for
};

// Bytes of memory available on the back end in force.
double free_bytes() {
#if defined(ZAVIK_HAVE_CUDA)
  if (zk_on_gpu()) {
    size_t f = 0, t = 0;
    if (cudaMemGetInfo(&f, &t) == cudaSuccess) return (double)f;
    cudaGetLastError();
    return 0;
  }
#endif
  // MemAvailable counts the page cache that can be given up, freeram does not.
  FILE* fp = fopen("/proc/meminfo", "r");
  double kb = 0;
  if (fp) {
    char line[256];
    while (fgets(line, sizeof line, fp))
      if (sscanf(line, "MemAvailable: %lf kB", &kb) == 1) break;
    fclose(fp);
  }
  if (kb > 0) return kb * 1024.0;
  struct sysinfo si;
  if (sysinfo(&si) != 0) return 0;
  return (double)si.freeram * si.mem_unit;
}

// Each of B maps in angle order: ccmax takes cc where strictly greater, and
// ccmin, when asked for, where strictly smaller.
HDI void cuda_update_ccmax_psi_batch(int x, int y, float* ccmax, const float* cc, float* psi, const float* angles,
                                     int nb, int nx, int ny, float* ccmin) {
  const int i = y * nx + x;
  const size_t n = (size_t)nx * ny;
  float m = ccmax[i];
  float a = psi ? psi[i] : 0.0f;
  bool moved = false;
  for (int b = 0; b < nb; ++b) {
    const float v = cc[b * n + i];
    if (m < v) {
      m = v;
      a = angles[b];
      moved = true;
    }
  }
  if (moved) {
    ccmax[i] = m;
    if (psi) psi[i] = a;
  }
  if (ccmin) {
    float lo = ccmin[i];
    for (int b = 0; b < nb; ++b) {
      const float v = cc[b * n + i];
      if (v < lo) lo = v;
    }
    ccmin[i] = lo;
  }
}

HDI void cuda_update_ccmin_2d(int x, int y, float* ccmin, const float* cc, int nx) {
  const int i = y * nx + x;
  if (cc[i] < ccmin[i]) ccmin[i] = cc[i];
}

}  // namespace

struct ZkSearchBank {
  int nx, ny, nxh, Tx, Ty, Nt;
  float R;
  const float* d_T;
  std::vector<float> angles;
  ZkDeviceArray<float> d_angles;  // the angles on the device, for the batched update
  size_t npix, nspec, stride;  // stride: float2 between kept spectra, whole 64-byte lines
  std::vector<ZkDeviceArray<float2>> kept;  // per template: nangles spectra, or none
  std::vector<float> sum_T2;
  ZkFftPlan r2c = nullptr, c2r = nullptr, c2r_batch = nullptr;
  int batch = 1, threads = 1;
  std::vector<SearchWorker> workers;
  ZkDeviceArray<float2> mic_f;
  float sum_mic2_mask = 0, sum_mask = 0;
};

namespace {

// The spectrum of template T at one angle, as the one-template search makes
// it: rotate, place in the middle of the cleared pad, forward transform.
void template_spectrum(ZkSearchBank* b, const float* T, float angle, SearchWorker& w, float2* out) {
  hcuda_2d_rotate(T, w.T_rot.get(), b->Tx, b->Ty, angle);
  hcuda_x2d_cp_small_to_large_center(w.T_pad.get(), w.T_rot.get(), b->nx, b->ny, b->Tx, b->Ty);
  zk_fft_exec_r2c(b->r2c, w.T_pad.get(), out);
}

void make_worker(ZkSearchBank* b, SearchWorker& w, int nb, bool partial_maps) {
  w.T_rot.allocate((size_t)b->Tx * b->Ty);
  w.T_pad.allocate(b->npix);
  hcuda_2d_empty(w.T_pad.get(), b->nx, b->ny);
  w.T_f.allocate(b->nspec * nb);
  w.cc_f.allocate(b->nspec * nb);
  w.cc.allocate(b->npix * nb);
  if (partial_maps) {
    w.ccmax.allocate(b->npix);
    w.psi.allocate(b->npix);
  }
}

void print_dots(int n) {
  for (int i = 0; i < n; ++i) putchar('.');
  fflush(stdout);
}

// The angles a0 .. a1-1 of template t into (ccmax, psi) and ccmin, one at a
// time.
void search_angles_one_by_one(ZkSearchBank* b, int t, int a0, int a1, SearchWorker& w, float* ccmax, float* psi,
                              float* ccmin, bool dots) {
  const float* T = b->d_T + (size_t)t * b->Tx * b->Ty;
  const int nx = b->nx, ny = b->ny, nxh = b->nxh;
  const float scale = (float)ny * (float)nx;
  for (int a = a0; a < a1; ++a) {
    const float angle = b->angles[a];
    const float2* kept = b->kept[t].get();
    const float2* Tf = kept ? kept + (size_t)a * b->stride : w.T_f.get();
    if (!kept) template_spectrum(b, T, angle, w, w.T_f.get());
    hcuda_c2d_multconj_norm(b->mic_f.get(), Tf, w.cc_f.get(), nxh, ny, scale);
    zk_fft_exec_c2r(b->c2r, w.cc_f.get(), w.cc.get());
    if (ccmin) {
      // One pass over the map for the maxima and the minima.
      const float* cc = w.cc.get();
      launch_2d(nx, ny, [=] HD(int x, int y) {
        if (psi)
          cuda_update_ccmax_psi_2d(x, y, ccmax, cc, psi, angle, nx);
        else
          cuda_update_ccmax_2d(x, y, ccmax, cc, nx);
        cuda_update_ccmin_2d(x, y, ccmin, cc, nx);
      });
    } else if (psi) {
      hcuda_update_ccmax_psi_2d(ccmax, w.cc.get(), psi, angle, nx, ny);
    } else {
      hcuda_update_ccmax_2d(ccmax, w.cc.get(), nx, ny);
    }
    if (dots) {
#pragma omp critical(zk_search_dots)
      print_dots(1);
    }
  }
}

// The GPU: batches of angles, one product launch, one batched inverse
// transform and one update launch per batch.
void search_angles_batched(ZkSearchBank* b, int t, SearchWorker& w, float* ccmax, float* psi, float* ccmin) {
  const float* T = b->d_T + (size_t)t * b->Tx * b->Ty;
  const int nx = b->nx, ny = b->ny, nxh = b->nxh, na = (int)b->angles.size();
  const float scale = (float)ny * (float)nx;
  const size_t nspec = b->nspec;
  for (int a0 = 0; a0 < na; a0 += b->batch) {
    const int nb = std::min(b->batch, na - a0);
    const float2* Tf;
    size_t tstride;
    if (b->kept[t].get()) {
      Tf = b->kept[t].get() + (size_t)a0 * b->stride;
      tstride = b->stride;
    } else {
      for (int k = 0; k < nb; ++k) template_spectrum(b, T, b->angles[a0 + k], w, w.T_f.get() + k * nspec);
      Tf = w.T_f.get();
      tstride = nspec;
    }
    const float2* mf = b->mic_f.get();
    float2* cf = w.cc_f.get();
    launch_2d(nxh, ny * nb, [=] HD(int x, int yb) {
      const int k = yb / ny, y = yb - k * ny;
      cuda_c2d_multconj_norm(x, y, mf, Tf + k * tstride, cf + k * nspec, nxh, scale);
    });
    if (nb == b->batch && b->c2r_batch)
      zk_fft_exec_c2r(b->c2r_batch, w.cc_f.get(), w.cc.get());
    else
      for (int k = 0; k < nb; ++k) zk_fft_exec_c2r(b->c2r, w.cc_f.get() + k * nspec, w.cc.get() + k * b->npix);
    const float* cc = w.cc.get();
    const float* ang = b->d_angles.get() + a0;
    launch_2d(nx, ny,
              [=] HD(int x, int y) { cuda_update_ccmax_psi_batch(x, y, ccmax, cc, psi, ang, nb, nx, ny, ccmin); });
    print_dots(nb);
  }
}

}  // namespace

ZkSearchBank* zavik_search_bank_create(const float* d_T, int Nt, int Tx, int Ty, int nx, int ny, float R, float psi0,
                                       float psi1, float dpsi, const ZkSearchOptions& options) {
  ZkSearchBank* b = new ZkSearchBank();
  b->nx = nx;
  b->ny = ny;
  b->nxh = nx / 2 + 1;
  b->Tx = Tx;
  b->Ty = Ty;
  b->Nt = Nt;
  b->R = R;
  b->d_T = d_T;
  for (float angle = psi0; angle < psi1; angle += dpsi) b->angles.push_back(angle);
  const int na = (int)b->angles.size();
  b->npix = (size_t)nx * ny;
  b->nspec = (size_t)b->nxh * ny;
  b->stride = (b->nspec + 7) / 8 * 8;
  b->r2c = zk_fft_plan_r2c(nx, ny, 1);
  b->c2r = zk_fft_plan_c2r(nx, ny, 1);
  b->mic_f.allocate(b->nspec);
  for (int t = 0; t < Nt; ++t) b->sum_T2.push_back(hcuda_fast_sumsqr(d_T + (size_t)t * Tx * Ty, (size_t)Tx * Ty));

  if (zk_on_gpu()) {
    b->batch = std::max(1, std::min(options.gpu_batch, std::max(na, 1)));
    b->threads = 1;
    if (b->batch > 1) b->c2r_batch = zk_fft_plan_c2r(nx, ny, b->batch);
    b->d_angles.allocate((size_t)std::max(na, 1));
    if (na) ZK_CHECK(memcpy_H2D(b->d_angles.get(), b->angles.data(), na * sizeof(float)));
  } else {
    b->batch = 1;
    const int cores = options.host_threads > 0 ? options.host_threads : omp_get_max_threads();
    b->threads = std::max(1, std::min(cores, na));
  }
  b->workers.resize(b->threads);
  for (int k = 0; k < b->threads; ++k) make_worker(b, b->workers[k], b->batch, k > 0);

  // Keep the spectra of as many templates as the memory share allows.
  b->kept.resize(Nt);
  if (options.keep_spectra && na > 0) {
    const double per_template = (double)na * b->stride * sizeof(float2);
    double budget = options.memory_share * free_bytes();
    for (int t = 0; t < Nt && per_template <= budget; ++t) {
      b->kept[t].allocate((size_t)na * b->stride);
      budget -= per_template;
    }
    for (int t = 0; t < Nt; ++t) {
      float2* kept = b->kept[t].get();
      if (!kept) continue;
      const float* T = d_T + (size_t)t * Tx * Ty;
#pragma omp parallel for num_threads(b->threads) schedule(static)
      for (int a = 0; a < na; ++a)
        template_spectrum(b, T, b->angles[a], b->workers[omp_get_thread_num()], kept + (size_t)a * b->stride);
    }
  }
  return b;
}

void zavik_search_bank_set_micrograph(ZkSearchBank* b, const float* mic, const float* mask) {
  zk_fft_exec_r2c(b->r2c, mic, b->mic_f.get());
  b->sum_mic2_mask = hcuda_fast_sumsqr_withmask(mic, mask, b->npix);
  b->sum_mask = hcuda_fast_sum(mask, b->npix);
}

void zavik_search_bank_run(ZkSearchBank* b, int t, float* ccmax, float* psi, int do_psi, float* ccmin) {
  const int nx = b->nx, ny = b->ny, na = (int)b->angles.size();
  float* psi_or_null = (do_psi && psi) ? psi : nullptr;
  hcuda_2d_memset(ccmax, -INFINITY, nx, ny);
  if (ccmin) hcuda_2d_memset(ccmin, INFINITY, nx, ny);
  if (zk_on_gpu()) {
    search_angles_batched(b, t, b->workers[0], ccmax, psi_or_null, ccmin);
  } else if (b->threads == 1) {
    search_angles_one_by_one(b, t, 0, na, b->workers[0], ccmax, psi_or_null, ccmin, true);
  } else {
    // Contiguous runs of angles per thread; merged in angle order with the
    // same strict rule, so that the earliest best angle wins as before.
    const int K = b->threads;
    for (int k = 1; k < K && ccmin; ++k)
      if (!b->workers[k].ccmin.get()) b->workers[k].ccmin.allocate(b->npix);
#pragma omp parallel num_threads(K)
    {
      const int k = omp_get_thread_num();
      const int a0 = (int)((long long)na * k / K), a1 = (int)((long long)na * (k + 1) / K);
      SearchWorker& w = b->workers[k];
      float* m = k == 0 ? ccmax : w.ccmax.get();
      float* p = k == 0 ? psi_or_null : (psi_or_null ? w.psi.get() : nullptr);
      float* lo = nullptr;
      if (ccmin) {
        lo = k == 0 ? ccmin : w.ccmin.get();
        if (k > 0) hcuda_2d_memset(lo, INFINITY, nx, ny);
      }
      if (k > 0) hcuda_2d_memset(m, -INFINITY, nx, ny);
      search_angles_one_by_one(b, t, a0, a1, w, m, p, lo, true);
    }
    for (int k = 1; k < K; ++k) {
      if (psi_or_null)
        hcuda_update_ccmax_psi_2d_map(ccmax, b->workers[k].ccmax.get(), psi_or_null, b->workers[k].psi.get(), nx,
                                      ny);
      else
        hcuda_update_ccmax_2d(ccmax, b->workers[k].ccmax.get(), nx, ny);
      if (ccmin) {
        const float* other = b->workers[k].ccmin.get();
        launch_2d(nx, ny, [=] HD(int x, int y) { cuda_update_ccmin_2d(x, y, ccmin, other, nx); });
      }
    }
  }
  printf("\n");
  const float D = zavik_score_divisor(b->sum_T2[t], b->sum_mic2_mask, b->sum_mask, b->R);
  hcuda_2d_swap_ccf_inplace(ccmax, nx, ny);
  if (psi_or_null) hcuda_2d_swap_ccf_inplace(psi_or_null, nx, ny);
  hcuda_2d_divide_inplace(ccmax, nx, ny, D);
  if (ccmin) {
    hcuda_2d_swap_ccf_inplace(ccmin, nx, ny);
    hcuda_2d_divide_inplace(ccmin, nx, ny, D);
  }
}

int zavik_search_bank_kept(const ZkSearchBank* b) {
  int n = 0;
  for (const ZkDeviceArray<float2>& k : b->kept) n += k.get() != nullptr;
  return n;
}

void zavik_search_bank_destroy(ZkSearchBank* b) {
  if (!b) return;
  zk_fft_plan_destroy(b->r2c);
  zk_fft_plan_destroy(b->c2r);
  zk_fft_plan_destroy(b->c2r_batch);
  delete b;
}
