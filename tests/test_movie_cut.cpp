// Particle movies cut from a movie in device memory: a weighted run on them
// writes the bytes of a run on the extracted stack file.  (lombar's own runs
// check the cut-outs against an independent computation.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "formats/mrcfile.h"
#include "movie/pre_shiny6_cut.h"
#include "movie/pre_shiny6_run.h"
#include "picking/extract.h"
#include "test_util.h"

namespace {

// A 64 x 56 movie of 5 frames, and a list with one box over the left edge,
// one over the bottom right corner and one inside.
struct MovieSet {
  ZkTmpDir dir;
  const int nx = 64, ny = 56, F = 5;
  std::string movie, boxf;
  MovieSet() {
    movie = dir / "mov.mrc";
    boxf = dir / "mov_zavik.box";
    const std::vector<float> data = zk_uniform((size_t)nx * ny * F, 3);
    mrcf_write_xyz_data(movie.c_str(), data.data(), nx, ny, F);
    zk_put(boxf, "-6 10 24 24\n50 40 24 24\n20 20 24 24\n");
  }
};

class MovieCut : public BackendTest {};

// The weighted run on the cut-outs writes the very file that the run on the
// extracted stack writes.
TEST_P(MovieCut, RunOnCutOutsEqualsRunOnTheExtractedStack) {
  MovieSet m;
  for (int device : {2, 3}) {
    LOMBAR_PARA para;
    std::vector<char> name(m.movie.begin(), m.movie.end());
    name.push_back('\0');
    para.movies.push_back(name.data());
    strlcpy(para.suffix_a, "_zavik.box");
    strlcpy(para.suffix_b, "_dose_drift.txt");
    strlcpy(para.suffix_c, "_ctfw.txt");
    lombar_set_current_parameters(&para, 0);
    para.first = 1;
    para.last = 4;
    para.gps.device = device;
    for (int f = 0; f < m.F; ++f) {
      para.dose.push_back(3.0f * f + 1.0f);
      para.drift.push_back(make_f2(0.5f * f, 0.25f));
    }
    para.ctfw.assign(11, 1.0f);
    para.ctfw[10] = 0.5f;

    mrcf_x2d_extract_ptcls_from_micrograph(para.movie, para.name_a, 20, 1);
    testing::internal::CaptureStdout();
    mrcsf_dose_drift_ctf_wave_many(&para, 0);
    const std::string text_file = testing::internal::GetCapturedStdout();
    const std::string from_file = zk_slurp(para.out_name);
    remove(para.particles_name);
    remove(para.out_name);

    ASSERT_EQ(lombar_cut_prepare(para.cut, para.movie, para.name_a, 20, 1), 3);
    testing::internal::CaptureStdout();
    mrcsf_dose_drift_ctf_wave_many(&para, 0);
    const std::string text_cut = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(zk_exists(para.particles_name));
    EXPECT_EQ(text_cut, text_file);
    EXPECT_TRUE(zk_slurp(para.out_name) == from_file) << "device " << device;
  }
}

ZK_BACKEND_SUITE(MovieCut);

TEST(MovieCutFile, MovieOfAWrongSizeIsFatal) {
  MovieSet m;
  FILE* f = fopen(m.movie.c_str(), "ab");
  fputc(0, f);
  fclose(f);
  LombarCut cut;
  EXPECT_FAILS("File size error!", lombar_cut_prepare(cut, m.movie.c_str(), m.boxf.c_str(), 0, 0));
  EXPECT_FALSE(cut.ready);
}

}  // namespace
