// Help texts and the list of option words of a CTF run.
#include <cstdio>

#include "ctf/kesmar_para.h"

namespace {

void rule(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

const char* const KESMAR_OPTIONS[] = {"apix",
                                      "kV",
                                      "cs",
                                      "ac",
                                      "phase_shift_L",
                                      "phase_shift_H",
                                      "phase_shift_S",
                                      "phase_shift_T",
                                      "dstep",
                                      "defL",
                                      "defH",
                                      "defS",
                                      "astm",
                                      "bfac",
                                      "resL",
                                      "resH",
                                      "overlap",
                                      "boxsize",
                                      "convsize",
                                      "do_EPA",
                                      "EPA_oversmp",
                                      "do_Hres_ref",
                                      "Href_resL",
                                      "Href_resH",
                                      "Href_bfac",
                                      "Href_PS_err",
                                      "Href_A_err",
                                      "Href_U_err",
                                      "Href_V_err",
                                      "B_resL",
                                      "B_resH",
                                      "do_mdef_refine",
                                      "mdef_aveN",
                                      "mdef_fit",
                                      "mdef_ave_type",
                                      "do_local_refine",
                                      "refine_local_astm",
                                      "local_radius",
                                      "local_avetype",
                                      "local_boxsize",
                                      "local_overlap",
                                      "local_resL",
                                      "local_resH",
                                      "do_phase_flip",
                                      "do_validation",
                                      "refine_input_ctf",
                                      "input_ctfstar",
                                      "defU_init",
                                      "defV_init",
                                      "defA_init",
                                      "ps_init",
                                      "B_init",
                                      "defU_err",
                                      "defV_err",
                                      "defA_err",
                                      "B_err",
                                      "ps_err",
                                      "ctfout_resL",
                                      "ctfout_resH",
                                      "ctfout_bfac",
                                      "boxsuffix",
                                      "ctfstar",
                                      "logsuffix",
                                      "write_local_ctf",
                                      "do_unfinished",
                                      "skip_check_mrc",
                                      "skip_check_gpu",
                                      "plot_res_ring",
                                      "gid",
                                      "help"};
static_assert(sizeof KESMAR_OPTIONS / sizeof KESMAR_OPTIONS[0] == 70, "the list names 70 words");

const char* const LONG_HELP[] = {
    "\x1b[1m Options:\x1b[m ",
    "Normal options(should specify), default values and description:  ",
    "         --apix                1.34              Pixel size",
    "         --kV                  300               High tension in Kilovolt, typically 300, 200 or 120",
    "         --cs                  2.7               Spherical aberration, in  millimeter",
    "         --ac                  0.1               Amplitude contrast; normal range 0.04~0.1; pure ice 0.04, carbon "
    "0.1; but doesn't matter too much if using wrong value",
    "Phase plate options:  ",
    "         --phase_shift_L       0.0               User defined phase shift, lowest phase shift,  in degree; "
    "typically, ~90.0 for micrographs using phase plate ",
    "         --phase_shift_H       180.0             User defined phase shift, highest phase shift, final range will "
    "be "
    "(phase_shift_L, phase_shift_H)  ",
    "         --phase_shift_S       3.0               User defined phase shift search step; don't worry about the "
    "accuracy; this is just the search step, Kesmar will refine the phase shift anyway.",
    "         --phase_shift_T       1                 Phase shift target in the search; 1: CCC; 2: resolution limit; ",
    "         --cosearch_refine_ps  0                 Specify this option to do refinement during phase shift search. "
    "Default approach is to do refinement after search",
    "         --refine_2d_T 1       1                 Refinement type: 1, 2, 3 allowed; NOTE:  --phase_shift_T is the "
    "overall target, but refine_2d_T is the concrete refinement approaches.",
    "Additional options(not suggested, only try to optimize in difficult cases), default values and description:  ",
    "         --dstep               14.0              Detector size in micrometer; don't worry if unknown; just use "
    "default.",
    "         --defL                5000              Lowest defocus value to search, in angstrom",
    "         --defH                90000             Highest defocus value to search, in angstrom",
    "         --defS                500               Step of defocus value used to search, in angstrom",
    "         --astm                1000              Estimated astigmation in angstrom, don't need to be accurate, "
    "within 0.1~10 times is OK",
    "         --bfac                150               Bfactor used to decrease high resolution amplitude,A^2; NOT the "
    "estimated micrograph Bfactor! suggested range 50~300 except using 'REBS method'.",
    "         --resL                50                Lowest Resolution to be used for search, in angstrom",
    "         --resH                4                 Highest Resolution to be used for search, in angstrom",
    "         --boxsize             1024              Boxsize in pixel to be used for FFT, 512 or 1024 highly "
    "recommended",
    "Advanced additional options:  ",
    "         --do_EPA              0                 1: Do Equiphase average; 0: Don't do;  only for nice output, "
    "will "
    "NOT be used for CTF determination.",
    "         --EPA_oversmp         4                 Over-sampling factor for EPA.",
    "         --overlap             0.5               Overlapping factor for grid boxes sampling, for boxsize=512, 0.5 "
    "means 256 pixeles overlapping; use 0.8 for low SNR micrographs ",
    "         --convsize            85                Boxsize to be used for smoothing, suggested 1/10 ~ 1/20 of "
    "boxsize "
    "in pixel, e.g. 40 for 512 boxsize",
    "         --smooth_resL         0                 Provide a reasonable resolution for low frequency background "
    "smoothing; 20 angstrom suggested, 10-50 is proper range ",
    "High resolution refinement options:  ",
    "         --do_Hres_ref         0                 Whether to do High-resolution refinement or not, very useful for "
    "selecting high quality micrographs",
    "         --Href_resL           15.0              Lowest Resolution  to be used for High-resolution refinement, in "
    "angstrom",
    "         --Href_resH           4.0               Highest Resolution  to be used for High-resolution refinement, "
    "in "
    "angstrom",
    "         --Href_bfac           50                Bfactor to be used for High-resolution refinement,A^2 NOT the "
    "estimated micrograph Bfactor!",
    "CTF output file options:  ",
    "         --ctfout_resL       100.0             Lowest resolution for CTF diagnosis file. NOTE this only affects "
    "the "
    "final output of .ctf file, nothing related to CTF determination.",
    "         --ctfout_resH       2.8               Highest resolution for CTF diagnosis file, ~Nyqiust by default.",
    "         --ctfout_bfac       50                Bfactor for CTF diagnosis file. NOTE this only affects the final "
    "output of .ctf file, nothing related to CTF determination.",
    "I/O options:  ",
    "         --input_ctfstar     micrographs_input_ctf.star     Input star file (must be star file) containing the "
    "raw "
    "micrographs and CTF information for further refinement.",
    "         --ctfstar           micrographs_all_kesmar.star      Output star files to record all CTF parameters. Use "
    "'NULL' or 'NONE' to skip writing out the CTF star file.",
    "         --logsuffix         _kesmar.log                      Output suffix to be used for log files. \n        "
    "                                                    ### NOTE: use '_ctffind3.log' for old version of Relion( "
    "before "
    "1.4), because it needs this suffix for particle extraction! \n                                                    "
    "        Otherwise, you can change the suffix of CTF log files by 'rename _kesmar.log _ctffind3.log *_kesmar.log' "
    "and then extract your particles.",
    "         --do_unfinished                                    Specify this option to continue processing the "
    "unfinished, otherwise it will overwrite everything. ",
    "         --skip_check_mrc                                   Specify this option to skip checking the MRC file "
    "format. Sometimes, there are special MRC that the file size does not match head information.\n\t                  "
    "                                      To force Kesmar run on such micrograph, specify this option might help to "
    "solve the problem.",
    "         --skip_check_gpu                                   Specify this option to skip checking the GPUs.",
    "         --gid               0                              GPU id, normally it's 0, use gpu_info to get "
    "information of all available GPUs.",
    "         -h, or --help                          get all the help information",
};

}  // namespace

void kesmar_search_refine_defocus_help(const char* name) {
  printf("\n\x1b[1m Usage:\x1b[m \n");
  printf("         %s [options] <micrographs>  \n\n", name);
  puts(" Normal options,        default values         and description:  ");
  puts("         --apix              1.34              Pixel size");
  puts("         --kV                300               High tension in Kilovolt, typically 300, 200 or 120");
  puts("         --cs                2.7               Spherical aberration, in  millimeter");
  puts(" Additional options:  ");
  puts(
      "         --do_EPA            0                 1: Do Equiphase average(EPA); 0: Don't do EPA(default);  only "
      "for nice output, will NOT be used for CTF determination.");
  puts(
      "         --do_unfinished     0                 Specify this option to continue processing the unfinished, "
      "otherwise it will overwrite everything. ");
  puts(
      "         --logsuffix         _kesmar.log         Output suffix to be used for log files. \n                    "
      "                           ### NOTE: use\x1b[1m '_ctffind3.log'\x1b[m  for old Relion(version 1.4 or earlier) "
      "because it needs this for particle extraction!");
  puts(
      "         --gid               0                 GPU id, normally it's 0, use gpu_info to get information of all "
      "available GPUs.");
  puts("         -h, or --help                         Print all options and the help information");
  printf("\x1b[1m Example:\x1b[m \n         %s --apix 1.07  Micrographs/Falcon*.mrc \n", name);
  printf("         %s --apix 1.07  --kV 300 --Cs 2.7 --ac 0.1  Micrographs/Falcon*.mrc \n", name);
  puts("\nPhase plate examples:");
  printf(
      "         %s --apix 1.35   --cosearch_refine_ps --smooth_resL 20 --refine_2d_T 1 --overlap 0.8  --bfac 200 "
      "--do_EPA --phase_shift_S 2 --convsize 20    Micrographs/Falcon*.mrc \n",
      name);
  printf(
      "         %s --apix 1.07  --kV 300 --Cs 2.7 --ac 0.1 --phase_shift_L 0 --phase_shift_H 180 --phase_shift_T  2  "
      "Micrographs/K2_phase_plate*.mrc \n\n",
      name);
}

void kesmar_search_refine_defocus_help_more(const char* name) {
  puts("\x1b[1m Usage:\x1b[m ");
  printf("         %s [options] <micrographs>  \n\n", name);
  for (const char* line : LONG_HELP) puts(line);
  printf("\x1b[1m Example:\x1b[m \n         %s --apix 1.07  Micrographs/Falcon*.mrc \n", name);
  printf("         %s --apix 1.07   Micrographs/Falcon*.mrc \n", name);
  printf("         %s --apix 1.07  --kV 300 --Cs 2.7 --ac 0.1  --do_EPA  Micrographs/Falcon*.mrc \n", name);
  puts("\nPhase plate examples:");
  printf(
      "         %s --apix 1.35   --cosearch_refine_ps --smooth_resL 20 --refine_2d_T 1 --overlap 0.8  --bfac 200 "
      "--do_EPA --phase_shift_S 2 --convsize 20    Micrographs/Falcon*.mrc \n",
      name);
  printf(
      "         %s --apix 1.07  --kV 300 --Cs 2.7 --ac 0.1 --phase_shift_L 0 --phase_shift_H 180 --phase_shift_T  2  "
      "Micrographs/K2_phase_plate*.mrc \n\n",
      name);
}

void kesmar_put_all_tips() {
  rule('-', 127);
  rule('-', 127);
}
void kesmar_put_all_notification() {
  rule('-', 127);
  rule('-', 127);
}

void kesmar_put_info(const char* name) {
  rule('*', 99);
  printf("Version:       %s %s, updated on %s\n", name, kesmar_version, kesmar_updated_date);
  printf("Author:        the zavik developers\n");
  printf("Contact:       see the README of the zavik project\n");
  printf("Description:   This is a simplified version of Kesmar for CTF determination. \n");
  rule('*', 99);
}

void kesmar_search_refine_defocus_help_full(const char* name) {
  kesmar_search_refine_defocus_help_more(name);
  kesmar_put_all_tips();
  kesmar_put_all_notification();
  kesmar_put_info(name);
}

void kesmar_print_valid_options() {
  rule('-', 130);
  printf("All valid options:\n");
  for (const char* w : KESMAR_OPTIONS) printf("--%s\t ", w);
  printf("\n");
  rule('-', 128);
}
