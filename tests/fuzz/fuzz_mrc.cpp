// libFuzzer target for the micrograph reader: the input is written to a
// temporary file and read as the run reads a micrograph: the head (either
// byte order), the vetting, and, when the vetting passes, slice 0 as floats.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "formats/mrcfile.h"

namespace {

char g_mic[128];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* dir = getenv("TMPDIR");
  if (!dir || !*dir) dir = "/tmp";
  snprintf(g_mic, sizeof g_mic, "%s/zk_fuzz_%ld.mrc", dir, (long)getpid());
  // The reader reports on standard output; libFuzzer speaks on standard error.
  if (!freopen("/dev/null", "w", stdout)) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* fp = fopen(g_mic, "wb");
  if (!fp) abort();
  if (size && fwrite(data, 1, size, fp) != size) abort();
  fclose(fp);

  fp = fopen(g_mic, "rb");
  if (!fp) abort();
  MRC_HEAD head;
  mrc_read_head(fp, &head);
  mrc_get_head_mode(&head);
  if (mrc_vet_micrograph(g_mic, fp, &head) == 0) {
    // The vetting has bounded the plane by the file's size.
    std::vector<float> plane((size_t)head.nx * head.ny);
    mrc_read_slice(fp, &head, 0, 'z', plane.data());
  }
  fclose(fp);
  return 0;
}
