#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "picking/extract.h"
#include "test_util.h"

namespace {

// Pixel values that name their place: v(x, y, f) = x + 100 y + 10000 f.
float code(int x, int y, int f = 0) { return (float)(x + 100 * y + 10000 * f); }

std::vector<float> coded_image(int nx, int ny, int nz = 1) {
  std::vector<float> v((size_t)nx * ny * nz);
  for (int f = 0; f < nz; ++f)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) v[((size_t)f * ny + y) * nx + x] = code(x, y, f);
  return v;
}

// A stack of w x h cut-outs of a coded nx x ny image (frames frames each, in
// particle order): the coded value inside the image, 0 outside.
void expect_cutouts(const float* out, const std::vector<int2>& corners, int w, int h, int nx, int ny,
                    int frames = 1) {
  for (size_t k = 0; k < corners.size() * frames; ++k)
    for (int j = 0; j < h; ++j)
      for (int i = 0; i < w; ++i) {
        const int x = corners[k / frames].x + i, y = corners[k / frames].y + j;
        const float want = (x < 0 || y < 0 || x >= nx || y >= ny) ? 0.0f : code(x, y, (int)(k % frames));
        ASSERT_EQ(out[(k * h + j) * w + i], want) << "image " << k << " at " << i << "," << j;
      }
}

std::string box_line(int x, int y, int w, int h) {
  char buf[128];
  snprintf(buf, sizeof buf, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", x, y, w, h, 0.5f, 0, 0.0f);
  return buf;
}

PTCL_BOX box_at(int x, int y, int w, int h) {
  PTCL_BOX b;
  memset(&b, 0, sizeof b);
  b.x = x;
  b.y = y;
  b.w = w;
  b.h = h;
  return b;
}

// A mode 1 micrograph of nx x ny shorts with value x + 100 y, written byte by byte.
void write_short_micrograph(const std::string& p, int nx, int ny) {
  std::vector<unsigned char> b(1024, 0);
  int32_t head[4] = {nx, ny, 1, 1};
  memcpy(b.data(), head, 16);
  memcpy(&b[208], "MAP ", 4);
  b[212] = 0x44;
  b[213] = 0x41;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      int16_t v = (int16_t)code(x, y);
      b.push_back((unsigned char)(v & 0xFF));
      b.push_back((unsigned char)((uint16_t)v >> 8));
    }
  FILE* f = fopen(p.c_str(), "wb");
  fwrite(b.data(), 1, b.size(), f);
  fclose(f);
}

}  // namespace

// Corners inside and over every edge, as a list and from boxes.
TEST(ExtractCut, CornersInsideAndOverEveryEdge) {
  const int nx = 30, ny = 20, w = 16, h = 8;
  std::vector<float> img = coded_image(nx, ny);
  const std::vector<int2> corners = {make_i2(3, 4),   make_i2(-10, 5), make_i2(20, 2),    make_i2(7, -3),
                                     make_i2(9, 15),  make_i2(-20, -9), make_i2(14, 12), make_i2(100, 100),
                                     make_i2(-16, 0), make_i2(0, 0)};
  std::vector<float> all(corners.size() * w * h, -1.0f);
  cpu_x2d_extract_smalls_from_large(all.data(), w, h, (int)corners.size(), img.data(), nx, ny, corners.data());
  expect_cutouts(all.data(), corners, w, h, nx, ny);

  // From boxes, in list order.
  std::vector<PTCL_BOX> boxes;
  for (const int2& c : corners) boxes.push_back(box_at(c.x, c.y, w, h));
  std::fill(all.begin(), all.end(), -1.0f);
  cpu_x2d_extract_ptcls_from_micrograph(all.data(), w, h, (int)boxes.size(), img.data(), nx, ny, boxes.data());
  expect_cutouts(all.data(), corners, w, h, nx, ny);
}

class ExtractDevice : public BackendTest {};
TEST_P(ExtractDevice, CutOutMatchesOnTheDevice) {
  const int nx = 70, ny = 45, w = 40, h = 33;  // more than one 32 x 32 block each way
  Dev d;
  float *d_img = d.put(coded_image(nx, ny)), *d_out = d.f((size_t)w * h);
  for (const int2& c : {make_i2(5, 6), make_i2(-10, 3), make_i2(50, 30), make_i2(-39, -32), make_i2(0, 0)}) {
    hcuda_2d_extract_small_from_large(d_out, w, h, d_img, nx, ny, c.x, c.y);
    expect_cutouts(from_dev(d_out, (size_t)w * h).data(), {c}, w, h, nx, ny);
  }
}
ZK_BACKEND_SUITE(ExtractDevice);

// ---------------------------------------------------------------- files

TEST(ExtractFile, BoxSizeResizesAroundTheCentreAndInvertNegates) {
  ZkTmpDir dir;
  std::string mic = dir / "m.mrc", boxf = dir / "m_zavik.box";
  write_short_micrograph(mic, 50, 40);
  // 20 x 20 boxes at (10, 8) and (25, 15); a box of 10 moves the corners by 5.
  zk_put(boxf, box_line(10, 8, 20, 20) + box_line(25, 15, 20, 20));
  float* s = get_mrcf_data_ptcls(mic.c_str(), boxf.c_str(), 10, 1);
  const int c[2][2] = {{15, 13}, {30, 20}};
  for (int p = 0; p < 2; ++p)
    for (int j = 0; j < 10; ++j)
      for (int i = 0; i < 10; ++i) ASSERT_EQ(s[(p * 10 + j) * 10 + i], -code(c[p][0] + i, c[p][1] + j));
  free(s);
}

TEST(ExtractFile, SixteenFrameMovieGivesFortyEightImages) {
  ZkTmpDir dir;
  const int nx = 20, ny = 16, nz = 16, w = 6, h = 5;
  std::string mic = dir / "movie.mrcs", boxf = dir / "movie_zavik.box";
  // Frame codes run past 16 bits: a float movie.
  std::vector<float> frames = coded_image(nx, ny, nz);
  mrcf_write_xyz_data(mic.c_str(), frames.data(), nx, ny, nz);
  zk_put(boxf, box_line(1, 2, w, h) + box_line(16, 13, 99, 99) + box_line(7, 0, 1, 1));
  mrcf_x2d_extract_ptcls_from_micrograph(mic.c_str(), boxf.c_str(), 0, 0);
  std::string stack = dir / "movie_particles.mrcs";
  MRC_HEAD* head = get_mrcf_head(stack.c_str());
  EXPECT_EQ(std::vector<int>({head->nx, head->ny, head->nz}), std::vector<int>({w, h, 48}));
  // Image k is particle k / 16, frame k % 16, all of the first box's size.
  float* d = get_mrcf_data_all(stack.c_str());
  expect_cutouts(d, {make_i2(1, 2), make_i2(16, 13), make_i2(7, 0)}, w, h, nx, ny, nz);
  std::vector<float> one((size_t)nz * w * h);  // the frames of one particle, over the corner
  cpu_x2d_movie_extract_small_from_large(one.data(), w, h, nz, frames.data(), nx, ny, 16, 13);
  EXPECT_EQ(std::vector<float>(d + 16 * w * h, d + 32 * w * h), one);
  free(d);
  free(head);
}

// At most 10240 particles; an empty list gives a head alone.
TEST(ExtractFile, ParticleCountLimits) {
  ZkTmpDir dir;
  std::string mic = dir / "many.mrc", boxf = dir / "many_zavik.box";
  write_short_micrograph(mic, 8, 8);
  std::string text;
  for (int i = 0; i < 10241; ++i) text += box_line(i % 7, (i / 7) % 7, 2, 2);
  zk_put(boxf, text);
  mrcf_x2d_extract_ptcls_from_micrograph(mic.c_str(), boxf.c_str(), 0, 0);
  std::string stack = dir / "many_particles.mrcs";
  MRC_HEAD* head = get_mrcf_head(stack.c_str());
  EXPECT_EQ(head->nz, 10240);
  free(head);
  float* d = get_mrcf_data_all(stack.c_str());
  const int k = 10239;
  EXPECT_EQ(d[k * 4 + 3], code(k % 7 + 1, (k / 7) % 7 + 1));
  free(d);

  zk_put(boxf, "\n\n");
  mrcf_x2d_extract_ptcls_from_micrograph(mic.c_str(), boxf.c_str(), 64, 0);
  EXPECT_EQ(zk_slurp(stack).size(), 1024u);
  head = get_mrcf_head(stack.c_str());
  EXPECT_EQ(std::vector<int>({head->nx, head->ny, head->nz, head->mode}), std::vector<int>({0, 0, 0, 2}));
  free(head);
}

TEST(ExtractFile, UnusableMicrographsEndTheRun) {
  ZkTmpDir dir;
  std::string boxf = dir / "z_zavik.box";
  zk_put(boxf, box_line(0, 0, 2, 2));
  std::string zero = dir / "z.mrc";
  std::vector<unsigned char> b(1024, 0);
  int32_t head[4] = {4, 4, 0, 2};
  memcpy(b.data(), head, 16);
  FILE* f = fopen(zero.c_str(), "wb");
  fwrite(b.data(), 1, b.size(), f);
  fclose(f);
  EXPECT_FAILS("Error in function get_mrcf_data_ptcls\\(\\), file extract.cpp on line [0-9]+: Micrograph or "
               "movie size error!! Exit now!",
               mrcf_x2d_extract_ptcls_from_micrograph(zero.c_str(), boxf.c_str(), 0, 0));
  std::string longer = dir / "l.mrc";
  write_short_micrograph(longer, 4, 4);
  f = fopen(longer.c_str(), "ab");
  fputc(0, f);
  fclose(f);
  EXPECT_FAILS("File size error!! Exit now!", mrcf_x2d_extract_ptcls_from_micrograph(longer.c_str(), boxf.c_str(), 0, 0));
  EXPECT_FALSE(zk_exists(dir / "l_particles.mrcs"));
}

TEST(ExtractFile, WholeBoxesOnlyFromBoxFile) {
  ZkTmpDir dir;
  std::string mic = dir / "w.mrc", boxf = dir / "w_zavik.box";
  write_short_micrograph(mic, 20, 12);
  zk_put(boxf, box_line(1, 1, 4, 4) + box_line(16, 2, 4, 4) + box_line(15, 7, 4, 4));
  std::vector<float> dst(3 * 16, -1.0f);
  int n = 0;
  EXPECT_EQ(zk_stdout([&] { n = mrcf_2d_read_ptcls_to_data_from_boxf(dst.data(), mic.c_str(), boxf.c_str()); }),
            "Warning: box (16 2 4 4)out of range, skip extracting this particle!\n");
  EXPECT_EQ(n, 2);
  EXPECT_EQ(dst[0], code(1, 1));
  EXPECT_EQ(dst[16], -1.0f);
  EXPECT_EQ(dst[32 + 15], code(18, 10));
  std::string stack = dir / "w_stack.mrcs";
  zk_stdout([&] { EXPECT_EQ(mrcf_2d_read_ptcls_to_mrcf_from_boxf(stack.c_str(), mic.c_str(), boxf.c_str()), 2); });
  float* d = get_mrcf_data_all(stack.c_str());
  MRC_HEAD* h = get_mrcf_head(stack.c_str());
  EXPECT_EQ(h->nz, 2);
  expect_cutouts(d, {make_i2(1, 1), make_i2(15, 7)}, 4, 4, 20, 12);
  free(h);
  free(d);
}
