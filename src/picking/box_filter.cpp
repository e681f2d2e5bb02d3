#include "picking/box_filter.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "formats/boxfile.h"
#include "formats/safe_output.h"

namespace {

// Cells larger than this are larger than any micrograph: the grid is then a
// single ring of border cells whatever the exact size, and 2·cell² stays far
// from the limits of the arithmetic.
constexpr int kMaxCell = 1 << 20;

// Squared distance of two positions, or -1 when it is beyond any grid.
long long squared_distance(long long dx, long long dy) {
  const long long big = 1LL << 31;
  if (dx >= big || dx <= -big || dy >= big || dy <= -big) return -1;
  return dx * dx + dy * dy;
}

}  // namespace

namespace {

// The cell side, so that a cell's diagonal is at most min_dist; a failure is
// reported in the name of the caller.
int filter_cell(float min_dist, const char* func, int line) {
  float cell_f = 1.41421354f * min_dist / 2.0f;
  if (!(cell_f >= 1.0f))
    zk_fatal_after(zk_format("The minimum distance of %f shrunk pixels gives a grid cell of less than 1 pixel. "
                             "Use a larger --min_dist.\n",
                             min_dist),
                   func, zk_basename(__FILE__), line, "grid cell below 1 pixel");
  return cell_f > (float)kMaxCell ? kMaxCell : (int)cell_f;
}

}  // namespace

std::vector<ZkPick> box_filter_picks(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int box_x,
                                     int box_y, int2 origin, const char* raw, size_t raw_len, const PTCL_BOX* excluded,
                                     int n_excluded) {
  const int cell = filter_cell(min_dist, __func__, __LINE__);
  const long long limit2 = 2LL * cell * cell;
  const long long ncx = nx > 0 ? ((long long)nx + cell - 1) / cell : 0;
  const long long ncy = ny > 0 ? ((long long)ny + cell - 1) / cell : 0;
  const long long n_cells = ncx * ncy;
  if (n_cells > INT_MAX) ZK_FATAL("too many grid cells for the box filter");
  const size_t alloc_cells = n_cells > 0 ? (size_t)n_cells : 1;
  std::vector<uint32_t> cell_pos(alloc_cells, 0);
  std::vector<int32_t> cell_class(alloc_cells, -1);
  std::vector<float> cell_cc(alloc_cells, 0.0f), cell_psi(alloc_cells, 0.0f);

  // Each cell keeps its best candidate, the first of equal scores.
  ZkFilePtr fp_raw(raw_len > 0 ? fmemopen((void*)raw, raw_len, "r") : nullptr);
  if (raw_len > 0 && !fp_raw) ZK_FATAL("memory allocation failed");
  char line[ZK_TXT_LEN];
  char* words[7];
  while (fp_raw && zk_read_text_line(line, fp_raw.get()) > 0) {
    // The raw candidates come from the search, seven words a line; anything
    // shorter is no candidate and is passed over.
    if (strnsplit_inplace_byspace(line, words, 7) < 7) continue;
    PTCL_BOX b = one_new_ptcl_box();
    b.x = zk_atoi(words[0]);
    b.y = zk_atoi(words[1]);
    b.w = zk_atoi(words[2]);
    b.h = zk_atoi(words[3]);
    float cc = zk_atof(words[4]);
    int t = zk_atoi(words[5]);
    float psi = zk_atof(words[6]);
    long long px = ptcl_centre_x(b), py = ptcl_centre_y(b);
    // A centre outside the grid (mirrored part of the search square, or a
    // negative position) takes no cell.
    if (px < 0 || py < 0) continue;
    long long gx = px / cell, gy = py / cell;
    if (gx >= ncx || gy >= ncy) continue;
    long long c = gy * ncx + gx;
    if (cc > cell_cc[c]) {
      cell_pos[c] = (uint32_t)(py * nx + px);
      cell_class[c] = t;
      cell_cc[c] = cc;
      cell_psi[c] = psi;
    }
  }
  fp_raw.reset();

  // Each candidate competes with its eight neighbours in raster order, seeing
  // the removals already made, then meets the score cutoff.  On the outer ring
  // a missing neighbour falls back to the cell itself, which defeats it.
  const uint32_t unx = (uint32_t)(nx > 0 ? nx : 1);
  for (long long cy = 0; cy < ncy; ++cy) {
    const long long ym = cy > 0 ? cy - 1 : cy, yp = cy < ncy - 1 ? cy + 1 : cy;
    for (long long cx = 0; cx < ncx; ++cx) {
      const long long c = cy * ncx + cx;
      if (cell_pos[c] == 0) continue;  // empty or removed: nothing to decide
      const long long xm = cx > 0 ? cx - 1 : cx, xp = cx < ncx - 1 ? cx + 1 : cx;
      const long long nb[8][2] = {{cx, ym}, {cx, yp}, {xm, cy}, {xp, cy}, {xm, ym}, {xp, ym}, {xm, yp}, {xp, yp}};
      const long long ppx = cell_pos[c] % unx, ppy = cell_pos[c] / unx;
      bool lost = false;
      for (int k = 0; k < 8 && !lost; ++k) {
        const long long o = nb[k][1] * ncx + nb[k][0];
        const long long qx = cell_pos[o] % unx, qy = cell_pos[o] / unx;
        const long long d2 = squared_distance(ppx - qx, ppy - qy);
        if (d2 >= 0 && d2 < limit2 && !(cell_cc[c] > cell_cc[o])) lost = true;
      }
      if (lost || cell_cc[c] < cc_cutoff) cell_pos[c] = 0;
    }
  }

  // The exclusion list, then only boxes wholly and strictly inside the true
  // micrograph; the picks in cell order.
  std::vector<ZkPick> picks;
  const float ex_limit = (float)limit2 * shrink * shrink;
  const int hx = box_x / 2, hy = box_y / 2;
  const float x_end = (float)nx * shrink - (float)hx, y_end = (float)ny * shrink - (float)hy;
  for (long long c = 0; c < n_cells; ++c) {
    if (cell_pos[c] == 0) continue;
    const float fx = (float)(cell_pos[c] % unx) * shrink, fy = (float)(cell_pos[c] / unx) * shrink;
    const long long X = ptcl_trunc_to_int(fx), Y = ptcl_trunc_to_int(fy);
    for (int k = 0; k < n_excluded; ++k) {
      const long long d2 =
          squared_distance(origin.x + X - ptcl_centre_x(excluded[k]), origin.y + Y - ptcl_centre_y(excluded[k]));
      if (d2 >= 0 && (float)d2 < ex_limit) {
        cell_pos[c] = 0;
        break;
      }
    }
    if (cell_class[c] == -1 || cell_pos[c] == 0) continue;
    if (!(fx < x_end && fy < y_end && fx > (float)hx && fy > (float)hy)) continue;
    picks.push_back({fx, fy, cell_cc[c], cell_class[c], cell_psi[c]});
  }
  return picks;
}

void write_box_filter_picks(FILE* fp, const std::vector<ZkPick>& picks, int mode, int box_x, int box_y, int2 origin) {
  if (mode == 1) output_starbox_head(fp);
  const int hx = box_x / 2, hy = box_y / 2;
  for (const ZkPick& p : picks) {
    // In raw pixels: the centre for the .star form, the corner for the box form.
    const long long X = ptcl_trunc_to_int(p.fx), Y = ptcl_trunc_to_int(p.fy);
    if (mode == 1)
      write_zavik_star_line(fp, ptcl_clamp_to_int(X + origin.x), ptcl_clamp_to_int(Y + origin.y), p.psi, p.t, p.cc);
    else
      write_zavik_box_line(fp, ptcl_clamp_to_int((long long)ptcl_trunc_to_int(p.fx - (float)hx) + origin.x),
                           ptcl_clamp_to_int((long long)ptcl_trunc_to_int(p.fy - (float)hy) + origin.y), box_x, box_y,
                           p.cc, p.t, p.psi);
  }
}

int box_filter(int nx, int ny, float min_dist, float cc_cutoff, float shrink, int box_x, int box_y, int2 origin,
               const char* raw_name, const char* excluded_name, const char* out_name, int mode) {
  filter_cell(min_dist, __func__, __LINE__);
  std::string raw;
  {
    ZkFilePtr fp_raw(ZK_FOPEN_READ(raw_name, "r"));
    char buf[1 << 16];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, fp_raw.get())) > 0) raw.append(buf, n);
  }
  ZkOutFile out;
  FILE* fp = zk_out_open(out, out_name);
  std::vector<PTCL_BOX> excluded;
  if (!is_str_null(excluded_name) && check_file_access(excluded_name, "FR") == 0)
    excluded = read_ptcl_box_list(excluded_name);
  const std::vector<ZkPick> picks = box_filter_picks(nx, ny, min_dist, cc_cutoff, shrink, box_x, box_y, origin,
                                                     raw.data(), raw.size(), excluded.data(), (int)excluded.size());
  write_box_filter_picks(fp, picks, mode, box_x, box_y, origin);
  zk_out_commit(out);
  return 0;
}
