// The weighted run over one movie's particle stack: the frames each particle
// uses, the order of the particles, the batched device path against the
// staged operations, the other paths and the refusals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "formats/mrcfile.h"
#include "movie/pre_shiny6_run.h"
#include "test_util.h"

namespace {

struct Set {
  ZkTmpDir dir;
  int nx = 24, F = 6, P = 3;
  std::vector<float> stack;  // P particles of F frames
  std::string movie_name, stack_name;
  std::vector<char> storage;
  LOMBAR_PARA para;

  explicit Set(int frames = 6, int particles = 3, int side = 24) : nx(side), F(frames), P(particles) {
    movie_name = dir / "m.mrc";
    stack_name = dir / "m_particles.mrcs";
    std::vector<float> movie((size_t)40 * 40 * F, 1.0f);
    mrcf_write_xyz_data(movie_name.c_str(), movie.data(), 40, 40, F);
    std::mt19937 rng(7);
    std::normal_distribution<float> g(0.0f, 1.0f);
    stack.resize((size_t)P * F * nx * nx);
    for (float& v : stack) v = g(rng);
    mrcf_write_xyz_data(stack_name.c_str(), stack.data(), nx, nx, P * F);
    storage.assign(movie_name.begin(), movie_name.end());
    storage.push_back('\0');
    para.movies.push_back(storage.data());
    strlcpy(para.suffix_a, "_zavik.box");
    strlcpy(para.suffix_b, "_dose_drift.txt");
    strlcpy(para.suffix_c, "_ctfw.txt");
    lombar_set_current_parameters(&para, 0);
    para.first = 0;
    para.last = F - 1;
    for (int f = 0; f < F; ++f) {
      para.dose.push_back(2.0f * (f + 1));
      para.drift.push_back(make_f2(0.2f * f, -0.1f * f));
    }
    para.ctfw.assign(nx / 2 + 1, 1.0f);
  }
  float at(int p, int f, size_t k) const { return stack[((size_t)p * F + f) * nx * nx + k]; }
  std::vector<float> run(std::string* text = nullptr) {
    testing::internal::CaptureStdout();
    mrcsf_dose_drift_ctf_wave_many(&para, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    if (text) *text = out;
    MRC_HEAD h;
    mrcf_read_head(para.out_name, &h);
    EXPECT_EQ(h.nx, nx);
    EXPECT_EQ(h.nz, P);
    std::vector<float> r((size_t)h.nx * h.ny * h.nz);
    mrcf_read_all(para.out_name, r.data());
    return r;
  }
};

TEST(MovieRun, FirstMovieMustBeSquare) {
  Set s;
  lombar_check_first_parameters(&s.para, 0);
  const std::string wide = s.dir / "wide.mrc";
  std::vector<float> v(40 * 30 * 3);
  mrcf_write_xyz_data(wide.c_str(), v.data(), 40, 30, 3);
  strlcpy(s.para.first_movie, wide.c_str());
  EXPECT_FAILS("Error in function lombar_check_first_parameters\\(\\), file pre_shiny6_run.cpp on line [0-9]+: MRC "
               "file must be square! Clip your micrographs if they are not square.! Exit now!\n$",
               lombar_check_first_parameters(&s.para, 0));
}

TEST(MovieRun, StackNotAMultipleOfTheFramesIsFatal) {
  Set s;
  s.para.head.nz = 4;  // 18 images are not particles of 4 frames
  EXPECT_FAILS("Movie frame number not divided by ! ! Exit now!", mrcsf_dose_drift_ctf_wave_many(&s.para, 0));
  EXPECT_FALSE(zk_exists(s.para.out_name));
}

class MovieRunPaths : public BackendTest {};

// With no weighting (scheme 0, L1 norm) the result is the mean of the frames
// each particle uses, whatever the path: the frame range and the particle
// order are checked against the stack itself.
TEST_P(MovieRunPaths, UnweightedResultIsTheMeanOfTheFramesUsed) {
  struct Case {
    int first, last, used0, used1;
  };
  const Case cases[] = {{0, 5, 0, 5}, {2, 4, 2, 4}, {-3, 99, 0, 5}, {0, 0, 0, 0}, {3, 3, 3, 3}};
  for (int device : {2, 3})
    for (bool batched : {true, false})
      for (const Case& c : cases) {
        Set s;
        s.para.gps.mw_skeme = 0;
        s.para.gps.wnorm_type = 1;
        s.para.gps.device = device;
        s.para.options.batched = batched;
        s.para.options.batch_bytes = 1;  // one particle a batch, so that batches follow each other
        s.para.first = c.first;
        s.para.last = c.last;
        const std::vector<float> r = s.run();
        const size_t img = (size_t)s.nx * s.nx;
        for (int p = 0; p < s.P; ++p)
          for (size_t k = 0; k < img; ++k) {
            double m = 0;
            for (int f = c.used0; f <= c.used1; ++f) m += s.at(p, f, k);
            m /= c.used1 - c.used0 + 1;
            ASSERT_NEAR(r[p * img + k], m, 2e-5) << device << batched << " " << c.first << ".." << c.last << " p" << p;
          }
      }
}

// The batched path gives the staged path's images and prints its text.
TEST_P(MovieRunPaths, BatchedDeviceWeightingMatchesTheStagedOperations) {
  // One particle a batch; two and a last one alone, so that the batch's
  // transforms change size; all at once.
  for (size_t budget : {(size_t)1, (size_t)150000, (size_t)0}) {
    Set s(8, 5, 32);
    s.para.gps = gps_para_default();
    s.para.gps.Da = 0.8f;
    s.para.gps.Db = 0.3f;
    s.para.first = 1;
    s.para.last = 6;
    for (int r = 0; r < 17; ++r) s.para.ctfw[r] = 1.0f - 0.03f * r;
    s.para.options.batched = false;
    std::string staged_text, batched_text;
    const std::vector<float> staged = s.run(&staged_text);
    s.para.options.batched = true;
    s.para.options.batch_bytes = budget;
    const std::vector<float> batched = s.run(&batched_text);
    EXPECT_EQ(batched_text, staged_text);
    for (size_t k = 0; k < staged.size(); ++k) ASSERT_NEAR(batched[k], staged[k], 1e-6) << k;
    EXPECT_TRUE(zk_matches(staged_text, "^fft ... \n\\.weighting ...\n       0 dose    4\\.000 dftX    0\\.200 dftY   "
                                        "-0\\.100 \n(.*\n){5}CTFw        0    1\\.000 \n(.*\n){16}apix=1\\.340000  "
                                        "Nx_half=17  Ny=32 Nz=6 \nNe_a=.*device=2 \ninvert fft ...\nParticle 0 \nfft"))
        << staged_text.substr(0, 2000);
  }
}

ZK_BACKEND_SUITE(MovieRunPaths);

TEST(MovieRun, HostWeightingAndOtherPaths) {
  Set s;
  s.para.gps.device = 1;
  std::string text;
  const std::vector<float> host = s.run(&text);
  EXPECT_TRUE(zk_matches(text, "^\n\\.\ni0, j0 0 s 0\\.000000 ")) << text.substr(0, 300);
  EXPECT_TRUE(zk_matches(text, "Particle 2 \n$"));
  // The host form's norm is the L1 norm: at the origin the mean of the frames.
  double m = 0;
  for (int f = 0; f < s.F; ++f)
    for (int k = 0; k < s.nx * s.nx; ++k) m += s.at(1, f, k);
  double got = 0;
  for (int k = 0; k < s.nx * s.nx; ++k) got += host[s.nx * s.nx + k];
  EXPECT_NEAR(got, m / s.F, 1e-3);

  s.para.gps.device = 7;  // nothing happens to the images
  for (float v : s.run(&text)) ASSERT_EQ(v, 0.0f);
  EXPECT_EQ(text, "Particle 0 \nParticle 1 \nParticle 2 \n");
}

TEST(MovieRun, WeightDumpReplacesWeights3D) {
  Set s;
  char cwd[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof cwd));
  ASSERT_EQ(chdir(s.dir.path.c_str()), 0);
  s.para.gps.device = 4;
  s.para.first = 1;
  s.para.last = 4;
  for (float v : s.run()) ASSERT_EQ(v, 0.0f);
  MRC_HEAD h;
  mrcf_read_head("Weights3D.mrcs", &h);
  EXPECT_EQ(h.nx, 13);
  EXPECT_EQ(h.ny, 24);
  EXPECT_EQ(h.nz, 3);  // last - first planes, from the movie's first frame
  std::vector<float> w((size_t)13 * 24 * 3);
  mrcf_read_all("Weights3D.mrcs", w.data());
  // The origin of the rows lies in the middle: s = 0 at element 12 * 13.
  EXPECT_EQ(w[12 * 13], 1.0f);
  const float want = hd_dose_weight(2.0f / (24 * 1.34f), 2.0f, 0.5f, 1.3f) *
                     hd_drift_weight(2.0f / (24 * 1.34f), 0.0f, 1.34f, 0.0f, 0.0f, 1.0f, 1.0f);
  EXPECT_EQ(w[12 * 13 + 2], want);
  ASSERT_EQ(chdir(cwd), 0);
}

}  // namespace
