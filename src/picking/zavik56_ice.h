// Rejected cells of the working image: ice, carbon and aggregates found by
// local statistics, coordinates the user wants kept clear of, and the cell
// mask made from them.
//
// The rejected-cell list d_ice holds one unsigned word per cell of side g over
// the nx by ny image, Gx = (nx + g - 1)/g cells a row (the last ones clipped by
// the edge), cell (cx, cy) at index cy*Gx + cx.  Word 0 means free; any other
// word is the pixel index y*nx + x of the rejected position in that cell.
#pragma once
#include "core/hd.h"
#include "core/ptcl_box.h"

// Scan of one cell (cx, cy) in row order.  A pixel is a hit when its local
// sigma rises above the running sigma and above lsigma_cutoff, or else its
// local average falls below the running average and below lave_min, or else
// rises above it and above lave_max.  Both running values start at the cell's
// first pixel and move together at each hit; the word is the last hit.  So the
// first pixel never hits, and a cell whose maps only fall is not marked.
HDI void cuda_find_sigma_grids(int cx, int cy, const float* ave, const float* sigma, unsigned int* ice,
                               float* cell_ave, float* cell_sigma, int nx, int ny, int g, int Gx, float lave_min,
                               float lave_max, float lsigma_cutoff) {
  const int x0 = cx * g, y0 = cy * g;
  const int x1 = x0 + g < nx ? x0 + g : nx, y1 = y0 + g < ny ? y0 + g : ny;
  const size_t p0 = (size_t)y0 * nx + x0;
  float cs = sigma[p0], ca = ave[p0];
  unsigned int word = 0;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) {
      const size_t p = (size_t)y * nx + x;
      const float s = sigma[p], a = ave[p];
      bool hit;
      if (cs < s && s > lsigma_cutoff)
        hit = true;
      else if (ca > a && a < lave_min)
        hit = true;
      else
        hit = ca < a && a > lave_max;
      if (hit) {
        cs = s;
        ca = a;
        word = (unsigned int)p;
      }
    }
  const size_t c = (size_t)cy * Gx + cx;
  ice[c] = word;
  cell_ave[c] = ca;
  cell_sigma[c] = cs;
}

// Every pixel of cell (cx, cy), clipped to the image: v where the cell's word
// is not 0, 1 - v where it is.
HDI void cuda_2d_generate_mask_by_coords(int cx, int cy, float* mask, int nx, int ny, int g, int Gx,
                                         const unsigned int* ice, float v) {
  const float m = ice[(size_t)cy * Gx + cx] != 0 ? v : 1.0f - v;
  const int x0 = cx * g, y0 = cy * g;
  const int x1 = x0 + g < nx ? x0 + g : nx, y1 = y0 + g < ny ? y0 + g : ny;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) mask[(size_t)y * nx + x] = m;
}

// What the ice stage takes from a run's settings.  Lengths in pixels of the
// working image.
struct ZkIceParams {
  float lsigma_R;         // radius of the local sigma's disc
  float lave_R;           // radius of the local average's disc
  float local_soft_edge;  // soft edge of both discs
  float lsigma_cutoff, lave_min, lave_max;
  int cell;    // side of a grid cell, the one for which d_ice is sized
  int shrink;  // raw pixels a working pixel, for the coordinate files
  bool write_rejected;  // "_rejected.box" and "_rejected.star"
  bool write_bg;        // "_bg.mrc", the local average
  bool write_lsigma;    // "_lsigma.mrc", the local sigma
};

// The ice stage on the normalised working image d_mic (not changed), from
// its mirror-padded spectrum d_mic_mpad_f (hcuda_2d_mpad_fft_r2c, kept), which
// the caller shares with its band-pass: local sigma and local average maps
// over soft discs, the cell scan into d_ice, then the coordinate files and
// the stage images beside mic that p asks for.  Returns 0.
int hcuda_2d_ice_detect(const float* d_mic, const float2* d_mic_mpad_f, int nx, int ny, int2 origin,
                        unsigned int* d_ice, const char* mic, const ZkIceParams& p);
// The cell scan, one thread a cell: d_ice, and the running average and sigma
// of each cell's last hit (or first pixel) in cell_ave and cell_sigma.
void hcuda_find_sigma_grids(const float* ave, const float* sigma, unsigned int* d_ice, float* cell_ave,
                            float* cell_sigma, int nx, int ny, int g, float lave_min, float lave_max,
                            float lsigma_cutoff);
// The rejected positions of host arrays as a coordinate file in raw pixels:
// mode 1 the .star form (centres), any other the box form (a box of g*shrink
// around each position, with the cell's average and sigma).  Positions within
// half a cell of the edge are left out; their cells stay rejected.  Returns 0.
int output_ice_coord(const char* name, const unsigned int* ice, const float* ave, const float* sigma, int nx, int ny,
                     int2 origin, int g, int shrink, int mode);

// Enters the centres of n boxes (raw pixels) as rejected positions, one word
// copy each; a later box in a cell replaces the word before it.  A centre
// outside the nx by ny image is skipped, and so is a centre on pixel (0, 0),
// whose word would read as "free".  Returns 0.
int add_excluded_coords_to_ice(unsigned int* d_ice, int nx, int ny, int g, const PTCL_BOX* boxes, int n, int shrink);
// The same for every box of a coordinate file; a null name or an unreadable
// file adds nothing.  Returns 0.
int add_excluded_boxf_to_ice(unsigned int* d_ice, int nx, int ny, int g, const char* name, int shrink);
// The cell mask: v in rejected cells, 1 - v in free ones, over the whole image
// with hard cell-shaped edges.  image is not read.  Returns 0.
int hcuda_2d_generate_mask_by_coords(float* mask, const float* image, int nx, int ny, int g, const unsigned int* d_ice,
                                     float v);

// Fills the rejected cells of the nx by ny image in place with the smooth
// background of the free ones, so that a band-pass afterwards sees no step
// at contamination, carbon or ice and leaves no halo, trough or edge there.
// The background is the mean of each free cell, spread over the cell grid by
// a Gaussian of sigma cells (a normalised convolution, so rejected cells weigh
// nothing), read between cell centres bilinearly.  Free cells keep every
// pixel; with no free cell nothing changes.  Returns the cells filled.
int hcuda_2d_fill_rejected_cells(float* d_img, int nx, int ny, int g, const unsigned int* d_ice, float sigma);

// Rejects the small pockets of free cells that rejected cells and the edge of
// the image enclose (the flat inside of a contamination disc passes the cell
// scan, which marks only changes): every 4-connected group of at most
// max_cells free cells gets the word of each cell's centre pixel, when any
// cell of the grid is rejected.  Returns the cells rejected.
int close_rejected_pockets(unsigned int* d_ice, int nx, int ny, int g, int max_cells);

// Rejects the free cells next to a rejected one (the eight around it) that
// hold a pixel beyond k robust deviations (1.4826 times the median absolute
// deviation) of the free pixels: the rim of a contamination disc or a carbon
// edge, which the cell scan may leave in a free cell, lies that far out, while
// ice and particles do not.  A newly
// rejected cell gets the word of its centre pixel.  Returns the cells
// rejected.
int grow_rejected_cells(const float* d_img, unsigned int* d_ice, int nx, int ny, int g, float k);
