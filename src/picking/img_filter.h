// Band-pass filters of square images in Fourier space: hard, soft-edged and
// Gaussian bands, hard low- and high-pass, plain or on the mirror-padded image.
//
// Limits are resolutions in angstrom, in either order: the coarser one gives
// the inner radius rl = N*apix/max(a, b), the finer one the outer radius
// rh = N*apix/min(a, b), in Fourier pixels of the N by N transform.  N is the
// image's side, or twice it in the padded forms, so the physical cut-offs stay
// where they are while a soft width (in Fourier pixels) narrows by half.
//
// Nothing divides by N*N: the result carries the factor N^2 (4n^2 padded) and
// the constants of the curves.  Callers normalise afterwards.
#pragma once
#include <cmath>

#include "core/hd.h"
#include "device/math_utils.h"

// ---------------------------------------------------------------------------
// Radii and per-element weights.

// Radius of element (kx, ky) of the half spectrum of an N by N transform.  The
// sum of squares is an integer; the root is single precision.
HDI float hd_fourier_radius(int kx, int ky, int N) {
  const int fy = ky < N / 2 ? ky : ky - N;
  return sqrtf((float)(kx * kx + fy * fy));
}
// R(d) = N*apix/d, with N*apix in single precision.
HDI float hd_res2radius(int N, float apix, float d) { return (float)N * apix / d; }
HDI float hd_band_rl(int N, float apix, float a, float b) { return hd_res2radius(N, apix, a > b ? a : b); }
HDI float hd_band_rh(int N, float apix, float a, float b) { return hd_res2radius(N, apix, a < b ? a : b); }

// Element (kx, ky) of a spectrum with nxh = N/2 + 1 columns multiplied by w;
// w = 0 stores a zero.
HDI void zk_cx_scale(float2* a, int kx, int ky, int N, float w) {
  float2& c = a[(size_t)ky * (N / 2 + 1) + kx];
  if (w == 0.0f) {
    c = make_f2(0.0f, 0.0f);
  } else {
    c.x = c.x * w;
    c.y = c.y * w;
  }
}

// Hard band: cleared below rl and above rh; the limits stay.
HDI void cuda_c2d_bandpass_sharp(int kx, int ky, float2* a, int N, float rl, float rh) {
  const float r = hd_fourier_radius(kx, ky, N);
  if (r < rl || r > rh) zk_cx_scale(a, kx, ky, N, 0.0f);
}
// Hard low-pass: cleared beyond rc.
HDI void cuda_c2d_lowpass_sharp(int kx, int ky, float2* a, int N, float rc) {
  if (hd_fourier_radius(kx, ky, N) > rc) zk_cx_scale(a, kx, ky, N, 0.0f);
}
// Hard high-pass: cleared below rc.
HDI void cuda_c2d_highpass_sharp(int kx, int ky, float2* a, int N, float rc) {
  if (hd_fourier_radius(kx, ky, N) < rc) zk_cx_scale(a, kx, ky, N, 0.0f);
}
// Soft outer edge: hard at rl, untouched up to rh, then hd_guasf(r - rh,
// soft/3) for soft pixels (the curve steps down to 0.39894229 at rh), 0 beyond.
HDI void cuda_c2d_bandpass_softR(int kx, int ky, float2* a, int N, float rl, float rh, float soft) {
  const float r = hd_fourier_radius(kx, ky, N);
  if (r >= rl && r <= rh) return;
  float w = 0.0f;
  if (r > rh && r <= rh + soft) w = hd_guasf(r - rh, soft / 3.0f);
  zk_cx_scale(a, kx, ky, N, w);
}
// Gaussian band: a low-pass Gaussian of sigma rh/3 about zero frequency times
// a high-pass one of sigma (c - rl)/3 about c = N/2 + 1, cut outside [rl, rh].
HDI void cuda_c2d_bandpass_guas(int kx, int ky, float2* a, int N, float rl, float rh) {
  const float r = hd_fourier_radius(kx, ky, N);
  float w = 0.0f;
  if (r >= rl && r <= rh) {
    const float c = (float)(N / 2 + 1);
    w = hd_guasf(r, rh / 3.0f) * hd_guasf(c - r, (c - rl) / 3.0f);
  }
  zk_cx_scale(a, kx, ky, N, w);
}

// ---------------------------------------------------------------------------
// Device images of n by n; in may be out (the _inplace forms pass one array).

// Mirror-padded: the 2n by 2n padded image is transformed, filtered with
// N = 2n and cut back to its quadrant at the origin.
void hcuda_2d_bandpass_softR_mpad(const float* in, float* out, int n, float apix, float a, float b, float soft);
void hcuda_2d_bandpass_softR_mpad_inplace(float* img, int n, float apix, float a, float b, float soft);
void hcuda_2d_bandpass_guas_mpad(const float* in, float* out, int n, float apix, float a, float b);
void hcuda_2d_bandpass_guas_mpad_inplace(float* img, int n, float apix, float a, float b);
// The same from the spectrum of the mirror-padded image (hcuda_2d_mpad_fft_r2c),
// which is used up; the result is that of the forms above, bit for bit.
void hcuda_2d_bandpass_guas_mpad_f(float2* in_f, float* out, int n, float apix, float a, float b);
// Plain: N = n, the image's own periodic transform.
void hcuda_2d_bandpass_softR(const float* in, float* out, int n, float apix, float a, float b, float soft);
void hcuda_2d_bandpass_softR_inplace(float* img, int n, float apix, float a, float b, float soft);
void hcuda_2d_bandpass_guas(const float* in, float* out, int n, float apix, float a, float b);
void hcuda_2d_bandpass_guas_inplace(float* img, int n, float apix, float a, float b);
void hcuda_2d_bandpass_sharp(const float* in, float* out, int n, float apix, float a, float b);
void hcuda_2d_bandpass_sharp_inplace(float* img, int n, float apix, float a, float b);
void hcuda_2d_lowpass_sharp(const float* in, float* out, int n, float apix, float d);
void hcuda_c2d_highpass_sharp(const float* in, float* out, int n, float apix, float d);

// Staged forms on host images of n by n.  The soft form falls back on the hard
// band when soft < 1.
void gpu_2d_bandpass_sharp_inplace(float* img, int n, float apix, float a, float b);
void gpu_2d_bandpass_softR_inplace(float* img, int n, float apix, float a, float b, float soft);
void gpu_2d_bandpass_guas_inplace(float* img, int n, float apix, float a, float b);
void gpu_2d_bandpass_guas_mpad(const float* in, float* out, int n, float apix, float a, float b);
void gpu_2d_bandpass_guas_mpad_inplace(float* img, int n, float apix, float a, float b);

// Filters the first image of the MRC file in_name and writes head and all data
// to out_name: type 1 Gaussian, 2 soft edge, 3 hard band, 4 padded Gaussian,
// any other nothing.  A rectangular image throws the fatal report.  Returns 0.
int mrcf_2d_bandpass(const char* in_name, const char* out_name, float apix, float a, float b, float soft, int type);
