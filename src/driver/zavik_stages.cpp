// The stages of a micrograph's road that the driver calls in their places.
// Each body below is still empty: templates, normalisation, search, box filter
// and extraction join here, so until then a run reads and vets its
// micrographs and writes no result.
#include "driver/zavik_run.h"

void zavik_stage_load_templates(ZkRun* run) {
  run->h_T_all = nullptr;
  run->Tx = run->Ty = run->Nt = 0;
}

void zavik_stage_upload_templates(ZkRun*) {}

void zavik_stage_normalize(ZkRun*) {}

void zavik_stage_search_template(ZkRun*, int) {}

void zavik_stage_write_ccmax(ZkRun*) {}

void zavik_stage_box_filter(ZkRun*) {}

void zavik_stage_extract(ZkRun*, const char*) {}
