// One run of the picker: the geometry fixed by the first usable micrograph,
// the buffers allocated once for it, and the names and streams of the current
// micrograph.  zavik_main owns the record; each stage below is one call of the
// micrograph's road and works on the record only.
#pragma once
#include <cstdio>

#include "device/hd.h"
#include "driver/zavik_para.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "formats/str_utils.h"
#include "picking/zavik56_search.h"

// Ways of running that leave every output byte the same.  All are on in a
// normal run; the tests turn them off one by one to show the sameness.
struct ZkRunShortcuts {
  bool run_search = true;  // the search of a whole run (else one template at a time)
  ZkSearchOptions search;  // kept spectra, host threads, GPU batches
  bool prefetch = true;    // the next micrograph read while the current one is searched
};
ZkRunShortcuts& zavik_shortcuts();

struct ZkRun {
  Zavik_Para* para;
  MRC_HEAD head_first;  // first usable micrograph: fixes the geometry
  MRC_HEAD head;        // current micrograph

  // Geometry; integer divisions truncate.
  int Nx, Ny;    // micrograph size in pixels
  int L;         // side of the even working square, shrunk pixels
  int Nsx, Nsy;  // true size in shrunk pixels (box filter only)
  int G;         // grid cell side, shrunk pixels
  int Gx, Gy;    // grid cells along x and y
  int Tx, Ty, Nt;  // template size (shrunk pixels) and count
  int2 origin;     // clip origin of the micrograph, (0, 0)

  // Host buffers.
  float* h_raw;          // Nx * Ny: slice 0 as read
  float* h_shrunk;       // L * L
  float* h_T_all;        // Nt * Tx * Ty, from the template stage
  float* h_T;            // Tx * Ty
  float* h_ccmax_stack;  // Nt * L * L
  PTCL_BOX* boxes_excluded;  // Gx * Gy records: the exclusion file, read up to that count
  int n_excluded;
  unsigned int* grid_index;  // Gx * Gy
  float* grid_cc;            // Gx * Gy
  float* grid_psi;           // Gx * Gy

  // Device buffers.
  float* d_T;          // Nt * Tx * Ty, template t at t * Tx * Ty
  float* d_mic;        // L * L
  float* d_ccmax;      // L * L
  float* d_psi;        // L * L
  float* d_mask;       // L * L
  unsigned int* d_ice;  // Gx * Gy

  // Output names of the current micrograph, beside it.
  char box_name[ZK_TXT_LEN];
  char star_name[ZK_TXT_LEN];
  char nonunique_name[ZK_TXT_LEN];
  char excluded_name[ZK_TXT_LEN];
  char pref_name[ZK_TXT_LEN];
  char mask_name[ZK_TXT_LEN];
  char bgfree_name[ZK_TXT_LEN];
  char ccmax_name[ZK_TXT_LEN];

  ZkSearchBank* bank;  // the run's search, when zavik_shortcuts().run_search

  FILE* fp_mic;        // open from reading to the end of picking
  FILE* fp_nonunique;  // raw candidates, open through the template loop

  // Set by NORMALIZATION, with a warning, when the current micrograph has no
  // score to search: every grid cell is rejected (the mask sums to 0, so the
  // masked statistics do not exist), or the normalised image is not finite
  // (NaN or infinite samples, or no contrast).  The micrograph is not
  // searched and its results are empty.
  int no_picks;
};

// Geometry from head_first and the parameters (not G, Gx, Gy).
void zavik_run_set_geometry(ZkRun* run);
// G from min_dist, then Gx = Gy = ceil(L / G).
void zavik_run_set_grid(ZkRun* run);

// The stages of the road, in the order of their calls.

// Template stack from the template file, or the generated template: sets
// h_T_all, Tx, Ty, Nt.
void zavik_stage_load_templates(ZkRun* run);
// Each template normalised and copied to d_T; all inverted unless dont_invertT.
void zavik_stage_upload_templates(ZkRun* run);
// Shrink, pre-filter, normalise, detect ice, exclude, band-pass, mask: d_mic,
// d_ice and d_mask of the current micrograph mic, their diagnostic images, and
// no_picks.
void zavik_stage_normalize(ZkRun* run, const char* mic);
// The run's search: made once after the templates are on the device.
void zavik_stage_prepare_search(ZkRun* run);
void zavik_stage_finish_search(ZkRun* run);
// The micrograph's part of the search, once before its templates.
void zavik_stage_begin_picking(ZkRun* run);
// Search with template t, its peaks into fp_nonunique, and its map kept in
// h_ccmax_stack under --write_ccmax_mic.
void zavik_stage_search_template(ZkRun* run, int t);
// "_ccmax.mrc": the Nt maps of h_ccmax_stack.
void zavik_stage_write_ccmax(ZkRun* run);
// The box filter from "_nonunique.box" into "_zavik.box" and, under
// --write_star, "_zavik.star".
void zavik_stage_box_filter(ZkRun* run);
// Particle stacks from the micrograph and its "_zavik.box".
void zavik_stage_extract(ZkRun* run, const char* mic);
