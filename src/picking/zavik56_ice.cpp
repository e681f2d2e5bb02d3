#include "picking/zavik56_ice.h"

#include <cstdio>
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
