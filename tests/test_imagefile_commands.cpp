// The one-image file commands, spectra, masks and placing, end to end: output
// files against known content or the library's results, printed lines and
// reports.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/process2d_local.h"
#include "device/process2d_raw.h"
#include "imagefile/process2d_mrc.h"
#include "test_util.h"
#include "toolbox_files.h"

namespace {

// The library's device operation on a host image.
template <class F>
std::vector<float> on_device(const std::vector<float>& in, size_t out_n, F op) {
  ZkDeviceArray<float> d(in.size()), o(out_n);
  memcpy_H2D(d.get(), in.data(), in.size() * sizeof(float));
  op(d.get(), o.get());
  std::vector<float> h(out_n);
  memcpy_D2H(h.data(), o.get(), out_n * sizeof(float));
  return h;
}

}  // namespace

// (The plain rotation runs through zktool's rotate, against an independent
// reference.)
TEST(ImagefileCommands, TransformsPrintTheirLinesAndKeepThePixel) {
  ZkTmpDir dir;
  const int nx = 9, ny = 7;
  const std::vector<float> a = zk_uniform(nx * ny, 1);
  write_test_mrc(dir / "a.mrc", a, nx, ny, 1, 2, 2.0f);
  std::string text = zk_stdout(
      [&] { mrcf_cuda_2d_translate_rotate((dir / "a.mrc").c_str(), (dir / "tr.mrc").c_str(), 1.5f, -2, 45); });
  EXPECT_EQ(text,
            "Begin translating (1.500000, -2.000000) and rotating 45.000000:\nTranslation and rotation finished!\n");
  const TestMrc tr = read_test_mrc(dir / "tr.mrc");
  EXPECT_TRUE(same_bits(tr.v, on_device(a, a.size(), [&](float* i, float* o) {
                          hcuda_2d_translate_rotate(i, o, nx, ny, 1.5f, -2, 45);
                        })));
  EXPECT_FLOAT_EQ(mrc_head_apix(&tr.head), 2.0f);

  RT_Mat2D m = {1, 0, 0, 1, 2, -1};
  text = zk_stdout([&] { mrcf_cuda_2d_transform((dir / "a.mrc").c_str(), (dir / "t.mrc").c_str(), m, 1); });
  EXPECT_EQ(text,
            "Begin  transform :\nTransform Matrix (R11, R12, R21, R22, Tx, Ty):\n"
            "                 (   1.000   0.000   0.000   1.000   2.000  -1.000)\ntransforming finished!\n");
  // With inverse 1 the matrix is applied as given: out(x, y) = in(x + 2, y - 1).
  const TestMrc t = read_test_mrc(dir / "t.mrc");
  EXPECT_EQ(t.v[3 * nx + 4], a[2 * nx + 6]);
  EXPECT_EQ(t.v[0], 0.0f);  // its source (2, -1) lies off the image

  // The oldest commands' own report for an input that does not open.
  const ZkOutcome o = zk_outcome(
      [&] { mrcf_cuda_2d_translate_rotate((dir / "none.mrc").c_str(), (dir / "o.mrc").c_str(), 1, 1, 1); });
  EXPECT_TRUE(o.threw);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.text, "Cannot open file strike any key exit!\n");
}

TEST(ImagefileCommands, ShrinkTakesBlockMeans) {
  ZkTmpDir dir;
  const int nx = 100, ny = 101;
  const std::vector<float> a = zk_uniform(nx * ny, 2);
  write_test_mrc(dir / "a.mrc", a, nx, ny, 1, 2, 1.5f);
  EXPECT_EQ(zk_stdout([&] { mrcf_cuda_2d_shrink((dir / "a.mrc").c_str(), (dir / "s.mrc").c_str(), 4); }),
            "shrinking finished!\n");
  const TestMrc s = read_test_mrc(dir / "s.mrc");
  ASSERT_EQ(s.nx(), 25);
  ASSERT_EQ(s.ny(), 25);
  EXPECT_EQ(s.nz(), 1);
  EXPECT_FLOAT_EQ(mrc_head_apix(&s.head), 6.0f);
  for (int y : {0, 12, 24})
    for (int x : {0, 7, 24}) {
      double sum = 0;
      for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) sum += a[(y * 4 + j) * nx + x * 4 + i];
      EXPECT_NEAR(s.v[y * 25 + x], sum / 16, 1e-6);
    }
  EXPECT_FAILS("The shrink factor 0 must lie between 1", mrcf_cuda_2d_shrink((dir / "a.mrc").c_str(), "x.mrc", 0));
}

TEST(ImagefileCommands, ShiftsLocalStatisticsAndCorrelation) {
  ZkTmpDir dir;
  const int nx = 16, ny = 12;
  const std::vector<float> a = zk_uniform(nx * ny, 3);
  write_test_mrc(dir / "a.mrc", a, nx, ny);
  // Whole pixels: the content moves by (+2, -3), periodically.
  mrcf_2d_fourier_shift((dir / "a.mrc").c_str(), (dir / "sh.mrc").c_str(), 2, -3);
  const TestMrc sh = read_test_mrc(dir / "sh.mrc");
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x)
      ASSERT_NEAR(sh.v[y * nx + x], a[((y + 3) % ny) * nx + (x - 2 + nx) % nx], 1e-5) << x << "," << y;
  write_test_mrc(dir / "odd.mrc", zk_uniform(15 * 12, 4), 15, 12);
  EXPECT_FAILS("file size not even number! Exit now!",
               mrcf_2d_fourier_shift((dir / "odd.mrc").c_str(), (dir / "o.mrc").c_str(), 1, 1));

  // A constant keeps its local mean.
  write_test_mrc(dir / "c.mrc", std::vector<float>(nx * ny, 3.0f), nx, ny);
  mrcf_2d_lave((dir / "c.mrc").c_str(), (dir / "lave.mrc").c_str(), 3, 2);
  for (float v : read_test_mrc(dir / "lave.mrc").v) ASSERT_NEAR(v, 3.0f, 1e-5);
  // The local deviation is the library's on the periodic image.
  mrcf_2d_lsigma((dir / "a.mrc").c_str(), (dir / "ls.mrc").c_str(), 3, 2);
  std::vector<float> want(a.size());
  gpu_2d_local_sigma_softR(want.data(), a.data(), nx, ny, 3, 2);
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "ls.mrc").v, want));

  // The correlation of the shifted copy with the image peaks at the shift
  // from the centre, and is 1 there.
  mrcf_x2d_ccf((dir / "sh.mrc").c_str(), (dir / "a.mrc").c_str(), (dir / "ccf.mrc").c_str());
  const TestMrc ccf = read_test_mrc(dir / "ccf.mrc");
  size_t best = 0;
  for (size_t i = 0; i < ccf.v.size(); ++i)
    if (ccf.v[i] > ccf.v[best]) best = i;
  EXPECT_EQ(best, (size_t)(ny / 2 - 3) * nx + nx / 2 + 2);
  EXPECT_NEAR(ccf.v[best], 1.0f, 1e-4);
  EXPECT_FAILS("different size or format",
               mrcf_x2d_ccf((dir / "a.mrc").c_str(), (dir / "odd.mrc").c_str(), (dir / "o.mrc").c_str()));

  // The masked correlation of an image with itself is 1.
  write_test_mrc(dir / "m.mrc", std::vector<float>(nx * ny, 1.0f), nx, ny);
  EXPECT_NEAR(mrcf_x2d_ccc_with2maskfs((dir / "a.mrc").c_str(), (dir / "m.mrc").c_str(), (dir / "a.mrc").c_str(),
                                       (dir / "m.mrc").c_str()),
              1.0f, 1e-5);
  EXPECT_FAILS("The images .*a.mrc \\(16 x 12\\) and .*odd.mrc \\(15 x 12\\) differ in size",
               mrcf_x2d_ccc_with2maskfs((dir / "a.mrc").c_str(), (dir / "m.mrc").c_str(), (dir / "odd.mrc").c_str(),
                                        (dir / "m.mrc").c_str()));
}

// sin(2 pi 2x/8) has the spectrum -i N/2 at kx = 2 under the negative
// exponent; divided by sqrt(N) and conjugated, +i sqrt(N)/2.
TEST(ImagefileCommands, SpectrumFiles) {
  ZkTmpDir dir;
  const int nx = 8, ny = 4;
  std::vector<float> a(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) a[y * nx + x] = (float)sin(2 * M_PI * 2 * x / nx);
  write_test_mrc(dir / "s.mrc", a, nx, ny);
  std::string in = dir / "s.mrc", out = dir / "f.mrc", amp = dir / "amp.mrc";
  char* argv[] = {(char*)"fft", &in[0], &out[0]};
  mrcf_fft_r2c_2d(3, argv);
  MRC_HEAD h;
  mrcf_read_head(out.c_str(), &h);
  EXPECT_EQ(h.mode, 4);
  EXPECT_EQ(h.nx, 5);
  EXPECT_EQ(h.ny, 4);
  EXPECT_EQ(h.amin, 0.0f);
  EXPECT_NEAR(h.amax, sqrt(32.0) / 2, 1e-5);
  const std::string bytes = zk_slurp(out);
  ASSERT_EQ(bytes.size(), 1024u + 5 * 4 * 8);
  float re, im;
  memcpy(&re, bytes.data() + 1024 + 2 * 8, 4);
  memcpy(&im, bytes.data() + 1024 + 2 * 8 + 4, 4);
  EXPECT_NEAR(re, 0.0f, 1e-5);
  EXPECT_NEAR(im, sqrt(32.0) / 2, 1e-5);

  // The log amplitude with the rows exchanged: row 0 lands on row ny/2.
  char* argv2[] = {(char*)"fft", &in[0], &amp[0]};
  mrcf_fft_r2c_amp_2d(3, argv2);
  const TestMrc la = read_test_mrc(amp);
  ASSERT_EQ(la.nx(), 5);
  EXPECT_NEAR(la.v[2 * 5 + 2], log(sqrt(32.0) / 2), 1e-5);

  // Odd sizes and missing files, in the commands' own words.
  write_test_mrc(dir / "odd.mrc", std::vector<float>(7 * 4, 1.0f), 7, 4);
  std::string odd = dir / "odd.mrc", none = dir / "none.mrc";
  char* argv3[] = {(char*)"fft", &odd[0], &out[0]};
  ZkOutcome o = zk_outcome([&] { mrcf_fft_r2c_2d(3, argv3); });
  EXPECT_EQ(o.text, "Error in fuction 'mrcf_fft_r2c_2d()'! image size must be even in both directon!\n");
  EXPECT_EQ(o.status, 1);
  o = zk_outcome([&] { mrcf_fft_r2c_amp_2d(3, argv3); });
  EXPECT_EQ(o.text, "Error in fuction 'mrcf_fft_r2c_amp_2d()'! image size must be even in both directon!\n");
  char* argv4[] = {(char*)"fft", &none[0], &out[0]};
  o = zk_outcome([&] { mrcf_fft_r2c_2d(3, argv4); });
  EXPECT_EQ(o.text, "Cannot open file " + none + " strike any key exit!\n");
}

// The soft edge: 1 up to r, then exp(-d^2/(2 (soft/3)^2)) (host) or
// 0.39894229 times it (device), 0 beyond r + soft.
TEST(ImagefileCommands, MasksAndTemplates) {
  ZkTmpDir dir;
  const int nx = 40, ny = 30;
  const float cx = 20, cy = 14, r = 8, soft = 6;
  mrcf_mask2d_create((dir / "m.mrc").c_str(), nx, ny, cx, cy, r, soft);
  mrcf_2d_auto_template_gauss((dir / "g2.mrc").c_str(), nx, ny, cx, cy, r, soft, 2);
  mrcf_2d_auto_template_gauss_cylinder((dir / "c1.mrc").c_str(), nx, ny, cx, r, soft, 1);
  const TestMrc m = read_test_mrc(dir / "m.mrc"), g2 = read_test_mrc(dir / "g2.mrc"),
                c1 = read_test_mrc(dir / "c1.mrc");
  auto at = [&](const TestMrc& t, int x, int y) { return t.v[y * nx + x]; };
  EXPECT_EQ(at(m, 20, 14), 1.0f);
  EXPECT_EQ(at(m, 28, 14), 1.0f);                                   // d = r
  EXPECT_NEAR(at(m, 31, 14), exp(-9.0 / (2 * 4.0)), 1e-5);          // d = r + 3
  EXPECT_NEAR(at(g2, 31, 14), 0.39894229 * exp(-9.0 / 8.0), 1e-5);  // the device edge
  EXPECT_EQ(at(m, 35, 14), 0.0f);                                   // d = r + soft + 1
  for (int y = 0; y < ny; ++y) {
    EXPECT_EQ(at(c1, 31, y), at(c1, 31, 0));
    EXPECT_NEAR(at(c1, 9, y), exp(-9.0 / 8.0), 1e-5);  // |x - c| = r + 3
  }
  EXPECT_FAILS("The type must be 1", mrcf_2d_auto_template_gauss((dir / "x.mrc").c_str(), 4, 4, 1, 1, 1, 1, 3));

  // Centre of mass of the whole file, in the 2D command's form.
  std::vector<float> w(4 * 3 * 2, 0.0f);
  w[1 * 12 + 2 * 4 + 3] = 1;
  w[0 * 12 + 0 * 4 + 1] = 1;
  write_test_mrc(dir / "w.mrc", w, 4, 3, 2);
  EXPECT_EQ(zk_stdout([&] { get_mrcf_mass_center((dir / "w.mrc").c_str()); }),
            "mass center (cenx, ceny, cenz):     2.000    1.000    0.500 \n");
}

TEST(ImagefileCommands, ParticlesPastedOverAMicrograph) {
  ZkTmpDir dir;
  write_test_mrc(dir / "mic.mrc", std::vector<float>(20 * 16, 0.0f), 20, 16);
  std::vector<float> stack(3 * 3 * 2);
  for (int i = 0; i < 9; ++i) stack[i] = 1, stack[9 + i] = 2;
  write_test_mrc(dir / "st.mrcs", stack, 3, 3, 2);
  // The second box hangs over the right edge and is clipped.
  zk_put(dir / "b.box", "2\t3\t3\t3\n18\t10\t3\t3\n");
  mrcf_x2d_cp_ptcls_to_micrograph((dir / "mic.mrc").c_str(), (dir / "st.mrcs").c_str(), (dir / "b.box").c_str());
  const TestMrc p = read_test_mrc(dir / "mic_prp.mrc");
  EXPECT_EQ(p.v[3 * 20 + 2], 1.0f);
  EXPECT_EQ(p.v[5 * 20 + 4], 1.0f);
  EXPECT_EQ(p.v[6 * 20 + 4], 0.0f);
  EXPECT_EQ(p.v[12 * 20 + 19], 2.0f);
  EXPECT_EQ(p.v[12 * 20 + 17], 0.0f);
  zk_put(dir / "one.box", "2\t3\t3\t3\n");
  EXPECT_FAILS(
      "Particle number in the stack file does not equal that in box file! Exit now!",
      mrcf_x2d_cp_ptcls_to_micrograph((dir / "mic.mrc").c_str(), (dir / "st.mrcs").c_str(), (dir / "one.box").c_str()));
  // The fitted form: the reference's linear fit to the micrograph's patch
  // scales the slice; a reference of another size is refused.
  write_test_mrc(dir / "ref.mrcs", std::vector<float>(4 * 4 * 2, 1.0f), 4, 4, 2);
  EXPECT_FAILS("The stack .*st.mrcs \\(3 x 3 x 2\\) and the reference .*ref.mrcs \\(4 x 4 x 2\\) differ in size",
               mrcf_x2d_norm_cp_ptcls_to_micrograph((dir / "mic.mrc").c_str(), (dir / "st.mrcs").c_str(),
                                                    (dir / "ref.mrcs").c_str(), (dir / "b.box").c_str()));
  const std::vector<float> mic2 = zk_uniform(20 * 16, 5), st2 = zk_uniform(3 * 3 * 2, 6),
                           ref2 = zk_uniform(3 * 3 * 2, 7);
  write_test_mrc(dir / "mic2.mrc", mic2, 20, 16);
  write_test_mrc(dir / "st2.mrcs", st2, 3, 3, 2);
  write_test_mrc(dir / "ref2.mrcs", ref2, 3, 3, 2);
  mrcf_x2d_norm_cp_ptcls_to_micrograph((dir / "mic2.mrc").c_str(), (dir / "st2.mrcs").c_str(),
                                       (dir / "ref2.mrcs").c_str(), (dir / "b.box").c_str());
  std::vector<float> want = mic2;
  PTCL_BOX boxes[2] = {{2, 3, 3, 3, 0, 0, 0, 0}, {18, 10, 3, 3, 0, 0, 0, 0}};
  cpu_x2d_norm_cp_ptcls_to_micrograph(want.data(), 20, 16, st2.data(), ref2.data(), 3, 3, boxes, 2);
  EXPECT_NE(want, mic2);
  EXPECT_TRUE(same_bits(read_test_mrc(dir / "mic2_prp.mrc").v, want));
}
