// Amplitude spectra of micrographs for the CTF engine: the mean amplitude of
// overlapping boxes, its logarithm, and that logarithm less its smooth
// background.  Results are half planes of (bx/2 + 1) by by floats with the
// origin at (0, by/2) (hcuda_complex_mod_addto_center_swap moves row 0 of a
// transform to row by/2).  Amplitudes are summed, never divided by the count.
#pragma once

// Boxes of bx by by with corners (ix*step, iy*step), ix < (nx - bx)/step + 1
// and iy likewise; the last partial strip of the image is not used.  Boxes
// are neither masked nor normalised.  d_amp receives the sum of |F|, d_log
// its natural logarithm, d_sub that logarithm less its convsize box mean on
// the full plane.
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(const float* d_image, float* d_amp, float* d_log, float* d_sub,
                                             unsigned int nx, unsigned int ny, unsigned int bx, unsigned int by,
                                             int step, int convsize);
// The same with the one output d_sub.
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg(const float* d_image, float* d_sub, unsigned int nx, unsigned int ny,
                                            unsigned int bx, unsigned int by, int step, int convsize);
// The logarithm and the result, no amplitude output.
void hcuda_2d_gridfft_r2c_amp_ave_log_subbg2(const float* d_image, float* d_log, float* d_sub, unsigned int nx,
                                             unsigned int ny, unsigned int bx, unsigned int by, int step, int convsize);
// The amplitude sum alone.
void hcuda_2d_gridfft_r2c_amp_ave(const float* d_image, float* d_amp, unsigned int nx, unsigned int ny, unsigned int bx,
                                  unsigned int by, int step, int convsize);

// Background removal on a half plane of a bx by by box: expanded to the full
// plane, less its convsize box mean there, and back.
void hcuda_2d_fft_amp_subbg(float* out, const float* in, unsigned int bx, unsigned int by, int convsize);
void hcuda_2d_fft_amp_subbg_inplace(float* d, unsigned int bx, unsigned int by, int convsize);
// The natural logarithm first.
void hcuda_2d_fft_amp_log_subbg_inplace(float* d, unsigned int bx, unsigned int by, int convsize);

// Whole images of a stack in place of boxes; the weighted forms add image k
// with weights[k] (device array).
void hcuda_2ds_fft_r2c_amp_ave(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny, unsigned int nz);
void hcuda_2ds_fft_r2c_amp_weighted_ave(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                        unsigned int nz, const float* d_weights);
void hcuda_2ds_fft_r2c_amp_ave_log(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                   unsigned int nz);
void hcuda_2ds_fft_r2c_amp_ave_log_subbg(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                         unsigned int nz, int convsize);
void hcuda_2ds_fft_r2c_amp_ave_sqrt(const float* d_stack, float* d_amp, unsigned int nx, unsigned int ny,
                                    unsigned int nz);

// The mean over the box x - w/2 .. x + w/2 - 1 (y likewise), clipped at the
// edges, by running sums: the mean of hcuda_2d_convolution_by_box in time
// independent of w.
void hcuda_2d_box_mean_running(const float* in, float* out, int nx, int ny, int w);
