#include "picking/extract.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "device/launch.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"

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

// ---------------------------------------------------------------- files

namespace {

// Slice 0 of a vetted micrograph and its box list.  -1 when the micrograph
// cannot be read (the vetting says why), else the number of boxes.
int read_image_and_boxes(const char* name, const char* boxf, MRC_HEAD* head, std::vector<float>& image,
                         std::vector<PTCL_BOX>& boxes) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "rb"));
  mrc_read_head(fp.get(), head);
  if (mrc_vet_micrograph(name, fp.get(), head) != 0) return -1;
  image.resize((size_t)head->nx * (size_t)head->ny);
  mrc_read_slice(fp.get(), head, 0, 'z', image.data());
  boxes.resize(ZK_EXTRACT_MAX_BOXES);
  return read_all_ptcl_boxes(boxes.data(), ZK_EXTRACT_MAX_BOXES, boxf);
}

// The list of a coordinate file at the capacity of extraction, resized to
// square boxes when asked.
std::vector<PTCL_BOX> read_extraction_boxes(const char* boxf, int box, int& n) {
  std::vector<PTCL_BOX> boxes(ZK_EXTRACT_MAX_BOXES);
  n = read_all_ptcl_boxes(boxes.data(), ZK_EXTRACT_MAX_BOXES, boxf);
  if (box != 0) resize_ptcl_boxes(boxes.data(), n, box);
  return boxes;
}

}  // namespace

int mrcf_2d_read_ptcls_to_data_from_boxf(float* dst, const char* name, const char* boxf) {
  MRC_HEAD head;
  std::vector<float> image;
  std::vector<PTCL_BOX> boxes;
  const int n = read_image_and_boxes(name, boxf, &head, image, boxes);
  if (n < 0) return -1;
  return host_2d_read_ptcls_to_2ds_from_boxes(dst, boxes.data(), n, image.data(), head.nx, head.ny);
}

int mrcf_2d_read_ptcls_to_mrcf_from_boxf(const char* out, const char* name, const char* boxf) {
  MRC_HEAD head;
  std::vector<float> image;
  std::vector<PTCL_BOX> boxes;
  const int n = read_image_and_boxes(name, boxf, &head, image, boxes);
  if (n < 0) return -1;
  const int w = n > 0 && boxes[0].w > 0 ? boxes[0].w : 0;
  const int h = n > 0 && boxes[0].h > 0 ? boxes[0].h : 0;
  const size_t small = (size_t)w * h;
  std::vector<float> stack((size_t)n * small + 1);
  const int copied = host_2d_read_ptcls_to_2ds_from_boxes(stack.data(), boxes.data(), n, image.data(), head.nx,
                                                          head.ny);
  // Only the copied images go out, closed up in the list's order.
  int k = 0;
  for (int p = 0; p < n && small > 0; ++p)
    if (ptcl_box_inside_image(boxes[p], w, h, head.nx, head.ny)) {
      if (k != p) memmove(stack.data() + k * small, stack.data() + p * small, small * sizeof(float));
      ++k;
    }
  mrcf_write_xyz_data(out, stack.data(), w, h, copied);
  return copied;
}

float* get_mrcf_data_ptcls(const char* mic, const char* boxf, int box, int invert) {
  // The whole file, all frames; this read also tests the file's size.
  std::unique_ptr<float, decltype(&free)> image(get_mrcf_data_all(mic), &free);
  MRC_HEAD head;
  mrcf_read_head(mic, &head);
  int n = 0;
  const std::vector<PTCL_BOX> boxes = read_extraction_boxes(boxf, box, n);
  const int w = boxes[0].w, h = boxes[0].h, nz = head.nz;
  if (nz < 1) ZK_FATAL("Micrograph or movie size error!");
  if (w < 0 || h < 0) ZK_FATAL("Particle box size error!");
  const size_t count = (size_t)n * (size_t)w * (size_t)h * (size_t)nz;
  float* stack = (float*)malloc(count ? count * sizeof(float) : 1);
  if (!stack) ZK_FATAL("Host memory allocation failed");
  if (nz == 1)
    cpu_x2d_extract_ptcls_from_micrograph(stack, w, h, n, image.get(), head.nx, head.ny, boxes.data());
  else
    cpu_x2d_extract_ptcls_from_movie(stack, w, h, nz, n, image.get(), head.nx, head.ny, boxes.data());
  if (invert)
    for (size_t i = 0; i < count; ++i) stack[i] *= -1.0f;
  return stack;
}

int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic, const char* boxf, int box, int invert) {
  int n = 0;
  const std::vector<PTCL_BOX> boxes = read_extraction_boxes(boxf, box, n);
  const long nz = get_mrcf_dim_size(mic, "z");
  std::unique_ptr<float, decltype(&free)> stack(get_mrcf_data_ptcls(mic, boxf, box, invert), &free);
  char name[ZK_TXT_LEN];
  set_outname_by_suffix(name, mic, "_particles.mrcs");
  mrcf_write_xyz_data(name, stack.get(), boxes[0].w, boxes[0].h, (int)(nz * n));
  return 0;
}
