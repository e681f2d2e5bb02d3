// Operations on whole images, on the device (hcuda_, gpu_, d_get_) and on the
// host (cpu_, host_): resampling, copies, mirror padding, soft masks, per-pixel
// arithmetic, shrinking and squaring of micrographs.
//
// Images are row-major, nx columns by ny rows.  The centre of an image is the
// real point ((nx - 1)/2, (ny - 1)/2).  Resampling writes 0 for a source
// position outside [0, nx - 1] by [0, ny - 1] (the limits are inside) and
// interpolates bilinearly otherwise.  Outputs must not overlap inputs except
// in the _inplace forms.
#pragma once
#include <cstddef>

#include "core/hd.h"
#include "core/ptcl_box.h"

// An affine map of the plane: rotation part R, then translation (Tx, Ty).
struct RT_Mat2D {
  double R11, R12, R21, R22, Tx, Ty;
};

// One pixel of an image with its value.
struct Pixel {
  int x, y;
  float value;
};

// ---------------------------------------------------------------------------
// Resampling.
// out = in rotated about the centre by psi degrees, from +x toward +y.
void hcuda_2d_rotate(const float* in, float* out, int nx, int ny, float psi);
void hcuda_2d_rotate_anycenter(const float* in, float* out, int nx, int ny, float cx, float cy, float psi);
// Samples at (x - tx, y - ty): the content moves by (tx, ty).
void hcuda_2d_translate(const float* in, float* out, int nx, int ny, float tx, float ty);
void hcuda_2d_translate_x(const float* in, float* out, int nx, int ny, float tx);
void hcuda_2d_translate_y(const float* in, float* out, int nx, int ny, float ty);
// Samples the rotation of (x - tx, y - ty) about the centre.
void hcuda_2d_rotate_translate(const float* in, float* out, int nx, int ny, float psi, float tx, float ty);
// Samples the rotated position less (tx, ty).
void hcuda_2d_translate_rotate(const float* in, float* out, int nx, int ny, float tx, float ty, float psi);
// Applies m about (cx, cy) in double; with inverse = 0 the matrix is inverted
// first, so that m maps the input onto the output.
void hcuda_2d_transform(const float* in, float* out, int nx, int ny, float cx, float cy, RT_Mat2D m, int inverse);
// Mean of the rotated samples over an arc of range degrees, one sample per
// pixel of arc at the pixel's radius; samples outside the image left out.
void hcuda_2d_rotate_ave_anycenter(const float* in, float* out, int nx, int ny, float cx, float cy, float range);

// Scaling by f about the shared centre; the output is (int)(nx*f) by
// (int)(ny*f).  Pure bilinear resampling, no low-pass.
HDI int get_2d_scaled_size(int n, float f) { return (int)((float)n * f); }
void hcuda_2d_scale(float* out, const float* in, int nx, int ny, float f);
void hcuda_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float f);
void gpu_2d_scale(float* out, const float* in, int nx, int ny, float f);
void gpu_2ds_scale(float* out, const float* in, int nx, int ny, int nz, float f);

// ---------------------------------------------------------------------------
// Copies and padding.
// small(x, y) to large(ox + x, oy + y), ox = (nxl - nxs)/2, oy = (nyl - nys)/2.
// Nothing else of large is written.
void hcuda_x2d_cp_small_to_large_center(float* large, const float* small, int nxl, int nyl, int nxs, int nys);
// small(x, y) to large(ox + x, oy + y); what falls outside large is skipped.
void hcuda_x2d_cp_small_to_large(float* large, const float* small, int nxl, int nyl, int nxs, int nys, int ox,
                                 int oy);
void cpu_x2d_cp_small_to_large(float* large, const float* small, int nxl, int nyl, int nxs, int nys, int ox, int oy);
// One copy of the n smalls of a stack for each origin.
void cpu_x2d_cp_smalls_to_large(float* large, const float* smalls, int nxl, int nyl, int nxs, int nys,
                                const int2* origins, int n);
// Pastes slice k of a stack of bx by by images over the micrograph with its
// corner at (boxes[k].x, boxes[k].y), clipped to the micrograph.
void cpu_x2d_cp_ptcls_to_micrograph(float* mic, int nx, int ny, const float* stack, int bx, int by,
                                    const PTCL_BOX* boxes, int n);
// The same, each slice first changed by the linear factors k, b that fit the
// reference slice k (ref*k + b) to the micrograph's patch under the box.
void cpu_x2d_norm_cp_ptcls_to_micrograph(float* mic, int nx, int ny, const float* stack, const float* ref, int bx,
                                         int by, const PTCL_BOX* boxes, int n);
// 2nx by 2ny: in(x, y) at (x, y), (2nx-1-x, y), (x, 2ny-1-y), (2nx-1-x, 2ny-1-y).
void hcuda_2d_mirror_pad(float* out, const float* in, int nx, int ny);
float* d_get_2d_mirror_pad(const float* in, int nx, int ny);
// Takes back the quadrant at the origin of a padded image; nx, ny of the result.
void hcuda_2d_mirror_pad_inv(float* out, const float* in, int nx, int ny);
float* d_get_2d_mirror_pad_inv(const float* in, int nx, int ny);
// out(x, y) = in(nx-1-x, y); in(x, ny-1-y); the transposition out(y, x) = in(x, y).
void hcuda_2d_flipx(float* out, const float* in, int nx, int ny);
void hcuda_2d_flipy(float* out, const float* in, int nx, int ny);
void hcuda_2d_flipxy(float* out, const float* in, int nx, int ny);
void hcuda_2d_memcpy(float* dst, const float* src, int nx, int ny);
void hcuda_2d_cx_empty(float2* a, int nx, int ny);
void hcuda_2d_empty(float* a, int nx, int ny);
void hcuda_2d_memset(float* a, float v, int nx, int ny);
void cpu_2d_memset(float* a, float v, int nx, int ny);
void cpu_2d_empty(float* a, int nx, int ny);

// ---------------------------------------------------------------------------
// Soft circular masks.  d2 = (x - cx)^2 + (y - cy)^2: 0 beyond (r + soft)^2,
// 1 up to r^2, the soft edge between.  The device form's edge is
// hd_guasf(d - r, soft/3) (0.39894229 at r), the host form's hd_guasf1 (1 at r).
void hcuda_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft);
void gpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft);
void cpu_2d_generate_rmask_soft(float* mask, int nx, int ny, float cx, float cy, float r, float soft);
void hcuda_2d_generate_central_rmask(float* mask, int nx, int ny, float r, float soft);
void cpu_2d_generate_central_rmask(float* mask, int nx, int ny, float r, float soft);
void hcuda_2d_generate_central_sharp_rmask(float* mask, int nx, int ny, float r);
// Host normalisations under the host mask: mean 0, deviation 1 under it.
void cpu_2d_normz_withRmask(float* out, const float* in, int nx, int ny, float cx, float cy, float r, float soft);
void cpu_2d_normz_withRmask_inplace(float* a, int nx, int ny, float cx, float cy, float r, float soft);
void cpu_2d_normz_withRmask_applymask(float* out, const float* in, int nx, int ny, float cx, float cy, float r,
                                      float soft);
void cpu_2d_normz_withRmask_applymask_inplace(float* a, int nx, int ny, float cx, float cy, float r, float soft);
// Both images normalised under ma*mb, then their correlation coefficient.
float cpu_x2d_ccc_with2maskfs(const float* a, const float* ma, const float* b, const float* mb, int nx, int ny);

// ---------------------------------------------------------------------------
// Per-pixel arithmetic on the device.  Scalar: out = in op s.
void hcuda_2d_add(float* out, const float* in, int nx, int ny, float s);
void hcuda_2d_sub(float* out, const float* in, int nx, int ny, float s);
void hcuda_2d_multi(float* out, const float* in, int nx, int ny, float s);
// A divisor of exactly 0 throws the fatal report.
void hcuda_2d_divide(float* out, const float* in, int nx, int ny, float s);
void hcuda_2d_sub_divide(float* out, const float* in, int nx, int ny, float s1, float s2);
void hcuda_2d_add_inplace(float* a, int nx, int ny, float s);
void hcuda_2d_sub_inplace(float* a, int nx, int ny, float s);
void hcuda_2d_multi_inplace(float* a, int nx, int ny, float s);
void hcuda_2d_divide_inplace(float* a, int nx, int ny, float s);
void hcuda_2d_sub_divide_inplace(float* a, int nx, int ny, float s1, float s2);
// Unary, single precision.
void hcuda_2d_sqr(float* out, const float* in, int nx, int ny);
void hcuda_2d_sqrt(float* out, const float* in, int nx, int ny);
void hcuda_2d_pow(float* out, const float* in, int nx, int ny, float p);
void hcuda_2d_exp(float* out, const float* in, int nx, int ny);
void hcuda_2d_log(float* out, const float* in, int nx, int ny);
void hcuda_2d_logf(float* out, const float* in, int nx, int ny);
void hcuda_2d_log2(float* out, const float* in, int nx, int ny);
void hcuda_2d_log10(float* out, const float* in, int nx, int ny);
void hcuda_2d_abs(float* out, const float* in, int nx, int ny);
void hcuda_2d_sqr_inplace(float* a, int nx, int ny);
void hcuda_2d_sqrt_inplace(float* a, int nx, int ny);
void hcuda_2d_pow_inplace(float* a, int nx, int ny, float p);
void hcuda_2d_exp_inplace(float* a, int nx, int ny);
void hcuda_2d_log_inplace(float* a, int nx, int ny);
void hcuda_2d_logf_inplace(float* a, int nx, int ny);
void hcuda_2d_log2_inplace(float* a, int nx, int ny);
void hcuda_2d_log10_inplace(float* a, int nx, int ny);
void hcuda_2d_abs_inplace(float* a, int nx, int ny);
// a = -a.
void hcuda_2d_invert_inplace(float* a, int nx, int ny);
void host_2d_invert_inplace(float* a, int nx, int ny);
// Two images, element by element.
void hcuda_x2d_add(const float* a, const float* b, float* out, int nx, int ny);
void hcuda_x2d_sub(const float* a, const float* b, float* out, int nx, int ny);
void hcuda_x2d_multi(const float* a, const float* b, float* out, int nx, int ny);
void hcuda_x2d_divide(const float* a, const float* b, float* out, int nx, int ny);
void hcuda_x2d_add_inplace(float* a, const float* b, int nx, int ny);
void hcuda_x2d_sub_inplace(float* a, const float* b, int nx, int ny);
void hcuda_x2d_multi_inplace(float* a, const float* b, int nx, int ny);
void hcuda_x2d_divide_inplace(float* a, const float* b, int nx, int ny);
// Each of the nz images of a by the one image b.
void hcuda_x2ds_multi_inplace(float* a, const float* b, int nx, int ny, int nz);
void gpu_x2d_sub_inplace(float* a, const float* b, int nx, int ny);
void cpu_x2d_add_inplace(float* a, const float* b, int nx, int ny);
void cpu_x2d_sub_inplace(float* a, const float* b, int nx, int ny);
void cpu_x2d_multi_inplace(float* a, const float* b, int nx, int ny);
void cpu_x2d_divide_inplace(float* a, const float* b, int nx, int ny);
// Complex by complex over nx by ny elements; divide is a*conj(b)/|b|^2 and
// multconj_divide a*conj(b)/f.
void hcuda_cxc_2d_add(const float2* a, const float2* b, float2* out, int nx, int ny);
void hcuda_cxc_2d_sub(const float2* a, const float2* b, float2* out, int nx, int ny);
void hcuda_cxc_2d_multi(const float2* a, const float2* b, float2* out, int nx, int ny);
void hcuda_cxc_2d_divide(const float2* a, const float2* b, float2* out, int nx, int ny);
void hcuda_cxc_2d_multconj(const float2* a, const float2* b, float2* out, int nx, int ny);
void hcuda_cxc_2d_multconj_divide(const float2* a, const float2* b, float2* out, int nx, int ny, float f);
void hcuda_cxc_2d_add_inplace(float2* a, const float2* b, int nx, int ny);
void hcuda_cxc_2d_sub_inplace(float2* a, const float2* b, int nx, int ny);
void hcuda_cxc_2d_multi_inplace(float2* a, const float2* b, int nx, int ny);
void hcuda_cxc_2d_divide_inplace(float2* a, const float2* b, int nx, int ny);
void hcuda_cxc_2d_multconj_inplace(float2* a, const float2* b, int nx, int ny);
void hcuda_cxc_2d_multconj_divide_inplace(float2* a, const float2* b, int nx, int ny, float f);
void cpu_cxc_2d_add_inplace(float2* a, const float2* b, int nx, int ny);
void cpu_cxc_2d_sub_inplace(float2* a, const float2* b, int nx, int ny);
void cpu_cxc_2d_multi_inplace(float2* a, const float2* b, int nx, int ny);
void cpu_cxc_2d_divide_inplace(float2* a, const float2* b, int nx, int ny);
// Complex by real: both parts by the real element.
void hcuda_cxr_2d_multi(const float2* a, const float* b, float2* out, int nx, int ny);
void hcuda_cxr_2d_divide(const float2* a, const float* b, float2* out, int nx, int ny);
void hcuda_cxr_2d_multi_inplace(float2* a, const float* b, int nx, int ny);
void hcuda_cxr_2d_divide_inplace(float2* a, const float* b, int nx, int ny);
void hcuda_cxr_2ds_multi_inplace(float2* a, const float* b, int nx, int ny, int nz);

// ---------------------------------------------------------------------------
// Local and stack statistics.
// Mean over the box x - bx/2 .. x + bx/2 - 1 (y likewise), cut at the edges.
void hcuda_2d_convolution_by_box(const float* in, float* out, int nx, int ny, int bx, int by);
// Deviation over the same box: sqrt(sum of squared deviations / count).
void hcuda_2d_std_by_box(const float* in, float* out, int nx, int ny, int bx, int by);
// a = log a, then a less its b by b box mean.
void hcuda_2d_log_subbg_boxconv_inplace(float* a, int nx, int ny, int b);
// Mean over a stack, summed in stack order in float.
void hcuda_2ds_average(float* out, const float* in, int nx, int ny, int nz);
void gpu_2ds_average(float* out, const float* in, int nx, int ny, int nz);
// Host stack, staged image by image: pixels further than k deviations from
// the image mean become the weighted mean of their 8 neighbours.
void hcuda_2ds_rm_hotpixels_inplace(float* a, int nx, int ny, int nz, float k);
// Half planes of nxh columns with the row origin at ny/2: below the radius
// R = 2*(nxh - 1)*p/q each value is multiplied by hd_guasf1(R - r, R/3), or cleared.
void hcuda_2dh_smooth_low_frequency_inplace(float* a, int nxh, int ny, float p, float q);
void cpu_2dh_smooth_low_frequency_inplace(float* a, int nxh, int ny, float p, float q);
void cpu_2dh_zero_low_frequency_inplace(float* a, int nxh, int ny, float p, float q);
// Radial profile of a half plane (row origin ny/2) into nxh bins.
void rotational_average_2d_half(const float* in, float* out, int nxh, int ny);
// The first greatest pixel; of each image of a stack; the middle one of all
// pixels equal to the maximum.
Pixel cpu_2d_get_unique_peak(const float* a, int nx, int ny);
void cpu_2ds_get_unique_peak(const float* a, int nx, int ny, int nz, Pixel* out);
Pixel cpu_2d_get_middle_peak_from_equals(const float* a, int nx, int ny);

// Boxes of side box on a grid of step pixels, the corners at (ix*step,
// iy*step), cut into a stack (row by row of the grid).  A box larger than the
// image becomes the smaller side, with a warning.  Returns the count of boxes;
// with a null out only counts.
int host_2d_read_ptcls_to_2ds_from_autogrids(float* out, const float* in, int nx, int ny, int& box, int step);
int hcuda_2d_read_ptcls_to_2ds_from_autogrids(float* out, const float* in, int nx, int ny, int& box, int step);

// ---------------------------------------------------------------------------
// Host linear changes and fits.
// out = in*k + b, one fused multiply-add.
void cpu_2d_multi_add(float* out, const float* in, int nx, int ny, float k, float b);
void cpu_2d_multi_add_inplace(float* a, int nx, int ny, float k, float b);
void cpu_2d_linear_norm_kb_inplace(float* a, int nx, int ny, float k, float b);
// Least-squares k, b with a*k + b closest to ref.
void cpu_x2d_get_linear_norm_factors(const float* a, const float* ref, int nx, int ny, float& k, float& b);
// a = a*k + b with the factors above.
void cpu_2d_norm_by_reference_inplace(float* a, const float* ref, int nx, int ny);

// ---------------------------------------------------------------------------
// Shrinking and squaring of micrographs (host unless named hcuda_).
// sq = max(nx, ny)/(2s)*2: the side of the even working square.
int get_max_extended_square_even_size(int nx, int ny, int s);
// The smaller side after each is rounded down to even.
int get_max_square_even_size(int nx, int ny);
// Corner that centres a square of side min(nx, ny).
int2 get_max_square_clip_origin(int nx, int ny);
// Block means of s by s over sx = nx/(2s)*2 by sy = ny/(2s)*2, at row stride
// sq, then the short side mirrored up to the square.
void cpu_2d_meanshrink_extended_even_square(float* out, const float* in, int nx, int ny, int s);
// Block means over sx by sy at row stride sx.
void cpu_2d_meanshrink_even(float* out, const float* in, int nx, int ny, int s);
// Block means over nx/s by ny/s.
void cpu_2d_meanshrink(float* out, const float* in, int nx, int ny, int s);
void cpu_2ds_meanshrink(float* out, const float* in, int nx, int ny, int nz, int s);
// Block sums divided by -(s*s).
void cpu_2d_meanshrink_invert(float* out, const float* in, int nx, int ny, int s);
void hcuda_2d_meanshrink(const float* in, float* out, int nx, int ny, int s);
// The image at row stride max(nx, ny); the short side filled by mirroring.
// Throws the fatal report unless ny/2 < nx < 2ny.
void cpu_2d_extend_to_square_mirror_inplace(float* a, int nx, int ny);
// From a separate input at row stride nx; outside the allowed sizes out stays unwritten.
void cpu_2d_extend_to_square_mirror(float* out, const float* in, int nx, int ny);
// Square of side max(nx, ny), the added area v.
void cpu_2d_extend_to_square(float* out, const float* in, int nx, int ny, float v);
void cpu_2d_extend_to_square_only_fill(float* a, int nx, int ny, float v);
