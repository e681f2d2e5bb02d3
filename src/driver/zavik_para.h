// The picker's parameter record: defaults, the command-line scan, the derived
// values in shrunk pixels, and the echo of everything the run will use.
#pragma once
#include <cstdio>

// One record describes a run.  Lengths in angstrom; "px" are pixels of the
// shrunk working image.  Flags are 0 or 1.
struct Zavik_Para {
  char** files;  // micrographs in command-line order; room for argc pointers
  char* T;       // template stack, 1024 bytes; "NULL"/"NONE" selects the generated template
  int dont_invertT;
  float apixM;
  float apixT;
  float diameter;
  float min_dist;
  int boxsize;  // raw micrograph pixels
  int shrink;
  int speed;
  float ang_step;
  int update_T;
  float cc_cutoff;
  float lp;
  float hp;
  float pre_lp;
  float pre_hp;
  int T_norm_type;
  float center1_ratio;
  int do_bandpass;
  int do_ctf;
  int do_local_ctf;
  float kV;
  float cs;
  float ac;
  float lave_max;
  float lave_min;
  float lsigma_cutoff;
  float lsigma_D;
  float lave_D;
  int write_ccmax_mic;
  int do_pre_filter;
  int detect_ice;
  int write_pref_mic;
  int write_pf_mic;
  int write_bg_mic;
  int write_bgfree_mic;
  int write_lsigma_mic;
  int write_mic_mask;
  int do_unfinished;
  char* excluded_suffix;  // 1024 bytes
  int exclusive_picking;
  int mask_excluded;
  char* global_excluded_box;  // 1024 bytes
  int write_rejected_box;
  int write_star;
  int extract_raw;
  int extract_pf;
  int gid;
  int n_files;
  float local_soft_edge;  // px
  float T_radius_ratio;
  int auto_T;
  float psi_start;
  float psi_end;  // exclusive
  float T_radius;     // px
  float min_dist_px;  // px
  float lsigma_R;     // px
  float lave_R;       // px
  char* first_mic;  // set by the driver: entry 0 of files, 1024 bytes of its own
  // Beyond the classic record: --cc_cutoff auto chooses the cutoff of each
  // micrograph from its own scores; --fill_rejected fills the rejected cells
  // with the surrounding background before the band-pass.
  int cc_auto;
  int fill_rejected;
  // --png N: a picture of each micrograph and its picks, binned N times,
  // "_zavik.png"; 0 (the default) writes none.
  int png;
  // --summary: a STAR file with one line per micrograph of the run (picks,
  // scores, rejected share, time, status); "NULL" writes none.  1024 bytes.
  char* summary;
};

// Allocates files (argc pointers) and the three name buffers, stores "NULL" in
// them and sets every default.
void zavik_init_parameters(int argc, Zavik_Para* para);
// Scans argv, then finishes the record: derived defaults, derived px values,
// the file and device checks, the warnings.  Bad input throws its report (an
// unknown option with status 0, after the list of option words).
void zavik_get_parameters(int argc, char** argv, Zavik_Para* para);
// The three echo blocks: options as given, all values in force, the files.
void zavik_fput_parameters(int argc, char** argv, Zavik_Para* para, FILE* fp);
// shrink from the speed level 0..4 (1, 2, 4, 6, 8); any other level throws the
// fatal report.
void zavik_speed2shrink(int& speed, int& shrink);
// Releases what zavik_init_parameters allocated (not first_mic, which the
// driver owns).
void zavik_free_parameters(Zavik_Para* para);

// Side of a grid cell in shrunk pixels: the cell's diagonal is min_dist.
int zavik_grid_cell(const Zavik_Para* para);
