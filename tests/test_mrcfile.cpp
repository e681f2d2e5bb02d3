#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "imagefile/mrc_device.h"
#include "test_util.h"

// The statements run in a child that must end with status 1 and print regex.
namespace {

using Bytes = std::vector<unsigned char>;
using Floats = std::vector<float>;

// Files are built byte by byte here, independently of MRC_HEAD.
void put(Bytes& b, size_t off, uint32_t v, int bytes, bool be = false) {
  for (int i = 0; i < bytes; ++i) b[off + i] = (unsigned char)(v >> (be ? 8 * (bytes - 1 - i) : 8 * i));
}
uint32_t bits_of(float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  return u;
}
void add(Bytes& b, uint32_t v, int bytes, bool be = false) {
  b.resize(b.size() + bytes);
  put(b, b.size() - bytes, v, bytes, be);
}
void addf(Bytes& b, float f, bool be = false) { add(b, bits_of(f), 4, be); }

int32_t geti(const std::string& s, size_t off) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= (uint32_t)(unsigned char)s[off + i] << (8 * i);
  return (int32_t)v;
}
float getf(const std::string& s, size_t off) {
  uint32_t u = (uint32_t)geti(s, off);
  float f;
  memcpy(&f, &u, 4);
  return f;
}

Bytes raw_head(int nx, int ny, int nz, int mode, bool be = false) {
  Bytes b(1024, 0);
  const int v[4] = {nx, ny, nz, mode};
  for (int i = 0; i < 4; ++i) put(b, 4 * i, (uint32_t)v[i], 4, be);
  memcpy(&b[208], "MAP ", 4);
  b[212] = be ? 0x11 : 0x44;
  b[213] = be ? 0x11 : 0x41;
  return b;
}

void write_bytes(const std::string& path, const Bytes& b) { zk_put(path, std::string(b.begin(), b.end())); }

// nx x ny x nz samples of value x + 10 y + 100 z, as floats (mode 2) or
// 16-bit integers (mode 1).
std::string make_volume(const ZkTmpDir& dir, int nx, int ny, int nz, int mode = 2) {
  Bytes b = raw_head(nx, ny, nz, mode);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int v = x + 10 * y + 100 * z;
        if (mode == 2) addf(b, (float)v);
        else add(b, (uint32_t)v, 2);
      }
  std::string p = dir / ("vol" + std::to_string(mode) + ".mrc");
  write_bytes(p, b);
  return p;
}

// Reads one plane (axis given) or, for axis 0, the whole file through the
// stream functions into n samples preset to -7.
Floats read_of(const std::string& p, char axis, int slice, size_t n) {
  Floats v(n, -7.0f);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(axis ? mrc_read_slice(f, &h, slice, axis, v.data()) : mrc_read_all(f, &h, v.data()), 0);
  fclose(f);
  return v;
}

}  // namespace

// ---------------------------------------------------------------- the head

TEST(MrcHead, MissingMapWordIsRepairedOnReadAndReportedOnWrite) {
  ZkTmpDir dir;
  Bytes b = raw_head(2, 1, 1, 2);
  memset(&b[208], 0, 8);
  for (int i = 16; i < 208; ++i) b[i] = (unsigned char)(i * 7);
  for (int i = 216; i < 1024; ++i) b[i] = (unsigned char)(i * 3);
  b.resize(1032, 0);
  std::string p = dir / "nostamp.mrc";
  write_bytes(p, b);
  MRC_HEAD* h = get_mrcf_head(p.c_str());
  EXPECT_EQ(mrc_check_head(h), 0);
  mrc_replace_head(p.c_str(), h);
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), 1032u);
  EXPECT_EQ(s.substr(208, 8), std::string("MAP \x44\x41\0\0", 8));
  memcpy(&b[208], s.data() + 208, 8);
  EXPECT_EQ(s, std::string(b.begin(), b.end()));  // every other byte kept
  // A head without the word is reported, and written all the same.
  memcpy(h->cmap, "XAP ", 4);
  std::string out = zk_stdout([&] { EXPECT_EQ(mrc_check_head(h), -1); });
  EXPECT_EQ(out, "Warning: in function 'mrc_check_head()'! Not a valid mrc file head!\n");
  out = zk_stdout([&] { mrc_replace_head(p.c_str(), h); });
  EXPECT_TRUE(zk_has(out, "Warning in function mrc_write_head(), file mrcfile.cpp on line ")) << out;
  EXPECT_TRUE(zk_has(out, ": MRC format problem! Check file format!\n!\n")) << out;
  EXPECT_EQ(zk_slurp(p).substr(208, 4), "XAP ");
  // A maximum below the minimum makes the two change places.
  mrc_set_head_xyz_mmm(h, 3, 3, 3, 5.0f, -1.0f, 2.0f);
  EXPECT_EQ(h->amin, -1.0f);
  EXPECT_EQ(h->amax, 5.0f);
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

TEST(MrcRead, IntegerAndHalfSamplesInBothByteOrders) {
  ZkTmpDir dir;
  struct Case {
    int mode;
    bool be;
    Bytes samples;
    Floats want;
  } cases[] = {
      {0, false, {0xFF, 0x00, 0x80, 0x7F}, {255, 0, 128, 127}},
      {1, false, {0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7F, 0x02, 0x01}, {-1, -32768, 32767, 258}},
      {6, false, {0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7F, 0x02, 0x01}, {65535, 32768, 32767, 258}},
      {1, true, {0xFF, 0xFE, 0x3C, 0x00}, {-2, 15360}},
      {6, true, {0xFF, 0xFE, 0x3C, 0x00}, {65534, 15360}},
  };
  for (auto& c : cases) {
    SCOPED_TRACE("mode " + std::to_string(c.mode) + (c.be ? " big-endian" : ""));
    Bytes b = raw_head((int)c.want.size(), 1, 1, c.mode, c.be);
    b.insert(b.end(), c.samples.begin(), c.samples.end());
    std::string p = dir / "m.mrc";
    write_bytes(p, b);
    EXPECT_EQ(read_of(p, 'z', 0, c.want.size()), c.want);
    EXPECT_EQ(read_of(p, 0, 0, c.want.size()), c.want);
  }
}

TEST(MrcRead, HalfPrecisionSamplesAreExact) {
  ZkTmpDir dir;
  const uint16_t bits[] = {0x3C00, 0xC000, 0x7BFF, 0x0001, 0x03FF, 0x0400, 0x8000, 0x3555,
                           0x7C00, 0xFC00, 0x7E00, 0x8001, 0x0000, 0xBC01, 0x0200, 0x4248};
  const float want[] = {1.0f, -2.0f, 65504.0f, std::ldexp(1.0f, -24), std::ldexp(1023.0f, -24),
                        std::ldexp(1.0f, -14), -0.0f,
                        std::ldexp(1365.0f, -12),  // 0x3555: exponent -2, mantissa 0x155
                        INFINITY, -INFINITY, NAN, -std::ldexp(1.0f, -24), 0.0f, -(1.0f + std::ldexp(1.0f, -10)),
                        std::ldexp(1.0f, -15), 3.140625f};
  Bytes b = raw_head(4, 4, 1, 12);
  for (uint16_t v : bits) add(b, v, 2);
  std::string p = dir / "half.mrc";
  write_bytes(p, b);
  for (char axis : {'z', '\0'}) {
    Floats got = read_of(p, axis, 0, 16);
    for (int i = 0; i < 16; ++i) {
      SCOPED_TRACE("sample " + std::to_string(i) + (axis ? " slice" : " whole"));
      if (std::isnan(want[i])) {
        EXPECT_TRUE(std::isnan(got[i]));
      } else {
        EXPECT_EQ(got[i], want[i]);
        EXPECT_EQ(std::signbit(got[i]), std::signbit(want[i]));
      }
    }
  }
}

TEST(MrcRead, BigEndianFloatFile) {
  ZkTmpDir dir;
  // 3 x 2 x 2 floats, big-endian head and samples.
  Bytes b = raw_head(3, 2, 2, 2, true);
  put(b, 80, bits_of(99.5f), 4, true);
  put(b, 96, 1234, 2, true);
  put(b, 220, 1, 4, true);
  Floats all;
  for (int i = 0; i < 12; ++i) all.push_back(1.25f * i - 3.0f);
  for (float v : all) addf(b, v, true);
  std::string p = dir / "be.mrc";
  write_bytes(p, b);
  MRC_HEAD* h = get_mrcf_head(p.c_str());
  EXPECT_EQ(h->nx, 3); EXPECT_EQ(h->ny, 2); EXPECT_EQ(h->nz, 2); EXPECT_EQ(h->mode, 2);
  EXPECT_EQ(h->amax, 99.5f); EXPECT_EQ(h->creatid, 1234); EXPECT_EQ(h->nlabl, 1);
  EXPECT_EQ(read_of(p, 'z', 1, 6), Floats(all.begin() + 6, all.end()));
  EXPECT_EQ(read_of(p, 'x', 2, 4), (Floats{all[2], all[5], all[8], all[11]}));
  EXPECT_EQ(read_of(p, 0, 0, 12), all);
  // Rewriting the head of such a file keeps it big-endian, byte for byte.
  mrc_replace_head(p.c_str(), h);
  free(h);
  EXPECT_EQ(zk_slurp(p), std::string(b.begin(), b.end()));
}

// ---------------------------------------------------------------- slices

TEST(MrcRead, SlicesAlongEveryAxisOfFloatAndIntegerFiles) {
  ZkTmpDir dir;
  const int nx = 5, ny = 4, nz = 3;
  // Independent references: z plane 2, y row 1, x column 3.
  Floats z2, y1, x3;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) z2.push_back(x + 10 * y + 200);
  for (int z = 0; z < nz; ++z)
    for (int x = 0; x < nx; ++x) y1.push_back(x + 10 + 100 * z);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y) x3.push_back(3 + 10 * y + 100 * z);
  for (int mode : {2, 1}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    std::string p = make_volume(dir, nx, ny, nz, mode);
    // A slice read of a many-section file says nothing and tests no size.
    std::string out = zk_stdout([&] {
      for (char a : {'z', 'Z'}) EXPECT_EQ(read_of(p, a, 2, nx * ny), z2) << a;
      for (char a : {'y', 'Y'}) EXPECT_EQ(read_of(p, a, 1, nx * nz), y1) << a;
      for (char a : {'x', 'X'}) EXPECT_EQ(read_of(p, a, 3, ny * nz), x3) << a;
    });
    EXPECT_EQ(out, "");
    // Planes outside the volume read as zeros.
    EXPECT_EQ(read_of(p, 'z', nz, nx * ny), Floats(nx * ny, 0.0f));
    EXPECT_EQ(read_of(p, 'x', -1, ny * nz), Floats(ny * nz, 0.0f));
    EXPECT_EQ(read_of(p, 'y', ny, nx * nz), Floats(nx * nz, 0.0f));
    // Another letter reads nothing and still returns 0.
    EXPECT_EQ(read_of(p, 'q', 0, 4), Floats(4, -7.0f));
  }
  // A complex file passes its size check; the whole read warns and leaves dst.
  Bytes b = raw_head(2, 2, 1, 4);
  b.resize(1024 + 32, 0x3F);
  const std::string c = dir / "c.mrc";
  write_bytes(c, b);
  Floats v;
  const std::string out = zk_stdout([&] { v = read_of(c, 0, 0, 4); });
  EXPECT_TRUE(zk_has(out, ": File type unknown!!\n")) << out;
  EXPECT_EQ(v, Floats(4, -7.0f));
}

// ---------------------------------------------------------------- sizes

TEST(MrcSize, CheckPassesOnlyOnEquality) {
  ZkTmpDir dir;
  std::string p = make_volume(dir, 5, 1, 1);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  EXPECT_EQ(get_file_size(f), 1044);
  EXPECT_EQ(ftell(f), 1044);
  EXPECT_EQ(mrc_check_fsize(f, &h), 0);
  h.nx = 4;
  std::string out = zk_stdout([&] { EXPECT_EQ(mrc_check_fsize(f, &h), -1); });
  EXPECT_EQ(out.substr(0, 24), "File size 1044  4 xyz 16");
  EXPECT_TRUE(zk_has(out, "Warning in function mrc_check_fsize(), file mrcfile.cpp on line ")) << out;
  EXPECT_TRUE(zk_has(out, ": File size error!!\n")) << out;
  h.nx = 5;
  h.mode = 16;
  out = zk_stdout([&] { EXPECT_EQ(mrc_check_fsize(f, &h), -1); });
  EXPECT_TRUE(zk_has(out, ": File type unknown!!\n")) << out;
  fclose(f);
}

TEST(MrcSize, WrongLengthsEndWholeReadsButNotSliceReads) {
  ZkTmpDir dir;
  std::string p = dir / "m.mrc";
  // One byte too many.
  Bytes b = raw_head(2, 1, 1, 0);
  b.insert(b.end(), {9, 8, 7});
  write_bytes(p, b);
  EXPECT_EQ(read_of(p, 'z', 0, 2), (Floats{9, 8}));
  EXPECT_FAILS("File size 1027  1 xyz 2.*File size error!!\n.*File size error!! Exit now!",
              free(get_mrcf_data_all(p.c_str())));
  // A truncated slice reads zeros beyond the end.
  b = raw_head(2, 2, 1, 2);
  addf(b, 6.5f);
  write_bytes(p, b);
  EXPECT_EQ(read_of(p, 'z', 0, 4), (Floats{6.5f, 0, 0, 0}));
  // An extended header of next bytes is skipped: the samples follow it, and
  // the size check counts it.
  b = raw_head(2, 1, 1, 2);
  put(b, 92, 8, 4);
  b.resize(1024 + 8, 0x7f);
  addf(b, 3.0f);
  addf(b, 4.0f);
  write_bytes(p, b);
  EXPECT_EQ(read_of(p, 'z', 0, 2), (Floats{3.0f, 4.0f}));
  EXPECT_EQ(read_of(p, 0, 0, 2), (Floats{3.0f, 4.0f}));
  MRC_HEAD h;
  mrcf_read_head(p.c_str(), &h);
  EXPECT_EQ(mrc_data_offset(&h), 1032);
  // A head whose extended header leaves too few bytes fails the size check.
  put(b, 92, 12, 4);
  write_bytes(p, b);
  EXPECT_FAILS("Error in function mrc_read_all\\(\\), file mrcfile.cpp on line [0-9]+: File size error!! Exit now!",
               read_of(p, 0, 0, 2));
}

TEST(MrcSize, DimensionKeywordsAndMissingFile) {
  ZkTmpDir dir;
  std::string p = make_volume(dir, 5, 4, 3);
  const std::pair<const char*, long> k[] = {{"x", 5},   {"Y", 4},   {"z", 3},   {"xy", 20},  {"YX", 20},
                                            {"xz", 15}, {"zx", 15}, {"yz", 12}, {"Zy", 12},  {"xYz", 60}};
  for (auto& e : k) EXPECT_EQ(get_mrcf_dim_size(p.c_str(), e.first), e.second) << e.first;
  std::string out = zk_stdout([&] { EXPECT_EQ(get_mrcf_dim_size(p.c_str(), "w"), 0); });
  EXPECT_TRUE(zk_has(out, "Error in function get_mrcf_dim_size(), file mrcfile.cpp on line ")) << out;
  EXPECT_TRUE(zk_has(out, ": unrecognized dimension keywords w !\n"
                       "valid dimension keywords: x, y, z, xy, yx, xz, zx, yz, zy, xyz; not case sensitive\n"))
      << out;
  EXPECT_FAILS("Cannot open file /nonexistent_zk/a.mrc. Permission denied or wrong file name.\n"
              "Error in function get_mrcf_head\\(\\), file mrcfile.cpp on line [0-9]+: open file failed.! Exit now!",
              get_mrcf_head("/nonexistent_zk/a.mrc"));
}

// ---------------------------------------------------------------- vetting

namespace {
// Vets p; the stream position must be kept whatever the answer.
int vet(const std::string& p, std::string* out) {
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  const long pos = ftell(f);
  int r = 0;
  *out = zk_stdout([&] { r = mrc_vet_micrograph(p.c_str(), f, &h); });
  EXPECT_EQ(ftell(f), pos);
  fclose(f);
  return r;
}
Bytes sized(Bytes b, size_t n) {
  b.resize(n, 0);
  return b;
}
}  // namespace

TEST(MrcVet, AcceptsEveryReadableModeWhenSliceZeroIsComplete) {
  ZkTmpDir dir;
  for (int mode : {0, 1, 2, 6, 12}) {
    std::string p = dir / "ok.mrc", out;
    write_bytes(p, sized(raw_head(3, 2, 4, mode), 1024 + 6 * mrc_mode_bytes(mode)));
    EXPECT_EQ(vet(p, &out), 0) << mode;
    EXPECT_EQ(out, "");
  }
}

TEST(MrcVet, RefusesEachKindOfUnusableFile) {
  ZkTmpDir dir;
  const struct {
    Bytes bytes;
    const char* msg;
  } cases[] = {
      {Bytes(100, 0), "is too short for an MRC file: 100 bytes, at least 1024 needed.\n"},
      {sized(raw_head(0, 4, 1, 2), 2048), "has no usable size in its head: Nx 0, Ny 4, Nz 1.\n"},
      {sized(raw_head(4, -4, 1, 2), 2048), "has no usable size in its head: Nx 4, Ny -4, Nz 1.\n"},
      {sized(raw_head(4, 4, 0, 2), 2048), "has no usable size in its head: Nx 4, Ny 4, Nz 0.\n"},
      {sized(raw_head(1000001, 1, 1, 0), 2048), "is too large: Nx 1000001, Ny 1"},
      {sized(raw_head(65536, 32768, 1, 0), 2048), "is too large: Nx 65536, Ny 32768"},
      {sized(raw_head(2, 2, 1, 4), 2048),
       "has mode 4 (Complex Float), which cannot be read; modes 0, 1, 2, 6 and 12 can.\n"},
      {sized(raw_head(4, 4, 1, 2), 1024 + 63), "is shorter than its head promises: 1087 bytes, at least 1088 needed.\n"},
      {sized(raw_head(4, 4, 2, 12), 1024 + 31), "is shorter than its head promises: 1055 bytes, at least 1056 needed.\n"},
      // Just under 2^31 pixels passes the size test and fails on the length.
      {sized(raw_head(46340, 46340, 1, 0), 2048), "is shorter than its head promises"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.msg);
    std::string p = dir / "bad.mrc", out;
    write_bytes(p, c.bytes);
    EXPECT_EQ(vet(p, &out), -1);
    EXPECT_EQ(out.rfind("Micrograph " + p + " ", 0), 0u) << out;
    EXPECT_TRUE(zk_has(out, c.msg)) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
  }
}

TEST(MrcTwoHeads, EqualHeadsPassAndADifferenceInAnyFieldEndsTheRun) {
  // The report's table is checked end to end; here every field counts.
  MRC_HEAD a, b;
  mrc_init_head(&a);
  mrc_set_head_xyz_mode(&a, 3710, 3838, 1, 2);
  b = a;
  b.amax = 7.0f;  // other fields do not count
  EXPECT_EQ(check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b), 0);
  for (int f = 0; f < 4; ++f) {
    SCOPED_TRACE(f);
    mrc_set_head_xyz_mode(&b, 3710 + (f == 0), 3838 + (f == 1), 1 + (f == 2), 2 - (f == 3));
    EXPECT_FAILS("a\\.mrc.* has a different size or format from .*b\\.mrc",
                 check_mrc_head_sizes_two("a.mrc", "b.mrc", &a, &b));
  }
}

// ---------------------------------------------------------------- writing

TEST(MrcWrite, HeadAndSamplesOfWrittenFiles) {
  ZkTmpDir dir;
  std::string p = dir / "st.mrc";
  // Two equal samples: minimum, maximum and mean alike; every other field
  // has the value of a new head.
  const float eq[2] = {3.5f, 3.5f};
  mrcf_write_xyz_data(p.c_str(), eq, 2, 1, 1);
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), 1024u + 8u);
  const int32_t ints[][2] = {{0, 2},  {4, 1},  {8, 1},  {12, 2}, {16, 0}, {28, 1}, {32, 1},
                             {36, 1}, {64, 1}, {68, 2}, {72, 3}, {88, 1}, {92, 0}, {220, 0}};  // 88: ispg 1, nsymbt 0
  for (auto& e : ints) EXPECT_EQ(geti(s, e[0]), e[1]) << "byte " << e[0];
  const std::pair<int, float> floats[] = {{40, 1.0f}, {48, 1.0f}, {52, 90.0f}, {60, 90.0f}, {76, 3.5f},
                                          {80, 3.5f}, {84, 3.5f}, {1024, 3.5f}, {1028, 3.5f}};
  for (auto& e : floats) EXPECT_EQ(getf(s, e.first), e.second) << "byte " << e.first;
  EXPECT_EQ(geti(s, 96) & 0xFFFF, 1000);  // creatid
  EXPECT_EQ(s.substr(208, 8), std::string("MAP \x44\x41\0\0", 8));
  EXPECT_EQ(s.substr(224, 800), std::string(800, '\0'));

  // A stack, read back; no temporary file stays.
  const Floats d = {-4, 2.5f, 7, 0, 1, -0.5f, 3, 3, 9.25f, -2, 0.75f, 0};
  mrcf_write_xyz_data(p.c_str(), d.data(), 3, 2, 2);
  EXPECT_EQ(get_mrcf_dim_size(p.c_str(), "xyz"), 12);
  float* back = get_mrcf_data_all(p.c_str());
  EXPECT_EQ(Floats(back, back + d.size()), d);
  free(back);
  EXPECT_EQ(zk_listing(dir.path), "st.mrc\n");

  // The mean is summed in double: after 1e8 a float sum would lose every 1.
  Floats ones(1001, 1.0f);
  ones[0] = 1.0e8f;
  MRC_HEAD* h = mrc_new_head();
  mrc_set_head_mmm_from_data(h, ones.data(), (uint32_t)ones.size());
  EXPECT_EQ(h->amean, (float)((1.0e8 + 1000.0) / 1001.0));
  EXPECT_EQ(h->amin, 1.0f);
  EXPECT_EQ(h->amax, 1.0e8f);
  free(h);
}

TEST(MrcWrite, FailuresEndTheRunAndLoseNoFile) {
  ZkTmpDir dir;
  std::string p = dir / "big.mrc";
  write_bytes(p, Bytes{'o', 'l', 'd'});
  EXPECT_FAILS("mrc_write_head_alldata\\(\\) does not support writing float data to other MRC format.! Exit now!",
               MRC_HEAD h; mrc_init_head(&h); mrc_set_head_xyz_mode(&h, 1, 1, 1, 1); float v = 1.0f;
               ZkFilePtr null_file(fopen("/dev/null", "wb")); mrc_write_head_data(null_file.get(), &h, &v));
  const float v = 0.0f;
  EXPECT_FAILS("Cannot write to file /nonexistent_zk/o.mrc. Permission denied or no space left!\n"
               ".*open file failed.! Exit now!",
               mrcf_write_xyz_data("/nonexistent_zk/o.mrc", &v, 1, 1, 1));
  // A file size limit makes the writes fail as a full disk would.
  struct rlimit old_limit;
  getrlimit(RLIMIT_FSIZE, &old_limit);
  void (*old_handler)(int) = signal(SIGXFSZ, SIG_IGN);
  struct rlimit rl = old_limit;
  rl.rlim_cur = 4096;
  setrlimit(RLIMIT_FSIZE, &rl);
  EXPECT_FAILS("Cannot write to file " + p + ". Permission denied or no space left!",
               Floats d(100000, 1.0f); mrcf_write_xyz_data(p.c_str(), d.data(), 1000, 100, 1));
  setrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, old_handler);
  EXPECT_EQ(zk_slurp(p), "old");
  EXPECT_EQ(zk_listing(dir.path), "big.mrc\n");
}

class MrcDeviceWrite : public BackendTest {};
TEST_P(MrcDeviceWrite, DeviceDataGoesOutAsWritten) {
  ZkTmpDir dir;
  std::string p = dir / "dev.mrc", q = dir / "dev2.mrc";
  Floats h(6 * 5 * 2);
  for (size_t i = 0; i < h.size(); ++i) h[i] = 0.5f * (float)i - 7.0f;
  float* d = d_alloc_float(h.size());
  ASSERT_EQ(memcpy_H2D(d, h.data(), h.size() * 4), 0);
  mrcf_write_xyz_ddata(p.c_str(), d, 6, 5, 2);
  MRC_HEAD* head = mrc_new_head();
  mrc_set_head_xyz_mode(head, 6, 5, 2, 2);
  mrcf_write_head_ddata(q.c_str(), head, d);
  device_free(d);
  free(head);
  float* back = get_mrcf_data_all(p.c_str());
  EXPECT_EQ(Floats(back, back + h.size()), h);
  free(back);
  EXPECT_EQ(zk_slurp(p), zk_slurp(q));
  std::string s = zk_slurp(p);
  EXPECT_EQ(getf(s, 76), -7.0f);
  EXPECT_EQ(getf(s, 80), 22.5f);
}
ZK_BACKEND_SUITE(MrcDeviceWrite);

// ---------------------------------------------------------------- library

TEST(MrcLibrary, UpdateHeadChangesOnlyTheHead) {
  ZkTmpDir dir;
  Bytes b = raw_head(3, 1, 2, 1);
  for (int16_t v : {4, -9, 2, 30, 0, 1}) add(b, (uint16_t)v, 2);
  std::string p = dir / "u.mrc";
  write_bytes(p, b);
  EXPECT_EQ(zk_stdout([&] { mrcf_update_head(p.c_str()); }), "updating head!\nupdating head finished!\n");
  std::string s = zk_slurp(p);
  ASSERT_EQ(s.size(), b.size());
  EXPECT_EQ(getf(s, 76), -9.0f);
  EXPECT_EQ(getf(s, 80), 30.0f);
  EXPECT_EQ(getf(s, 84), (float)(28.0 / 6.0));
  EXPECT_EQ(geti(s, 12), 1);
  EXPECT_EQ(s.substr(1024), std::string(b.begin() + 1024, b.end()));
}

TEST(MrcLibrary, CheckedReadsRefuseOtherSizesAndCreators) {
  ZkTmpDir dir;
  std::string p = make_volume(dir, 3, 2, 2);
  Floats v(12, -1.0f);
  std::string out = zk_stdout([&] {
    EXPECT_EQ(mrcf_read_data_check_xy(p.c_str(), v.data(), 2, 3), -1);
    EXPECT_EQ(mrcf_read_data_check_xyz(p.c_str(), v.data(), 3, 2, 3), -1);
  });
  EXPECT_TRUE(zk_has(out, "Warning in function")) << out;
  EXPECT_EQ(v, Floats(12, -1.0f));
  EXPECT_EQ(mrcf_read_data_check_xyz(p.c_str(), v.data(), 3, 2, 2), 0);
  EXPECT_EQ(v[11], 2 + 10 + 100);
  MRC_HEAD h;
  v.assign(12, -1.0f);
  EXPECT_EQ(mrcf_read_head_data_check_xy(p.c_str(), &h, v.data(), 3, 2), 0);
  EXPECT_EQ(h.nz, 2);
  EXPECT_EQ(v[5], 2 + 10);
  float* s1 = get_mrcf_data_sliceN(p.c_str(), 1);
  EXPECT_EQ(s1[4], 1 + 10 + 100);
  free(s1);
  // A head written with its data keeps its creatid, which a read may demand.
  std::string q = dir / "hd.mrc";
  MRC_HEAD* hd = mrc_new_head();
  mrc_set_head_xyz_mode(hd, 2, 2, 1, 2);
  hd->creatid = 9986;
  const float d[4] = {1, 2, 3, 6};
  mrcf_write_head_data(q.c_str(), hd, d);
  EXPECT_EQ(hd->amean, 3.0f);
  free(hd);
  v.assign(4, -1.0f);
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(q.c_str(), 0, 'z', v.data(), 2, 2, 1000), -1);
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(q.c_str(), 0, 'z', v.data(), 2, 3, 9986), -1);
  EXPECT_EQ(v, Floats(4, -1.0f));
  EXPECT_EQ(mrcf_read_slice_check_xy_cid(q.c_str(), 0, 'z', v.data(), 2, 2, 9986), 0);
  EXPECT_EQ(Floats(v.begin(), v.begin() + 4), Floats(d, d + 4));
}

TEST(MrcLibrary, DoubleAndByteSlices) {
  ZkTmpDir dir;
  Bytes b = raw_head(4, 1, 1, 2);
  put(b, 80, bits_of(10.0f), 4);
  for (float v : {0.0f, 10.0f, 5.0f, 2.6f}) addf(b, v);
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
  fclose(f);
  // (10 - v) * 255 / 10, truncated: 127.5 gives 127, 188.7 gives 188.
  EXPECT_EQ(std::vector<int>(bb, bb + 4), (std::vector<int>{255, 0, 127, 188}));
}

TEST(MrcLibrary, SubAreasAndGrids) {
  ZkTmpDir dir;
  std::string p = make_volume(dir, 6, 5, 2);
  FILE* f = fopen(p.c_str(), "rb");
  MRC_HEAD h;
  mrc_read_head(f, &h);
  Floats a(2 * 3 * 2);
  EXPECT_EQ(mrc_read_sub_area(f, &h, a.data(), 3, 1, 0, 2, 3, 2), 0);
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 2; ++x) EXPECT_EQ(a[(z * 3 + y) * 2 + x], (3 + x) + 10 * (1 + y) + 100 * z);
  zk_stdout([&] { EXPECT_EQ(mrc_read_sub_area(f, &h, a.data(), 5, 0, 0, 2, 1, 1), -1); });
  // Tiles of 3 at a pitch of 2: (6-3)/2+1 = 2 along x, (5-3)/2+1 = 2 along y.
  Floats g(4 * 9);
  EXPECT_EQ(mrc_2d_read_grids(f, &h, g.data(), 3, 2), 4);
  for (int t = 0; t < 4; ++t)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) EXPECT_EQ(g[t * 9 + y * 3 + x], (2 * (t % 2) + x) + 10 * (2 * (t / 2) + y));
  fclose(f);
  std::string q = dir / "m0.mrc";
  write_bytes(q, raw_head(2, 2, 1, 0));
  EXPECT_FAILS("File Mode must be MRC_MODE_FLOAT!Exit now!", FILE* g0 = fopen(q.c_str(), "rb"); MRC_HEAD h0;
              mrc_read_head(g0, &h0); float t[4]; mrc_2d_read_sub_area(g0, &h0, t, 0, 0, 1, 1));
}

TEST(MrcLibrary, FlipYZAndOpenCloseHelpers) {
  ZkTmpDir dir;
  std::string p = make_volume(dir, 3, 4, 2);
  std::string q = dir / "flip.mrc";
  EXPECT_EQ(zk_stdout([&] { mrc_flipyz(p.c_str(), q.c_str()); }), "\nBegin flipping:\nflipping finished!");
  MRC_HEAD* h = get_mrcf_head(q.c_str());
  EXPECT_EQ(h->nx, 3); EXPECT_EQ(h->ny, 2); EXPECT_EQ(h->nz, 4);
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
  Floats plane(12, 1.5f);
  mrc_add_slice(fo, ho, plane.data());
  mrc_io_close_io_free_head(fi, fo, hi, ho);
  EXPECT_EQ(zk_slurp(o).size(), 1024u + 48u);
}
