// File commands on stacks: every slice of the input (any mode the readers
// know) through a device operation, written as floats (mode 2) slice by
// slice, so that a stack need not fit in memory unless said otherwise.
// Outputs appear under their names only when complete.  Return 0.
#pragma once

#include "core/hd.h"

// "Begin scaling %f:", each slice scaled by f about its centre into (int)(nx*f)
// by (int)(ny*f), the pixel 1/f times as large; "Scaling finished!".
int mrcf_cuda_2ds_scale(const char* in, const char* out, float f);
// Slice k moved by -shifts[k] through its spectrum (gpu_2d_shift), one "."
// each, for the first n slices (n < 1: all, shifts then holds nz pairs); n
// above the slices throws "file size smaller than frames of drifts", odd
// sizes "file size not even number".  The mean of the shifted slices goes to
// out_ave, and with write_stack not 0 the shifted slices to out_stack.
int mrcf_2ds_fourier_shift(const char* in, const char* out_stack, const char* out_ave, const float2* shifts, int n,
                           int write_stack);
// The mean of all slices, summed in slice order in float.
int mrcf_2ds_average(const char* in, const char* out);
// One line "%8d %8d %8d %15.6f \n" for each slice (slice from 0, x, y, value
// of its first greatest pixel) into "<in less its suffix>_local_center.txt".
// The input is opened anew for each run of 1000 slices: "." as a run begins,
// "-" after its 1000th slice.
int mrcf_2ds_find_single_peaks(const char* in);
// Box i of the coordinate file cut from slice i (0 outside the slice) into
// "<in less its suffix>_local_particles.mrcs".  Every box takes the size of
// the first, after resize_ptcl_boxes to newsize when that is not 0.  When the
// counts differ the shorter wins, with a warning.  Runs of 1000 as above.
int mrcsf_2ds_extract_local_ptcls(const char* in, const char* boxes, int newsize);
// Pixels further than k deviations from the slice mean replaced by their
// neighbours' mean (hcuda_2ds_rm_hotpixels_inplace); the whole stack is held
// in host memory.
int mrcsf_2ds_rm_hotpixels(const char* in, const char* out, float k);
// The slices in reverse order.  An input that does not open: "\nCannot open
// file strike any key exit!".
int mrcsf_upsidedown(const char* in, const char* out);
// One single-slice file for each slice, "%s%06d.mrc" with prefix and the
// slice from 0, one "." each, a line feed at the end.
int mrcsf_split(const char* in, const char* prefix);
