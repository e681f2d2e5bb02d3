#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Files are built byte by byte here, independently of MRC_HEAD.
void put32(Bytes& b, size_t off, uint32_t v, bool be = false) {
  for (int i = 0; i < 4; ++i) b[off + i] = (unsigned char)(v >> (be ? 8 * (3 - i) : 8 * i));
}
void put16(Bytes& b, size_t off, uint16_t v, bool be = false) {
  b[off + (be ? 1 : 0)] = (unsigned char)v;
  b[off + (be ? 0 : 1)] = (unsigned char)(v >> 8);
}
void putf(Bytes& b, size_t off, float f, bool be = false) {
  uint32_t u;
  memcpy(&u, &f, 4);
  put32(b, off, u, be);
}
uint32_t get32(const std::string& s, size_t off) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= (uint32_t)(unsigned char)s[off + i] << (8 * i);
  return v;
}
int32_t geti(const std::string& s, size_t off) { return (int32_t)get32(s, off); }
int16_t geth(const std::string& s, size_t off) {
  return (int16_t)((unsigned char)s[off] | ((unsigned char)s[off + 1] << 8));
}
float getf(const std::string& s, size_t off) {
  uint32_t u = get32(s, off);
  float f;
  memcpy(&f, &u, 4);
  return f;
}

Bytes raw_head(int nx, int ny, int nz, int mode, bool be = false) {
  Bytes b(1024, 0);
  put32(b, 0, nx, be);
  put32(b, 4, ny, be);
  put32(b, 8, nz, be);
  put32(b, 12, mode, be);
  memcpy(&b[208], "MAP ", 4);
  if (be) {
    b[212] = 0x11;
    b[213] = 0x11;
  } else {
    b[212] = 0x44;
    b[213] = 0x41;
  }
  return b;
}

void write_bytes(const std::string& path, const Bytes& b) {
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  if (!b.empty()) fwrite(b.data(), 1, b.size(), f);
  fclose(f);
}

// A mode 2 file of nx x ny x nz floats with value x + 10 y + 100 z.
std::string make_float_volume(const ZkTmpDir& dir, int nx, int ny, int nz) {
  Bytes b = raw_head(nx, ny, nz, 2);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        size_t off = b.size();
        b.resize(off + 4);
        putf(b, off, (float)(x + 10 * y + 100 * z));
      }
  std::string p = dir / "vol.mrc";
  write_bytes(p, b);
  return p;
}

// Reads a whole file through the stream functions.
std::vector<float> read_slice_of(const std::string& p, int slice, char axis, size_t n, float fill = -7.0f) {
  std::vector<float> v(n, fill);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(mrc_read_slice(f, &h, slice, axis, v.data()), 0);
  fclose(f);
  return v;
}
std::vector<float> read_all_of(const std::string& p, size_t n, float fill = -7.0f) {
  std::vector<float> v(n, fill);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(mrc_read_all(f, &h, v.data()), 0);
  fclose(f);
  return v;
}

std::string captured_run(const std::function<void()>& fn) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  fn();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

}  // namespace

// ---------------------------------------------------------------- the head

TEST(MrcHead, EveryFieldLandsAtItsByteOffset) {
  ZkTmpDir dir;
  MRC_HEAD h;
  memset(&h, 0, sizeof h);
  h.nx = 11; h.ny = 12; h.nz = 13; h.mode = 2;
  h.nxstart = -14; h.nystart = 15; h.nzstart = 16;
  h.mx = 17; h.my = 18; h.mz = 19;
  h.xlen = 1.5f; h.ylen = 2.5f; h.zlen = 3.5f;
  h.alpha = 80.0f; h.beta = 81.0f; h.gamma = 82.0f;
  h.mapc = 3; h.mapr = 1; h.maps = 2;
  h.amin = -4.25f; h.amax = 9.75f; h.amean = 0.125f;
  h.ispg = 7; h.nsymbt = -8; h.next = 96; h.creatid = 9986;
  h.blank[0] = 'b'; h.blank[29] = 'B';
  h.extra[0] = 'e'; h.extra[67] = 'E';
  h.xorg = 5.5f; h.yorg = 6.5f; h.zorg = 7.5f;
  memcpy(h.cmap, "MAP ", 4);
  h.stamp[0] = 0x44; h.stamp[1] = 0x41;
  h.rms = 0.5f; h.nlabl = 2;
  strcpy(h.labels[0], "first");
  strcpy(h.labels[9], "last");
  std::string p = dir / "h.mrc";
  FILE* f = fopen(p.c_str(), "wb");
  mrc_write_head(f, &h);
  fclose(f);
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), 1024u);
  EXPECT_EQ(geti(s, 0), 11); EXPECT_EQ(geti(s, 4), 12); EXPECT_EQ(geti(s, 8), 13); EXPECT_EQ(geti(s, 12), 2);
  EXPECT_EQ(geti(s, 16), -14); EXPECT_EQ(geti(s, 20), 15); EXPECT_EQ(geti(s, 24), 16);
  EXPECT_EQ(geti(s, 28), 17); EXPECT_EQ(geti(s, 32), 18); EXPECT_EQ(geti(s, 36), 19);
  EXPECT_EQ(getf(s, 40), 1.5f); EXPECT_EQ(getf(s, 44), 2.5f); EXPECT_EQ(getf(s, 48), 3.5f);
  EXPECT_EQ(getf(s, 52), 80.0f); EXPECT_EQ(getf(s, 56), 81.0f); EXPECT_EQ(getf(s, 60), 82.0f);
  EXPECT_EQ(geti(s, 64), 3); EXPECT_EQ(geti(s, 68), 1); EXPECT_EQ(geti(s, 72), 2);
  EXPECT_EQ(getf(s, 76), -4.25f); EXPECT_EQ(getf(s, 80), 9.75f); EXPECT_EQ(getf(s, 84), 0.125f);
  EXPECT_EQ(geth(s, 88), 7); EXPECT_EQ(geth(s, 90), -8); EXPECT_EQ(geti(s, 92), 96); EXPECT_EQ(geth(s, 96), 9986);
  EXPECT_EQ(s[98], 'b'); EXPECT_EQ(s[127], 'B'); EXPECT_EQ(s[128], 'e'); EXPECT_EQ(s[195], 'E');
  EXPECT_EQ(getf(s, 196), 5.5f); EXPECT_EQ(getf(s, 200), 6.5f); EXPECT_EQ(getf(s, 204), 7.5f);
  EXPECT_EQ(s.substr(208, 4), "MAP ");
  EXPECT_EQ((unsigned char)s[212], 0x44); EXPECT_EQ((unsigned char)s[213], 0x41);
  EXPECT_EQ(getf(s, 216), 0.5f); EXPECT_EQ(geti(s, 220), 2);
  EXPECT_EQ(s.substr(224, 5), "first"); EXPECT_EQ(s.substr(224 + 9 * 80, 4), "last");
}

TEST(MrcHead, InitialValues) {
  MRC_HEAD* h = mrc_new_head();
  const char* b = (const char*)h;
  std::string s(b, 1024);
  EXPECT_EQ(geti(s, 0), 1); EXPECT_EQ(geti(s, 4), 1); EXPECT_EQ(geti(s, 8), 1); EXPECT_EQ(geti(s, 12), 2);
  EXPECT_EQ(geti(s, 16), 0); EXPECT_EQ(geti(s, 28), 1); EXPECT_EQ(geti(s, 36), 1);
  EXPECT_EQ(getf(s, 40), 1.0f); EXPECT_EQ(getf(s, 48), 1.0f);
  EXPECT_EQ(getf(s, 52), 90.0f); EXPECT_EQ(getf(s, 60), 90.0f);
  EXPECT_EQ(geti(s, 64), 1); EXPECT_EQ(geti(s, 68), 2); EXPECT_EQ(geti(s, 72), 3);
  EXPECT_EQ(getf(s, 76), 0.0f); EXPECT_EQ(getf(s, 80), 255.0f); EXPECT_EQ(getf(s, 84), 128.0f);
  EXPECT_EQ(geth(s, 88), 1); EXPECT_EQ(geth(s, 90), 0); EXPECT_EQ(geti(s, 92), 0); EXPECT_EQ(geth(s, 96), 1000);
  EXPECT_EQ(s.substr(208, 4), "MAP ");
  EXPECT_EQ((unsigned char)s[212], 0x44); EXPECT_EQ((unsigned char)s[213], 0x41);
  EXPECT_EQ(s[214], 0); EXPECT_EQ(s[215], 0);
  EXPECT_EQ(geti(s, 220), 0);
  for (int i = 224; i < 1024; ++i) ASSERT_EQ(s[i], 0) << i;
  free(h);
}

TEST(MrcHead, MissingStampIsRepairedAndReadBackKeepsEveryOtherByte) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 1, 1, 2);
  memset(&b[208], 0, 8);
  for (int i = 16; i < 208; ++i) b[i] = (unsigned char)(i * 7);
  for (int i = 216; i < 1024; ++i) b[i] = (unsigned char)(i * 3);
  put32(b, 4, 1);
  put32(b, 8, 1);
  b.resize(1032, 0);
  std::string p = dir / "nostamp.mrc";
  write_bytes(p, b);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  fclose(f);
  EXPECT_EQ(memcmp(h.cmap, "MAP ", 4), 0);
  EXPECT_EQ(h.stamp[0], 0x44);
  EXPECT_EQ(h.stamp[1], 0x41);
  EXPECT_EQ(h.stamp[2], 0);
  EXPECT_EQ(h.stamp[3], 0);
  std::string q = dir / "back.mrc";
  f = fopen(q.c_str(), "wb");
  mrc_write_head(f, &h);
  fclose(f);
  std::string s = zk_slurp(q);
  ASSERT_EQ(s.size(), 1024u);
  for (int i = 0; i < 1024; ++i) {
    if (i >= 208 && i < 216) continue;
    ASSERT_EQ((unsigned char)s[i], b[i]) << "byte " << i;
  }
  const unsigned char stmp[8] = {0x4D, 0x41, 0x50, 0x20, 0x44, 0x41, 0, 0};
  EXPECT_EQ(memcmp(s.data() + 208, stmp, 8), 0);
}

TEST(MrcHead, WritingAHeadWithoutStampWarnsAndWritesAllTheSame) {
  ZkTmpDir dir;
  MRC_HEAD* h = mrc_new_head();
  memset(h->cmap, 0, 4);
  std::string p = dir / "w.mrc";
  FILE* f = fopen(p.c_str(), "wb");
  std::string out = captured_run([&] { mrc_write_head(f, h); });
  fclose(f);
  EXPECT_NE(out.find("Warning in function mrc_write_head(), file mrcfile.cpp on line "), std::string::npos);
  EXPECT_NE(out.find(": MRC format problem! Check file format!\n!\n"), std::string::npos);
  EXPECT_EQ(zk_slurp(p).size(), 1024u);
  EXPECT_EQ(mrc_check_head(h), -1);
  free(h);
}

TEST(MrcHead, CheckHeadAndSmallSetters) {
  MRC_HEAD* h = mrc_new_head();
  EXPECT_EQ(mrc_check_head(h), 0);
  memcpy(h->cmap, "XAP ", 4);
  std::string out = captured_run([&] { EXPECT_EQ(mrc_check_head(h), -1); });
  EXPECT_EQ(out, "Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n");
  mrc_set_head_xyz_mmm(h, 4, 6, 8, 5.0f, -1.0f, 2.0f);
  EXPECT_EQ(h->nx, 4); EXPECT_EQ(h->ny, 6); EXPECT_EQ(h->nz, 8);
  EXPECT_EQ(h->amin, -1.0f); EXPECT_EQ(h->amax, 5.0f); EXPECT_EQ(h->amean, 2.0f);
  mrc_set_head_xyz_mmmm(h, 3, 3, 3, 0.0f, 1.0f, 0.5f, 6);
  EXPECT_EQ(h->mode, 6); EXPECT_EQ(h->amin, 0.0f); EXPECT_EQ(h->amax, 1.0f);
  EXPECT_TRUE(is_mrc_square(h)); EXPECT_TRUE(is_mrc_cube(h)); EXPECT_EQ(mrc_check_even_size(h), -1);
  mrc_set_head_xyz(h, 4, 6, 4);
  EXPECT_FALSE(is_mrc_square(h)); EXPECT_FALSE(is_mrc_cube(h)); EXPECT_EQ(mrc_check_even_size(h), 0);
  mrc_set_head_xyz(h, 4, 4, 5);
  EXPECT_TRUE(is_mrc_square(h)); EXPECT_FALSE(is_mrc_cube(h));
  mrc_set_head_mode(h, 0);
  EXPECT_EQ(h->mode, 0);
  free(h);
}

TEST(MrcHead, ModeNames) {
  MRC_HEAD h;
  const std::pair<int, const char*> names[] = {
      {0, "Byte"}, {1, "Short"}, {2, "Float"}, {3, "Complex Short"}, {4, "Complex Float"},
      {6, "Unsigned Short"}, {12, "Float16"}, {16, "RGB"}, {20, "Complex Float (Real, Imag)"},
      {21, "Complex Float (Amp, Rad)"}, {22, "Complex Float (Amp, Deg)"}, {5, "Unknown"}, {-1, "Unknown"}};
  for (auto& n : names) {
    h.mode = n.first;
    EXPECT_STREQ(mrc_get_head_mode(&h), n.second) << n.first;
  }
}

// ---------------------------------------------------------------- sample modes

TEST(MrcRead, EdgeValuesOfIntegerModesInSliceAndWholeReads) {
  ZkTmpDir dir;
  struct Case {
    int mode;
    Bytes samples;
    std::vector<float> want;
  } cases[] = {
      {0, {0xFF, 0x00, 0x80, 0x7F}, {255.0f, 0.0f, 128.0f, 127.0f}},
      {1, {0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7F, 0x02, 0x01}, {-1.0f, -32768.0f, 32767.0f, 258.0f}},
      {6, {0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7F, 0x02, 0x01}, {65535.0f, 32768.0f, 32767.0f, 258.0f}},
  };
  for (auto& c : cases) {
    Bytes b = raw_head(2, 2, 1, c.mode);
    b.insert(b.end(), c.samples.begin(), c.samples.end());
    std::string p = dir / ("m" + std::to_string(c.mode) + ".mrc");
    write_bytes(p, b);
    EXPECT_EQ(read_slice_of(p, 0, 'z', 4), c.want) << "slice, mode " << c.mode;
    EXPECT_EQ(read_all_of(p, 4), c.want) << "whole, mode " << c.mode;
  }
}

TEST(MrcRead, HalfPrecisionSamplesAreExact) {
  ZkTmpDir dir;
  const uint16_t bits[] = {0x3C00, 0xC000, 0x7BFF, 0x0001, 0x03FF, 0x0400, 0x8000, 0x3555,
                           0x7C00, 0xFC00, 0x7E00, 0x8001, 0x0000, 0xBC01, 0x0200, 0x4248};
  const float want[] = {1.0f,
                        -2.0f,
                        65504.0f,
                        std::ldexp(1.0f, -24),
                        std::ldexp(1023.0f, -24),
                        std::ldexp(1.0f, -14),
                        -0.0f,
                        std::ldexp(1365.0f, -12),  // 0x3555: exponent -2, mantissa 0x155
                        INFINITY,
                        -INFINITY,
                        NAN,
                        -std::ldexp(1.0f, -24),
                        0.0f,
                        -(1.0f + std::ldexp(1.0f, -10)),
                        std::ldexp(1.0f, -15),
                        3.140625f};
  Bytes b = raw_head(4, 4, 1, 12);
  for (uint16_t v : bits) {
    size_t off = b.size();
    b.resize(off + 2);
    put16(b, off, v);
  }
  std::string p = dir / "half.mrc";
  write_bytes(p, b);
  for (int pass = 0; pass < 2; ++pass) {
    std::vector<float> got = pass == 0 ? read_slice_of(p, 0, 'z', 16) : read_all_of(p, 16);
    for (int i = 0; i < 16; ++i) {
      if (std::isnan(want[i])) {
        EXPECT_TRUE(std::isnan(got[i])) << i;
      } else {
        EXPECT_EQ(got[i], want[i]) << "sample " << i << " pass " << pass;
        EXPECT_EQ(std::signbit(got[i]), std::signbit(want[i])) << i;
      }
    }
  }
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(mrc_check_fsize(f, &h), 0);
  fclose(f);
}

TEST(MrcRead, BigEndianFileReadsCorrectly) {
  ZkTmpDir dir;
  // 3 x 2 x 2 floats, big-endian head and samples.
  Bytes b = raw_head(3, 2, 2, 2, true);
  putf(b, 80, 99.5f, true);
  put16(b, 96, 1234, true);
  put32(b, 220, 1, true);
  for (int i = 0; i < 12; ++i) {
    size_t off = b.size();
    b.resize(off + 4);
    putf(b, off, 1.25f * i - 3.0f, true);
  }
  std::string p = dir / "be.mrc";
  write_bytes(p, b);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(h.nx, 3); EXPECT_EQ(h.ny, 2); EXPECT_EQ(h.nz, 2); EXPECT_EQ(h.mode, 2);
  EXPECT_EQ(h.amax, 99.5f); EXPECT_EQ(h.creatid, 1234); EXPECT_EQ(h.nlabl, 1);
  EXPECT_EQ(mrc_check_fsize(f, &h), 0);
  std::vector<float> z1(6);
  mrc_read_slice(f, &h, 1, 'z', z1.data());
  for (int i = 0; i < 6; ++i) EXPECT_EQ(z1[i], 1.25f * (6 + i) - 3.0f);
  std::vector<float> x2(4);
  mrc_read_slice(f, &h, 2, 'x', x2.data());
  for (int k = 0; k < 4; ++k) EXPECT_EQ(x2[k], 1.25f * (k * 3 + 2) - 3.0f);
  fclose(f);
  std::vector<float> all = read_all_of(p, 12);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(all[i], 1.25f * i - 3.0f);

  // Rewriting the head of such a file keeps it big-endian and readable.
  MRC_HEAD* hh = get_mrcf_head(p.c_str());
  mrc_replace_head(p.c_str(), hh);
  free(hh);
  EXPECT_EQ(zk_slurp(p), std::string(b.begin(), b.end()));
}

TEST(MrcRead, BigEndianIntegerAndHalfModes) {
  ZkTmpDir dir;
  for (int mode : {1, 6, 12}) {
    Bytes b = raw_head(2, 1, 1, mode, true);
    b.insert(b.end(), {0xFF, 0xFE, 0x3C, 0x00});
    std::string p = dir / ("be" + std::to_string(mode) + ".mrc");
    write_bytes(p, b);
    std::vector<float> want = mode == 1 ? std::vector<float>{-2.0f, 15360.0f} : std::vector<float>{65534.0f, 15360.0f};
    // 0xFFFE as a half is a NaN: compare the defined sample only.
    std::vector<float> s = read_slice_of(p, 0, 'z', 2), a = read_all_of(p, 2);
    if (mode == 12) {
      EXPECT_TRUE(std::isnan(s[0]));
      EXPECT_TRUE(std::isnan(a[0]));
      EXPECT_EQ(s[1], 1.0f);
      EXPECT_EQ(a[1], 1.0f);
    } else {
      EXPECT_EQ(s, want) << mode;
      EXPECT_EQ(a, want) << mode;
    }
  }
}

// ---------------------------------------------------------------- slices

TEST(MrcRead, SlicesAlongEveryAxisFollowTheIndexFormulas) {
  ZkTmpDir dir;
  const int nx = 5, ny = 4, nz = 3;
  std::string p = make_float_volume(dir, nx, ny, nz);
  for (char a : {'z', 'Z'}) {
    std::vector<float> v = read_slice_of(p, 2, a, nx * ny);
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) ASSERT_EQ(v[y * nx + x], x + 10 * y + 200);
  }
  for (char a : {'y', 'Y'}) {
    std::vector<float> v = read_slice_of(p, 1, a, nx * nz);
    for (int z = 0; z < nz; ++z)
      for (int x = 0; x < nx; ++x) ASSERT_EQ(v[z * nx + x], x + 10 + 100 * z);
  }
  for (char a : {'x', 'X'}) {
    std::vector<float> v = read_slice_of(p, 3, a, ny * nz);
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y) ASSERT_EQ(v[z * ny + y], 3 + 10 * y + 100 * z);
  }
  // Another letter reads nothing and still returns 0.
  std::vector<float> q = read_slice_of(p, 0, 'q', 4);
  EXPECT_EQ(q, std::vector<float>(4, -7.0f));
}

TEST(MrcRead, IntegerSlicesAlongYAndX) {
  ZkTmpDir dir;
  // Mode 1, 3 x 2 x 2, value x + 3y + 6z - 5 (negative included).
  Bytes b = raw_head(3, 2, 2, 1);
  for (int i = 0; i < 12; ++i) {
    size_t off = b.size();
    b.resize(off + 2);
    put16(b, off, (uint16_t)(int16_t)(i - 5));
  }
  std::string p = dir / "s.mrc";
  write_bytes(p, b);
  std::vector<float> y1 = read_slice_of(p, 1, 'y', 6);
  EXPECT_EQ(y1, (std::vector<float>{-2, -1, 0, 4, 5, 6}));
  std::vector<float> x0 = read_slice_of(p, 0, 'x', 4);
  EXPECT_EQ(x0, (std::vector<float>{-5, -2, 1, 4}));
}

TEST(MrcRead, ComplexModeReadsNothingAndRaisesNoMessage) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 2, 1, 4);
  b.resize(1024 + 32, 0x3F);
  std::string p = dir / "c.mrc";
  write_bytes(p, b);
  std::vector<float> v;
  std::string out = captured_run([&] { v = read_slice_of(p, 0, 'z', 4); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(v, std::vector<float>(4, -7.0f));
  // The size check passes for mode 4, the whole read warns and leaves dst.
  out = captured_run([&] { v = read_all_of(p, 4); });
  EXPECT_NE(out.find(": File type unknown!!\n"), std::string::npos) << out;
  EXPECT_EQ(v, std::vector<float>(4, -7.0f));
}

TEST(MrcRead, SecondSectionOfAMovieIsNotReadForSliceZero) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 4, 3, 5);
  std::vector<float> v;
  std::string out = captured_run([&] { v = read_slice_of(p, 0, 'z', 12); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(v[11], 3 + 20);
}

// ---------------------------------------------------------------- sizes

TEST(MrcSize, CheckPassesOnlyOnEquality) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 5, 1, 1);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(get_file_size(f), 1044);
  EXPECT_EQ(ftell(f), 1044);
  EXPECT_EQ(mrc_check_fsize(f, &h), 0);
  h.nx = 4;
  std::string out = captured_run([&] { EXPECT_EQ(mrc_check_fsize(f, &h), -1); });
  EXPECT_EQ(out.substr(0, 24), "File size 1044  4 xyz 16");
  EXPECT_NE(out.find("Warning in function mrc_check_fsize(), file mrcfile.cpp on line "), std::string::npos);
  EXPECT_NE(out.find(": File size error!!\n"), std::string::npos);
  h.nx = 5;
  h.mode = 16;
  out = captured_run([&] { EXPECT_EQ(mrc_check_fsize(f, &h), -1); });
  EXPECT_NE(out.find(": File type unknown!!\n"), std::string::npos);
  fclose(f);
}

TEST(MrcSize, OneByteTooManyEndsWholeReadButNotSliceRead) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 1, 1, 0);
  b.insert(b.end(), {9, 8, 7});
  std::string p = dir / "long.mrc";
  write_bytes(p, b);
  EXPECT_EQ(read_slice_of(p, 0, 'z', 2), (std::vector<float>{9, 8}));
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        free(get_mrcf_data_all(p.c_str()));
      },
      ::testing::ExitedWithCode(1), "File size 1027  1 xyz 2.*File size error!!\n.*File size error!! Exit now!");
}

TEST(MrcSize, ExtendedHeaderIsNotSkipped) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 1, 1, 2);
  put32(b, 92, 8);
  b.resize(1024 + 8, 0);
  for (float v : {3.0f, 4.0f}) {
    size_t off = b.size();
    b.resize(off + 4);
    putf(b, off, v);
  }
  std::string p = dir / "ext.mrc";
  write_bytes(p, b);
  // Samples are taken from byte 1024, so the extended bytes come out first.
  EXPECT_EQ(read_slice_of(p, 0, 'z', 2), (std::vector<float>{0.0f, 0.0f}));
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        std::vector<float> v(2);
        FILE* f = fopen(p.c_str(), "rb");
        MRC_HEAD h;
        mrc_read_head(f, &h);
        mrc_read_all(f, &h, v.data());
      },
      ::testing::ExitedWithCode(1), "Error in function mrc_read_all\\(\\), file mrcfile.cpp on line [0-9]+: File size error!! Exit now!");
}

TEST(MrcSize, TruncatedSliceReadsZerosBeyondTheEnd) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 2, 1, 2);
  b.resize(1024 + 4);
  putf(b, 1024, 6.5f);
  std::string p = dir / "trunc.mrc";
  write_bytes(p, b);
  EXPECT_EQ(read_slice_of(p, 0, 'z', 4), (std::vector<float>{6.5f, 0, 0, 0}));
}

TEST(MrcSize, DimensionKeywords) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 5, 4, 3);
  const std::pair<const char*, long> k[] = {{"x", 5},   {"Y", 4},   {"z", 3},   {"xy", 20},  {"YX", 20},
                                            {"xz", 15}, {"zx", 15}, {"yz", 12}, {"Zy", 12},  {"xYz", 60}};
  for (auto& e : k) EXPECT_EQ(get_mrcf_dim_size(p.c_str(), e.first), e.second) << e.first;
  std::string out = captured_run([&] { EXPECT_EQ(get_mrcf_dim_size(p.c_str(), "w"), 0); });
  EXPECT_NE(out.find("Error in function get_mrcf_dim_size(), file mrcfile.cpp on line "), std::string::npos);
  EXPECT_NE(out.find(": unrecognized dimension keywords w !\n"
                     "valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n"),
            std::string::npos);
}

TEST(MrcSize, MissingFileEndsTheRun) {
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        get_mrcf_head("/nonexistent_zk/a.mrc");
      },
      ::testing::ExitedWithCode(1),
      "Cannot open file /nonexistent_zk/a.mrc. Permission denied or wrong file name.\n"
      "Error in function get_mrcf_head\\(\\), file mrcfile.cpp on line [0-9]+: open file failed.! Exit now!");
}

// ---------------------------------------------------------------- vetting

namespace {
int vet(const std::string& p, std::string* out) {
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  int r = 0;
  *out = captured_run([&] { r = mrc_vet_micrograph(p.c_str(), f, &h); });
  fclose(f);
  return r;
}
}  // namespace

TEST(MrcVet, AcceptsReadableMicrographsOfEveryMode) {
  ZkTmpDir dir;
  for (int mode : {0, 1, 2, 6, 12}) {
    Bytes b = raw_head(3, 2, 4, mode);
    // Only slice 0 must be complete.
    b.resize(1024 + 6 * mrc_mode_bytes(mode), 0);
    std::string p = dir / "ok.mrc", out;
    write_bytes(p, b);
    EXPECT_EQ(vet(p, &out), 0) << mode;
    EXPECT_EQ(out, "");
  }
}

TEST(MrcVet, RefusesEachKindOfUnusableFile) {
  ZkTmpDir dir;
  struct Case {
    const char* what;
    Bytes bytes;
    const char* msg;
  };
  auto with = [](Bytes b, size_t n) {
    b.resize(n, 0);
    return b;
  };
  Bytes short_head(100, 0);
  std::vector<Case> cases = {
      {"short head", short_head, "is too short for an MRC file: 100 bytes, at least 1024 needed.\n"},
      {"nx zero", with(raw_head(0, 4, 1, 2), 2048), "has no usable size in its head: Nx 0, Ny 4, Nz 1.\n"},
      {"ny negative", with(raw_head(4, -4, 1, 2), 2048), "has no usable size in its head: Nx 4, Ny -4, Nz 1.\n"},
      {"nz zero", with(raw_head(4, 4, 0, 2), 2048), "has no usable size in its head: Nx 4, Ny 4, Nz 0.\n"},
      {"nx too large", with(raw_head(1000001, 1, 1, 0), 2048), "is too large: Nx 1000001, Ny 1"},
      {"too many pixels", with(raw_head(65536, 32768, 1, 0), 2048), "is too large: Nx 65536, Ny 32768"},
      {"mode 4", with(raw_head(2, 2, 1, 4), 2048),
       "has mode 4 (Complex Float), which cannot be read; modes 0, 1, 2, 6 and 12 can.\n"},
      {"mode 16", with(raw_head(2, 2, 1, 16), 2048), "has mode 16 (RGB), which cannot be read"},
      {"mode 7", with(raw_head(2, 2, 1, 7), 2048), "has mode 7 (Unknown), which cannot be read"},
      {"slice short", with(raw_head(4, 4, 1, 2), 1024 + 63),
       "is shorter than its head promises: 1087 bytes, at least 1088 needed.\n"},
      {"half slice short", with(raw_head(4, 4, 2, 12), 1024 + 31),
       "is shorter than its head promises: 1055 bytes, at least 1056 needed.\n"},
  };
  for (auto& c : cases) {
    std::string p = dir / "bad.mrc", out;
    write_bytes(p, c.bytes);
    EXPECT_EQ(vet(p, &out), -1) << c.what;
    EXPECT_EQ(out.rfind("Micrograph " + p + " ", 0), 0u) << c.what << ": " << out;
    EXPECT_NE(out.find(c.msg), std::string::npos) << c.what << ": " << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << c.what;
  }
  // Just under 2^31 pixels passes the size test (and fails on the file size).
  std::string p = dir / "big.mrc", out;
  write_bytes(p, with(raw_head(46340, 46340, 1, 0), 2048));
  EXPECT_EQ(vet(p, &out), -1);
  EXPECT_NE(out.find("is shorter than its head promises"), std::string::npos) << out;
}

TEST(MrcVet, StreamPositionIsKept) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 3, 3, 1);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  long pos = ftell(f);
  EXPECT_EQ(mrc_vet_micrograph(p.c_str(), f, &h), 0);
  EXPECT_EQ(ftell(f), pos);
  fclose(f);
}

// ---------------------------------------------------------------- two heads

TEST(MrcTwoHeads, EqualHeadsPassAndADifferenceEndsTheRun) {
  MRC_HEAD* a = mrc_new_head();
  MRC_HEAD* b = mrc_new_head();
  mrc_set_head_xyz_mode(a, 3710, 3838, 1, 2);
  mrc_set_head_xyz_mode(b, 3710, 3838, 1, 2);
  b->amax = 7.0f;  // other fields do not count
  EXPECT_EQ(check_mrc_head_sizes_two("a.mrc", "b.mrc", a, b), 0);
  mrc_set_head_xyz_mode(b, 3710, 3838, 1, 1);
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        check_mrc_head_sizes_two("a.mrc", "b.mrc", a, b);
      },
      ::testing::ExitedWithCode(1),
      "Micrograph \x1b\\[1ma\\.mrc\x1b\\[m has a different size or format from  \x1b\\[1mb\\.mrc\x1b\\[m\\.\n"
      "Check if all the micrographs are the same sizes and format\\? \n"
      "       Nx      Ny      Nz      Mode             File:\n"
      "      3710    3838    1       Float               a\\.mrc\n"
      "      3710    3838    1       Short               b\\.mrc\n$");
  for (int f = 0; f < 3; ++f) {
    mrc_set_head_xyz_mode(b, 3710 + (f == 0), 3838 + (f == 1), 1 + (f == 2), 2);
    EXPECT_EXIT(
        {
          ZK_STDOUT_TO_STDERR();
          check_mrc_head_sizes_two("a.mrc", "b.mrc", a, b);
        },
        ::testing::ExitedWithCode(1), "different size or format");
  }
  free(a);
  free(b);
}

// ---------------------------------------------------------------- writing

TEST(MrcWrite, TwoEqualSamplesGiveTheDocumentedHead) {
  ZkTmpDir dir;
  std::string p = dir / "eq.mrc";
  const float d[2] = {3.5f, 3.5f};
  mrcf_write_xyz_data(p.c_str(), d, 2, 1, 1);
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), 1024u + 8u);
  EXPECT_EQ(geti(s, 0), 2); EXPECT_EQ(geti(s, 4), 1); EXPECT_EQ(geti(s, 8), 1);
  EXPECT_EQ(geti(s, 12), 2);
  EXPECT_EQ(getf(s, 76), 3.5f); EXPECT_EQ(getf(s, 80), 3.5f); EXPECT_EQ(getf(s, 84), 3.5f);
  EXPECT_EQ(geti(s, 28), 1); EXPECT_EQ(geti(s, 32), 1); EXPECT_EQ(geti(s, 36), 1);
  EXPECT_EQ(getf(s, 40), 1.0f); EXPECT_EQ(getf(s, 44), 1.0f); EXPECT_EQ(getf(s, 48), 1.0f);
  EXPECT_EQ(geti(s, 220), 0);
  EXPECT_EQ((unsigned char)s[212], 0x44);
  EXPECT_EQ(getf(s, 1024), 3.5f);
  EXPECT_EQ(getf(s, 1028), 3.5f);
}

TEST(MrcWrite, StackRoundTripAndExtremes) {
  ZkTmpDir dir;
  std::string p = dir / "st.mrc";
  std::vector<float> d(4 * 3 * 2);
  for (size_t i = 0; i < d.size(); ++i) d[i] = (float)((i * 37) % 11) - 4.0f + 0.1f * (float)i;
  double sum = 0.0;
  float mn = d[0], mx = d[0];
  for (float v : d) {
    sum += v;
    mn = std::min(mn, v);
    mx = std::max(mx, v);
  }
  // A file that stood there before is replaced.
  write_bytes(p, Bytes(5000, 1));
  mrcf_write_xyz_data(p.c_str(), d.data(), 4, 3, 2);
  MRC_HEAD* h = get_mrcf_head(p.c_str());
  EXPECT_EQ(h->nz, 2);
  EXPECT_EQ(h->amin, mn);
  EXPECT_EQ(h->amax, mx);
  EXPECT_EQ(h->amean, (float)(sum / d.size()));
  free(h);
  float* back = get_mrcf_data_all(p.c_str());
  EXPECT_EQ(std::vector<float>(back, back + d.size()), d);
  free(back);
  // No temporary file stays behind.
  std::string ls;
  zk_run("ls -A '" + dir.path + "'", &ls);
  EXPECT_EQ(ls, "st.mrc\n");
}

TEST(MrcWrite, MeanIsSummedInDouble) {
  MRC_HEAD* h = mrc_new_head();
  // 1e8 followed by ones: a float sum would lose every 1.
  std::vector<float> d(1001, 1.0f);
  d[0] = 1.0e8f;
  mrc_set_head_mmm_from_data(h, d.data(), (uint32_t)d.size());
  EXPECT_EQ(h->amean, (float)((1.0e8 + 1000.0) / 1001.0));
  EXPECT_EQ(h->amin, 1.0f);
  EXPECT_EQ(h->amax, 1.0e8f);
  free(h);
}

TEST(MrcWrite, EmptyStackHasZeroSizesAndNoSamples) {
  ZkTmpDir dir;
  std::string p = dir / "empty.mrcs";
  mrcf_write_xyz_data(p.c_str(), nullptr, 0, 0, 0);
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), 1024u);
  EXPECT_EQ(geti(s, 0), 0); EXPECT_EQ(geti(s, 4), 0); EXPECT_EQ(geti(s, 8), 0);
  float* d = get_mrcf_data_all(p.c_str());
  free(d);
}

TEST(MrcWrite, NonFloatModeEndsTheRun) {
  ZkTmpDir dir;
  std::string p = dir / "m1.mrc";
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        MRC_HEAD* h = mrc_new_head();
        mrc_set_head_xyz_mode(h, 1, 1, 1, 1);
        float v = 1.0f;
        FILE* f = fopen(p.c_str(), "wb");
        mrc_write_head_data(f, h, &v);
      },
      ::testing::ExitedWithCode(1),
      "mrc_write_head_alldata\\(\\) does not support writing float data to other MRC format.! Exit now!");
}

TEST(MrcWrite, UnwritableNameEndsTheRun) {
  const float v = 0.0f;
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        mrcf_write_xyz_data("/nonexistent_zk/o.mrc", &v, 1, 1, 1);
      },
      ::testing::ExitedWithCode(1),
      "Cannot write to file /nonexistent_zk/o.mrc. Permission denied or no space left!\n.*open file failed.! Exit now!");
}

TEST(MrcWrite, FailedWriteLeavesNoFile) {
  ZkTmpDir dir;
  std::string p = dir / "big.mrc";
  write_bytes(p, Bytes{'o', 'l', 'd'});
  // A file size limit makes the writes fail as a full disk would.
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl;
        rl.rlim_cur = rl.rlim_max = 4096;
        setrlimit(RLIMIT_FSIZE, &rl);
        std::vector<float> d(100000, 1.0f);
        mrcf_write_xyz_data(p.c_str(), d.data(), 1000, 100, 1);
      },
      ::testing::ExitedWithCode(1), "Cannot write to file " + p + ". Permission denied or no space left!");
  EXPECT_EQ(zk_slurp(p), "old");
  std::string ls;
  zk_run("ls -A '" + dir.path + "'", &ls);
  EXPECT_EQ(ls, "big.mrc\n");
}

TEST(MrcWrite, HeadDataFormsWriteTheGivenHead) {
  ZkTmpDir dir;
  std::string p = dir / "hd.mrc";
  MRC_HEAD* h = mrc_new_head();
  mrc_set_head_xyz_mode(h, 2, 2, 1, 2);
  h->creatid = 9986;
  const float d[4] = {1, 2, 3, 6};
  mrcf_write_head_data(p.c_str(), h, d);
  EXPECT_EQ(h->amean, 3.0f);
  MRC_HEAD* r = get_mrcf_head(p.c_str());
  EXPECT_EQ(r->creatid, 9986);
  EXPECT_EQ(r->amax, 6.0f);
  std::vector<float> v(4, -1.0f);
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(p.c_str(), 0, 'z', v.data(), 2, 2, 9986), 0);
  EXPECT_EQ(v, std::vector<float>(d, d + 4));
  v.assign(4, -1.0f);
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(p.c_str(), 0, 'z', v.data(), 2, 2, 1000), -1);
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(p.c_str(), 0, 'z', v.data(), 2, 3, 9986), -1);
  EXPECT_EQ(v, std::vector<float>(4, -1.0f));
  free(r);
  free(h);
}

class MrcDeviceWrite : public BackendTest {};
TEST_P(MrcDeviceWrite, DeviceDataGoesOutAsWritten) {
  ZkTmpDir dir;
  std::string p = dir / "dev.mrc";
  std::vector<float> h(6 * 5 * 2);
  for (size_t i = 0; i < h.size(); ++i) h[i] = 0.5f * (float)i - 7.0f;
  float* d = d_alloc_float(h.size());
  ASSERT_EQ(memcpy_H2D(d, h.data(), h.size() * 4), 0);
  mrcf_write_xyz_ddata(p.c_str(), d, 6, 5, 2);
  MRC_HEAD* head = mrc_new_head();
  mrc_set_head_xyz_mode(head, 6, 5, 2, 2);
  std::string q = dir / "dev2.mrc";
  mrcf_write_head_ddata(q.c_str(), head, d);
  device_free(d);
  free(head);
  float* back = get_mrcf_data_all(p.c_str());
  EXPECT_EQ(std::vector<float>(back, back + h.size()), h);
  free(back);
  EXPECT_EQ(zk_slurp(p), zk_slurp(q));
  MRC_HEAD* r = get_mrcf_head(p.c_str());
  EXPECT_EQ(r->amin, -7.0f);
  EXPECT_EQ(r->amax, 0.5f * 59 - 7.0f);
  free(r);
}
ZK_BACKEND_SUITE(MrcDeviceWrite);

// ---------------------------------------------------------------- library

TEST(MrcLibrary, ReplaceAndUpdateHeadChangeOnlyTheHead) {
  ZkTmpDir dir;
  Bytes b = raw_head(3, 1, 2, 1);
  const int16_t vals[6] = {4, -9, 2, 30, 0, 1};
  for (int16_t v : vals) {
    size_t off = b.size();
    b.resize(off + 2);
    put16(b, off, (uint16_t)v);
  }
  std::string p = dir / "u.mrc";
  write_bytes(p, b);
  std::string out = captured_run([&] { mrcf_update_head(p.c_str()); });
  EXPECT_EQ(out, "updating head!\nupdating head finished!\n");
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), b.size());
  EXPECT_EQ(getf(s, 76), -9.0f);
  EXPECT_EQ(getf(s, 80), 30.0f);
  EXPECT_EQ(getf(s, 84), (float)(28.0 / 6.0));
  EXPECT_EQ(s.substr(1024), std::string(b.begin() + 1024, b.end()));
  EXPECT_EQ(geti(s, 12), 1);
}

TEST(MrcLibrary, CheckedReadsRefuseOtherSizes) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 3, 2, 2);
  std::vector<float> v(12, -1.0f);
  std::string out = captured_run([&] { EXPECT_EQ(mrcf_read_data_check_xy(p.c_str(), v.data(), 2, 3), -1); });
  EXPECT_NE(out.find("Warning in function"), std::string::npos);
  EXPECT_EQ(v, std::vector<float>(12, -1.0f));
  captured_run([&] { EXPECT_EQ(mrcf_read_data_check_xyz(p.c_str(), v.data(), 3, 2, 3), -1); });
  EXPECT_EQ(mrcf_read_data_check_xyz(p.c_str(), v.data(), 3, 2, 2), 0);
  EXPECT_EQ(v[11], 2 + 10 + 100);
  MRC_HEAD h;
  v.assign(12, -1.0f);
  EXPECT_EQ(mrcf_read_head_data_check_xy(p.c_str(), &h, v.data(), 3, 2), 0);
  EXPECT_EQ(h.nz, 2);
  EXPECT_EQ(v[5], 2 + 10);
  v.assign(12, -1.0f);
  EXPECT_EQ(mrcf_read_head_data_nocheck(p.c_str(), &h, v.data()), 0);
  EXPECT_EQ(v[6], 100);
  v.assign(12, -1.0f);
  EXPECT_EQ(mrcf_read_all(p.c_str(), v.data()), 0);
  EXPECT_EQ(v[7], 101);
  float* s1 = get_mrcf_data_sliceN(p.c_str(), 1);
  EXPECT_EQ(s1[4], 1 + 10 + 100);
  free(s1);
}

TEST(MrcLibrary, DoubleAndByteSlices) {
  ZkTmpDir dir;
  Bytes b = raw_head(4, 1, 1, 2);
  putf(b, 76, 0.0f);
  putf(b, 80, 10.0f);
  for (float v : {0.0f, 10.0f, 5.0f, 2.6f}) {
    size_t off = b.size();
    b.resize(off + 4);
    putf(b, off, v);
  }
  std::string p = dir / "db.mrc";
  write_bytes(p, b);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  double dd[4];
  mrc_read_slice_double(f, &h, 0, 'z', dd);
  EXPECT_EQ(dd[3], (double)2.6f);
  unsigned char bb[4];
  mrc_read_slice_byte(f, &h, 0, 'z', bb);
  EXPECT_EQ(bb[0], 255);
  EXPECT_EQ(bb[1], 0);
  EXPECT_EQ(bb[2], 127);  // 127.5 truncated
  EXPECT_EQ(bb[3], (unsigned char)((10.0f - 2.6f) * 255.0f / 10.0f));
  fclose(f);
}

TEST(MrcLibrary, SubAreasAndGrids) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 6, 5, 2);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  std::vector<float> a(2 * 3 * 2);
  EXPECT_EQ(mrc_read_sub_area(f, &h, a.data(), 3, 1, 0, 2, 3, 2), 0);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 2; ++x) EXPECT_EQ(a[(z * 3 + y) * 2 + x], (3 + x) + 10 * (1 + y) + 100 * z);
  captured_run([&] { EXPECT_EQ(mrc_read_sub_area(f, &h, a.data(), 5, 0, 0, 2, 1, 1), -1); });
  // Tiles of 3 at a pitch of 2: (6-3)/2+1 = 2 along x, (5-3)/2+1 = 2 along y.
  std::vector<float> g(4 * 9);
  EXPECT_EQ(mrc_2d_read_grids(f, &h, g.data(), 3, 2), 4);
  for (int t = 0; t < 4; ++t)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) EXPECT_EQ(g[t * 9 + y * 3 + x], (2 * (t % 2) + x) + 10 * (2 * (t / 2) + y));
  fclose(f);
  std::string q = dir / "m0.mrc";
  write_bytes(q, raw_head(2, 2, 1, 0));
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        FILE* g0 = fopen(q.c_str(), "rb");
        MRC_HEAD h0;
        mrc_read_head(g0, &h0);
        float t[4];
        mrc_2d_read_sub_area(g0, &h0, t, 0, 0, 1, 1);
      },
      ::testing::ExitedWithCode(1), "File Mode must be MRC_MODE_FLOAT!Exit now!");
}

TEST(MrcLibrary, FlipYZAndOpenCloseHelpers) {
  ZkTmpDir dir;
  std::string p = make_float_volume(dir, 3, 4, 2);
  std::string q = dir / "flip.mrc";
  std::string out = captured_run([&] { mrc_flipyz(p.c_str(), q.c_str()); });
  EXPECT_EQ(out, "\nBegin flipping:\nflipping finished!");
  MRC_HEAD* h = get_mrcf_head(q.c_str());
  EXPECT_EQ(h->nx, 3); EXPECT_EQ(h->ny, 2); EXPECT_EQ(h->nz, 4);
  EXPECT_EQ(h->amin, 0.0f); EXPECT_EQ(h->amax, 2 + 30 + 100);
  free(h);
  float* d = get_mrcf_data_all(q.c_str());
  // Out (x, z, y) = in (x, y, z).
  for (int y = 0; y < 4; ++y)
    for (int z = 0; z < 2; ++z)
      for (int x = 0; x < 3; ++x) EXPECT_EQ(d[(y * 2 + z) * 3 + x], x + 10 * y + 100 * z);
  free(d);

  std::string o = dir / "io.mrc";
  FILE *fi = nullptr, *fo = nullptr;
  MRC_HEAD* hi = mrc_new_head();
  MRC_HEAD* ho = mrc_new_head();
  mrcf_io_open_io_read_write_head(p.c_str(), o.c_str(), fi, fo, hi, ho);
  EXPECT_EQ(hi->nz, 2);
  EXPECT_EQ(ho->mode, 2);
  std::vector<float> plane(12, 1.5f);
  mrc_add_slice(fo, ho, plane.data());
  mrc_io_close_io_free_head(fi, fo, hi, ho);
  EXPECT_EQ(zk_slurp(o).size(), 1024u + 48u);
}
