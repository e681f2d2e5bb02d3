#include "device/process2d_mrc.h"

#include <cstdlib>

#include "device/process2d_raw_extract.h"
#include "device/report.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "formats/str_utils.h"

namespace {

// The list of a coordinate file at the capacity of extraction, resized to
// square boxes when asked.  Returns the number of records.
int read_extraction_boxes(PTCL_BOX* boxes, const char* boxf, int box) {
  int n = read_all_ptcl_boxes(boxes, ZK_EXTRACT_MAX_BOXES, boxf);
  if (box != 0) resize_ptcl_boxes(boxes, n, box);
  return n;
}

PTCL_BOX* new_box_list() {
  PTCL_BOX* boxes = (PTCL_BOX*)malloc(sizeof(PTCL_BOX) * ZK_EXTRACT_MAX_BOXES);
  if (!boxes) ZK_FATAL("Host memory allocation failed");
  return boxes;
}

}  // namespace

float* get_mrcf_data_ptcls(const char* mic, const char* boxf, int box, int invert) {
  // The whole file, all frames; this read also tests the file's size.
  float* image = get_mrcf_data_all(mic);
  MRC_HEAD* head = get_mrcf_head(mic);
  PTCL_BOX* boxes = new_box_list();
  const int n = read_extraction_boxes(boxes, boxf, box);
  const int w = boxes[0].w, h = boxes[0].h, nz = head->nz;
  if (nz < 1) ZK_FATAL("Micrograph or movie size error!");
  if (w < 0 || h < 0) ZK_FATAL("Particle box size error!");
  const size_t count = (size_t)n * (size_t)w * (size_t)h * (size_t)nz;
  float* stack = (float*)malloc(count ? count * sizeof(float) : 1);
  if (!stack) ZK_FATAL("Host memory allocation failed");
  if (nz == 1)
    cpu_x2d_extract_ptcls_from_micrograph(stack, w, h, n, image, head->nx, head->ny, boxes);
  else
    cpu_x2d_extract_ptcls_from_movie(stack, w, h, nz, n, image, head->nx, head->ny, boxes);
  if (invert)
    for (size_t i = 0; i < count; ++i) stack[i] *= -1.0f;
  free(boxes);
  free(image);
  free(head);
  return stack;
}

int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic, const char* boxf, int box, int invert) {
  PTCL_BOX* boxes = new_box_list();
  const int n = read_extraction_boxes(boxes, boxf, box);
  const long nz = get_mrcf_dim_size(mic, "z");
  float* stack = get_mrcf_data_ptcls(mic, boxf, box, invert);
  char name[ZK_TXT_LEN];
  set_outname_by_suffix(name, mic, "_particles.mrcs");
  mrcf_write_xyz_data(name, stack, boxes[0].w, boxes[0].h, (int)(nz * n));
  free(stack);
  free(boxes);
  return 0;
}
