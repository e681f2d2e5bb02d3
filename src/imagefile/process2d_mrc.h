// File commands on one image, and the creation and placing commands: each
// reads the first slice of its input (any mode the readers know), works on
// the device and writes floats (mode 2), one slice, keeping the input's pixel
// size.  Outputs appear under their names only when complete.  Return 0
// unless said otherwise.
#pragma once

#include "device/process2d_raw.h"

// "Begin Rotation %f:", the rotation by psi degrees about the centre,
// "Rotation finished!".  An input that does not open: "Cannot open file
// strike any key exit!".
int mrcf_cuda_2d_rotate(const char* in, const char* out, float psi);
// "Begin translating (%f, %f) and rotating %f:", hcuda_2d_translate_rotate,
// "Translation and rotation finished!"; the same report for the input.
int mrcf_cuda_2d_translate_rotate(const char* in, const char* out, float tx, float ty, float psi);
// Block means of s by s: nx/s by ny/s, the pixel s times larger;
// "shrinking finished!".
int mrcf_cuda_2d_shrink(const char* in, const char* out, int s);
// The six numbers of m printed, hcuda_2d_transform about the centre,
// "transforming finished!".
int mrcf_cuda_2d_transform(const char* in, const char* out, RT_Mat2D m, int inverse);
// Even sizes ("file size not even number"); the content moved by (dx, dy)
// through the spectrum (gpu_2d_shift2), periodically.
int mrcf_2d_fourier_shift(const char* in, const char* out, float dx, float dy);
// The local average over a soft disc on the mirror-padded image, and the local
// deviation on the periodic image.  Even sizes.
int mrcf_2d_lave(const char* in, const char* out, float r, float soft);
int mrcf_2d_lsigma(const char* in, const char* out, float r, float soft);
// The cross-correlation map of the two images less their means, zero lag at
// (nx/2, ny/2); both files of equal heads (check_mrc_head_sizes_two), even.
int mrcf_x2d_ccf(const char* a, const char* b, const char* out);
// cpu_x2d_ccc_with2maskfs of the first slices of the four files, which must
// all have the same nx and ny.
float mrcf_x2d_ccc_with2maskfs(const char* a, const char* ma, const char* b, const char* mb);

// argv[1] in, argv[2] out.  The half spectrum divided by sqrt(nx*ny) with the
// imaginary parts negated, as mode 4 of nx/2 + 1 by ny, its largest modulus
// as the head's maximum and 0 as its minimum.
int mrcf_fft_r2c_2d(int argc, char** argv);
// The log amplitude of the same half spectrum, mode 2, the rows exchanged so
// that zero frequency lies in the middle row.
int mrcf_fft_r2c_amp_2d(int argc, char** argv);

// The host soft mask (1 at r, hd_guasf1 edge) to a file.
int mrcf_mask2d_create(const char* name, int nx, int ny, float cx, float cy, float r, float soft);
// type 1 the host mask, type 2 the device mask (hd_guasf edge).
int mrcf_2d_auto_template_gauss(const char* name, int nx, int ny, float cx, float cy, float r, float soft, int type);
// Every row the same 1-D soft mask about column c, by the host (1) or the
// device (2).
int mrcf_2d_auto_template_gauss_cylinder(const char* name, int nx, int ny, float c, float r, float soft, int type);
// Prints "mass center (cenx, ceny, cenz):  %8.3f %8.3f %8.3f \n" of the whole
// file, summed in double slice by slice.
int get_mrcf_mass_center(const char* in);
// The stack's slices pasted over the micrograph at the corners of up to 10240
// boxes (one box per slice), written as "<mic less its suffix>_prp.mrc".
int mrcf_x2d_cp_ptcls_to_micrograph(const char* mic, const char* stack, const char* boxes);
// The same, each slice first fitted to the micrograph's patch through the
// reference slice of the same number; stack and reference of equal sizes.
int mrcf_x2d_norm_cp_ptcls_to_micrograph(const char* mic, const char* stack, const char* ref, const char* boxes);
