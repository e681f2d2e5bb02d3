// The two echoes of a run's parameters: on standard output when the run
// starts, and at the head of every micrograph's log.
#include <cstring>

#include "ctf/kesmar.h"
#include "ctf/kesmar_options.h"

namespace {

struct Group {
  const char* heading;  // of the log; the screen changes two of them
  const char* names[13];
};

const Group GROUPS[] = {
    {"General options:\n", {"apix", "dstep", "kV", "cs", "ac"}},
    {"Phase shift options:  ",
     {"phase_shift_L", "phase_shift_H", "phase_shift_S", "phase_shift_T", "only_search_ps", "cosearch_refine_ps"}},
    {"Advanced options:\n",
     {"bfac", "defL", "defH", "astm", "resL", "resH", "boxsize", "overlap", "convsize", "refine_2d_T", "smooth_resL"}},
    {"EPA related options:\n", {"do_basic_rotave", "do_EPA", "refine_after_EPA", "EPA_oversmp"}},
    {"High resolution refinement options:\n",
     {"do_Hres_ref", "Href_resL", "Href_resH", "Href_bfac", "Href_PS_err", "Href_U_err", "Href_V_err", "Href_A_err"}},
    {"Bfactor estimation options:\n", {"estimate_B", "B_resL", "B_resH"}},
    {"Movie options:\n", {"do_mdef_refine", "mdef_ave_type", "mdef_aveN", "mdef_fit"}},
    {"Local refinement options:\n",
     {"do_local_refine", "local_radius", "local_boxsize", "local_overlap", "local_boxtype", "local_avetype"}},
    {"Correction options:  \n", {"do_phase_flip"}},
    {"CTF input parameters for refinement:\n",
     {"refine_input_ctf", "ps_init", "defU_init", "defV_init", "defA_init", "B_init", "ps_err", "defU_err", "defV_err",
      "defA_err", "B_err", "input_ctfstar"}},
    {"Validation options:  \n", {"do_validation"}},
    {"Diagnosis CTF output options:\n", {"ctfout_resL", "ctfout_resH", "ctfout_bfac"}},
    {"I/O options:\n",
     {"ctfstar", "logsuffix", "boxsuffix", "write_local_ctf", "skip_check_mrc", "skip_check_gpu", "plot_res_ring",
      "do_unfinished", "reload_ctf_files", "gid"}},
};

// The full list; screen selects the wording of the standard-output echo.
void fput_all(FILE* fp, const KESMAR_Para& p, bool screen) {
  fprintf(fp, "All parameters to be used:\n");
  for (const Group& g : GROUPS) {
    if (strncmp(g.heading, "Phase shift", 11) == 0)
      fprintf(fp, "%s%s", screen ? "Phase shift options: " : g.heading, p.do_phase_shift ? "ON\n" : "OFF\n");
    else if (screen && strncmp(g.heading, "CTF input", 9) == 0)
      fprintf(fp, "Input CTF parameters for refinement:\n");
    else
      fputs(g.heading, fp);
    for (const char* name : g.names) {
      if (!name) break;
      if (strcmp(name, "do_phase_flip") == 0) {
        fprintf(fp, "         --do_phase_flip     %d\n", p.do_phase_flip);
      } else if (screen && strcmp(name, "do_validation") == 0) {
        fprintf(fp, "         --do_validation     %d\n", p.do_validation);
      } else {
        kesmar_fput_option_line(fp, p, *kesmar_option_named(name));
      }
    }
  }
}

void put_rule(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

}  // namespace

void KESMAR_A::kesmar_put_parameters(int argc, char** argv) {
  const KESMAR_Para& p = *para;
  put_rule('*', 99);
  printf("User input parameters:\n");
  for (int i = 1; i < argc; ++i) {
    const KesmarOption* o = kesmar_find_option(argv[i]);
    if (o) kesmar_fput_option_line(stdout, p, *o);
  }
  printf("\n");
  fput_all(stdout, p, true);
  printf("\n");
  printf("All %d files to be searched and refined:\n", p.nfiles_search);
  for (int i = 0; i < p.nfiles_search; ++i) printf("        %s\n", p.files[i]);
  if (p.nfiles_refine != 0) {
    printf("All %d files to be refined:\n", p.nfiles_refine);
    for (int i = p.nfiles_search; i < p.nfiles; ++i) printf("        %s\n", p.files[i]);
  }
}

void KESMAR_A::kesmar_fput_parameters() {
  fprintf(log_fp, "\nKESMAR , %s %s\n", kesmar_version, kesmar_updated_date);
  fput_all(log_fp, *para, false);
}
