#include "ctf/kesmar_para.h"

#include <cstdlib>
#include <cstring>

#include "core/report.h"
#include "core/txt_file.h"
#include "ctf/kesmar.h"
#include "ctf/kesmar_options.h"
#include "device/cuda_general.h"
#include "formats/starfile.h"
#include "parallel/zk_parallel.h"

const char* const kesmar_version = "1.0";
const char* const kesmar_updated_date = "2026-11-23";

void kesmar_ref_control_init(CTF_REF_CONTROL& c) {
  c.A_tol = 0.5f;
  c.UV_tol = 2.0f;
  c.ps_tol = 0.2f;
  c.search_A = 0;
  c.n_search_A = 2;
  c.refine_UVave = 1;
  c.refine_UVdif = 1;
  c.refine_A = 1;
  c.refine_ps = 0;
  c.do_Hres = 0;
  c.UVave_done = c.UVdif_done = c.A_done = c.ps_done = 0;
  c.warn_cycles = 1;
  c.to_screen = 1;
  c.to_log = 1;
}

int kesmar_get_fnumber_max(int argc, char** argv) {
  int n = argc;
  for (int i = 1; i + 1 < argc; ++i)
    if (keywd_cmp(argv[i], "input_ctfstar")) {
      FILE* fp = ZK_FOPEN_READ(argv[i + 1], "r");
      n = argc + get_lineN_from_star(fp) + 1;
      fclose(fp);
      break;
    }
  return n;
}

void KESMAR_A::kesmar_init_parameters(int argc, char** argv) {
  para_store.reset(new KESMAR_Para());
  para = para_store.get();
  KESMAR_Para& p = *para;
  p.apix = 1.34f;
  p.kV = 300.0f;
  p.cs = 2.7f;
  p.dstep = 14.0f;
  p.ac = 0.1f;
  p.defL = 5000.0f;
  p.defH = 90000.0f;
  p.defS = 500.0f;
  p.astm = 1000.0f;
  p.bfac = 150.0f;
  p.resL = 50.0f;
  p.resH = 4.0f;
  p.boxsize = 1024;
  p.overlap = 0.5f;
  p.step = 0;
  p.convsize = 85;
  p.refine_2d_T = 1;
  p.smooth_resL = 1000.0f;
  p.do_basic_rotave = 0;
  p.do_EPA = 0;
  p.refine_after_EPA = 0;
  p.EPA_oversmp = 4;
  p.Href_resL = 15.0f;
  p.Href_resH = 4.0f;
  p.Href_bfac = 50.0f;
  p.do_Hres_ref = 0;
  p.Href_A_err = 5.0f;
  p.Href_U_err = 100.0f;
  p.Href_V_err = 100.0f;
  p.Href_PS_err = 2.0f;
  p.phase_shift_L = 0.0f;
  p.phase_shift_H = 180.0f;
  p.phase_shift_S = 0.0f;
  p.phase_shift_T = 1;
  p.cosearch_refine_ps = 0;
  p.only_search_ps = 0;
  p.estimate_B = 1;
  p.B_resH = 6.0f;
  p.B_resL = 15.0f;
  p.gid = 0;
  p.do_mdef_refine = 0;
  p.mdef_aveN = 7;
  p.mdef_fit = 0;
  p.mdef_ave_type = 0;
  p.refine_tilt = 0;
  p.init_tilt_ang = 0;
  p.init_tilt_err = 0;
  p.do_local_refine = 0;
  p.refine_local_astm = 0;
  p.local_resH = 5;
  p.local_resL = 15;
  p.local_boxsize = 512;
  p.local_boxtype = 1;
  p.local_radius = 1024.0f;
  p.local_overlap = 0.5f;
  p.local_avetype = 0;
  p.do_validation = 0;
  p.do_phase_flip = 0;
  p.refine_input_ctf = 0;
  p.ps_init = 0.0f;
  p.defU_init = 20000.0f;
  p.defV_init = 20000.0f;
  p.defA_init = 0.0f;
  p.B_init = 200.0f;
  p.ps_err = 10.0f;
  p.defU_err = 500.0f;
  p.defV_err = 500.0f;
  p.defA_err = 15.0f;
  p.B_err = 50.0f;
  strlcpy(p.input_ctfstar, "NULL");
  p.ctfout_resL = 100.0f;
  p.ctfout_resH = 2.0f * p.apix + 0.1f;
  p.ctfout_bfac = 50.0f;
  p.write_local_ctf = 0;
  p.output_time = 0;
  p.plot_res_ring = 1;
  p.skip_check_mrc = 0;
  p.skip_check_gpu = 0;
  strlcpy(p.ctfstar, "micrographs_all_kesmar.star");
  strlcpy(p.logsuffix, "_kesmar.log");
  strlcpy(p.boxsuffix, "_zavik.star");
  p.do_unfinished = 0;
  p.reload_ctf_files = 0;

  p.nfiles = 0;
  const int cap = kesmar_get_fnumber_max(argc, argv);
  p.files.assign((size_t)cap + 1, nullptr);
  p.ctfinit.assign((size_t)cap + 1, CTF_INIT{});
  p.nfiles_refine = 0;
  p.nfiles_search = 0;
  empty_txt_line(p.first_mic);
  p.convsize_given = p.defH_given = p.defL_given = p.defS_given = p.bfac_given = p.resL_given = 0;
  p.smooth_resL_given = 0;
  p.do_phase_shift = 0;
  p.ps_from_star = 0;
  p.phase_shift_H_given = p.phase_shift_L_given = p.phase_shift_S_given = p.phase_shift_T_given = 0;
  p.Href_PS_err_given = p.Href_U_err_given = p.Href_V_err_given = p.Href_A_err_given = 0;
  p.boxsize_given = p.ctfout_resH_given = p.input_ctfstar_given = 0;
  p.ps_star_line = -1;
  kesmar_ref_control_init(ctrl);
}

namespace {

[[noreturn]] void unrecognised(const char* word, int line, const char* tail) {
  printf(
      "\x1b[41m\x1b[1m\x1b[5mCRITICAL ERROR: in function %s(), file %s on line %d. Failed to recognize option: "
      "%s! Exit now. %s\x1b[m\n\n",
      "kesmar_get_parameters", zk_basename(__FILE__), line, word, tail);
  kesmar_print_valid_options();
  zk_fail_plain("", 0);
}

void mark_given(KESMAR_Para& p, const char* w) {
  struct Flag {
    const char* word;
    KesmarIntField flag;
  };
  static const Flag flags[] = {
      {"convsize", &KESMAR_Para::convsize_given},
      {"defH", &KESMAR_Para::defH_given},
      {"defL", &KESMAR_Para::defL_given},
      {"defS", &KESMAR_Para::defS_given},
      {"bfac", &KESMAR_Para::bfac_given},
      {"resL", &KESMAR_Para::resL_given},
      {"smooth_resL", &KESMAR_Para::smooth_resL_given},
      {"phase_shift_H", &KESMAR_Para::phase_shift_H_given},
      {"phase_shift_L", &KESMAR_Para::phase_shift_L_given},
      {"phase_shift_S", &KESMAR_Para::phase_shift_S_given},
      {"phase_shift_T", &KESMAR_Para::phase_shift_T_given},
      {"Href_PS_err", &KESMAR_Para::Href_PS_err_given},
      {"Href_U_err", &KESMAR_Para::Href_U_err_given},
      {"Href_V_err", &KESMAR_Para::Href_V_err_given},
      {"Href_A_err", &KESMAR_Para::Href_A_err_given},
      {"boxsize", &KESMAR_Para::boxsize_given},
      {"ctfout_resH", &KESMAR_Para::ctfout_resH_given},
      {"input_ctfstar", &KESMAR_Para::input_ctfstar_given},
  };
  for (const Flag& f : flags)
    if (strcmp(f.word, w) == 0) p.*(f.flag) = 1;
}

}  // namespace

void KESMAR_A::kesmar_set_ctfstar(int argc, char** argv, int& i) {
  if (i + 1 >= argc) ZK_FATAL("Can not get file name for ctfstar! Check input!");
  const char* next = argv[++i];
  if (next[0] == '-') unrecognised(next, __LINE__, "Check your input or file names please.");
  if (is_str_null(next))
    strlcpy(para->ctfstar, "NULL");
  else
    replace_file_suffix(para->ctfstar, ".star", next, ".star");
}

void KESMAR_A::kesmar_get_parameters(int argc, char** argv) {
  KESMAR_Para& p = *para;
  p.nfiles = 0;
  bool gid_given = false;
  for (int i = 1; i < argc; ++i) {
    const KesmarOption* o = kesmar_find_option(argv[i]);
    if (!o) {
      if (argv[i][0] == '-') unrecognised(argv[i], __LINE__, "Check your input please.");
      p.files[p.nfiles] = argv[i];
      p.ctfinit[p.nfiles].valid = 0;
      ++p.nfiles;
      ++p.nfiles_search;
      continue;
    }
    if (strcmp(o->word, "ctfstar") == 0) {
      kesmar_set_ctfstar(argc, argv, i);
      continue;
    }
    switch (o->kind) {
      case KOPT_BOOL:
        get_bool_keyword(argc, argv, p.*(o->i), i);
        break;
      case KOPT_INT:
        if (i + 1 < argc) p.*(o->i) = o->int_from_float ? (int)zk_atof(argv[++i]) : zk_atoi(argv[++i]);
        break;
      case KOPT_FLOAT:
        if (i + 1 < argc) p.*(o->f) = zk_atof(argv[++i]);
        break;
      case KOPT_NAME:
        if (i + 1 < argc) strlcpy(p.*(o->s), argv[++i]);
        break;
    }
    mark_given(p, o->word);
    if (strcmp(o->word, "gid") == 0) gid_given = true;
    if (strcmp(o->word, "boxsize") == 0 && !p.convsize_given) p.convsize = p.boxsize / 12;
  }

  if (p.input_ctfstar_given) {
    p.nfiles_refine = get_all_initctf_from_ctfstar(&p, p.input_ctfstar, p.ctfinit, p.files, p.nfiles);
    p.nfiles += p.nfiles_refine;
    p.ps_star_line = f_Nfind_str_line(p.input_ctfstar, "_rlnPhaseShift", 100);
  }
  if (!(p.ctfout_resH_given && p.ctfout_resH >= 2.0f * p.apix)) p.ctfout_resH = 2.0f * p.apix + 0.1f;
  if (p.phase_shift_L_given || p.phase_shift_H_given || p.phase_shift_S_given || p.phase_shift_T_given) {
    p.do_phase_shift = 1;
    ctrl.refine_ps = 1;
    if (!p.phase_shift_S_given) p.phase_shift_S = 3.0f;
    if (!p.defL_given) p.defL = 1000.0f;
    if (!p.defH_given) p.defH = 30000.0f;
    if (!p.defS_given) p.defS = 200.0f;
    if (!p.resL_given) p.resL = 15.0f;
    if (!p.boxsize_given) p.boxsize = 512;
    if (!p.convsize_given) p.convsize = p.boxsize / 20;
  }
  if (p.refine_input_ctf) {
    p.do_phase_shift = 0;
    if (p.ps_star_line > 0 && p.ps_star_line < 100) p.ps_from_star = 1;
  }
  p.files[p.nfiles] = nullptr;
  printf("\n");
  kesmar_check_parameters(argc, argv);
  // The ranks of a job on one machine take its GPUs in turn, unless --gid says.
  if (zk_par_size() > 1 && !gid_given) p.gid = zk_device_of_local_rank(zk_par_local_rank());
  if (p.skip_check_gpu && check_and_set_gid(p.gid) != 0) ZK_FATAL("Error: Failed to find any proper GPU device!\n");
  ZK_CHECK(zk_set_device(p.gid));
}

void KESMAR_A::kesmar_check_parameters(int argc, char** argv) {
  (void)argc;
  KESMAR_Para& p = *para;
  if (p.nfiles == 0) {
    printf("Error: No files to be processed.\n");
    kesmar_search_refine_defocus_help(argv[0]);
    zk_fail_plain("", 1);
  }
  if (p.apix <= 0.01f || p.apix > 100.0f) {
    printf(
        "Warning: Invalid pixel size %.2f! Exit now. Make sure you are using the right value, typically 0.5~3.0. "
        "Set it as default 1.34.\n",
        p.apix);
    p.apix = 1.34f;
  } else if (p.apix > 10.0f || p.apix < 0.3f) {
    printf(
        "Warning: pixel size %.2f too large or small! Program will still run, but make sure you are using the right "
        "value, typically 0.5~3.0.\n",
        p.apix);
  }
  if (p.dstep <= 0.1f || p.dstep > 1000.0f) {
    printf(
        "Warning: Invalid detector size %.2f! Exit now. Make sure you are using the right value, typically "
        "3.0~30.0.Set it as default 14.0.\n",
        p.dstep);
    p.dstep = 14.0f;
  }
  if (p.kV < 10.0f || p.kV > 500.0f) {
    printf(
        "Waring: Invalid high tension value kV=%.2f. Exit now. Make sure you are using the right value, typically "
        "300, 200, 120kV.\n",
        p.kV);
    p.kV = 300.0f;
  }
  if (p.cs < 0.0f || p.cs >= 100.0f) {
    printf(
        "Waring: too small or large --Cs %.2f! Make sure you are using the right value, typically 2.0~2.7 in general "
        "case or ~0 for Cs corrected microscope. Set it as default.\n",
        p.cs);
    p.cs = 2.7f;
  }
  if (p.ac < 0.0f || p.ac > 1.0f) {
    printf(
        "Waring: too small or large --ac %.2f! Make sure you are using the right value, typically 0.04~0.1. Set it "
        "as default.\n",
        p.ac);
    p.ac = 0.1f;
  }
  if (p.bfac <= -500.0f || p.bfac >= 5000.0f) {
    printf(
        "Waring: too small or large --bfac %.2f! Make sure you are using the right value, typically 0~500. Set it "
        "as default.\n",
        p.bfac);
    p.bfac = 150.0f;
  }
  if (p.defH < p.defL) {
    printf("Warning: defL larger than defH, swapping them ...\n");
    const float t = p.defH;
    p.defH = p.defL;
    p.defL = t;
  }
  if (p.defH - p.defL < 10.0f) {
    printf("Warning: difference between defH and defL is too smaller, forcing them to be larger than 10.0 angstrom.\n");
    p.defH = p.defL + 10.0f;
  }
  if (p.defS < 0.0f) {
    printf("Warning: defS smaller than 0, forcing it to be positive ...\n");
    p.defS = -p.defS;
  }
  if (p.defH - p.defL < p.defS) {
    printf("Warning:  def_step is larger than (defH - defL), forcing it to be (defH - defL)/3 ...\n");
    p.defS = (p.defH - p.defL) / 3.0f;
  }
  if (p.astm < 0.0f) p.astm = -p.astm;
  if (p.astm >= 10000.0f) {
    printf(
        "Waring: too large --astm %.2f! Make sure you are using the right value, typically 100~3000 angstrom. Set "
        "it as default 1000.0 angstrom. \n",
        p.astm);
    p.astm = 1000.0f;
  }
  if (p.resL < p.resH) {
    printf("Warning: resL smaller than resH, swapping them ...\n");
    const float t = p.resL;
    p.resL = p.resH;
    p.resH = t;
  }
  if (p.resH < 2.0f * p.apix) {
    printf(
        "Waring: Invalid resH %.2f! Exit now. Make sure you are using the right value, typically 4.0~8.0 angstrom, "
        "and must be smaller than 30.Set it as default 4.0 angstrom.\n",
        p.resH);
    p.resH = 2.0f * p.apix;
  }
  if (p.resH > 30.0f) {
    printf(
        "Waring: Invalid resH %.2f! Too big for reliable CTF determination! Reset to min{4.0, Nyquist} Make sure "
        "you are using the right value, typically 4.0~8.0 angstrom, and must be smaller than 30.Set it as default "
        "4.0 angstrom.\n",
        p.resH);
    p.resH = 4.0f > 2.0f * p.apix ? 4.0f : 2.0f * p.apix;
  }
  if (p.resH >= 15.0f && p.resH <= 30.0f) {
    printf(
        "Waring: too large resH %.2f! Program will still run, but make sure you are using the right value, "
        "typically 4.0~8.0 angstrom, and must be smaller than 30.0 angstrom.\n",
        p.resH);
  }
  if (p.resL < 6.0f) {
    printf(
        "Waring: Invalid resL %.2f! Exit now. Make sure you are using the right value, typically 500~50 angstrom, "
        "and must be larger than 15. Set as default 50.0 angstrom.\n",
        p.resL);
    p.resL = 50.0f;
  } else if (p.resL <= 12.0f) {
    printf(
        "Waring: too small resL %.2f! Program will still run, but make sure you are using the right value, "
        "typically 500~50 angstrom, and usually larger than 10.0 angstrom.\n",
        p.resL);
  }
  if (p.boxsize > 2048) {
    printf(
        "Waring: too large  --boxsize %d! Make sure you are using the right value, typically 512 or 1024, can't be "
        "larger than 2048(2048 still fine). Set it as default 1024. \n",
        p.boxsize);
    p.boxsize = 1024;
  }
  if (p.boxsize < 128) {
    printf(
        "Waring: too small  --boxsize %d! Make sure you are using the right value, typically 512 or 1024, can't be "
        "smaller than 128(128 still fine). Set it as default 1024. \n",
        p.boxsize);
    p.boxsize = 1024;
  }
  if (p.overlap > 0.9f) {
    printf(
        "Waring: too large --overlap %.2f! Make sure you are using the right value, range 0.0~0.9, best. Set it as "
        "0.9. \n",
        p.overlap);
    p.overlap = 0.9f;
  }
  if (p.overlap < 0.0f) {
    printf(
        "Waring: too small --overlap %.2f! Make sure you are using the right value, typically 0.0~0.9. Set it as "
        "0.0. \n",
        p.overlap);
    p.overlap = 0.0f;
  }
  if (p.convsize > p.boxsize / 2) {
    printf(
        "Waring: too large --convsize %d! Make sure you are using the right value, typically 0.0~0.9. Set it as "
        "default boxsize/12 . \n",
        p.convsize);
    p.convsize = p.boxsize / 12;
  }
  if (p.B_resH < 2.0f * p.apix) p.B_resH = 2.0f * p.apix;
  if (p.phase_shift_L < 0.0f || p.phase_shift_L > 360.0f)
    p.phase_shift_L = hd_periodic_equivalent(p.phase_shift_L, 0.0f, 360.0f);
  if (p.phase_shift_H < 0.0f || p.phase_shift_H > 360.0f)
    p.phase_shift_H = hd_periodic_equivalent(p.phase_shift_H, 0.0f, 360.0f);
  if (p.phase_shift_H < p.phase_shift_L) {
    const float t = p.phase_shift_H;
    p.phase_shift_H = p.phase_shift_L;
    p.phase_shift_L = t;
  }
  if (p.phase_shift_H - p.phase_shift_L <= p.phase_shift_S)
    printf(
        "Waring: too large  phase shift search step: --phase_shift_S %f! Make sure you are using the right value, "
        "typically 3-15. \n",
        p.phase_shift_S);
  if (p.phase_shift_T != 1 && p.phase_shift_T != 2) {
    printf(
        "Waring: invalide --phase_shift_T %d! Make sure you are using the right value: 1 or 2. Forced to set "
        "--phase_shift_T  1\n",
        p.phase_shift_T);
    p.phase_shift_T = 1;
  }
  if (p.mdef_fit == 1 && p.mdef_ave_type == 0)
    printf("Linear fitting for movie CTF is only allowed for coherent averaging (--mdef_ave_type 1).\n");
}
