// MRC files for the tests of the file commands: written with a chosen mode
// and pixel size, read back whole.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "formats/mrcfile.h"
#include "imagefile/mrc_whole.h"

// Mode 2 floats, or mode 1 (the values rounded to 16-bit integers).
inline void write_test_mrc(const std::string& path, const std::vector<float>& v, int nx, int ny, int nz = 1,
                           int mode = 2, float apix = 1.5f) {
  MRC_HEAD h;
  memset(&h, 0, sizeof h);
  mrc_init_head(&h);
  mrc_set_head_xyz_apix(&h, nx, ny, nz, apix);
  h.mode = mode;
  FILE* fp = fopen(path.c_str(), "wb");
  fwrite(&h, sizeof h, 1, fp);
  for (float x : v) {
    if (mode == 1) {
      const int16_t s = (int16_t)lrintf(x);
      fwrite(&s, 2, 1, fp);
    } else {
      fwrite(&x, 4, 1, fp);
    }
  }
  fclose(fp);
}

struct TestMrc {
  MRC_HEAD head;
  std::vector<float> v;
  int nx() const { return head.nx; }
  int ny() const { return head.ny; }
  int nz() const { return head.nz; }
};

inline TestMrc read_test_mrc(const std::string& path) {
  TestMrc m;
  mrcf_read_whole(path.c_str(), &m.head, m.v);
  return m;
}
