#include "driver/zavik_run.h"

ZkRunShortcuts& zavik_shortcuts() {
  static ZkRunShortcuts shortcuts;
  return shortcuts;
}

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
