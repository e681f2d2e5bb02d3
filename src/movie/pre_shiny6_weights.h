// Dose, drift and CTF weights of movie frames, and the weighted average of
// the frames of one particle movie in Fourier space.
//
// Geometry: the half spectrum of an Nx by Ny image (Nx_half = Nx/2 + 1
// columns, Ny rows, element n = j*Nx_half + i); frames follow each other, frame
// f at f*Ny*Nx_half.  For element (i, j): fy = j below Ny/2, else j - Ny;
// r = sqrt(i^2 + fy^2) in Fourier pixels; s = r/(Ny*apix) in 1/A (the images
// are square, so Ny serves both axes); theta = atan2(fy, i).
//
// Per frame: a dose (e/A^2), a drift (dx, dy) in pixels; per Fourier radius r
// from 0 to Nx_half - 1 a CTF weight.
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdio>

#include "core/hd.h"
#include "device/hd_math.h"

// The weighting parameters, passed by value.
struct GPS_PARA {
  float Ne_a;      // dose factor a
  float Ne_b;      // dose exponent b
  float Da;        // drift factor, 0 to 1: larger weights drift more
  float Db;        // share of isotropic drift weighting, 0 to 1; 1 is fully isotropic
  float k;         // constant added to the norm of the weights
  int mw_skeme;    // 0 plain sum, 1 dose, 2 drift, 3 dose times drift
  int wnorm_type;  // 1: L1 norm of the weights, 2: L2 norm
  int device;      // path of the weighted run; the kernels only print it
};
static_assert(sizeof(GPS_PARA) == 32, "GPS_PARA is eight 32-bit fields");

// Ne_a 0.5, Ne_b 1.3, Da 1, Db 1, k 0, scheme 3, L2 norm, device weighting.
GPS_PARA gps_para_default();

// ---------------------------------------------------------------------------
// Scalar formulas, the same bits on the host and in kernels.

// atan2 in double precision from the project's arc tangent, rounded once to
// float: the same bits on both back ends.
HDI float hd_movie_atan2f(float y, float x) {
  const double PI = 0x1.921fb54442d18p+1;
  const double PIO2 = 0x1.921fb54442d18p+0;
  const bool y_negative = (hd_f2u(y) >> 31) != 0;
  if (x > 0.0f) return (float)hd_atan((double)y / (double)x);
  if (x < 0.0f) {
    const double a = hd_atan((double)y / (double)x);
    return (float)(y_negative ? a - PI : a + PI);
  }
  if (y == 0.0f) return y;
  return (float)(y_negative ? -PIO2 : PIO2);
}

// exp(-Ne_a * dose * s^Ne_b).
HDI float hd_dose_weight(float s, float dose, float Ne_a, float Ne_b) {
  return hd_expf(-(Ne_a * dose * hd_powf(s, Ne_b)));
}

// K = 2 pi s apix |L Da ((1 - Db) c + Db)| with L the drift's length and c the
// modulus of the cosine between the frequency's direction and the drift's: a
// frequency across the drift is not blurred by it.  The product is formed in
// double and rounded once.
HDI float hd_drift_K(float s, float theta, float apix, float dx, float dy, float Da, float Db) {
  const float c = fabsf(hd_cosf(theta - hd_movie_atan2f(dy, dx)));
  const float L = sqrtf(dx * dx + dy * dy);
  const float len = fabsf(L * Da * ((1.0f - Db) * c + Db));
  return (float)(6.283185307179586 * (double)s * (double)apix * (double)len);
}

// sin(K)/K, the transfer of a uniform motion; 1 at s <= 0 and at K = 0.
HDI float hd_drift_weight(float s, float theta, float apix, float dx, float dy, float Da, float Db) {
  if (!(s > 0.0f)) return 1.0f;
  const float K = hd_drift_K(s, theta, apix, dx, dy, Da, Db);
  if (K == 0.0f) return 1.0f;
  return hd_sinf(K) / K;
}

// The sign of that sinc: -1 when sin(K) < 0, else 1; 1 at s <= 0.
HDI float hd_drift_wsign(float s, float theta, float apix, float dx, float dy, float Da, float Db) {
  if (!(s > 0.0f)) return 1.0f;
  return hd_sinf(hd_drift_K(s, theta, apix, dx, dy, Da, Db)) < 0.0f ? -1.0f : 1.0f;
}

// The dose at 200 kV that does the same damage as dose at kV (100, 120, 300,
// 400 kV); any other voltage leaves the dose as it is.
float eq_dose(float dose, float kV);

// Frequency of element (i, j) of a half spectrum with Ny rows.
struct MovieFreq {
  float r;      // Fourier pixels
  float s;      // 1/A
  float theta;  // radians
};
HDI MovieFreq movie_freq(int i, int j, int Ny, float apix) {
  const int fy = j < Ny / 2 ? j : j - Ny;
  MovieFreq q;
  q.r = sqrtf((float)(i * i + fy * fy));
  q.s = q.r / ((float)Ny * apix);
  q.theta = hd_movie_atan2f((float)fy, (float)i);
  return q;
}

// The weight of one frame at one frequency by the scheme: 1 at s = 0 in every
// scheme.  A scheme outside 0 to 3 has no weight; it gives 0.
HDI float movie_frame_weight(MovieFreq q, float apix, float dose, float2 drift, const GPS_PARA& g) {
  if (q.s == 0.0f) return 1.0f;
  switch (g.mw_skeme) {
    case 0:
      return 1.0f;
    case 1:
      return hd_dose_weight(q.s, dose, g.Ne_a, g.Ne_b);
    case 2:
      return hd_drift_weight(q.s, q.theta, apix, drift.x, drift.y, g.Da, g.Db);
    case 3:
      return hd_dose_weight(q.s, dose, g.Ne_a, g.Ne_b) *
             hd_drift_weight(q.s, q.theta, apix, drift.x, drift.y, g.Da, g.Db);
    default:
      return 0.0f;
  }
}

// One weight's share of the norm: |w| under the L1 norm, w^2 under L2.
HDI float movie_wnorm_add(float sum, float w, int wnorm_type) {
  if (wnorm_type == 1) return sum + fabsf(w);
  if (wnorm_type == 2) return sum + w * w;
  return sum;
}
// k + sum (L1) or k + sqrt(sum) (L2); 0 for another type.
HDI float movie_wnorm(float sum, const GPS_PARA& g) {
  if (g.wnorm_type == 1) return g.k + sum;
  if (g.wnorm_type == 2) return g.k + sqrtf(sum);
  return 0.0f;
}

// The CTF weight at radius r, linear between the entries of ctfw; beyond the
// last entry (the corners of the spectrum) the last entry.
HDI float movie_ctfw_at(const float* ctfw, float r, int Nx_half) {
  const float r2 = fminf(r, (float)(Nx_half - 1));
  const int i0 = (int)r2;
  const int i1 = r2 == (float)i0 ? i0 : i0 + 1;
  return ctfw[i0] + (r2 - (float)i0) * (ctfw[i1] - ctfw[i0]);
}

// ---------------------------------------------------------------------------
// Kernels on device arrays (launch, wait, check).

// fft_out (one half spectrum) = the weighted average of the Nz frames of
// fft_in, divided by the norm of the weights and multiplied by the CTF weight
// (ctfw must hold 1.0 at all Nx_half radii for no CTF weighting).
void hcuda_2ds_fft_dose_dft_ctf_wave(const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz, float apix,
                                     const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps);
// w = the weight of one frame (1 at s = 0).
void hcuda_2d_fft_dose_dft_wgen(float* w, int Nx_half, int Ny, float apix, float dose, float2 drift, GPS_PARA gps);
// w grows by |weight| (wnorm_type 1) or weight^2 (2).
void hcuda_2d_fft_dose_dft_wadd(float* w, int Nx_half, int Ny, float apix, float dose, float2 drift, GPS_PARA gps);
// The weights of Nz frames, frame f at f*Ny*Nx_half.
void hcuda_2ds_fft_dose_dft_wgen(float* w, int Nx_half, int Ny, int Nz, float apix, const float* dose,
                                 const float2* drift, GPS_PARA gps);
// The same with the origin of the rows in the middle of each plane: element n
// goes to (n + Ny*Nx_half/2) mod (Ny*Nx_half).
void hcuda_2ds_fft_dose_dft_wgen_swap(float* w, int Nx_half, int Ny, int Nz, float apix, const float* dose,
                                      const float2* drift, GPS_PARA gps);
// One frame of a running average: wsum grows by |w| or w^2, fft_out by w*fft_in.
void hcuda_2d_fft_dose_dft_wgen_wsum_one(const float2* fft_in, float2* fft_out, float* wsum, int Nx_half, int Ny,
                                         float apix, float dose, float2 drift, GPS_PARA gps);
// out[(z*ny + y)*nx + x] += a*va[z] + b*vb[z] + c*vc[z] for every z < nz.
void hcuda_2ds_weighted_sum_abc(float* out, int nx, int ny, int nz, float a, float b, float c, const float* va,
                                const float* vb, const float* vc);

// The weighted average of many particles at once.  The weights depend on the
// frame and the frequency only, so one table serves every particle of a
// movie: W (Nz planes of weights), the norm and the CTF weight of each
// element, made by the same formulas as the one-pass kernel.
void hcuda_2ds_fft_dose_dft_wtable(float* W, float* norm, float* cw, int Nx_half, int Ny, int Nz, float apix,
                                   const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps);
// np particles of Nz frame spectra each (particle p at p*Nz*Ny*Nx_half) into
// np averages: the bits of hcuda_2ds_fft_dose_dft_ctf_wave for each particle.
void hcuda_2ds_fft_wtable_wave_many(const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz, int np,
                                    const float* W, const float* norm, const float* cw);

// ---------------------------------------------------------------------------
// Host operations.

// The weighted average of Nz host spectra through device copies made for the
// call; prints the per-frame values, the sizes and the parameters first.
void gpu_2ds_fft_dose_dft_ctf_wave(float apix, const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz,
                                   const float* dose, const float2* drift, const float* ctfw, GPS_PARA gps);
// Nz planes of weights into host memory w, likewise staged.
void gpu_2ds_fft_dose_dft_wgen(float apix, float* w, int Nx_half, int Ny, int Nz, const float* dose,
                               const float2* drift, GPS_PARA gps);
void gpu_2ds_fft_dose_dft_wgen_swap(float apix, float* w, int Nx_half, int Ny, int Nz, const float* dose,
                                    const float2* drift, GPS_PARA gps);
// The host form of the weighted average: the norm is always k + sum|w|, no CTF
// weight, and scheme 1 uses the fixed law exp(-dose*s^1.31489/1.35172).  It
// prints its working values at every 500th row and 200th column.
void cpu_2ds_fft_dose_dft_ctf_wave(float apix, const float2* fft_in, float2* fft_out, int Nx_half, int Ny, int Nz,
                                   const float* dose, const float2* drift, GPS_PARA gps);

// "%8d dose %8.3f dftX %8.3f dftY %8.3f \n" for each of n frames, then
// "CTFw %8d %8.3f \n" for each of m radii.
void print_dose_drif_ctfw(const float* dose, const float2* drift, int n, const float* ctfw, int m);
// "Ne_a=%f Ne_b=%f Da=%f Db=%f k=%f mw_skeme=%d  wnorm_type=%d  device=%d \n".
void printf_psp(GPS_PARA gps);
// The same lines into a stream.
void fprint_dose_drif_ctfw(FILE* fp, const float* dose, const float2* drift, int n, const float* ctfw, int m);
void fprintf_psp(FILE* fp, GPS_PARA gps);
// "apix=%f  Nx_half=%d  Ny=%d Nz=%d \n", the sizes line of the staged average.
void fprint_wave_sizes(FILE* fp, float apix, int Nx_half, int Ny, int Nz);
