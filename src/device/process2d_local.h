// Local statistics of an image over a soft disc: the local mean (background)
// and the local standard deviation.
//
// The disc of radius R has the soft edge of the device mask (weight 1 up to R,
// then hd_guasf(d - R, s/3) for s pixels, 0 beyond).  The mean is the
// correlation of the image with the disc divided by the disc's sum, so a
// constant image keeps its value.  The correlation is periodic: the _mpad
// forms work on the mirror-padded image of 2nx by 2ny, so a disc that reaches
// over an edge sees the mirror image of the inside; the plain forms wrap over
// to the opposite side.  The disc of output pixel (x, y) is centred on
// (x - 0.5, y - 0.5).  Even sizes.  out may be in.
#pragma once
#include "core/hd.h"

// Device images.
void hcuda_2d_bg_mpad(float* out, const float* in, int nx, int ny, float R, float s);
void hcuda_2d_bg_mpad_inplace(float* a, int nx, int ny, float R, float s);
void hcuda_2d_bg(float* out, const float* in, int nx, int ny, float R, float s);
void hcuda_2d_bg_inplace(float* a, int nx, int ny, float R, float s);
// a = a minus its local mean.
void hcuda_2d_bg_reduce_inplace(float* a, int nx, int ny, float R, float s);
void hcuda_2d_bg_reduce_mpad_inplace(float* a, int nx, int ny, float R, float s);
// The local average: the local mean under its other name.
void hcuda_2d_local_ave_softR(float* out, const float* in, int nx, int ny, float R, float s);
void hcuda_2d_local_ave_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s);
// sqrt(E[v^2] - E[v]^2) over the disc.  No guard: a difference that rounds
// below zero gives NaN.  out must not be in.
void hcuda_2d_local_sigma_softR(float* out, const float* in, int nx, int ny, float R, float s);
void hcuda_2d_local_sigma_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s);

// The same from the image's mirror-padded spectrum in_f (nx + 1 by 2ny
// float2, kept), made once by hcuda_2d_mpad_fft_r2c for every statistic and
// filter of one image.  Results are those of the forms above, bit for bit.
void hcuda_2d_mpad_fft_r2c(float2* out, const float* in, int nx, int ny);
void hcuda_2d_local_ave_softR_mpad_f(float* out, const float2* in_f, int nx, int ny, float R, float s);
void hcuda_2d_local_sigma_softR_mpad_f(float* out, const float* in, const float2* in_f, int nx, int ny, float R,
                                       float s);

// Staged forms on host images.
void gpu_2d_bg(float* out, const float* in, int nx, int ny, float R, float s);
void gpu_2d_bg_inplace(float* a, int nx, int ny, float R, float s);
void gpu_2d_bg_mpad(float* out, const float* in, int nx, int ny, float R, float s);
void gpu_2d_bg_mpad_inplace(float* a, int nx, int ny, float R, float s);
void gpu_2d_local_ave_softR(float* out, const float* in, int nx, int ny, float R, float s);
void gpu_2d_local_ave_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s);
void gpu_2d_local_sigma_softR(float* out, const float* in, int nx, int ny, float R, float s);
void gpu_2d_local_sigma_softR_mpad(float* out, const float* in, int nx, int ny, float R, float s);

// The spectra of the discs are kept between calls (a run uses the same two
// for every micrograph); this frees them.
void zk_local_disc_cache_clear();
