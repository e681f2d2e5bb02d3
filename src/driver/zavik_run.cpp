#include "driver/zavik_run.h"

void zavik_run_set_geometry(ZkRun* run) {
  const int shrink = run->para->shrink;
  run->Nx = run->head_first.nx;
  run->Ny = run->head_first.ny;
  run->origin = make_i2(0, 0);
  // The longer side decides; the remainder beyond a multiple of 2 * shrink is lost.
  const int longer = run->Nx > run->Ny ? run->Nx : run->Ny;
  run->L = 2 * (longer / (2 * shrink));
  run->Nsx = run->Nx / shrink;
  run->Nsy = run->Ny / shrink;
}

void zavik_run_set_grid(ZkRun* run) {
  run->G = zavik_grid_cell(run->para);
  run->Gx = (run->L + run->G - 1) / run->G;
  run->Gy = run->Gx;  // the working image is square
}

void zavik_run_allocate(ZkRun* run) {
  const size_t LL = (size_t)run->L * run->L;
  const size_t TT = (size_t)run->Tx * run->Ty;
  run->h_raw.assign((size_t)run->Nx * run->Ny, 0.0f);
  run->h_shrunk.assign(LL, 0.0f);
  run->h_T.assign(TT, 0.0f);
  // The score maps are kept for "_ccmax.mrc" only.
  if (run->para->write_ccmax_mic) run->h_ccmax_stack.assign((size_t)run->Nt * LL, 0.0f);
  run->d_T.allocate((size_t)run->Nt * TT);
  run->d_mic.allocate(LL);
  run->d_ccmax.allocate(LL);
  run->d_psi.allocate(LL);
  run->d_mask.allocate(LL);

  zavik_run_set_grid(run);
  const size_t GG = (size_t)run->Gx * run->Gy;
  run->boxes_excluded.assign(GG, PTCL_BOX());
  run->grid_index.assign(GG, 0u);
  run->grid_cc.assign(GG, 0.0f);
  run->grid_psi.assign(GG, 0.0f);
  run->d_ice.allocate(GG);
  if (run->para->cc_auto) {
    run->d_ccmin.allocate(LL);
    run->d_noise.allocate(LL);
  }
}
