// Peak grids: the best score of each grid cell becomes at most one candidate,
// which then competes with the candidates of the adjacent cells and with the
// rejected positions of the cell list.
//
// Cell k = gy*Gx + gx covers x from gx*G up to min((gx+1)*G, nx) and y alike.
// A cell's candidate is the pixel index y*nx + x of its maximum, 0 for none.
// Two positions compete when dx^2 + dy^2 < 2*G^2, the cell's squared diagonal.
#pragma once
#include <cstdio>

// Device arrays ccmax, psi and excluded; host arrays grid_index, grid_cc and
// grid_psi of Gx*Gy entries.  Finds the candidates of one score map and
// filters them by cc_cutoff, the excluded positions and the neighbours.
void gpu_find_filter_ccmax_psi_grids_exclusive(const float* ccmax, const float* psi, unsigned int* grid_index,
                                               float* grid_cc, float* grid_psi, float cc_cutoff, int nx, int ny,
                                               int G, const unsigned int* excluded, unsigned int n_excluded_cells);
// The same without an exclusion list.
void gpu_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index, float* grid_cc,
                                     float* grid_psi, float cc_cutoff, int nx, int ny, int G);

// Device forms on device arrays of Gx*Gy entries.
void hcuda_find_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index, float* grid_cc,
                                float* grid_psi, int nx, int ny, int G);
void hcuda_find_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, int nx, int ny, int G);
// Accumulates over calls: a cell takes this map's maximum only when it is
// strictly above the score already held; the caller fills the arrays first.
void hcuda_find_update_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, int nx, int ny,
                                   int G);
// The filters.  Each decides from a copy of grid_index made before the pass,
// so that the result does not depend on the order in which cells are handled.
void hcuda_filter_ccmax_psi_grids_exclusive(unsigned int* grid_index, const float* grid_cc, float cc_cutoff, int nx,
                                            int ny, int G, const unsigned int* excluded,
                                            unsigned int n_excluded_cells);
void hcuda_filter_ccmax_grids(unsigned int* grid_index, const float* grid_cc, float cc_cutoff, int nx, int ny, int G);
void hcuda_find_filter_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc, float cc_cutoff,
                                   int nx, int ny, int G);
void hcuda_find_update_filter_ccmax_grids(const float* ccmax, unsigned int* grid_index, float* grid_cc,
                                          float cc_cutoff, int nx, int ny, int G);
void hcuda_find_filter_ccmax_psi_grids(const float* ccmax, const float* psi, unsigned int* grid_index,
                                       float* grid_cc, float* grid_psi, float cc_cutoff, int nx, int ny, int G);

// Writes the surviving candidates of template t (counted from 0) as
// "_nonunique.box" lines: box corner and size b in shrunk pixels, score,
// template, angle; only boxes wholly inside the nx by ny square.
void output_zavik_coord_one_temp(FILE* fp, const unsigned int* grid_index, const float* grid_cc,
                                 const float* grid_psi, int t, int n, int nx, int ny, int b);
