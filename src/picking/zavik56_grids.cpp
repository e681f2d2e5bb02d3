#include "picking/zavik56_grids.h"

#include <vector>

#include "device/cuda_general.h"
#include "device/launch.h"
#include "formats/boxfile.h"

namespace {

// Scans cell (gx, gy) row by row from its first pixel; strictly greater scores
// win, so among equals the first stays, and a cell whose maximum is its first
// pixel keeps index 0: no candidate.
HDI void cuda_find_ccmax_psi_grids(int gx, int gy, const float* ccmax, const float* psi, unsigned int* grid_index,
                                   float* grid_cc, float* grid_psi, int nx, int ny, int Gx, int G) {
  const int k = gy * Gx + gx;
  const int x0 = gx * G, y0 = gy * G;
  const int x1 = x0 + G < nx ? x0 + G : nx, y1 = y0 + G < ny ? y0 + G : ny;
  float best = ccmax[y0 * nx + x0];
  unsigned int index = 0;
  float angle = psi ? psi[y0 * nx + x0] : 0.0f;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) {
      const int p = y * nx + x;
      if (best < ccmax[p]) {
        best = ccmax[p];
        index = (unsigned int)p;
        if (psi) angle = psi[p];
      }
    }
  grid_cc[k] = best;
  grid_index[k] = index;
  if (grid_psi) grid_psi[k] = angle;
}

HDI void cuda_find_update_ccmax_grids(int gx, int gy, const float* ccmax, unsigned int* grid_index, float* grid_cc,
                                      int nx, int ny, int Gx, int G) {
  const int k = gy * Gx + gx;
  const int x0 = gx * G, y0 = gy * G;
  const int x1 = x0 + G < nx ? x0 + G : nx, y1 = y0 + G < ny ? y0 + G : ny;
  float best = ccmax[y0 * nx + x0];
  unsigned int index = 0;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) {
      const int p = y * nx + x;
      if (best < ccmax[p]) {
        best = ccmax[p];
        index = (unsigned int)p;
      }
    }
  if (best > grid_cc[k]) {
    grid_cc[k] = best;
    grid_index[k] = index;
  }
}

HDI int sqr_dist(unsigned int a, unsigned int b, int nx) {
  const int dx = (int)(a % (unsigned int)nx) - (int)(b % (unsigned int)nx);
  const int dy = (int)(a / (unsigned int)nx) - (int)(b / (unsigned int)nx);
  return dx * dx + dy * dy;
}

// The filter of one cell.  index_in is the copy of the candidates made before
// the pass; the verdict goes to index_out.  Rejected: a score below the
// cutoff, an excluded position nearer than the diagonal, or an adjacent
// candidate nearer than the diagonal with a strictly higher score.  At the
// grid's edge a missing neighbour falls back to the cell itself.
HDI void cuda_filter_ccmax_psi_grids_exclusive(int gx, int gy, const unsigned int* index_in, unsigned int* index_out,
                                               const float* grid_cc, float cc_cutoff, int nx, int Gx, int Gy, int G,
                                               const unsigned int* excluded, unsigned int n_excluded) {
  const int k = gy * Gx + gx;
  const unsigned int me = index_in[k];
  const float cc = grid_cc[k];
  if (cc < cc_cutoff) {
    index_out[k] = 0;
    return;
  }
  const int limit = 2 * G * G;
  bool reject = false;
  for (unsigned int i = 0; i < n_excluded; ++i)
    if (sqr_dist(me, excluded[i], nx) < limit) reject = true;
  // Below, above, left, right, below left, below right, above left, above right.
  const int dxs[8] = {0, 0, -1, 1, -1, 1, -1, 1};
  const int dys[8] = {1, -1, 0, 0, 1, 1, -1, -1};
  for (int j = 0; j < 8 && !reject; ++j) {
    int cx = gx + dxs[j], cy = gy + dys[j];
    if (cx < 0 || cx >= Gx) cx = gx;
    if (cy < 0 || cy >= Gy) cy = gy;
    const int n = cy * Gx + cx;
    if (sqr_dist(me, index_in[n], nx) < limit && cc < grid_cc[n]) reject = true;
  }
  index_out[k] = reject ? 0u : me;
}

int cells_of(int n, int G) { return (n + G - 1) / G; }

// Only the distinct positions of the list matter to the filter: the nonzero
// entries, and position (0, 0) once if any entry is empty.  The filter's
// verdicts are the same as with the whole list, at a fraction of the work.
std::vector<unsigned int> compact_excluded(const unsigned int* d_excluded, unsigned int n) {
  std::vector<unsigned int> all(n), out;
  if (n) ZK_CHECK(memcpy_D2H(all.data(), d_excluded, n * sizeof(unsigned int)));
  bool empty_seen = false;
  for (unsigned int v : all) {
    if (v) out.push_back(v);
    else empty_seen = true;
  }
  if (empty_seen) out.push_back(0u);
  return out;
}

void filter_with_list(unsigned int* grid_index, const float* grid_cc, float cc_cutoff, int nx, int ny, int G,
                      const unsigned int* d_list, unsigned int n_list) {
  const int Gx = cells_of(nx, G), Gy = cells_of(ny, G);
  const size_t cells = (size_t)Gx * Gy;
  unsigned int* copy = d_alloc_uint(cells);
  ZK_CHECK(memcpy_D2D(copy, grid_index, cells * sizeof(unsigned int)));
  launch_2d(Gx, Gy, [=] HD(int gx, int gy) {
    cuda_filter_ccmax_psi_grids_exclusive(gx, gy, copy, grid_index, grid_cc, cc_cutoff, nx, Gx, Gy, G, d_list,
                                          n_list);
  });
  device_free(copy);
}

}  // namespace

void hcuda_find_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index, float* grid_cc,
                                float* grid_psi, int nx, int ny, int G) {
  const int Gx = cells_of(nx, G), Gy = cells_of(ny, G);
  launch_2d_heavy(Gx, Gy, [=] HD(int gx, int gy) {
    cuda_find_ccmax_psi_grids(gx, gy, ccmax, psi, grid_index, grid_cc, grid_psi, nx, ny, Gx, G);
  });
}

void hcuda_find_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, int nx, int ny, int G) {
  hcuda_find_ccmax_psi_grids(ccmax, nullptr, grid_index, grid_cc, nullptr, nx, ny, G);
}

void hcuda_find_update_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, int nx, int ny,
                                   int G) {
  const int Gx = cells_of(nx, G), Gy = cells_of(ny, G);
  launch_2d_heavy(Gx, Gy, [=] HD(int gx, int gy) {
    cuda_find_update_ccmax_grids(gx, gy, ccmax, grid_index, grid_cc, nx, ny, Gx, G);
  });
}

void hcuda_filter_ccmax_psi_grids_exclusive(unsigned int* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                                            int ny, int G, const unsigned int* excluded,
                                            unsigned int n_excluded_cells) {
  std::vector<unsigned int> list = compact_excluded(excluded, n_excluded_cells);
  unsigned int* d_list = d_alloc_uint(list.size() + 1);
  if (!list.empty()) ZK_CHECK(memcpy_H2D(d_list, list.data(), list.size() * sizeof(unsigned int)));
  filter_with_list(grid_index, grid_cc, cc_cutoff, nx, ny, G, d_list, (unsigned int)list.size());
  device_free(d_list);
}

void hcuda_filter_ccmax_grids(unsigned int* grid_index, const float* grid_cc, float cc_cutoff, int nx, int ny,
                              int G) {
  filter_with_list(grid_index, grid_cc, cc_cutoff, nx, ny, G, nullptr, 0);
}

void hcuda_find_filter_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, float cc_cutoff,
                                   int nx, int ny, int G) {
  hcuda_find_ccmax_grids(ccmax, grid_index, grid_cc, nx, ny, G);
  hcuda_filter_ccmax_grids(grid_index, grid_cc, cc_cutoff, nx, ny, G);
}

void hcuda_find_update_filter_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc,
                                          float cc_cutoff, int nx, int ny, int G) {
  hcuda_find_update_ccmax_grids(ccmax, grid_index, grid_cc, nx, ny, G);
  hcuda_filter_ccmax_grids(grid_index, grid_cc, cc_cutoff, nx, ny, G);
}

void hcuda_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index,
                                       float* grid_cc, float* grid_psi, float cc_cutoff, int nx, int ny, int G) {
  hcuda_find_ccmax_psi_grids(ccmax, psi, grid_index, grid_cc, grid_psi, nx, ny, G);
  hcuda_filter_ccmax_grids(grid_index, grid_cc, cc_cutoff, nx, ny, G);
}

namespace {
void staged_find_filter(const float* ccmax, const float* psi, unsigned int* grid_index, float* grid_cc,
                        float* grid_psi, float cc_cutoff, int nx, int ny, int G, const unsigned int* excluded,
                        unsigned int n_excluded, bool with_list) {
  const size_t cells = (size_t)cells_of(nx, G) * cells_of(ny, G);
  unsigned int* d_index = d_alloc_uint(cells);
  float* d_cc = d_alloc_float(cells);
  float* d_psi = d_alloc_float(cells);
  hcuda_find_ccmax_psi_grids(ccmax, psi, d_index, d_cc, d_psi, nx, ny, G);
  if (with_list)
    hcuda_filter_ccmax_psi_grids_exclusive(d_index, d_cc, cc_cutoff, nx, ny, G, excluded, n_excluded);
  else
    hcuda_filter_ccmax_grids(d_index, d_cc, cc_cutoff, nx, ny, G);
  ZK_CHECK(memcpy_D2H(grid_index, d_index, cells * sizeof(unsigned int)));
  ZK_CHECK(memcpy_D2H(grid_cc, d_cc, cells * sizeof(float)));
  ZK_CHECK(memcpy_D2H(grid_psi, d_psi, cells * sizeof(float)));
  device_free(d_index);
  device_free(d_cc);
  device_free(d_psi);
}
}  // namespace

void gpu_find_filter_ccmax_psi_grids_exclusive(const float* ccmax, const float* psi, unsigned int* grid_index,
                                               float* grid_cc, float* grid_psi, float cc_cutoff, int nx, int ny,
                                               int G, const unsigned int* excluded, unsigned int n_excluded_cells) {
  staged_find_filter(ccmax, psi, grid_index, grid_cc, grid_psi, cc_cutoff, nx, ny, G, excluded, n_excluded_cells,
                     true);
}

void gpu_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index, float* grid_cc,
                                     float* grid_psi, float cc_cutoff, int nx, int ny, int G) {
  staged_find_filter(ccmax, psi, grid_index, grid_cc, grid_psi, cc_cutoff, nx, ny, G, nullptr, 0, false);
}

void output_zavik_coord_one_temp(FILE* fp, const unsigned int* grid_index, const float* grid_cc,
                                 const float* grid_psi, int t, int n, int nx, int ny, int b) {
  const int half = b / 2;
  for (int k = 0; k < n; ++k) {
    if (grid_index[k] == 0) continue;
    const int x = (int)(grid_index[k] % (unsigned int)nx), y = (int)(grid_index[k] / (unsigned int)nx);
    if (half < x && x < nx - half && half < y && y < ny - half)
      write_nonunique_line(fp, x - half, y - half, b, b, grid_cc[k], t, grid_psi[k]);
  }
}
