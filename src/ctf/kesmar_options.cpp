#include "ctf/kesmar_options.h"

#include <cstring>

namespace {

#define KF(w) \
  { #w, KOPT_FLOAT, &KESMAR_Para::w, nullptr, nullptr, false }
#define KI(w) \
  { #w, KOPT_INT, nullptr, &KESMAR_Para::w, nullptr, false }
#define KIF(w) \
  { #w, KOPT_INT, nullptr, &KESMAR_Para::w, nullptr, true }
#define KB(w) \
  { #w, KOPT_BOOL, nullptr, &KESMAR_Para::w, nullptr, false }
#define KS(w) \
  { #w, KOPT_NAME, nullptr, nullptr, &KESMAR_Para::w, false }

// The scan compares each word with these in this order.
const KesmarOption OPTIONS[] = {
    KF(apix),
    KF(kV),
    KF(cs),
    KF(ac),
    KF(phase_shift_L),
    KF(phase_shift_H),
    KF(phase_shift_S),
    KI(phase_shift_T),
    KB(only_search_ps),
    KB(cosearch_refine_ps),
    KF(dstep),
    KF(bfac),
    KF(defL),
    KF(defH),
    KF(defS),
    KF(astm),
    KF(resL),
    KF(resH),
    KI(boxsize),
    KI(convsize),
    KF(overlap),
    KI(refine_2d_T),
    KF(smooth_resL),
    KB(do_validation),
    KF(Href_resL),
    KF(Href_resH),
    KF(Href_bfac),
    KB(do_Hres_ref),
    KF(Href_PS_err),
    KF(Href_U_err),
    KF(Href_V_err),
    KF(Href_A_err),
    KB(do_basic_rotave),
    KB(do_EPA),
    KI(EPA_oversmp),
    KB(refine_after_EPA),
    KI(gid),
    KB(estimate_B),
    KF(B_resL),
    KF(B_resH),
    KB(do_mdef_refine),
    KI(mdef_aveN),
    KB(mdef_fit),
    KI(mdef_ave_type),
    KB(do_local_refine),
    KB(refine_local_astm),
    KIF(local_resL),
    KIF(local_resH),
    KS(boxsuffix),
    KF(local_radius),
    KI(local_boxsize),
    KF(local_overlap),
    KI(local_boxtype),
    KI(local_avetype),
    KB(refine_tilt),
    KIF(init_tilt_ang),
    KIF(init_tilt_err),
    KB(refine_input_ctf),
    KF(ps_init),
    KF(defU_init),
    KF(defV_init),
    KF(defA_init),
    KF(B_init),
    KF(ps_err),
    KF(defU_err),
    KF(defV_err),
    KF(defA_err),
    KF(B_err),
    KS(input_ctfstar),
    KF(ctfout_resL),
    KF(ctfout_resH),
    KF(ctfout_bfac),
    KS(ctfstar),
    KS(logsuffix),
    KB(write_local_ctf),
    KB(output_time),
    KB(plot_res_ring),
    KB(do_phase_flip),
    KB(do_unfinished),
    KB(reload_ctf_files),
    KB(skip_check_mrc),
    KB(skip_check_gpu),
};
#undef KF
#undef KI
#undef KIF
#undef KB
#undef KS
constexpr int N_OPTIONS = (int)(sizeof OPTIONS / sizeof OPTIONS[0]);
static_assert(N_OPTIONS == 82, "a CTF run reads 82 option words");

}  // namespace

const KesmarOption* kesmar_find_option(const char* word) {
  for (const KesmarOption& o : OPTIONS)
    if (keywd_cmp(word, o.word)) return &o;
  return nullptr;
}

const KesmarOption* kesmar_option_named(const char* name) {
  for (const KesmarOption& o : OPTIONS)
    if (strcmp(o.word, name) == 0) return &o;
  return nullptr;
}

void kesmar_fput_option_line(FILE* fp, const KESMAR_Para& p, const KesmarOption& o) {
  const char* label = strcmp(o.word, "kV") == 0 ? "kv" : o.word;
  fprintf(fp, "        --%-21s", label);
  switch (o.kind) {
    case KOPT_FLOAT:
      fprintf(fp, (strcmp(o.word, "apix") == 0 || strcmp(o.word, "dstep") == 0) ? "%.3f\n" : "%.2f\n", p.*(o.f));
      break;
    case KOPT_INT:
    case KOPT_BOOL:
      fprintf(fp, "%d\n", p.*(o.i));
      break;
    case KOPT_NAME:
      fprintf(fp, "%s\n", p.*(o.s));
      break;
  }
}
