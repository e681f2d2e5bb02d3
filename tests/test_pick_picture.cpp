// The picture of a micrograph and its picks (--png): the PNG file, the
// binning, the rejected cells and the circles, and the picker's run with it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/pngfile.h"
#include "picking/pick_picture.h"
#include "test_util.h"

namespace {

bool is_pick(const std::vector<uint8_t>& rgb, int nx, int i, int j) {
  const uint8_t* p = rgb.data() + 3 * ((size_t)j * nx + i);
  return p[0] == ZK_PICK_RGB[0] && p[1] == ZK_PICK_RGB[1] && p[2] == ZK_PICK_RGB[2];
}

ZkPicture blank(int nx, int ny) {
  ZkPicture pic;
  pic.nx = nx;
  pic.ny = ny;
  pic.rgb.assign((size_t)3 * nx * ny, 100);
  return pic;
}

}  // namespace

TEST(PickPicture, PngFileKeepsEveryPixelAndAppearsOnlyWhole) {
  ZkTmpDir dir;
  const int nx = 7, ny = 5;
  std::vector<uint8_t> rgb(3 * nx * ny);
  for (size_t k = 0; k < rgb.size(); ++k) rgb[k] = (uint8_t)(k * 37 + 11);
  pngf_write_rgb((dir / "a.png").c_str(), rgb.data(), nx, ny);
  std::vector<uint8_t> back;
  int bx = 0, by = 0;
  ASSERT_EQ(pngf_read_rgb((dir / "a.png").c_str(), back, bx, by), 0);
  EXPECT_EQ(bx, nx);
  EXPECT_EQ(by, ny);
  EXPECT_EQ(back, rgb);
  // Not a PNG file: nothing decoded.
  zk_put(dir / "b.png", "not a picture");
  EXPECT_EQ(pngf_read_rgb((dir / "b.png").c_str(), back, bx, by), -1);
  EXPECT_EQ(bx, nx);
  // A folder that is not there: the report, and no file.
  const std::string lost = dir / "none/c.png";
  EXPECT_FAILS("Cannot write to file " + lost + "\\. Permission denied or no space left!\n",
               pngf_write_rgb(lost.c_str(), rgb.data(), nx, ny););
}

// Each pixel is the mean of its block; the scale runs from mean - 3 sd to
// mean + 3 sd of the pixels.  Reference in double precision, by hand.
TEST(PickPicture, GreyBinsBlocksAndScalesThreeDeviations) {
  const int nx = 5, ny = 3, bin = 2;  // 3 x 2 pixels; the last column and row of blocks are partial
  std::vector<float> raw(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) raw[y * nx + x] = (float)(x * x + 3 * y);
  const ZkPicture pic = pick_picture_grey(raw.data(), nx, ny, bin);
  ASSERT_EQ(pic.nx, 3);
  ASSERT_EQ(pic.ny, 2);
  // Block means: row 0: (0+1+3+4)/4 = 2, (4+9+7+12)/4 = 8, (16+19)/2 = 17.5;
  // row 1 (y = 2 only): (6+7)/2 = 6.5, (10+15)/2 = 12.5, 22.
  const double m[6] = {2, 8, 17.5, 6.5, 12.5, 22};
  double s = 0, s2 = 0;
  for (double v : m) s += v, s2 += v * v;
  const double mean = s / 6, sd = std::sqrt(s2 / 6 - mean * mean);
  for (int k = 0; k < 6; ++k) {
    const double want = std::min(255.0, std::max(0.0, 255.0 * (m[k] - (mean - 3 * sd)) / (6 * sd)));
    EXPECT_NEAR(pic.rgb[3 * k], want, 0.5) << k;
    EXPECT_EQ(pic.rgb[3 * k], pic.rgb[3 * k + 2]);
  }
  // A sample that is not finite counts for nothing; a flat image is mid grey.
  std::vector<float> with_nan = raw;
  with_nan[4] = NAN;  // block 2 of row 0 becomes 19
  EXPECT_NE(pick_picture_grey(with_nan.data(), nx, ny, bin).rgb[6], pic.rgb[6]);
  std::vector<float> flat(nx * ny, 3.0f);
  for (uint8_t v : pick_picture_grey(flat.data(), nx, ny, bin).rgb) EXPECT_EQ(v, 127);
}

// The ring lies at the diameter around the pick, whatever the binning.
TEST(PickPicture, CircleLiesAtItsCoordinates) {
  struct Case {
    float x, y, diameter;
    int bin;
  };
  for (const Case c : {Case{100, 60, 80, 4}, Case{37, 21, 50, 1}, Case{250, 130, 160, 8}, Case{0, 0, 60, 2}}) {
    ZkPicture pic = blank(64, 48);
    pick_picture_draw_circle(&pic, c.x, c.y, c.diameter, c.bin);
    // In picture pixels: pixel i covers samples i*bin .. i*bin+bin-1.
    const double u = (c.x + 0.5) / c.bin - 0.5, v = (c.y + 0.5) / c.bin - 0.5, r = c.diameter / 2.0 / c.bin;
    int n = 0;
    for (int j = 0; j < pic.ny; ++j)
      for (int i = 0; i < pic.nx; ++i) {
        const double d = std::hypot(i - u, j - v);
        if (is_pick(pic.rgb, pic.nx, i, j)) {
          ++n;
          EXPECT_NEAR(d, r, 1.0) << i << "," << j << " bin " << c.bin;
        } else {
          EXPECT_GT(std::fabs(d - r), 0.5) << i << "," << j << " bin " << c.bin;  // the ring has no gap
        }
      }
    EXPECT_GT(n, 4) << c.bin;
  }
  // A ring below two pixels across is its centre pixel.
  ZkPicture pic = blank(10, 10);
  pick_picture_draw_circle(&pic, 21, 13, 6, 4);
  EXPECT_TRUE(is_pick(pic.rgb, 10, 5, 3));
}

TEST(PickPicture, RejectedCellsAreTintedRed) {
  // Working image of 8 x 8 shrunk pixels at shrink 4 (32 samples); the cells
  // of x >= 4, y < 4 rejected.  Binned by 8: 4 x 4 pixels.
  const int L = 8, shrink = 4, bin = 8;
  std::vector<float> mask(L * L, 1.0f);
  for (int y = 0; y < 4; ++y)
    for (int x = 4; x < 8; ++x) mask[y * L + x] = 0.0f;
  ZkPicture pic = blank(4, 4);
  pick_picture_shade_rejected(&pic, mask.data(), L, shrink, bin);
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) {
      const uint8_t* p = pic.rgb.data() + 3 * (j * 4 + i);
      const bool rejected = i >= 2 && j < 2;
      EXPECT_EQ(p[0], rejected ? 178 : 100) << i << "," << j;  // (100 + 255 + 1) / 2
      EXPECT_EQ(p[1], rejected ? 50 : 100) << i << "," << j;
    }
}

// The picker's run: the picture beside the micrograph, its size, and a circle
// at each pick of "_zavik.star".
TEST(PickPicture, PickerWritesAPictureWithTheStarFilePicks) {
  ZkTmpDir dir;
  const std::string mic = dir / "mic.mrc";
  ASSERT_EQ(system((std::string(ZAVIK_SYNTH_BIN) + " --out " + mic +
                    " --nx 1000 --ny 900 --apix 2 --diameter 160 --noise 0.5 --seed 3 > /dev/null")
                       .c_str()),
            0);
  std::string out;
  ASSERT_EQ(zk_run(std::string(ZAVIK_BIN) + " --apixM 2 --diameter 160 --cc_cutoff 0.3 --png 3 " + mic, &out), 0)
      << out;
  // Echoed as given and among the values in force.
  EXPECT_TRUE(zk_has(out, "       --png" + std::string(16, ' ') + "3\n")) << out;
  EXPECT_TRUE(zk_has(out, "       --png" + std::string(18, ' ') + "3\n")) << out;
  std::vector<uint8_t> rgb;
  int nx = 0, ny = 0;
  ASSERT_EQ(pngf_read_rgb((dir / "mic_zavik.png").c_str(), rgb, nx, ny), 0);
  EXPECT_EQ(nx, 334);  // ceil(1000 / 3)
  EXPECT_EQ(ny, 300);
  FILE* fp = fopen((dir / "mic_zavik.star").c_str(), "r");
  ASSERT_NE(fp, nullptr);
  char line[256];
  int picks = 0;
  const double r = 160.0 / 2 / 2 / 3;  // diameter in samples, halved, binned
  while (fgets(line, sizeof line, fp)) {
    int x, y;
    if (sscanf(line, "%d %d", &x, &y) != 2) continue;
    ++picks;
    const double u = (x + 0.5) / 3 - 0.5, v = (y + 0.5) / 3 - 0.5;
    for (const double a : {0.0, 1.5707963, 3.1415927, 4.712389}) {
      const int i = (int)std::lround(u + r * std::cos(a)), j = (int)std::lround(v + r * std::sin(a));
      if (i < 0 || j < 0 || i >= nx || j >= ny) continue;
      EXPECT_TRUE(is_pick(rgb, nx, i, j)) << "pick " << x << "," << y << " at angle " << a;
    }
  }
  fclose(fp);
  EXPECT_GT(picks, 10);
  // Without the option there is no picture, and the echo has no row for it.
  unlink((dir / "mic_zavik.png").c_str());
  ASSERT_EQ(zk_run(std::string(ZAVIK_BIN) + " --apixM 2 --diameter 160 --cc_cutoff 0.3 " + dir / "mic.mrc", &out), 0);
  EXPECT_FALSE(zk_has(out, "--png"));
  EXPECT_FALSE(zk_exists(dir / "mic_zavik.png"));
}
