#include "picking/zavik56_ice.h"

#include <cstdio>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "core/str_utils.h"
#include "core/txt_file.h"
#include "device/cuda_general.h"
#include "device/launch.h"
#include "device/process2d_local.h"
#include "formats/boxfile.h"
#include "formats/safe_output.h"
#include "imagefile/mrc_device.h"

namespace {

int cells_along(int n, int g) { return (n + g - 1) / g; }

}  // namespace

void hcuda_find_sigma_grids(const float* ave, const float* sigma, unsigned int* d_ice, float* cell_ave,
                            float* cell_sigma, int nx, int ny, int g, float lave_min, float lave_max,
                            float lsigma_cutoff) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  // Each thread walks its cell serially: the result depends on the order.
  launch_2d_heavy(Gx, Gy, [=] HD(int cx, int cy) {
    cuda_find_sigma_grids(cx, cy, ave, sigma, d_ice, cell_ave, cell_sigma, nx, ny, g, Gx, lave_min, lave_max,
                          lsigma_cutoff);
  });
}

int output_ice_coord(const char* name, const unsigned int* ice, const float* ave, const float* sigma, int nx, int ny,
                     int2 origin, int g, int shrink, int mode) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  const int half = g / 2;
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  if (mode == 1) output_starbox_head_XYonly(fp);
  for (int c = 0; c < Gx * Gy; ++c) {
    const unsigned int v = ice[c];
    const int x = (int)(v % (unsigned int)nx), y = (int)(v / (unsigned int)nx);
    // A position within half a cell of the edge could not carry a box.
    if (v == 0 || !(half < x && x < nx - half && half < y && y < ny - half)) continue;
    if (mode == 1)
      write_rejected_star_line(fp, x * shrink + origin.x, y * shrink + origin.y);
    else
      write_rejected_box_line(fp, (x - half) * shrink + origin.x, (y - half) * shrink + origin.y, g * shrink,
                              g * shrink, ave[c], sigma[c]);
  }
  zk_out_commit(out);
  return 0;
}

int hcuda_2d_ice_detect(const float* d_mic, const float2* d_mic_mpad_f, int nx, int ny, int2 origin,
                        unsigned int* d_ice, const char* mic, const ZkIceParams& p) {
  const size_t npix = (size_t)nx * ny;
  float* d_sigma = d_alloc_float(npix);
  float* d_ave = d_alloc_float(npix);

  const int g = p.cell;
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  const size_t ncell = (size_t)Gx * Gy;
  float* d_cell_ave = d_alloc_float(ncell);
  float* d_cell_sigma = d_alloc_float(ncell);
  std::vector<unsigned int> h_ice(ncell);
  std::vector<float> h_ave(ncell), h_sigma(ncell);

  hcuda_2d_local_sigma_softR_mpad_f(d_sigma, d_mic, d_mic_mpad_f, nx, ny, p.lsigma_R, p.local_soft_edge);
  hcuda_2d_local_ave_softR_mpad_f(d_ave, d_mic_mpad_f, nx, ny, p.lave_R, p.local_soft_edge);
  hcuda_find_sigma_grids(d_ave, d_sigma, d_ice, d_cell_ave, d_cell_sigma, nx, ny, g, p.lave_min, p.lave_max,
                         p.lsigma_cutoff);
  ZK_CHECK(memcpy_D2H(h_ice.data(), d_ice, ncell * sizeof(unsigned int)));
  ZK_CHECK(memcpy_D2H(h_ave.data(), d_cell_ave, ncell * sizeof(float)));
  ZK_CHECK(memcpy_D2H(h_sigma.data(), d_cell_sigma, ncell * sizeof(float)));

  char name[ZK_TXT_LEN];
  if (p.write_rejected) {
    set_outname_by_suffix(name, mic, "_rejected.box");
    output_ice_coord(name, h_ice.data(), h_ave.data(), h_sigma.data(), nx, ny, origin, g, p.shrink, 2);
    set_outname_by_suffix(name, mic, "_rejected.star");
    output_ice_coord(name, h_ice.data(), h_ave.data(), h_sigma.data(), nx, ny, origin, g, p.shrink, 1);
  }
  if (p.write_bg) {
    set_outname_by_suffix(name, mic, "_bg.mrc");
    mrcf_write_xyz_ddata(name, d_ave, nx, ny, 1);
  }
  if (p.write_lsigma) {
    set_outname_by_suffix(name, mic, "_lsigma.mrc");
    mrcf_write_xyz_ddata(name, d_sigma, nx, ny, 1);
  }

  device_free(d_cell_sigma);
  device_free(d_cell_ave);
  device_free(d_ave);
  device_free(d_sigma);
  return 0;
}

int add_excluded_coords_to_ice(unsigned int* d_ice, int nx, int ny, int g, const PTCL_BOX* boxes, int n,
                               int shrink) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  for (int k = 0; k < n; ++k) {
    // The centre in raw pixels, then in pixels of the working image.  A
    // negative centre is tested before the division, which would round it
    // toward zero and into the image.
    const long long rx = (long long)boxes[k].x + boxes[k].w / 2;
    const long long ry = (long long)boxes[k].y + boxes[k].h / 2;
    if (rx < 0 || ry < 0) continue;
    const long long px = rx / shrink, py = ry / shrink;
    // A centre beyond the working square (the margin lost to shrinking, or a
    // file of another micrograph) has no cell.
    if (px >= nx || py >= ny) continue;
    const long long cell = (py / g) * Gx + px / g;
    if (cell >= (long long)Gx * Gy) continue;
    const unsigned int word = (unsigned int)(px + py * nx);
    // Pixel (0, 0) reads as "free": writing it would only undo a rejection.
    if (word == 0) continue;
    ZK_CHECK(memcpy_H2D(d_ice + cell, &word, sizeof word));
  }
  return 0;
}

int add_excluded_boxf_to_ice(unsigned int* d_ice, int nx, int ny, int g, const char* name, int shrink) {
  std::vector<PTCL_BOX> boxes;
  if (!is_str_null(name) && check_file_access(name, "FR") == 0) {
    // Every record counts, however long the list: a later box in a cell
    // replaces the word before it.
    boxes = read_ptcl_box_list(name);
    printf("%8d particles in file %s excluded from auto-picking \n", (int)boxes.size(), name);
  }
  add_excluded_coords_to_ice(d_ice, nx, ny, g, boxes.data(), (int)boxes.size(), shrink);
  return 0;
}

int hcuda_2d_generate_mask_by_coords(float* mask, const float* image, int nx, int ny, int g, const unsigned int* d_ice,
                                     float v) {
  (void)image;
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  launch_2d_heavy(Gx, Gy,
                  [=] HD(int cx, int cy) { cuda_2d_generate_mask_by_coords(cx, cy, mask, nx, ny, g, Gx, d_ice, v); });
  return 0;
}

namespace {

// Sum and count of the pixels of free cell (cx, cy), in row order; 0 and 0
// for a rejected cell.
HDI void cuda_free_cell_sum(int cx, int cy, const float* img, const unsigned int* ice, int nx, int ny, int g, int Gx,
                            float* sum, float* count) {
  const size_t c = (size_t)cy * Gx + cx;
  float s = 0.0f, n = 0.0f;
  if (ice[c] == 0) {
    const int x0 = cx * g, y0 = cy * g;
    const int x1 = x0 + g < nx ? x0 + g : nx, y1 = y0 + g < ny ? y0 + g : ny;
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) s += img[(size_t)y * nx + x];
    n = (float)((x1 - x0) * (y1 - y0));
  }
  sum[c] = s;
  count[c] = n;
}

// The background between cell centres at pixel (x, y) of a rejected cell.
HDI void cuda_fill_rejected_pixel(int x, int y, float* img, const unsigned int* ice, const float* bg, int nx, int g,
                                  int Gx, int Gy) {
  if (ice[(size_t)(y / g) * Gx + x / g] == 0) return;
  float u = ((float)x + 0.5f) / (float)g - 0.5f, v = ((float)y + 0.5f) / (float)g - 0.5f;
  u = u < 0.0f ? 0.0f : (u > (float)(Gx - 1) ? (float)(Gx - 1) : u);
  v = v < 0.0f ? 0.0f : (v > (float)(Gy - 1) ? (float)(Gy - 1) : v);
  const int i0 = (int)u, j0 = (int)v;
  const int i1 = i0 + 1 < Gx ? i0 + 1 : i0, j1 = j0 + 1 < Gy ? j0 + 1 : j0;
  const float fu = u - (float)i0, fv = v - (float)j0;
  const float top = bg[j0 * Gx + i0] + fu * (bg[j0 * Gx + i1] - bg[j0 * Gx + i0]);
  const float bottom = bg[j1 * Gx + i0] + fu * (bg[j1 * Gx + i1] - bg[j1 * Gx + i0]);
  img[(size_t)y * nx + x] = top + fv * (bottom - top);
}

}  // namespace

int hcuda_2d_fill_rejected_cells(float* d_img, int nx, int ny, int g, const unsigned int* d_ice, float sigma) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  const size_t ncell = (size_t)Gx * Gy;
  ZkDeviceArray<float> d_sum(ncell), d_count(ncell), d_bg(ncell);
  float* sum = d_sum.get();
  float* count = d_count.get();
  launch_2d_heavy(Gx, Gy, [=] HD(int cx, int cy) { cuda_free_cell_sum(cx, cy, d_img, d_ice, nx, ny, g, Gx, sum, count); });
  std::vector<float> h_sum(ncell), h_count(ncell), bg(ncell);
  std::vector<unsigned int> h_ice(ncell);
  ZK_CHECK(memcpy_D2H(h_sum.data(), sum, ncell * sizeof(float)));
  ZK_CHECK(memcpy_D2H(h_count.data(), count, ncell * sizeof(float)));
  ZK_CHECK(memcpy_D2H(h_ice.data(), d_ice, ncell * sizeof(unsigned int)));
  int filled = 0;
  for (unsigned int w : h_ice) filled += w != 0;
  if (filled == 0 || filled == (int)ncell) return 0;

  // The normalised convolution over the whole grid, in double: each cell's
  // background is the Gaussian-weighted mean of the free pixels around it.
  const double k = 1.0 / (2.0 * (double)sigma * sigma);
  for (int cy = 0; cy < Gy; ++cy)
    for (int cx = 0; cx < Gx; ++cx) {
      double s = 0.0, n = 0.0;
      for (int qy = 0; qy < Gy; ++qy)
        for (int qx = 0; qx < Gx; ++qx) {
          const size_t q = (size_t)qy * Gx + qx;
          if (h_count[q] == 0.0f) continue;
          const double w = std::exp(-k * ((double)(qx - cx) * (qx - cx) + (double)(qy - cy) * (qy - cy)));
          s += w * h_sum[q];
          n += w * h_count[q];
        }
      bg[(size_t)cy * Gx + cx] = n > 0.0 ? (float)(s / n) : 0.0f;
    }
  ZK_CHECK(memcpy_H2D(d_bg.get(), bg.data(), ncell * sizeof(float)));
  const float* b = d_bg.get();
  launch_2d(nx, ny, [=] HD(int x, int y) { cuda_fill_rejected_pixel(x, y, d_img, d_ice, b, nx, g, Gx, Gy); });
  return filled;
}

int close_rejected_pockets(unsigned int* d_ice, int nx, int ny, int g, int max_cells) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  const size_t ncell = (size_t)Gx * Gy;
  std::vector<unsigned int> ice(ncell);
  ZK_CHECK(memcpy_D2H(ice.data(), d_ice, ncell * sizeof(unsigned int)));
  std::vector<char> seen(ncell, 0);
  std::vector<int> group, stack;
  // With no cell rejected there is nothing to enclose a pocket.
  if (std::all_of(ice.begin(), ice.end(), [](unsigned int w) { return w == 0; })) return 0;
  int closed = 0;
  for (size_t start = 0; start < ncell; ++start) {
    if (ice[start] != 0 || seen[start]) continue;
    // One group of free cells, and whether it reaches the edge of the grid.
    group.clear();
    stack.assign(1, (int)start);
    seen[start] = 1;
    while (!stack.empty()) {
      const int c = stack.back();
      stack.pop_back();
      group.push_back(c);
      const int cx = c % Gx, cy = c / Gx;
      const int next[4][2] = {{cx - 1, cy}, {cx + 1, cy}, {cx, cy - 1}, {cx, cy + 1}};
      for (const auto& q : next) {
        if (q[0] < 0 || q[1] < 0 || q[0] >= Gx || q[1] >= Gy) continue;
        const size_t k = (size_t)q[1] * Gx + q[0];
        if (ice[k] == 0 && !seen[k]) {
          seen[k] = 1;
          stack.push_back((int)k);
        }
      }
    }
    if ((int)group.size() > max_cells) continue;
    for (int c : group) {
      const int cx = c % Gx, cy = c / Gx;
      const int x = std::min(cx * g + g / 2, nx - 1), y = std::min(cy * g + g / 2, ny - 1);
      ice[c] = (unsigned int)((size_t)y * nx + x);
      ++closed;
    }
  }
  if (closed) ZK_CHECK(memcpy_H2D(d_ice, ice.data(), ncell * sizeof(unsigned int)));
  return closed;
}

int grow_rejected_cells(const float* d_img, unsigned int* d_ice, int nx, int ny, int g, float k) {
  const int Gx = cells_along(nx, g), Gy = cells_along(ny, g);
  const size_t ncell = (size_t)Gx * Gy, npix = (size_t)nx * ny;
  std::vector<unsigned int> ice(ncell);
  std::vector<float> img(npix);
  ZK_CHECK(memcpy_D2H(ice.data(), d_ice, ncell * sizeof(unsigned int)));
  ZK_CHECK(memcpy_D2H(img.data(), d_img, npix * sizeof(float)));
  auto cell_of = [&](size_t y, size_t x) { return (y / g) * Gx + x / g; };
  // The median and robust deviation of the free pixels, from every third one.
  std::vector<float> v;
  for (size_t i = 0; i < npix; i += 3)
    if (ice[cell_of(i / nx, i % nx)] == 0) v.push_back(img[i]);
  if (v.size() < 16 || std::all_of(ice.begin(), ice.end(), [](unsigned int w) { return w == 0; })) return 0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  const float median = v[v.size() / 2];
  for (float& x : v) x = std::fabs(x - median);
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  const float limit = k * 1.4826f * v[v.size() / 2];
  // Pixels that far from the median are contamination or film, not ice or particles.
  std::vector<int> outliers(ncell, 0);
  for (size_t y = 0; y < (size_t)ny; ++y)
    for (size_t x = 0; x < (size_t)nx; ++x)
      if (std::fabs(img[y * nx + x] - median) > limit) ++outliers[cell_of(y, x)];
  auto stands_out = [&](size_t c) { return outliers[c] > 0; };

  std::vector<unsigned int> grown = ice;
  int added = 0;
  for (int cy = 0; cy < Gy; ++cy)
    for (int cx = 0; cx < Gx; ++cx) {
      const size_t c = (size_t)cy * Gx + cx;
      if (ice[c] != 0 || !stands_out(c)) continue;
      bool next_to = false;
      for (int dy = -1; dy <= 1 && !next_to; ++dy)
        for (int dx = -1; dx <= 1 && !next_to; ++dx) {
          const int qx = cx + dx, qy = cy + dy;
          if (qx >= 0 && qy >= 0 && qx < Gx && qy < Gy && ice[(size_t)qy * Gx + qx] != 0) next_to = true;
        }
      if (!next_to) continue;
      const int x = std::min(cx * g + g / 2, nx - 1), y = std::min(cy * g + g / 2, ny - 1);
      grown[c] = (unsigned int)((size_t)y * nx + x);
      ++added;
    }
  if (added) ZK_CHECK(memcpy_H2D(d_ice, grown.data(), ncell * sizeof(unsigned int)));
  return added;
}
