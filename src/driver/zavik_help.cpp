#include "driver/zavik_help.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/report.h"

const char* const zavik_version = "v0.56";
const char* const zavik_updated_date = "2017-07-30";

// Printed for an unrecognised option.  The list is not the parser's: three of
// these words are refused there, and eleven accepted words are missing here.
const char* const ZAVIK_OPTIONS[ZAVIK_N_OPTIONS] = {
    "apixM",           "T",                "diameter",         "ang_step",     "speed",
    "boxsize",         "min_dist",         "cc_cutoff",        "lsigma_cutoff", "lave_max",
    "lave_min",        "lcutoff_D",        "lp",               "hp",           "dont_invertT",
    "per_lp",          "pre_hp",           "do_pre_filter",    "do_ctf",       "do_local_ctf",
    "kv",              "cs",               "ac",               "write_ccmax_mic", "write_pf_mic",
    "write_bg_mic",    "write_bgfree_mic", "write_lsigma_mic", "write_mic_mask", "extract_raw",
    "extract_pf",      "write_rejected_box", "write_star",     "exclusive_picking", "excluded_suffix",
    "mask_excluded",   "global_excluded_box", "gid"};

const char* const ZAVIK_ALL_TIPS[ZAVIK_N_TIPS] = {
    "\x1b[1mTips\x1b[m on the working directory: run the program outside the 'Micrographs/' directory, so "
    "that the coordinate files match the RELION project layout.\n",
    "\x1b[1mTips\x1b[m on CTF: raw micrographs are fine for picking, since 30 to 50Å is enough to find "
    "particles. Full CTF correction is not suggested: higher resolution brings false picks and template bias. "
    "Kesmar can flip the phases of the micrographs beforehand if you wish.\n",
    "\x1b[1mTips\x1b[m on '--dont_invertT': by default white templates are inverted to black to match the "
    "particles of cryo micrographs. Generated templates are always white Gaussian blobs, so use "
    "'--dont_invertT' for negative stain data with generated templates.\n",
    "\x1b[1mTips\x1b[m on '--speed': use 2 for complexes above 1 MDa, 1 below 500 kD, and 1 or 2 in between. "
    "0 is not suggested. 3 may serve huge viruses, though 2 is preferred; 4 is probably not useful at all.\n",
    "\x1b[1mTips\x1b[m on '--lsigma_cutoff': a local sigma above 1.2 normally means ice, aggregation or "
    "contamination. The value is relative to the global sigma of the micrograph.\n",
    "\x1b[1mTips\x1b[m on '--lp' and '--hp': they act on the micrographs only. Templates are used as provided, "
    "so low-pass them to about 20 to 50Å beforehand.\n",
    "\x1b[1mTips\x1b[m on '--exclusive_picking': useful for (1) another cycle of picking after 2D "
    "classification, (2) picking a partial structure, (3) particles with a strong orientation preference, "
    "(4) detector defects, together with '--global_excluded_box'.\n",
    "A brief manual: see README.md in the source tree of zavik, and run the program with '--help' for all "
    "options.\n",
    ""};

namespace {

void put_chars(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

// Six blanks, the option, the default from column 23, the description from
// column 37; at least one blank between the parts of a long row.
void help_row(const char* opt, const char* def, const char* desc) {
  char row[512];
  int n = snprintf(row, sizeof row, "      %s", opt);
  if (def[0]) {
    n += snprintf(row + n, sizeof row - n, "%*s%s", n < 23 ? 23 - n : 1, "", def);
  }
  snprintf(row + n, sizeof row - n, "%*s", n < 37 ? 37 - n : 1, "");
  printf("%s%s\n", row, desc);
}

}  // namespace

void zavik_put_info(const char* prog) {
  put_chars('*', 99);
  printf("Version:       %s %s, updated on %s\n", prog, zavik_version, zavik_updated_date);
  printf("Author:        the zavik developers\n");
  printf("Contact:       please report problems and questions on the project's issue tracker\n");
  printf("Description:   This is a GPU accelerated program for fully automatic particle picking.\n");
  printf("Note:          Still under development, to be released soon ...\n");
  put_chars('*', 99);
}

void zavik_help(const char* prog) {
  zavik_put_info(prog);
  printf("Usage:\n");
  printf("         %s [options] <micrographs>  \n\n", prog);
  printf("Options:\n");

  printf("Basic options:    default values,    description:  \n");
  help_row("--apixM", "1.34", "Pixel size of the micrographs, in Å");
  help_row("--diameter", "400", "Diameter of the particle, in Å");
  help_row("--T", "NULL", "MRC stack of 2D templates; without it a soft disc generated from the diameter is used");
  help_row("--apixT", "1.34", "Pixel size of the templates, in Å; the same as '--apixM' when not given");

  printf("Additional options(not suggested, only try to optimize in difficult cases), default values and "
         "description:  \n");
  help_row("--ang_step", "5", "In-plane angular step of the search, in degrees; only one angle for generated templates");
  help_row("--speed", "2", "Speed level 0, 1, 2, 3 or 4: the micrographs are shrunk by 1, 2, 4, 6 or 8");
  help_row("--boxsize", "128", "Box size in pixels of the raw micrograph, not in Å and not shrunk");
  help_row("--min_dist", "300", "Minimum distance between particles in Å; 0.9 to 1.1 times the diameter, "
           "0.3 to 0.5 times for filament-like particles");
  help_row("--cc_cutoff", "0.1", "Cutoff of the cross-correlation score, normally 0.2 to 0.4; or a small "
           "value such as 0.1 first and filter the box files afterwards; 'auto' chooses it for each micrograph "
           "from its own scores, so that noise peaks stay a small share of the picks");
  help_row("--lsigma_D", "200", "Diameter of the area for the local sigma, in Å");
  help_row("--lsigma_cutoff", "1.3", "Cutoff of the local sigma relative to the global sigma, normally 1.2 to 1.5; "
           "above it an area is ice, aggregation or carbon");
  help_row("--lave_D", "400", "Diameter of the area for the local average, in Å; 0.5 to 2.0 times the particle "
           "diameter, smaller for sharp or small ice");
  help_row("--lave_max", "2.0", "Upper cutoff of the local average; brighter areas are rejected");
  help_row("--lave_min", "-1.0", "Lower cutoff of the local average; a very small value such as -10.0 keeps "
           "all dark dots");
  help_row("--lp", "30", "Low-pass resolution of the micrograph band-pass, in Å; 20 to 50Å is suggested");
  help_row("--hp", "1000", "High-pass resolution of the micrograph band-pass, in Å; 200 to 2000Å is suggested");
  help_row("--do_pre_filter", "", "Filter the micrograph before the detection of ice and carbon");
  help_row("--pre_lp", "8", "Low-pass resolution of the pre-filter, in Å");
  help_row("--pre_hp", "1000", "High-pass resolution of the pre-filter, in Å");
  help_row("--detect_ice", "", "Detect ice, aggregation and carbon by local statistics; '--detect_ice 0' turns it off");
  help_row("--T_norm_type", "1", "Normalisation of the templates: 1, 2 or 3");
  help_row("--do_bandpass", "", "Band-pass the micrograph after ice detection; '--do_bandpass 0' skips it");
  help_row("--fill_rejected", "", "Fill the rejected areas (ice, contamination, carbon) with the surrounding "
           "background before the band-pass, so that no halo, trough or edge around them is picked");

  printf("CTF options(not effective in this verion): \n");
  help_row("--do_ctf", "", "Determine the CTF of each micrograph");
  help_row("--do_local_ctf", "", "Determine the CTF of each particle");
  help_row("--kV", "300", "High tension in kV");
  help_row("--cs", "2.7", "Spherical aberration in mm");
  help_row("--ac", "0.1", "Amplitude contrast, normally 0.04 to 0.1");

  printf("I/O options:  \n");
  help_row("--write_ccmax_mic", "", "Write the maps of the best cross-correlation, '_ccmax.mrc'");
  help_row("--write_pf_mic", "", "Write the phase-flipped micrograph");
  help_row("--write_pref_mic", "", "Write the pre-filtered micrograph, '_pref.mrc'");
  help_row("--write_bg_mic", "", "Write the local average (background) of the micrograph, '_bg.mrc'");
  help_row("--write_bgfree_mic", "", "Write the final normalised micrograph, '_bgfree.mrc'");
  help_row("--write_lsigma_mic", "", "Write the local sigma of the micrograph, '_lsigma.mrc'");
  help_row("--write_mic_mask", "", "Write the mask of the good areas of the micrograph, '_mask.mrc'");
  help_row("--exclusive_picking", "", "Exclude the coordinates of the file given by '--excluded_suffix' from picking");
  help_row("--excluded_suffix", "NULL", "Suffix of the exclusion file of each micrograph: '_rubbish.box' and "
           "'mic0002.mrc' give 'mic0002_rubbish.box'; RELION '.star' and EMAN '.box' files are both accepted");
  help_row("--mask_excluded", "", "Also mask the areas around the excluded coordinates before picking");
  help_row("--global_excluded_box", "NULL", "Coordinates excluded from all micrographs, such as detector defects");
  help_row("--do_unfinished", "", "Skip micrographs that have been processed; otherwise everything is overwritten");
  help_row("--dont_invertT", "", "VERY IMPORTANT!!! Keep the contrast of the templates; by default white "
           "templates are inverted to match black particles");
  help_row("--extract_raw", "", "Extract the picked particles from the raw micrographs");
  help_row("--extract_pf", "", "Extract the picked particles from the phase-flipped micrographs");
  help_row("--gid", "0", "GPU device number; under mpirun each rank takes the GPUs of its machine in turn unless "
           "given");
  help_row("--png", "0", "Write '_zavik.png', the micrograph binned by this factor (8 suits 4k images) with the "
           "picks circled in green at the particle diameter and the rejected cells tinted red; 0 writes none");
  help_row("--summary", "NULL", "Write a STAR file with one line per micrograph: picks, mean and median score, "
           "share of rejected cells, seconds and status, for culling");

  printf("  Generated templates:        %s --apixM 1.34 --diameter 180 Micrographs/Falcon*.mrc\n", prog);
  printf("  White templates, black micrographs: %s --apixM 1.34 --diameter 180 --T Templates_white.mrcs "
         "--apixT 2.68 Micrographs/Falcon*.mrc\n",
         prog);
  printf("  Black templates:            %s --apixM 1.34 --diameter 180 -T Templates_black.mrcs --apixT 2.68 "
         "--dont_invertT Micrographs/Falcon*.mrc\n",
         prog);
  printf("  Diagnosis:                  %s --apixM 1.34 --diameter 180 --write_bgfree_mic --write_mic_mask "
         "--write_ccmax_mic --write_bg_mic --write_lsigma_mic Micrographs/Falcon_0001.mrc\n",
         prog);
  printf("  Most options:               %s --apixM 1.34 --diameter 180 --T Templates.mrcs --apixT 2.68 "
         "--ang_step 5 --speed 2 --boxsize 240 --min_dist 160 --cc_cutoff 0.2 --lsigma_D 200 --lsigma_cutoff "
         "1.3 --lave_D 300 --lave_max 1.0 --lave_min -1.0 --lp 30 --hp 1000 --gid 0 Micrographs/Falcon*.mrc\n",
         prog);
  printf("      --help                         Print full help document\n");
}

void zavik_help_full(const char* prog) {
  zavik_help(prog);
  zavik_put_all_tips();
}

void zavik_help_exit(const char* prog, const char* reason) {
  zavik_help(prog);
  zk_fatal(__func__, zk_basename(__FILE__), __LINE__, reason);
}

void zavik_print_valid_options() {
  put_chars('-', 130);
  printf("All valid options:\n");
  for (int i = 0; i < ZAVIK_N_OPTIONS; ++i) printf("--%s\t ", ZAVIK_OPTIONS[i]);
  printf("\n");
  put_chars('-', 128);
}

void zavik_put_all_tips() {
  put_chars('-', 127);
  for (int i = 0; i < ZAVIK_N_TIPS; ++i) puts(ZAVIK_ALL_TIPS[i]);
  put_chars('-', 127);
}

// The seed is the current second: the tip changes from run to run.
void zavik_put_one_random_tip() {
  srand((unsigned)time(0));
  int r = rand();
  put_chars('-', 127);
  printf("%s", ZAVIK_ALL_TIPS[r % ZAVIK_N_TIPS]);
  put_chars('-', 127);
  fflush(stdout);
}
