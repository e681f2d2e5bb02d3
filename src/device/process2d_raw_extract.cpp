#include "device/process2d_raw_extract.h"

#include <cstdio>

#include "device/launch.h"

// Pixel (i, j) of the cut-out.  The source position is formed in 64 bits, so
// a corner far outside the image cannot wrap into it.
HDI void cuda_2d_extract_small_from_large(int i, int j, float* dst, int w, const float* src, int nx, int ny, int x0,
                                          int y0) {
  const long long sx = (long long)x0 + i;
  const long long sy = (long long)y0 + j;
  dst[(size_t)j * w + i] = (sx >= 0 && sx < nx && sy >= 0 && sy < ny) ? src[sy * nx + sx] : 0.0f;
}

int cpu_x2d_extract_small_from_large(float* dst, int w, int h, const float* src, int nx, int ny, int x0, int y0) {
  for (int j = 0; j < h; ++j)
    for (int i = 0; i < w; ++i) cuda_2d_extract_small_from_large(i, j, dst, w, src, nx, ny, x0, y0);
  return 0;
}

int cpu_x2d_movie_extract_small_from_large(float* dst, int w, int h, int nz, const float* src, int nx, int ny, int x0,
                                           int y0) {
  const size_t small = (size_t)w * h, large = (size_t)nx * ny;
  for (int f = 0; f < nz; ++f) cpu_x2d_extract_small_from_large(dst + f * small, w, h, src + f * large, nx, ny, x0, y0);
  return 0;
}

int cpu_x2d_extract_ptcls_from_micrograph(float* dst, int w, int h, int n, const float* image, int nx, int ny,
                                          const PTCL_BOX* boxes) {
  return cpu_x2d_extract_ptcls_from_movie(dst, w, h, 1, n, image, nx, ny, boxes);
}

int cpu_x2d_extract_ptcls_from_movie(float* dst, int w, int h, int nz, int n, const float* movie, int nx, int ny,
                                     const PTCL_BOX* boxes) {
  if (w <= 0 || h <= 0 || nz <= 0) return 0;
  const size_t per = (size_t)nz * w * h;
  for (int p = 0; p < n; ++p)
    cpu_x2d_movie_extract_small_from_large(dst + p * per, w, h, nz, movie, nx, ny, boxes[p].x, boxes[p].y);
  return 0;
}

int cpu_x2d_extract_smalls_from_large(float* dst, int w, int h, int n, const float* src, int nx, int ny,
                                      const int2* corners) {
  if (w <= 0 || h <= 0) return 0;
  const size_t small = (size_t)w * h;
  for (int p = 0; p < n; ++p)
    cpu_x2d_extract_small_from_large(dst + p * small, w, h, src, nx, ny, corners[p].x, corners[p].y);
  return 0;
}

bool ptcl_box_inside_image(const PTCL_BOX& box, int w, int h, int nx, int ny) {
  return box.x >= 0 && box.y >= 0 && (long long)box.x + w < nx && (long long)box.y + h < ny;
}

int host_2d_read_ptcls_to_2ds_from_boxes(float* dst, const PTCL_BOX* boxes, int n, const float* image, int nx, int ny) {
  if (n <= 0) return 0;
  const int w = boxes[0].w, h = boxes[0].h;
  if (w <= 0 || h <= 0) return 0;
  const size_t small = (size_t)w * h;
  int copied = 0;
  for (int p = 0; p < n; ++p) {
    const PTCL_BOX& b = boxes[p];
    if (!ptcl_box_inside_image(b, w, h, nx, ny)) {
      printf("Warning: box (%d %d %d %d)out of range, skip extracting this particle!\n", b.x, b.y, b.w, b.h);
      continue;
    }
    cpu_x2d_extract_small_from_large(dst + p * small, w, h, image, nx, ny, b.x, b.y);
    ++copied;
  }
  return copied;
}

void hcuda_2d_extract_small_from_large(float* d_dst, int w, int h, const float* d_src, int nx, int ny, int x0, int y0) {
  launch_2d(w, h, [=] HD(int x, int y) { cuda_2d_extract_small_from_large(x, y, d_dst, w, d_src, nx, ny, x0, y0); });
}
