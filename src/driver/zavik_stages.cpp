// The stages that the driver calls for the run and for each micrograph.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/report.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"
#include "device/process2d_local.h"
#include "device/process2d_raw.h"
#include "driver/zavik_run.h"
#include "formats/mrcfile.h"
#include "formats/pngfile.h"
#include "imagefile/mrc_device.h"
#include "picking/auto_cutoff.h"
#include "picking/box_filter.h"
#include "picking/extract.h"
#include "picking/img_filter.h"
#include "picking/pick_picture.h"
#include "picking/zavik56_grids.h"
#include "picking/zavik56_ice.h"
#include "picking/zavik56_search.h"
#include "picking/zavik56_templates.h"

// The driver reports in the name of main, the program's one entry.
#define STAGE_FATAL(...)                                                 \
  do {                                                                   \
    char msg_[512];                                                      \
    snprintf(msg_, sizeof msg_, __VA_ARGS__);                            \
    zk_fatal("main", zk_basename(__FILE__), __LINE__, msg_);             \
  } while (0)

void zavik_stage_load_templates(ZkRun* run) {
  const Zavik_Para* para = run->para;
  // The generated box is 4*trunc(T_radius) wide: nothing below one pixel.
  if (is_str_null(para->T) && !(para->T_radius >= 1.0f))
    STAGE_FATAL("The template radius of %.3f shrunk pixels (--diameter %.1f at speed %d) is below 1 pixel: use a "
                "larger --diameter or a smaller --speed",
                para->T_radius, para->diameter, para->speed);
  run->h_T_all.reset(get_or_create_template_data(run->Tx, run->Ty, run->Nt, para->T, para->T_radius, para->apixT,
                                                 para->apixM, para->shrink, para->center1_ratio));
  if (run->Tx < 1 || run->Ty < 1 || run->Nt < 1)
    STAGE_FATAL("The templates of %s leave %d x %d shrunk pixels at speed %d: use larger templates or a smaller "
                "--speed",
                para->T, run->Tx, run->Ty, para->speed);
  // The search places each template inside the working square.
  if (run->Tx > run->L || run->Ty > run->L)
    STAGE_FATAL("The templates of %d x %d shrunk pixels do not fit the working image of %d x %d: use smaller "
                "templates or a smaller --diameter",
                run->Tx, run->Ty, run->L, run->L);
}

void zavik_stage_upload_templates(ZkRun* run) {
  const Zavik_Para* para = run->para;
  const size_t TT = (size_t)run->Tx * run->Ty;
  for (int t = 0; t < run->Nt; ++t) {
    // h_T_all keeps the stack as read; each template is normalised on a copy.
    memcpy(run->h_T.data(), run->h_T_all.get() + t * TT, TT * sizeof(float));
    normalize_template_by_type(run->h_T.data(), run->Tx, run->Ty, para->T_norm_type, para->T_radius,
                               para->center1_ratio);
    ZK_CHECK(memcpy_H2D(run->d_T.get() + t * TT, run->h_T.data(), TT * sizeof(float)));
  }
  // Dark particles by default: a positive template, generated ones included,
  // scores high where the image is low.
  if (!para->dont_invertT) hcuda_invert_inplace(run->d_T.get(), (size_t)run->Nt * TT);
}

namespace {

size_t count_not_finite(const float* v, size_t n) {
  size_t bad = 0;
  for (size_t i = 0; i < n; ++i) bad += std::isfinite(v[i]) ? 0 : 1;
  return bad;
}

}  // namespace

ZkIceParams zavik_ice_params(const Zavik_Para* para) {
  ZkIceParams p;
  p.lsigma_R = para->lsigma_R;
  p.lave_R = para->lave_R;
  p.local_soft_edge = para->local_soft_edge;
  p.lsigma_cutoff = para->lsigma_cutoff;
  p.lave_min = para->lave_min;
  p.lave_max = para->lave_max;
  p.cell = zavik_grid_cell(para);
  p.shrink = para->shrink;
  p.write_rejected = para->write_rejected_box != 0;
  p.write_bg = para->write_bg_mic != 0;
  p.write_lsigma = para->write_lsigma_mic != 0;
  return p;
}

int hcuda_2d_ice_detect(const float* d_mic, int nx, int ny, int2 origin, unsigned int* d_ice, const char* mic,
                        const Zavik_Para* para) {
  float2* mic_f = d_alloc_float2((size_t)(nx + 1) * 2 * ny);
  hcuda_2d_mpad_fft_r2c(mic_f, d_mic, nx, ny);
  hcuda_2d_ice_detect(d_mic, mic_f, nx, ny, origin, d_ice, mic, zavik_ice_params(para));
  device_free(mic_f);
  return 0;
}

void zavik_stage_normalize(ZkRun* run, const char* mic) {
  const Zavik_Para* para = run->para;
  const int L = run->L, G = run->G, shrink = para->shrink;
  const size_t LL = (size_t)L * L;
  const float apix_s = (float)shrink * para->apixM;
  run->no_picks = 0;

  cpu_2d_meanshrink_extended_even_square(run->h_shrunk.data(), run->h_raw.data(), run->Nx, run->Ny, shrink);
  ZK_CHECK(memcpy_H2D(run->d_mic.get(), run->h_shrunk.data(), LL * sizeof(float)));
  // The first limit is the Nyquist resolution of the working image: a
  // high-pass at pre_hp with a soft outer edge.
  if (para->do_pre_filter)
    hcuda_2d_bandpass_softR_mpad_inplace(run->d_mic.get(), L, apix_s, (para->apixM + para->apixM) * (float)shrink,
                                         para->pre_hp, 8.0f);
  if (para->write_pref_mic) mrcf_write_xyz_ddata(run->pref_name, run->d_mic.get(), L, L, 1);
  hcuda_normz_inplace(run->d_mic.get(), LL, 1.0f, 0.0f);

  // The spectrum of the mirror-padded image serves the two local means of the
  // ice test and the band-pass: one forward transform instead of three.
  float2* mic_f = nullptr;
  if (para->detect_ice || para->do_bandpass) {
    mic_f = d_alloc_float2((size_t)(L + 1) * 2 * L);
    hcuda_2d_mpad_fft_r2c(mic_f, run->d_mic.get(), L, L);
  }
  // Rejected cells: none left from the last micrograph, then ice, then the
  // coordinates to keep clear of.
  hcuda_empty(run->d_ice.get(), (size_t)run->Gx * run->Gy * sizeof(unsigned int));
  if (para->detect_ice)
    hcuda_2d_ice_detect(run->d_mic.get(), mic_f, L, L, run->origin, run->d_ice.get(), mic, zavik_ice_params(para));
  if (para->mask_excluded && run->n_excluded > 0)
    add_excluded_coords_to_ice(run->d_ice.get(), L, L, G, run->boxes_excluded.data(), run->n_excluded, shrink);
  if (!is_str_null(para->global_excluded_box))
    add_excluded_boxf_to_ice(run->d_ice.get(), L, L, G, para->global_excluded_box, shrink);

  // Filled rejected cells leave no step for the band-pass to ring at; the
  // image's spectrum is made anew for it.  The rejected area first takes in
  // the free cells beside it that hold a rim of contamination or carbon
  // (a pixel eight robust deviations off), and the free pockets it encloses
  // (the flat middle of a disc), up to a square of three cells.
  if (para->fill_rejected) {
    grow_rejected_cells(run->d_mic.get(), run->d_ice.get(), L, L, G, 8.0f);
    close_rejected_pockets(run->d_ice.get(), L, L, G, 9);
    if (hcuda_2d_fill_rejected_cells(run->d_mic.get(), L, L, G, run->d_ice.get(), 2.0f) > 0 && para->do_bandpass)
      hcuda_2d_mpad_fft_r2c(mic_f, run->d_mic.get(), L, L);
  }
  if (para->do_bandpass) hcuda_2d_bandpass_guas_mpad_f(mic_f, run->d_mic.get(), L, apix_s, para->lp, para->hp);
  device_free(mic_f);
  hcuda_normz_inplace(run->d_mic.get(), LL, 1.0f, 0.0f);
  hcuda_2d_generate_mask_by_coords(run->d_mask.get(), run->d_mic.get(), L, L, G, run->d_ice.get(), 0.0f);
  if (para->write_mic_mask) mrcf_write_xyz_ddata(run->mask_name, run->d_mask.get(), L, L, 1);

  // With every cell rejected the mask sums to 0 and the masked mean and
  // deviation would be 0/0: every score of the micrograph would be NaN.  The
  // image keeps its plain normalisation instead, and the micrograph is marked
  // so that PICKING writes empty results for it.
  if (hcuda_fast_sum(run->d_mask.get(), LL) == 0.0f) {
    printf("Warning: every grid cell of micrograph %s is rejected by ice detection or exclusion; no particles will "
           "be picked from it.\n",
           mic);
    run->no_picks = 1;
  } else {
    hcuda_norm_withmask_inplace(run->d_mic.get(), run->d_mask.get(), LL, 1.0f, 0.0f);
    // One NaN or infinite sample spreads over the whole image through the
    // transforms, and an image without contrast divides 0 by 0: either way
    // every score would be NaN and the micrograph would give no particle
    // without a word.
    if (!std::isfinite(hcuda_fast_sum(run->d_mic.get(), LL))) {
      const size_t bad = count_not_finite(run->h_raw.data(), (size_t)run->Nx * run->Ny);
      if (bad > 0)
        printf("Warning: micrograph %s holds NaN or infinite samples (%zu of them); no particles will be picked from "
               "it.\n",
               mic, bad);
      else
        printf("Warning: micrograph %s has no contrast that can be normalised (constant or out-of-range samples); no "
               "particles will be picked from it.\n",
               mic);
      run->no_picks = 1;
    }
  }
  if (para->write_bgfree_mic) mrcf_write_xyz_ddata(run->bgfree_name, run->d_mic.get(), L, L, 1);
}

void zavik_stage_prepare_search(ZkRun* run) {
  const Zavik_Para* para = run->para;
  run->bank.reset();
  // The automatic cutoff needs the minima, which the run's search gives.
  if (!run->shortcuts.run_search && !para->cc_auto) return;
  run->bank.reset(zavik_search_bank_create(run->d_T.get(), run->Nt, run->Tx, run->Ty, run->L, run->L,
                                           para->T_radius, para->psi_start, para->psi_end, para->ang_step,
                                           run->shortcuts.search));
}

void zavik_stage_finish_search(ZkRun* run) {
  run->bank.reset();
}

void zavik_stage_begin_picking(ZkRun* run) {
  if (run->bank && !run->no_picks)
    zavik_search_bank_set_micrograph(run->bank.get(), run->d_mic.get(), run->d_mask.get());
  if (run->para->cc_auto) hcuda_2d_memset(run->d_noise.get(), -INFINITY, run->L, run->L);
}

void zavik_stage_search_template(ZkRun* run, int t) {
  const Zavik_Para* para = run->para;
  const int L = run->L;
  const size_t LL = (size_t)L * L, TT = (size_t)run->Tx * run->Ty;
  if (run->no_picks) {
    // No free cell, so no score: nothing is searched and no candidate written.
    if (para->write_ccmax_mic) memset(run->h_ccmax_stack.data() + t * LL, 0, LL * sizeof(float));
    return;
  }
  if (run->bank)
    zavik_search_bank_run(run->bank.get(), t, run->d_ccmax.get(), run->d_psi.get(), 1, run->d_ccmin.get());
  else
    zavik_ccmax_psi_by_one_template(run->d_mic.get(), run->d_mask.get(), run->d_ccmax.get(), run->d_psi.get(), 1, L, L,
                                    run->d_T.get() + t * TT, run->Tx, run->Ty, para->T_radius, para->psi_start,
                                    para->psi_end, para->ang_step);
  if (para->cc_auto) hcuda_update_noise_max_2d(run->d_noise.get(), run->d_ccmin.get(), L, L);
  // Under the automatic cutoff every candidate goes on; the cutoff comes with
  // the box filter, once all templates are searched.
  const float cutoff = para->cc_auto ? -INFINITY : para->cc_cutoff;
  gpu_find_filter_ccmax_psi_grids_exclusive(run->d_ccmax.get(), run->d_psi.get(), run->grid_index.data(),
                                            run->grid_cc.data(), run->grid_psi.data(), cutoff, L, L, run->G,
                                            run->d_ice.get(), (unsigned int)(run->Gx * run->Gy));
  output_zavik_coord_one_temp(run->raw->fp(), run->grid_index.data(), run->grid_cc.data(), run->grid_psi.data(), t,
                              run->Gx * run->Gy, L, L, para->boxsize / para->shrink);
  if (para->write_ccmax_mic)
    ZK_CHECK(memcpy_D2H(run->h_ccmax_stack.data() + t * LL, run->d_ccmax.get(), LL * sizeof(float)));
}

void zavik_stage_write_ccmax(ZkRun* run) {
  mrcf_write_xyz_data(run->ccmax_name, run->h_ccmax_stack.data(), run->L, run->L, run->Nt);
}

namespace {

// The decoys of the current micrograph: the candidates of its noise map,
// taken by the steps that take the real ones.
std::vector<float> decoy_scores(ZkRun* run) {
  const Zavik_Para* para = run->para;
  const int L = run->L;
  gpu_find_filter_ccmax_psi_grids_exclusive(run->d_noise.get(), run->d_noise.get(), run->grid_index.data(),
                                            run->grid_cc.data(), run->grid_psi.data(), -INFINITY, L, L, run->G,
                                            run->d_ice.get(), (unsigned int)(run->Gx * run->Gy));
  ZkMemText raw;
  output_zavik_coord_one_temp(raw.fp(), run->grid_index.data(), run->grid_cc.data(), run->grid_psi.data(), 0,
                              run->Gx * run->Gy, L, L, para->boxsize / para->shrink);
  raw.finish();
  const std::vector<ZkPick> decoys =
      box_filter_picks(run->Nsx, run->Nsy, para->min_dist_px, -INFINITY, (float)para->shrink, para->boxsize,
                       para->boxsize, run->origin, raw.data(), raw.size(),
                       is_str_null(run->excluded_name) ? nullptr : run->boxes_excluded.data(),
                       is_str_null(run->excluded_name) ? 0 : run->n_excluded);
  std::vector<float> out;
  for (const ZkPick& p : decoys) out.push_back(p.cc);
  return out;
}

}  // namespace

void zavik_apply_auto_cutoff(ZkRun* run, std::vector<ZkPick>& picks) {
  const std::vector<float> decoys = decoy_scores(run);
  std::vector<float> scores;
  for (const ZkPick& p : picks) scores.push_back(p.cc);
  const float cutoff = zavik_auto_cutoff(decoys.data(), (int)decoys.size(), scores.data(), (int)scores.size());
  const size_t candidates = picks.size();
  picks.erase(std::remove_if(picks.begin(), picks.end(), [cutoff](const ZkPick& p) { return !(p.cc >= cutoff); }),
              picks.end());
  if (std::isinf(cutoff))
    printf("Automatic cutoff for %s: no candidate of the %zu stands out of the noise; no particles picked.\n",
           run->mic_name, candidates);
  else
    printf("Automatic cutoff for %s: %.3f, %zu of %zu candidates picked.\n", run->mic_name, cutoff, picks.size(),
           candidates);
}

void zavik_stage_box_filter(ZkRun* run) {
  const Zavik_Para* para = run->para;
  run->raw->finish();
  FILE* fp = run->nonunique_out->fp;
  if (run->raw->size() > 0) fwrite(run->raw->data(), 1, run->raw->size(), fp);
  zk_out_commit(*run->nonunique_out);

  const float cutoff = para->cc_auto ? -INFINITY : para->cc_cutoff;
  std::vector<ZkPick> picks =
      box_filter_picks(run->Nsx, run->Nsy, para->min_dist_px, cutoff, (float)para->shrink, para->boxsize,
                       para->boxsize, run->origin, run->raw->data(), run->raw->size(),
                       is_str_null(run->excluded_name) ? nullptr : run->boxes_excluded.data(),
                       is_str_null(run->excluded_name) ? 0 : run->n_excluded);
  if (para->cc_auto && !run->no_picks) zavik_apply_auto_cutoff(run, picks);
  run->pick_scores.clear();
  for (const ZkPick& p : picks) run->pick_scores.push_back(p.cc);
  ZkOutFile box, star;
  write_box_filter_picks(zk_out_open(box, run->box_name), picks, 2, para->boxsize, para->boxsize, run->origin);
  if (para->write_star)
    write_box_filter_picks(zk_out_open(star, run->star_name), picks, 1, para->boxsize, para->boxsize, run->origin);
  zk_out_commit(box);
  if (para->write_star) zk_out_commit(star);
  run->picks.swap(picks);
}

void zavik_stage_write_picture(ZkRun* run) {
  const Zavik_Para* para = run->para;
  const size_t LL = (size_t)run->L * run->L;
  ZkPicture pic = pick_picture_grey(run->h_raw.data(), run->Nx, run->Ny, para->png);
  std::vector<float> mask(LL);
  ZK_CHECK(memcpy_D2H(mask.data(), run->d_mask.get(), LL * sizeof(float)));
  pick_picture_shade_rejected(&pic, mask.data(), run->L, para->shrink, para->png);
  // Where the coordinate files put the centres, the diameter in samples.
  const float diameter = para->diameter / para->apixM;
  for (const ZkPick& p : run->picks)
    pick_picture_draw_circle(&pic, (float)(ptcl_trunc_to_int(p.fx) + run->origin.x),
                             (float)(ptcl_trunc_to_int(p.fy) + run->origin.y), diameter, para->png);
  pngf_write_rgb(run->png_name, pic.rgb.data(), pic.nx, pic.ny);
}

void zavik_stage_extract(ZkRun* run, const char* mic) {
  mrcf_x2d_extract_ptcls_from_micrograph(mic, run->box_name, run->para->boxsize, 0);
}
