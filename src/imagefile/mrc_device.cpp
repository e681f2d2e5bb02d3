#include "imagefile/mrc_device.h"

#include <cstring>
#include <vector>

#include "core/report.h"
#include "device/cuda_general.h"
#include "formats/safe_output.h"

int mrc_write_head_ddata(FILE* fp, MRC_HEAD* head, const float* d_data) {
  if (head->mode != MRC_MODE_FLOAT)
    ZK_FATAL("mrc_write_head_alldata() does not support writing float data to other MRC format.");
  const size_t n = mrc_head_samples(head);
  std::vector<float> h(n > 0 ? n : 1);
  if (n > 0) ZK_CHECK(memcpy_D2H(h.data(), d_data, n * sizeof(float)));
  mrc_write_head_data(fp, head, h.data());
  return 0;
}

int mrcf_write_xyz_ddata(const char* name, const float* d_data, int nx, int ny, int nz) {
  MRC_HEAD head;
  memset(&head, 0, sizeof head);
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, MRC_MODE_FLOAT);
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  mrc_write_head_ddata(fp, &head, d_data);
  zk_out_commit(out);
  return 0;
}

int mrcf_write_head_ddata(const char* name, MRC_HEAD* head, const float* d_data) {
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  mrc_write_head_ddata(fp, head, d_data);
  zk_out_commit(out);
  return 0;
}
