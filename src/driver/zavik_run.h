// One run of the picker: the geometry fixed by the first usable micrograph,
// the buffers allocated once for it, and the names and streams of the current
// micrograph.  zavik_run owns the record; each stage below is one step of a
// micrograph's way through the run and works on the record only.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/hd.h"
#include "core/report.h"
#include "core/txt_file.h"
#include "core/str_utils.h"
#include "device/cuda_general.h"
#include "driver/zavik_para.h"
#include "driver/zavik_summary.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "formats/safe_output.h"
#include "picking/box_filter.h"
#include "picking/zavik56_ice.h"
#include "picking/zavik56_search.h"

// Ways of running that leave every output byte the same.  All are on in a
// normal run; the tests turn them off one by one to show the sameness.
struct ZkRunShortcuts {
  bool run_search = true;  // the search of a whole run (else one template at a time)
  ZkSearchOptions search;  // kept spectra, host threads, GPU batches
  bool prefetch = true;    // the next micrograph read while the current one is searched
};

struct ZkSearchBankDeleter {
  void operator()(ZkSearchBank* b) const { zavik_search_bank_destroy(b); }
};
struct ZkFreeDeleter {
  void operator()(void* p) const { free(p); }
};

struct ZkRun {
  Zavik_Para* para = nullptr;
  ZkRunShortcuts shortcuts;
  MRC_HEAD head_first;  // first usable micrograph: fixes the geometry
  MRC_HEAD head;        // current micrograph

  // Geometry; integer divisions truncate.
  int Nx = 0, Ny = 0;    // micrograph size in pixels
  int L = 0;             // side of the even working square, shrunk pixels
  int Nsx = 0, Nsy = 0;  // true size in shrunk pixels (box filter only)
  int G = 0;             // grid cell side, shrunk pixels
  int Gx = 0, Gy = 0;    // grid cells along x and y
  int Tx = 0, Ty = 0, Nt = 0;  // template size (shrunk pixels) and count
  int2 origin = {0, 0};        // clip origin of the micrograph, (0, 0)

  // Host buffers.
  std::vector<float> h_raw;          // Nx * Ny: slice 0 as read
  std::vector<float> h_shrunk;       // L * L
  std::unique_ptr<float, ZkFreeDeleter> h_T_all;  // Nt * Tx * Ty, from the template stage
  std::vector<float> h_T;            // Tx * Ty
  std::vector<float> h_ccmax_stack;  // Nt * L * L
  std::vector<PTCL_BOX> boxes_excluded;  // every record of the micrograph's exclusion file
  int n_excluded = 0;
  std::vector<unsigned int> grid_index;  // Gx * Gy
  std::vector<float> grid_cc;            // Gx * Gy
  std::vector<float> grid_psi;           // Gx * Gy

  // Device buffers.
  ZkDeviceArray<float> d_T;  // Nt * Tx * Ty, template t at t * Tx * Ty
  ZkDeviceArray<float> d_mic;    // L * L
  ZkDeviceArray<float> d_ccmax;  // L * L
  ZkDeviceArray<float> d_psi;    // L * L
  ZkDeviceArray<float> d_mask;   // L * L
  ZkDeviceArray<unsigned int> d_ice;  // Gx * Gy
  // Under --cc_cutoff auto: the minima of the current template's search and
  // their sign-turned maximum over the templates, L * L each.
  ZkDeviceArray<float> d_ccmin, d_noise;

  // The current micrograph and its output names, beside it.
  char mic_name[ZK_TXT_LEN];
  char box_name[ZK_TXT_LEN];
  char star_name[ZK_TXT_LEN];
  char nonunique_name[ZK_TXT_LEN];
  char excluded_name[ZK_TXT_LEN];
  char pref_name[ZK_TXT_LEN];
  char mask_name[ZK_TXT_LEN];
  char bgfree_name[ZK_TXT_LEN];
  char ccmax_name[ZK_TXT_LEN];
  char png_name[ZK_TXT_LEN];

  std::unique_ptr<ZkSearchBank, ZkSearchBankDeleter> bank;  // the run's search, when shortcuts.run_search

  ZkFilePtr fp_mic;  // open from reading to the end of picking
  // The raw candidates of all templates: gathered in memory for the box
  // filter, and written to "_nonunique.box", whose temporary file is made
  // when the micrograph is read.
  std::unique_ptr<ZkMemText> raw;
  std::unique_ptr<ZkOutFile> nonunique_out;
  // The final picks of the current micrograph, for its picture.
  std::vector<ZkPick> picks;

  // Micrographs that could not be picked, each by its reason (a line that
  // names it) and its place in the list (-1 while the first usable one is
  // sought); the closing banner lists them.
  std::vector<std::string> failed;
  std::vector<int> failed_index;
  int current_index = -1;

  // For the run summary: the scores of the current micrograph's picks, and
  // this rank's summary lines by their place in the list.
  std::vector<float> pick_scores;
  std::vector<ZkParItem> summary_lines;

  // Set by NORMALIZATION, with a warning, when the current micrograph has no
  // score to search: every grid cell is rejected (the mask sums to 0, so the
  // masked statistics do not exist), or the normalised image is not finite
  // (NaN or infinite samples, or no contrast).  The micrograph is not
  // searched and its results are empty.
  int no_picks = 0;
};

// The whole run of the picker on a command line: every message and output,
// and the closing banner.  Failures are thrown as ZkError; zavik_main prints
// them and turns them into the exit status.  Returns 0.
int zavik_run(int argc, char** argv, const ZkRunShortcuts& shortcuts);
// The program's entry: zavik_run with every shortcut on; a failure is
// reported and gives its status (1, or 0 for an unknown option).
int zavik_main(int argc, char** argv);

// Geometry from head_first and the parameters (not G, Gx, Gy).
void zavik_run_set_geometry(ZkRun* run);
// G from min_dist, then Gx = Gy = ceil(L / G).
void zavik_run_set_grid(ZkRun* run);
// The grid, then every run-long buffer, once, for the run's geometry and
// templates (Tx, Ty, Nt set).
void zavik_run_allocate(ZkRun* run);

// The ice stage's settings from the run's parameters; its cell is the run's
// grid cell, zavik_grid_cell(para), for which d_ice is sized.
ZkIceParams zavik_ice_params(const Zavik_Para* para);
// The ice stage on d_mic with the settings of para, transforming the image
// itself.  Returns 0.
int hcuda_2d_ice_detect(const float* d_mic, int nx, int ny, int2 origin, unsigned int* d_ice, const char* mic,
                        const Zavik_Para* para);

// The stages of a micrograph, in the order of their calls.

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
// The automatic cutoff of the current micrograph from its noise map and the
// candidates after the box filter: the picks below it go, and one line says
// the cutoff.
void zavik_apply_auto_cutoff(ZkRun* run, std::vector<ZkPick>& picks);
// The raw candidates into "_nonunique.box", then the box filter on them into
// "_zavik.box" and, under --write_star, "_zavik.star".  Both results are
// written in full before either is renamed into place.
void zavik_stage_box_filter(ZkRun* run);
// "_zavik.png" under --png: the micrograph, its rejected cells and its picks.
void zavik_stage_write_picture(ZkRun* run);
// Particle stacks from the micrograph and its "_zavik.box".
void zavik_stage_extract(ZkRun* run, const char* mic);
