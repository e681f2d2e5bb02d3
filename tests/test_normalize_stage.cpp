#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "core/str_utils.h"
#include "device/cuda_general.h"
#include "device/math_utils.h"
#include "device/process2d_raw.h"
#include "driver/zavik_para.h"
#include "driver/zavik_run.h"
#include "formats/mrcfile.h"
#include "picking/img_filter.h"
#include "picking/zavik56_templates.h"
#include "test_util.h"

namespace {

// The synthetic micrograph of the project: 512 x 480 at 2 A, particles of
// 150 A, two contamination blobs near the top left.
std::string make_synth(const ZkTmpDir& dir, const std::string& name = "m.mrc") {
  const std::string mic = dir / name;
  std::string out;
  const std::string cmd = std::string(ZAVIK_SYNTH_BIN) + " --out " + mic + " --nx 512 --ny 480 --diameter 150" +
                          " --apix 2 --truth " + dir / "t.box" + " --templates " + dir / "T.mrcs" + " --noise 0.5";
  EXPECT_EQ(zk_run(cmd, &out), 0) << out;
  return mic;
}

// A diagnostic image: one L x L slice, checked.
std::vector<float> read_image(const std::string& name, int L) {
  MRC_HEAD head;
  std::vector<float> v((size_t)L * L);
  EXPECT_EQ(mrcf_read_head(name.c_str(), &head), 0) << name;
  EXPECT_TRUE(head.nx == L && head.ny == L && head.nz == 1) << name;
  if (head.nx == L && head.ny == L && head.nz == 1) mrcf_read_all(name.c_str(), v.data());
  return v;
}

// A run prepared as the driver prepares it: parameters from a command line,
// geometry from the micrograph, templates loaded and uploaded, the buffers
// of NORMALIZATION allocated, slice 0 read.
struct StageRun {
  std::vector<std::string> args;
  Zavik_Para para;
  ZkRun run;
  std::string mic;

  StageRun(const std::string& mic_name, const std::vector<std::string>& opts) : mic(mic_name) {
    args.push_back("zavik");
    for (const std::string& o : opts) args.push_back(o);
    args.push_back(mic);
    std::vector<char*> argv;
    for (std::string& s : args) argv.push_back(&s[0]);
    testing::internal::CaptureStdout();
    zavik_init_parameters((int)argv.size(), &para);
    zavik_get_parameters((int)argv.size(), argv.data(), &para);
    testing::internal::GetCapturedStdout();

    run.para = &para;
    mrcf_read_head(mic.c_str(), &run.head_first);
    zavik_run_set_geometry(&run);
    zavik_stage_load_templates(&run);
    zavik_run_allocate(&run);
    zavik_stage_upload_templates(&run);

    set_outname_by_suffix(run.pref_name, mic.c_str(), "_pref.mrc");
    set_outname_by_suffix(run.mask_name, mic.c_str(), "_mask.mrc");
    set_outname_by_suffix(run.bgfree_name, mic.c_str(), "_bgfree.mrc");
    FILE* fp = fopen(mic.c_str(), "rb");
    mrc_read_head(fp, &run.head);
    mrc_read_slice(fp, &run.head, 0, 'z', run.h_raw.data());
    fclose(fp);
  }
  ~StageRun() { zavik_free_parameters(&para); }
  // NORMALIZATION; returns what it printed.
  std::string normalize() {
    testing::internal::CaptureStdout();
    zavik_stage_normalize(&run, mic.c_str());
    return testing::internal::GetCapturedStdout();
  }
  size_t LL() const { return (size_t)run.L * run.L; }
  size_t cells() const { return (size_t)run.Gx * run.Gy; }
};

// a has mean 0 and deviation 1 under the weights m, in double.
void expect_normalised(const std::vector<float>& a, const std::vector<float>& m) {
  double sw = 0, s = 0, ss = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    sw += m[i];
    s += m[i] * a[i];
  }
  const double mean = s / sw;
  for (size_t i = 0; i < a.size(); ++i) ss += m[i] * (a[i] - mean) * (a[i] - mean);
  EXPECT_NEAR(mean, 0.0, 1e-4);
  EXPECT_NEAR(std::sqrt(ss / sw), 1.0, 1e-4);
}

// The mask that d_ice stands for: 0 in each cell with a word, 1 elsewhere.
std::vector<float> mask_of(const std::vector<unsigned int>& ice, int L, int G, int Gx) {
  std::vector<float> m((size_t)L * L);
  for (int y = 0; y < L; ++y)
    for (int x = 0; x < L; ++x) m[(size_t)y * L + x] = ice[(y / G) * Gx + x / G] ? 0.0f : 1.0f;
  return m;
}

}  // namespace

class NormalizeStage : public BackendTest {};

TEST_P(NormalizeStage, OutputFilesUnderTheirFlags) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  StageRun s(mic, {"--apixM", "2", "--diameter", "150", "--do_pre_filter", "1", "--write_pref_mic", "1",
                   "--write_mic_mask", "1", "--write_bgfree_mic", "1", "--write_bg_mic", "1", "--write_lsigma_mic",
                   "1"});
  ASSERT_EQ(s.run.L, 128);
  s.normalize();
  const int L = s.run.L;
  for (const char* suffix : {"_bg.mrc", "_lsigma.mrc"}) read_image(dir / (std::string("m") + suffix), L);
  EXPECT_TRUE(zk_exists(dir / "m_rejected.box"));
  EXPECT_TRUE(zk_exists(dir / "m_rejected.star"));

  // "_pref.mrc": the shrunk square after the pre-filter, before any
  // normalisation: a high-pass at pre_hp inside the Nyquist circle of the
  // working image (apix 8 A, first limit 16 A), soft edge 8.
  std::vector<float> shrunk((size_t)L * L);
  cpu_2d_meanshrink_extended_even_square(shrunk.data(), s.run.h_raw.data(), 512, 480, 4);
  float* d = to_dev(shrunk);
  hcuda_2d_bandpass_softR_mpad_inplace(d, L, 8.0f, 16.0f, 1000.0f, 8.0f);
  EXPECT_TRUE(same_bits(read_image(dir / "m_pref.mrc", L), from_dev(d, shrunk.size())));
  device_free(d);

  // "_mask.mrc": 0 in the rejected cells, 1 elsewhere; the contamination
  // rejects some cells, not all.
  std::vector<float> mask = read_image(dir / "m_mask.mrc", L);
  EXPECT_TRUE(same_bits(mask, mask_of(from_dev(s.run.d_ice.get(), s.cells()), L, s.run.G, s.run.Gx)));
  double msum = 0;
  for (float v : mask) msum += v;
  EXPECT_GT(msum, 0.5 * L * L);
  EXPECT_LT(msum, (double)L * L);
  EXPECT_EQ(s.run.no_picks, 0);

  // "_bgfree.mrc": the final image, mean 0 and deviation 1 under the mask;
  // the rejected pixels keep their scaled values.
  std::vector<float> bgfree = read_image(dir / "m_bgfree.mrc", L);
  EXPECT_TRUE(same_bits(bgfree, from_dev(s.run.d_mic.get(), s.LL())));
  expect_normalised(bgfree, mask);
  size_t nonzero_rejected = 0;
  for (size_t i = 0; i < mask.size(); ++i) nonzero_rejected += mask[i] == 0.0f && bgfree[i] != 0.0f;
  EXPECT_GT(nonzero_rejected, 0u);
}

// Without ice detection: no rejected file and no map, whatever the flags say;
// every cell is free, whatever d_ice held before, so the mask is all ones and
// the image has mean 0 and deviation 1.
TEST_P(NormalizeStage, WithoutIceDetectionEveryCellIsFree) {
  ZkTmpDir dir;
  StageRun s(make_synth(dir), {"--apixM", "2", "--diameter", "150", "--detect_ice", "0", "--write_bg_mic", "1",
                               "--write_lsigma_mic", "1"});
  hcuda_memset_uint(s.run.d_ice.get(), 12345u, s.cells());
  s.normalize();
  for (const char* suffix : {"_rejected.box", "_rejected.star", "_bg.mrc", "_lsigma.mrc"})
    EXPECT_FALSE(zk_exists(dir / (std::string("m") + suffix))) << suffix;
  for (unsigned int w : from_dev(s.run.d_ice.get(), s.cells())) ASSERT_EQ(w, 0u);
  for (float v : from_dev(s.run.d_mask.get(), s.LL())) ASSERT_EQ(v, 1.0f);
  std::vector<float> img = from_dev(s.run.d_mic.get(), s.LL());
  expect_normalised(img, std::vector<float>(img.size(), 1.0f));
}

// The micrograph's exclusion boxes reject their cells only under
// --mask_excluded; the global file rejects its cells always.
TEST_P(NormalizeStage, ExclusionEntersTheMask) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  const std::string global = dir / "global.box";
  zk_put(global, "400 400 40 40\n");  // centre (420, 420): px 105, cell (10, 10)
  for (int mask_excluded : {0, 1}) {
    StageRun s(mic, {"--apixM", "2", "--diameter", "150", "--detect_ice", "0", "--mask_excluded",
                     std::to_string(mask_excluded), "--global_excluded_box", global});
    ASSERT_EQ(s.run.G, 10);
    ASSERT_EQ(s.run.Gx, 13);
    PTCL_BOX b = one_new_ptcl_box();
    b.x = 236;  // centre (256, 300): px 64, py 75, cell (6, 7)
    b.y = 280;
    b.w = b.h = 40;
    s.run.boxes_excluded.data()[0] = b;
    s.run.n_excluded = 1;
    const std::string said = s.normalize();
    EXPECT_NE(said.find("       1 particles in file " + global + " excluded from auto-picking \n"),
              std::string::npos)
        << said;
    std::vector<unsigned int> ice = from_dev(s.run.d_ice.get(), s.cells());
    std::vector<unsigned int> want(s.cells(), 0);
    want[10 * 13 + 10] = 105 + 105 * 128;
    if (mask_excluded) want[7 * 13 + 6] = 64 + 75 * 128;
    EXPECT_EQ(ice, want) << "mask_excluded " << mask_excluded;
    std::vector<float> mask = from_dev(s.run.d_mask.get(), s.LL());
    EXPECT_TRUE(same_bits(mask, mask_of(want, 128, 10, 13)));
    expect_normalised(from_dev(s.run.d_mic.get(), s.LL()), mask);
  }
}

// Every cell rejected: no masked statistics exist.  The stage warns, marks the
// micrograph and leaves a finite image; the next micrograph starts afresh.
TEST_P(NormalizeStage, EveryCellRejected) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  const std::string global = dir / "all.box";
  FILE* fp = fopen(global.c_str(), "w");
  for (int cy = 0; cy < 13; ++cy)
    for (int cx = 0; cx < 13; ++cx) fprintf(fp, "%d %d 0 0\n", (cx * 10 + 5) * 4, (cy * 10 + 5) * 4);
  fclose(fp);
  StageRun s(mic, {"--apixM", "2", "--diameter", "150", "--global_excluded_box", global, "--write_mic_mask", "1",
                   "--write_bgfree_mic", "1"});
  const std::string said = s.normalize();
  EXPECT_NE(said.find("Warning: every grid cell of micrograph " + mic +
                      " is rejected by ice detection or exclusion; no particles will be picked from it.\n"),
            std::string::npos)
      << said;
  EXPECT_EQ(s.run.no_picks, 1);
  for (float v : from_dev(s.run.d_mask.get(), s.LL())) ASSERT_EQ(v, 0.0f);
  std::vector<float> img = from_dev(s.run.d_mic.get(), s.LL());
  for (float v : img) ASSERT_TRUE(std::isfinite(v));
  EXPECT_TRUE(same_bits(read_image(dir / "m_bgfree.mrc", s.run.L), img));

  strlcpy(s.para.global_excluded_box, "NULL");
  const std::string again = s.normalize();
  EXPECT_EQ(again.find("Warning: every grid cell"), std::string::npos);
  EXPECT_EQ(s.run.no_picks, 0);
}

// A NaN or infinite sample, or a micrograph without contrast, would make every
// score NaN: the stage says so and marks the micrograph, which is then not
// searched; a sound micrograph after it is searched again.
TEST_P(NormalizeStage, NotFiniteImageIsNotSearched) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  StageRun s(mic, {"--apixM", "2", "--diameter", "150"});
  const size_t n = (size_t)s.run.Nx * s.run.Ny;
  const std::vector<float> raw(s.run.h_raw.data(), s.run.h_raw.data() + n);

  s.run.h_raw.data()[1000] = NAN;
  s.run.h_raw.data()[n - 1] = -INFINITY;
  s.run.h_raw.data()[n / 2] = INFINITY;
  EXPECT_EQ(s.normalize(), "Warning: micrograph " + mic +
                               " holds NaN or infinite samples (3 of them); no particles will be picked from it.\n");
  EXPECT_EQ(s.run.no_picks, 1);

  std::fill(s.run.h_raw.data(), s.run.h_raw.data() + n, 3.5f);
  EXPECT_EQ(s.normalize(), "Warning: micrograph " + mic +
                               " has no contrast that can be normalised (constant or out-of-range samples); no "
                               "particles will be picked from it.\n");
  EXPECT_EQ(s.run.no_picks, 1);

  std::copy(raw.begin(), raw.end(), s.run.h_raw.data());
  EXPECT_EQ(s.normalize(), "");
  EXPECT_EQ(s.run.no_picks, 0);
}

// PREPARATION: each template normalised by its type on a copy, then all of
// them inverted unless --dont_invertT.
TEST_P(NormalizeStage, TemplatesNormalisedAndInverted) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  for (int dont : {0, 1}) {
    StageRun s(mic, {"--apixM", "2", "--diameter", "150", "--dont_invertT", std::to_string(dont)});
    const int Tx = s.run.Tx, Ty = s.run.Ty;
    ASSERT_EQ(s.run.Nt, 1);
    ASSERT_EQ(Tx, 4 * (int)s.para.T_radius);
    int gx, gy, gn;
    float* raw = create_template_data(gx, gy, gn, s.para.T_radius, s.para.center1_ratio);
    EXPECT_EQ(memcmp(raw, s.run.h_T_all.get(), (size_t)Tx * Ty * sizeof(float)), 0) << "h_T_all keeps the stack as made";
    double mean = 0;
    for (int i = 0; i < Tx * Ty; ++i) mean += raw[i];
    mean /= Tx * Ty;
    std::vector<float> dT = from_dev(s.run.d_T.get(), (size_t)Tx * Ty);
    const double sign = dont ? 1.0 : -1.0;
    for (int i = 0; i < Tx * Ty; ++i) ASSERT_NEAR(dT[i], sign * (raw[i] - mean), 1e-6) << i;
    destroy_template_data(raw);
  }
}

ZK_BACKEND_SUITE(NormalizeStage);

// Templates that cannot be searched stop the run during PREPARATION.
TEST(TemplateStage, UnusableTemplatesStopThePreparation) {
  ZkTmpDir dir;
  const std::string mic = make_synth(dir);
  std::string out;
  // A 600 A particle: a generated box of 192 shrunk pixels, the square is 128.
  EXPECT_EQ(zk_run(std::string(ZAVIK_BIN) + " --apixM 2 --diameter 600 " + mic, &out), 1);
  EXPECT_NE(out.find("Error in function main(), file zavik_stages.cpp on line "), std::string::npos) << out;
  EXPECT_NE(out.find(": The templates of 192 x 192 shrunk pixels do not fit the working image of 128 x 128: use "
                     "smaller templates or a smaller --diameter! Exit now!\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(out.find("Reading File"), std::string::npos);

  // A 10 A particle at speed 4: a radius of 0.406 shrunk pixels.
  EXPECT_EQ(zk_run(std::string(ZAVIK_BIN) + " --apixM 2 --diameter 10 --min_dist 100 --speed 4 " + mic, &out), 1);
  EXPECT_NE(out.find(": The template radius of 0.406 shrunk pixels (--diameter 10.0 at speed 4) is below 1 pixel: "
                     "use a larger --diameter or a smaller --speed! Exit now!\n"),
            std::string::npos)
      << out;

  // A file of 5 x 5 templates at a shrink of 8 leaves nothing.
  std::vector<float> small(25, 1.0f);
  const std::string t = dir / "small.mrc";
  mrcf_write_xyz_data(t.c_str(), small.data(), 5, 5, 1);
  EXPECT_EQ(zk_run(std::string(ZAVIK_BIN) + " --apixM 2 --apixT 2 --diameter 150 --speed 4 --T " + t + " " + mic,
                   &out),
            1);
  EXPECT_NE(out.find(": The templates of " + t + " leave 0 x 0 shrunk pixels at speed 4"), std::string::npos) << out;
}
