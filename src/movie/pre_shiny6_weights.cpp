#include "movie/pre_shiny6_weights.h"

#include <cmath>
#include <cstdio>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/launch.h"

GPS_PARA gps_para_default() {
  GPS_PARA g;
  g.Ne_a = 0.5f;
  g.Ne_b = 1.3f;
  g.Da = 1.0f;
  g.Db = 1.0f;
  g.k = 0.0f;
  g.mw_skeme = 3;
  g.wnorm_type = 2;
  g.device = 2;
  return g;
}

float eq_dose(float dose, float kV) {
  if (kV == 100.0f) return dose / 0.68f;
  if (kV == 120.0f) return dose / 0.75f;
  if (kV == 300.0f) return dose / 1.22f;
  if (kV == 400.0f) return dose / 1.33f;
  return dose;
}

// ===========================================================================
// Per-element bodies

// The weighted average at element (i, j): each frame's coefficient times its
// weight, in frame order, over the norm of the weights, times the CTF weight.
HDI void cuda_2ds_fft_dose_dft_ctf_wave(int i, int j, const float2* fft_in, float2* fft_out, int Nx_half, int Ny,
                                        int Nz, float apix, const float* dose, const float2* drift, const float* ctfw,
                                        const GPS_PARA& g) {
  const size_t plane = (size_t)Nx_half * Ny;
  const size_t n = (size_t)j * Nx_half + i;
  const MovieFreq q = movie_freq(i, j, Ny, apix);
  float re = 0.0f, im = 0.0f, sum = 0.0f;
  for (int f = 0; f < Nz; ++f) {
    const float w = movie_frame_weight(q, apix, dose[f], drift[f], g);
    sum = movie_wnorm_add(sum, w, g.wnorm_type);
    const float2 v = fft_in[(size_t)f * plane + n];
    re = re + w * v.x;
    im = im + w * v.y;
  }
  const float norm = movie_wnorm(sum, g);
  re = re / norm;
  im = im / norm;
  const float cw = movie_ctfw_at(ctfw, q.r, Nx_half);
  fft_out[n] = make_f2(re * cw, im * cw);
}

// ===========================================================================
// Kernels

void hcuda_2ds_fft_dose_dft_ctf_wave(const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz, float apix,
                                     const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps) {
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    cuda_2ds_fft_dose_dft_ctf_wave(i, j, fft_in, fft_out, Nx_half, Ny, Nz, apix, dose, drift, ctfw, gps);
  });
}

void hcuda_2d_fft_dose_dft_wgen(float* w, int Nx_half, int Ny, float apix, float dose, float2 drift, GPS_PARA gps) {
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    w[(size_t)j * Nx_half + i] = movie_frame_weight(movie_freq(i, j, Ny, apix), apix, dose, drift, gps);
  });
}

void hcuda_2d_fft_dose_dft_wadd(float* w, int Nx_half, int Ny, float apix, float dose, float2 drift, GPS_PARA gps) {
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    const size_t n = (size_t)j * Nx_half + i;
    w[n] = movie_wnorm_add(w[n], movie_frame_weight(movie_freq(i, j, Ny, apix), apix, dose, drift, gps),
                           gps.wnorm_type);
  });
}

namespace {

// Weights of Nz frames; swap moves the origin of the rows to the middle of
// each plane.
void wgen_stack(float* w, int Nx_half, int Ny, int Nz, float apix, const float* dose, const float2* drift,
                GPS_PARA gps, bool swap) {
  const size_t plane = (size_t)Nx_half * Ny;
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    const MovieFreq q = movie_freq(i, j, Ny, apix);
    const size_t n = (size_t)j * Nx_half + i;
    const size_t at = swap ? (n + plane / 2) % plane : n;
    for (int f = 0; f < Nz; ++f) w[(size_t)f * plane + at] = movie_frame_weight(q, apix, dose[f], drift[f], gps);
  });
}

}  // namespace

void hcuda_2ds_fft_dose_dft_wgen(float* w, int Nx_half, int Ny, int Nz, float apix, const float* dose,
                                 const float2* drift, GPS_PARA gps) {
  wgen_stack(w, Nx_half, Ny, Nz, apix, dose, drift, gps, false);
}

void hcuda_2ds_fft_dose_dft_wgen_swap(float* w, int Nx_half, int Ny, int Nz, float apix, const float* dose,
                                      const float2* drift, GPS_PARA gps) {
  wgen_stack(w, Nx_half, Ny, Nz, apix, dose, drift, gps, true);
}

void hcuda_2d_fft_dose_dft_wgen_wsum_one(const float2* fft_in, float2* fft_out, float* wsum, int Nx_half, int Ny,
                                         float apix, float dose, float2 drift, GPS_PARA gps) {
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    const size_t n = (size_t)j * Nx_half + i;
    const float w = movie_frame_weight(movie_freq(i, j, Ny, apix), apix, dose, drift, gps);
    wsum[n] = movie_wnorm_add(wsum[n], w, gps.wnorm_type);
    fft_out[n] = make_f2(fft_out[n].x + w * fft_in[n].x, fft_out[n].y + w * fft_in[n].y);
  });
}

void hcuda_2ds_weighted_sum_abc(float* out, int nx, int ny, int nz, float a, float b, float c, const float* va,
                                const float* vb, const float* vc) {
  launch_2d(nx, ny, [=] HD(int x, int y) {
    for (int z = 0; z < nz; ++z) {
      const size_t n = ((size_t)z * ny + y) * nx + x;
      out[n] = out[n] + (a * va[z] + b * vb[z] + c * vc[z]);
    }
  });
}

void hcuda_2ds_fft_dose_dft_wtable(float* W, float* norm, float* cw, int Nx_half, int Ny, int Nz, float apix,
                                   const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps) {
  const size_t plane = (size_t)Nx_half * Ny;
  launch_2d(Nx_half, Ny, [=] HD(int i, int j) {
    const size_t n = (size_t)j * Nx_half + i;
    const MovieFreq q = movie_freq(i, j, Ny, apix);
    float sum = 0.0f;
    for (int f = 0; f < Nz; ++f) {
      const float w = movie_frame_weight(q, apix, dose[f], drift[f], gps);
      W[(size_t)f * plane + n] = w;
      sum = movie_wnorm_add(sum, w, gps.wnorm_type);
    }
    norm[n] = movie_wnorm(sum, gps);
    cw[n] = movie_ctfw_at(ctfw, q.r, Nx_half);
  });
}

void hcuda_2ds_fft_wtable_wave_many(const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz, int np,
                                    const float* W, const float* norm, const float* cw) {
  const size_t plane = (size_t)Nx_half * Ny;
  launch_2d(Nx_half, Ny * np, [=] HD(int i, int jp) {
    const int p = jp / Ny, j = jp % Ny;
    const size_t n = (size_t)j * Nx_half + i;
    const float2* in = fft_in + (size_t)p * Nz * plane;
    float re = 0.0f, im = 0.0f;
    for (int f = 0; f < Nz; ++f) {
      const float w = W[(size_t)f * plane + n];
      const float2 v = in[(size_t)f * plane + n];
      re = re + w * v.x;
      im = im + w * v.y;
    }
    re = re / norm[n];
    im = im / norm[n];
    fft_out[(size_t)p * plane + n] = make_f2(re * cw[n], im * cw[n]);
  });
}

// ===========================================================================
// Host operations

void fprint_dose_drif_ctfw(FILE* fp, const float* dose, const float2* drift, int n, const float* ctfw, int m) {
  for (int i = 0; i < n; ++i)
    fprintf(fp, "%8d dose %8.3f dftX %8.3f dftY %8.3f \n", i, dose[i], drift[i].x, drift[i].y);
  for (int i = 0; i < m; ++i) fprintf(fp, "CTFw %8d %8.3f \n", i, ctfw[i]);
}
void print_dose_drif_ctfw(const float* dose, const float2* drift, int n, const float* ctfw, int m) {
  fprint_dose_drif_ctfw(stdout, dose, drift, n, ctfw, m);
}

void fprintf_psp(FILE* fp, GPS_PARA g) {
  fprintf(fp, "Ne_a=%f Ne_b=%f Da=%f Db=%f k=%f mw_skeme=%d  wnorm_type=%d  device=%d \n", g.Ne_a, g.Ne_b, g.Da, g.Db,
          g.k, g.mw_skeme, g.wnorm_type, g.device);
}
void printf_psp(GPS_PARA g) { fprintf_psp(stdout, g); }

void fprint_wave_sizes(FILE* fp, float apix, int Nx_half, int Ny, int Nz) {
  fprintf(fp, "apix=%f  Nx_half=%d  Ny=%d Nz=%d \n", apix, Nx_half, Ny, Nz);
}

namespace {

template <class T>
ZkDeviceArray<T> to_device(const T* h, size_t n) {
  ZkDeviceArray<T> d(n);
  ZK_CHECK(memcpy_H2D(d.get(), h, n * sizeof(T)));
  return d;
}

void print_sizes(float apix, int Nx_half, int Ny, int Nz) { fprint_wave_sizes(stdout, apix, Nx_half, Ny, Nz); }

}  // namespace

void gpu_2ds_fft_dose_dft_ctf_wave(float apix, const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz,
                                   const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps) {
  const size_t plane = (size_t)Nx_half * Ny;
  ZkDeviceArray<float2> d_in = to_device(fft_in, plane * Nz);
  ZkDeviceArray<float2> d_out(plane);
  ZkDeviceArray<float> d_dose = to_device(dose, (size_t)Nz);
  ZkDeviceArray<float2> d_drift = to_device(drift, (size_t)Nz);
  ZkDeviceArray<float> d_ctfw = to_device(ctfw, (size_t)Nx_half);
  print_dose_drif_ctfw(dose, drift, Nz, ctfw, Nx_half);
  print_sizes(apix, Nx_half, Ny, Nz);
  printf_psp(gps);
  hcuda_2ds_fft_dose_dft_ctf_wave(d_in.get(), d_out.get(), Nx_half, Ny, Nz, apix, d_dose.get(), d_drift.get(),
                                  d_ctfw.get(), gps);
  ZK_CHECK(memcpy_D2H(fft_out, d_out.get(), plane * sizeof(float2)));
}

namespace {

void gpu_wgen(float apix, float* w, int Nx_half, int Ny, int Nz, const float* dose, const float2* drift, GPS_PARA gps,
              bool swap) {
  const size_t plane = (size_t)Nx_half * Ny;
  ZkDeviceArray<float> d_w(plane * Nz);
  ZkDeviceArray<float> d_dose = to_device(dose, (size_t)Nz);
  ZkDeviceArray<float2> d_drift = to_device(drift, (size_t)Nz);
  print_dose_drif_ctfw(dose, drift, Nz, nullptr, 0);
  print_sizes(apix, Nx_half, Ny, Nz);
  printf_psp(gps);
  wgen_stack(d_w.get(), Nx_half, Ny, Nz, apix, d_dose.get(), d_drift.get(), gps, swap);
  ZK_CHECK(memcpy_D2H(w, d_w.get(), plane * Nz * sizeof(float)));
}

}  // namespace

void gpu_2ds_fft_dose_dft_wgen(float apix, float* w, int Nx_half, int Ny, int Nz, const float* dose,
                               const float2* drift, GPS_PARA gps) {
  gpu_wgen(apix, w, Nx_half, Ny, Nz, dose, drift, gps, false);
}

void gpu_2ds_fft_dose_dft_wgen_swap(float apix, float* w, int Nx_half, int Ny, int Nz, const float* dose,
                                    const float2* drift, GPS_PARA gps) {
  gpu_wgen(apix, w, Nx_half, Ny, Nz, dose, drift, gps, true);
}

void cpu_2ds_fft_dose_dft_ctf_wave(float apix, const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz,
                                   const float* dose, const float2* drift, GPS_PARA g) {
  const size_t plane = (size_t)Nx_half * Ny;
  for (int j = 0; j < Ny; ++j)
    for (int i = 0; i < Nx_half; ++i) {
      const long n = (long)j * Nx_half + i;
      const MovieFreq q = movie_freq(i, j, Ny, apix);
      const bool trace = j % 500 == 0 && i % 200 == 0;
      float re = 0.0f, im = 0.0f, wsum = 0.0f;
      for (int f = 0; f < Nz; ++f) {
        const float dx = drift[f].x, dy = drift[f].y;
        // The host's own dose law: fixed constants, in double.
        const float dosew = q.s > 0.0f ? (float)exp(-(double)dose[f] * pow((double)q.s, 1.31489) / 1.35172) : 1.0f;
        const float expw = hd_dose_weight(q.s, dose[f], g.Ne_a, g.Ne_b);
        const float dftw = hd_drift_weight(q.s, q.theta, apix, dx, dy, g.Da, g.Db);
        float w = 1.0f;
        if (q.s != 0.0f) {
          if (g.mw_skeme == 1) w = dosew;
          else if (g.mw_skeme == 2) w = dftw;
          else if (g.mw_skeme == 3) w = expw * dftw;
          else if (g.mw_skeme != 0) w = 0.0f;
        }
        wsum = wsum + fabsf(w);
        const float2 v = fft_in[(size_t)f * plane + n];
        re = re + w * v.x;
        im = im + w * v.y;
        if (trace)
          printf(
              "i%d, j%d %ld s %f theta %f wm %f fftin %f fft_ave[n].x %f W[k] %f, dose %f dosew %f dftD %f dftY %f "
              "dftw %f sinf(dfK)/dfK %f  expf %f\n",
              i, j, n, q.s, q.theta, w, v.x, re, wsum, dose[f], dosew, dx, dy, dftw, dftw, expw);
      }
      const float norm = g.k + wsum;
      fft_out[n] = make_f2(re / norm, im / norm);
      if (trace) {
        printf("................................\n");
        printf("n %ld s %f wsum %f fft_ave_out[n].x %f\n", n, q.s, wsum, fft_out[n].x);
      }
    }
}
