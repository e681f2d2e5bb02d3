// libFuzzer target for the coordinate readers: the input is written to a
// temporary file under a .box and a .star name and goes through
// read_all_ptcl_boxes, the STAR head, index and line-count functions and the
// box filter (as raw candidates and as exclusion list).
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/report.h"
#include "formats/boxfile.h"
#include "formats/starfile.h"
#include "picking/box_filter.h"

namespace {

char g_box[128], g_star[128], g_out_box[128], g_out_star[128];

void write_input(const char* name, const uint8_t* data, size_t size) {
  FILE* fp = fopen(name, "wb");
  if (!fp) abort();
  if (size && fwrite(data, 1, size, fp) != size) abort();
  fclose(fp);
}

// A failure the readers report (a .box line of one to three words is
// "unrecognized box format!") is thrown; the fuzzer takes it as an answer and
// goes on.
template <class F>
void reported(F f) {
  try {
    f();
  } catch (const ZkError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* dir = getenv("TMPDIR");
  if (!dir || !*dir) dir = "/tmp";
  long pid = (long)getpid();
  snprintf(g_box, sizeof g_box, "%s/zk_fuzz_%ld.box", dir, pid);
  snprintf(g_star, sizeof g_star, "%s/zk_fuzz_%ld.star", dir, pid);
  snprintf(g_out_box, sizeof g_out_box, "%s/zk_fuzz_%ld_zavik.box", dir, pid);
  snprintf(g_out_star, sizeof g_out_star, "%s/zk_fuzz_%ld_zavik.star", dir, pid);
  // The readers report on standard output; libFuzzer speaks on standard error.
  if (!freopen("/dev/null", "w", stdout)) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  write_input(g_box, data, size);
  write_input(g_star, data, size);

  StarHead* head = star_head_new();
  ParticleInfoIndex index;
  starf_read_head_info_index(g_star, head, &index);
  for (int i = 0; i < head->n_labels; ++i) get_info_index_from_keyword(head->names[i], &index);
  free(head);
  FILE* fp = fopen(g_star, "r");
  if (!fp) abort();
  get_lineN_from_star(fp);
  star_set_pointer(fp, 2);
  fclose(fp);
  get_lineN_from_starf(g_star);
  int n_mics = 0;
  free(get_all_micrographs_from_ctfstar(g_star, &n_mics));

  PTCL_BOX boxes[8];
  read_all_ptcl_boxes(boxes, 8, g_star);
  reported([&] { read_all_ptcl_boxes(boxes, 8, g_box); });
  get_ptcl_number_from_boxf(g_box);
  PTCL_BOX centre = one_new_ptcl_box();
  centre.x = 40, centre.y = 40;
  generate_neighbor_boxes_from_boxf(boxes, 8, centre, 30.0f, 16, g_star);

  // The box filter reads any raw file (lines of fewer than seven words are
  // passed over) and takes the .star and .box copies as exclusion lists.
  box_filter(60, 45, 14.2f, 0.0f, 2.0f, 8, 8, make_i2(3, -2), g_box, g_star, g_out_box, 2);
  reported([&] { box_filter(60, 45, 14.2f, -1.0f, 1.0f, 8, 8, make_i2(0, 0), g_box, g_box, g_out_star, 1); });
  return 0;
}
