// The stages of a micrograph's road that the driver calls in their places.
#include "driver/zavik_run.h"

#include "device/cuda_general.h"
#include "device/process2d_mrc.h"
#include "picking/zavik56_grids.h"
#include "picking/zavik56_search.h"

void zavik_stage_load_templates(ZkRun* run) {
  run->h_T_all = nullptr;
  run->Tx = run->Ty = run->Nt = 0;
}

void zavik_stage_upload_templates(ZkRun*) {}

void zavik_stage_normalize(ZkRun*) {}

void zavik_stage_prepare_search(ZkRun* run) {
  const Zavik_Para* para = run->para;
  run->bank = nullptr;
  if (!zavik_shortcuts().run_search) return;
  run->bank = zavik_search_bank_create(run->d_T, run->Nt, run->Tx, run->Ty, run->L, run->L, para->T_radius,
                                       para->psi_start, para->psi_end, para->ang_step, zavik_shortcuts().search);
}

void zavik_stage_finish_search(ZkRun* run) {
  zavik_search_bank_destroy(run->bank);
  run->bank = nullptr;
}

void zavik_stage_begin_picking(ZkRun* run) {
  if (run->bank) zavik_search_bank_set_micrograph(run->bank, run->d_mic, run->d_mask);
}

void zavik_stage_search_template(ZkRun* run, int t) {
  const Zavik_Para* para = run->para;
  const int L = run->L;
  const size_t LL = (size_t)L * L, TT = (size_t)run->Tx * run->Ty;
  if (run->bank)
    zavik_search_bank_run(run->bank, t, run->d_ccmax, run->d_psi, 1);
  else
    zavik_ccmax_psi_by_one_template(run->d_mic, run->d_mask, run->d_ccmax, run->d_psi, 1, L, L, run->d_T + t * TT,
                                    run->Tx, run->Ty, para->T_radius, para->psi_start, para->psi_end,
                                    para->ang_step);
  gpu_find_filter_ccmax_psi_grids_exclusive(run->d_ccmax, run->d_psi, run->grid_index, run->grid_cc, run->grid_psi,
                                            para->cc_cutoff, L, L, run->G, run->d_ice,
                                            (unsigned int)(run->Gx * run->Gy));
  output_zavik_coord_one_temp(run->fp_nonunique, run->grid_index, run->grid_cc, run->grid_psi, t, run->Gx * run->Gy,
                              L, L, para->boxsize / para->shrink);
  if (para->write_ccmax_mic) ZK_CHECK(memcpy_D2H(run->h_ccmax_stack + t * LL, run->d_ccmax, LL * sizeof(float)));
}

void zavik_stage_write_ccmax(ZkRun* run) {
  mrcf_write_xyz_data(run->ccmax_name, run->h_ccmax_stack, run->L, run->L, run->Nt);
}

void zavik_stage_box_filter(ZkRun* run) {
  const Zavik_Para* para = run->para;
  box_filter(run->Nsx, run->Nsy, para->min_dist_px, para->cc_cutoff, (float)para->shrink, para->boxsize,
             para->boxsize, run->origin, run->nonunique_name, run->excluded_name, run->box_name, 2);
  if (para->write_star)
    box_filter(run->Nsx, run->Nsy, para->min_dist_px, para->cc_cutoff, (float)para->shrink, para->boxsize,
               para->boxsize, run->origin, run->nonunique_name, run->excluded_name, run->star_name, 1);
}

void zavik_stage_extract(ZkRun* run, const char* mic) {
  mrcf_x2d_extract_ptcls_from_micrograph(mic, run->box_name, run->para->boxsize, 0);
}
