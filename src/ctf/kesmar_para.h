// The parameter record of a CTF run, its option grammar, the bounds check, the
// echoes and the help.
#pragma once
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/str_utils.h"
#include "ctf/ctf_core.h"

extern const char* const kesmar_version;
extern const char* const kesmar_updated_date;

struct KESMAR_Para {
  float apix, kV, cs, dstep, ac, defL, defH, defS, astm, bfac, resL, resH;
  int boxsize;
  float overlap;
  int step;  // distance between sampling boxes, pixels: set with the buffers
  int convsize, refine_2d_T;
  float smooth_resL;
  int do_basic_rotave, do_EPA, refine_after_EPA, EPA_oversmp;
  float Href_resL, Href_resH, Href_bfac;
  int do_Hres_ref;
  float Href_A_err, Href_U_err, Href_V_err, Href_PS_err;
  float phase_shift_L, phase_shift_H, phase_shift_S;
  int phase_shift_T, cosearch_refine_ps, only_search_ps, estimate_B;
  float B_resH, B_resL;
  int gid, do_mdef_refine, mdef_aveN, mdef_fit, mdef_ave_type, refine_tilt, init_tilt_ang, init_tilt_err;
  int do_local_refine, refine_local_astm, local_resH, local_resL, local_boxsize, local_boxtype;
  float local_radius, local_overlap;
  int local_avetype, do_validation, do_phase_flip, refine_input_ctf;
  float ps_init, defU_init, defV_init, defA_init, B_init, ps_err, defU_err, defV_err, defA_err, B_err;
  char input_ctfstar[ZK_TXT_LEN];
  float ctfout_resL, ctfout_resH, ctfout_bfac;
  int write_local_ctf, output_time, plot_res_ring, skip_check_mrc, skip_check_gpu;
  char ctfstar[ZK_TXT_LEN];
  char logsuffix[ZK_TXT_LEN];
  char boxsuffix[ZK_TXT_LEN];
  int do_unfinished, reload_ctf_files;

  // The micrographs: files[0 .. nfiles) then a null entry; ctfinit runs
  // parallel to files.  Names read from a STAR file are held in names.
  int nfiles;
  std::vector<char*> files;
  std::vector<CTF_INIT> ctfinit;
  int nfiles_refine, nfiles_search;
  char first_mic[ZK_TXT_LEN];
  std::vector<std::unique_ptr<char[]>> names;

  // 1 when the option was on the command line.
  int convsize_given, defH_given, defL_given, defS_given, bfac_given, resL_given, smooth_resL_given;
  int do_phase_shift;  // the run searches phase shifts
  int ps_from_star;    // the input STAR file has a phase-shift column
  int phase_shift_H_given, phase_shift_L_given, phase_shift_S_given, phase_shift_T_given;
  int Href_PS_err_given, Href_U_err_given, Href_V_err_given, Href_A_err_given;
  int boxsize_given, ctfout_resH_given, input_ctfstar_given;
  int ps_star_line;  // line of "_rlnPhaseShift" among the first 100 of the input STAR file, or -1
};

// The capacity of the micrograph lists: argc, plus the data lines of the
// STAR file after --input_ctfstar and 1.
int kesmar_get_fnumber_max(int argc, char** argv);

// Reading STAR files of starting values.  Each data line starts from
// ctf2d_default; the columns present replace defocus U, V, angle, voltage,
// Cs, amplitude contrast, B-factor and phase shift.  A line counts only when
// it has as many words as the head has labels.  Returns the count stored (at
// most max).
int get_all_ctfinfo_from_ctfstar(const char* name, CTF_INFO* out, int max);
int get_all_defocus_from_ctfstar(const char* name, DEFOCUS* out, int max);
// Appends the micrographs of the file behind files[nfiles ..], with their
// starting values in ctfinit; returns the count appended.
int get_all_initctf_from_ctfstar(KESMAR_Para* para, const char* name, std::vector<CTF_INIT>& ctfinit,
                                 std::vector<char*>& files, int nfiles);

// The short help, the long help with tips and version, the option list.
void kesmar_search_refine_defocus_help(const char* name);
void kesmar_search_refine_defocus_help_more(const char* name);
void kesmar_search_refine_defocus_help_full(const char* name);
void kesmar_put_all_tips();
void kesmar_put_all_notification();
void kesmar_put_info(const char* name);
void kesmar_print_valid_options();
