// kesmar end to end on generated micrographs with a known CTF: recovered
// values, the summary STAR file and the log, skipped micrographs, finished
// and unfinished runs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

int synth(const std::string& args) {
  std::string out;
  const int rc = zk_run_in(".", CTF_SYNTH_BIN, args, &out);
  EXPECT_EQ(rc, 0) << out;
  return rc;
}
int kesmar(const std::string& dir, const std::string& args, std::string* out) {
  return zk_run_in(dir, KESMAR_BIN, args, out);
}

std::vector<std::string> words_of(const std::string& line) {
  std::istringstream is(line);
  std::vector<std::string> w;
  std::string s;
  while (is >> s) w.push_back(s);
  return w;
}

// The data lines of a STAR file, split into words.
std::vector<std::vector<std::string>> star_rows(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream is(zk_slurp(path));
  std::string line;
  while (std::getline(is, line)) {
    const auto w = words_of(line);
    if (w.size() > 2 && w[0][0] != '_') rows.push_back(w);
  }
  return rows;
}

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

const char* HEAD12 =
    "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnCtfImage #2\n_rlnDefocusU #3\n_rlnDefocusV #4\n_rlnDefocusAngle #5\n"
    "_rlnVoltage #6\n_rlnSphericalAberration #7\n_rlnAmplitudeContrast #8\n_rlnMagnification #9\n"
    "_rlnDetectorPixelSize #10\n_rlnCtfFigureOfMerit #11\n";

// Each truth row against the result row of the same micrograph: defocus
// within frac, angle (for astigmatism above 300 A) and phase shift within
// their limits, in the normal forms both files use.
void expect_recovered(const std::string& truth, const std::string& result, double frac, double angle, double ps) {
  const auto want = star_rows(truth), got = star_rows(result);
  ASSERT_EQ(want.size(), got.size());
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_EQ(base_name(want[i][0]), base_name(got[i][0]));
    const double u = atof(want[i][2].c_str()), v = atof(want[i][3].c_str()), a = atof(want[i][4].c_str());
    EXPECT_NEAR(atof(got[i][2].c_str()), u, frac * u) << want[i][0];
    EXPECT_NEAR(atof(got[i][3].c_str()), v, frac * v) << want[i][0];
    if (fabs(u - v) > 300) {
      double d = fabs(atof(got[i][4].c_str()) - a);
      d = std::min(d, 180 - d);
      EXPECT_LT(d, angle) << want[i][0];
    }
    if (want[i].size() == 13) {
      EXPECT_NEAR(atof(got[i][12].c_str()), atof(want[i][12].c_str()), ps) << want[i][0];
    }
  }
}

// Two astigmatic micrographs, the second with its U direction at 160
// degrees, which the normal form turns into 70 with U and V exchanged: the
// angle means what RELION takes it to mean (defocus U along that azimuth,
// counter-clockwise from x towards increasing rows).
TEST(KesmarRun, RecoversAstigmatismAndWritesSummaryAndLog) {
  ZkTmpDir dir;
  synth("--out " + dir / "a.mrc" + " --nx 1024 --ny 1024 --defu 12000 --defv 13000 --angle 30 --noise 3 --seed 3" +
        " --truth " + dir / "truth.star");
  synth("--out " + dir / "b.mrc" + " --nx 1024 --ny 1024 --defu 21000 --defv 20000 --angle 160 --noise 3 --seed 4" +
        " --truth " + dir / "truth.star");
  std::string out;
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --ctfstar all " + dir / "a.mrc" + " " + dir / "b.mrc", &out), 0)
      << out;
  const std::string star = zk_slurp(dir / "all.star");
  EXPECT_EQ(star.find(std::string(HEAD12) + "_rlnFinalResolution #12\n" + dir / "a.mrc " + dir / "a.ctf:mrc "), 0u)
      << star;
  expect_recovered(dir / "truth.star", dir / "all.star", 0.003, 2.0, 0);
  for (const auto& row : star_rows(dir / "all.star")) {
    ASSERT_EQ(row.size(), 12u);
    EXPECT_EQ(row[5], "300.000000");
    EXPECT_EQ(row[8], "140000.000000");  // 14 um / 1 A
    const double res = atof(row[11].c_str());
    EXPECT_GT(res, 2.0);  // a resolution limit between Nyquist and the low end of the band
    EXPECT_LT(res, 50.0);
  }
  // The log ends with the final values of the STAR line and the marker.
  const std::string log = zk_slurp(dir / "a_kesmar.log");
  EXPECT_EQ(log.find("\nKESMAR , "), 0u);
  EXPECT_NE(log.find("Reading file: " + dir / "a.mrc\n"), std::string::npos);
  const auto row = star_rows(dir / "all.star")[0];
  char final_line[256];
  snprintf(final_line, sizeof final_line, "   Defocus_U   Defocus_V       Angle        CCC\n%12.2f%12.2f%12.2f%12.6f",
           atof(row[2].c_str()), atof(row[3].c_str()), atof(row[4].c_str()), atof(row[10].c_str()));
  EXPECT_NE(log.find(final_line), std::string::npos) << log.substr(log.size() > 600 ? log.size() - 600 : 0);
  EXPECT_EQ(log.substr(log.size() - 30), "Processing done successfully.\n");
  // The search's table: defocus 5000 to 89500 in steps of 500, 170 trials.
  EXPECT_NE(log.find("\n       0   5000.000 "), std::string::npos);
  EXPECT_NE(log.find("\n     169  89500.000 "), std::string::npos);
  EXPECT_EQ(log.find("\n     170 "), std::string::npos);
  EXPECT_TRUE(zk_exists(dir / "a.ctf") && zk_exists(dir / "a.pow"));
  EXPECT_FALSE(zk_exists(dir / "a.epa"));
  EXPECT_EQ(zk_slurp(dir / "a.ctf").size(), 1024u + 512u * 512u * 4u);
}

// RELION reads the summary and takes the same values from it (skipped where
// RELION is not installed); refinement from given values reaches the truth.
TEST(KesmarRun, RelionReadsSummaryAndGivenValuesRefine) {
  ZkTmpDir dir;
  synth("--out " + dir / "g.mrc" + " --nx 1024 --ny 1024 --defu 17000 --defv 18200 --angle 140 --seed 12 --truth " +
        dir / "truth.star");
  zk_put(dir / "in.star", "\ndata_\n\nloop_\n_rlnMicrographName #1\n_rlnDefocusU #2\n_rlnDefocusV #3\n_rlnDefocusAngle #4\n"
                          "g.mrc 17300 18000 35\n");
  std::string out;
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --input_ctfstar in.star --refine_input_ctf 1", &out), 0) << out;
  EXPECT_NE(out.find("input: PS = 0.000000, defocus_U = 17300.000000, defocus_V = 18000.000000,"), std::string::npos);
  expect_recovered(dir / "truth.star", dir / "micrographs_all_kesmar.star", 0.003, 2.0, 0);

  if (zk_run("command -v relion_star_printtable", nullptr) != 0) GTEST_SKIP() << "RELION is not installed";
  std::string table;
  ASSERT_EQ(zk_run("cd '" + dir.path +
                       "' && relion_star_printtable micrographs_all_kesmar.star data_ "
                       "rlnMicrographName rlnDefocusU rlnDefocusV rlnDefocusAngle rlnFinalResolution",
                   &table),
            0)
      << table;
  const auto row = star_rows(dir / "micrographs_all_kesmar.star")[0];
  const auto got = words_of(table);
  ASSERT_GE(got.size(), 5u) << table;
  EXPECT_EQ(got[0], "g.mrc");
  for (int k = 1; k < 4; ++k) EXPECT_NEAR(atof(got[k].c_str()), atof(row[k + 1].c_str()), 1e-3) << table;
  EXPECT_NEAR(atof(got[4].c_str()), atof(row[11].c_str()), 1e-3) << table;
}

// A phase plate and a movie of three frames.
TEST(KesmarRun, RecoversPhaseShiftAndMovieDefocus) {
  ZkTmpDir dir;
  synth("--out " + dir / "p.mrc" + " --nx 1024 --ny 1024 --defu 9000 --defv 9800 --angle 50 --ps 70 --noise 2" +
        " --seed 5 --truth " + dir / "ptruth.star");
  std::string out;
  ASSERT_EQ(kesmar(dir.path,
                   "--apix 1 --phase_shift_L 40 --phase_shift_H 100 --phase_shift_S 10 --ctfstar p.star p.mrc", &out),
            0)
      << out;
  const std::string star = zk_slurp(dir / "p.star");
  EXPECT_NE(star.find("_rlnCtfMaxResolution #12\n_rlnPhaseShift #13\np.mrc p.ctf:mrc "), std::string::npos) << star;
  expect_recovered(dir / "ptruth.star", dir / "p.star", 0.005, 2.0, 3.0);

  synth("--out " + dir / "m.mrc" + " --nx 1024 --ny 1024 --frames 3 --defu 16000 --defv 16000 --noise 2 --seed 6" +
        " --truth " + dir / "mtruth.star");
  for (const char* type : {"0", "1"}) {
    ASSERT_EQ(
        kesmar(dir.path, std::string("--apix 1 --boxsize 512 --mdef_ave_type ") + type + " --ctfstar m m.mrc", &out), 0)
        << out;
    expect_recovered(dir / "mtruth.star", dir / "m.star", 0.003, 2.0, 0);
  }
}

// Unusable micrographs are named and skipped; the others go on.
TEST(KesmarRun, SkipsUnusableMicrographs) {
  ZkTmpDir dir;
  synth("--out " + dir / "good.mrc" + " --nx 1024 --ny 1024 --defu 15000 --defv 15500 --angle 10 --seed 7");
  synth("--out " + dir / "small.mrc" + " --nx 256 --ny 256 --seed 8");
  // NaN samples: one sample of a copy of the good micrograph.
  std::string bytes = zk_slurp(dir / "good.mrc");
  const float nan = NAN;
  memcpy(&bytes[1024 + 4 * 5000], &nan, 4);
  FILE* fp = fopen((dir / "nan.mrc").c_str(), "wb");
  fwrite(bytes.data(), 1, bytes.size(), fp);
  fclose(fp);
  // A truncated file.
  fp = fopen((dir / "cut.mrc").c_str(), "wb");
  fwrite(bytes.data(), 1, bytes.size() / 2, fp);
  fclose(fp);

  std::string out;
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 missing.mrc nan.mrc small.mrc cut.mrc good.mrc", &out), 0) << out;
  EXPECT_NE(out.find("the micrograph missing.mrc does NOT exsit! Automatically ignored!"), std::string::npos) << out;
  EXPECT_NE(out.find("the micrograph nan.mrc has NaN or infinite samples! Automatically ignored!"), std::string::npos);
  EXPECT_NE(out.find("the micrograph small.mrc is smaller than the box: 256 x 256 pixels, box 512!"),
            std::string::npos);
  EXPECT_NE(out.find("the micrograph cut.mrc cannot be read as an MRC file!"), std::string::npos);
  const auto rows = star_rows(dir / "micrographs_all_kesmar.star");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][0], "good.mrc");
  for (const char* n : {"nan", "small", "cut"}) {
    EXPECT_FALSE(zk_exists(dir / (std::string(n) + "_kesmar.log"))) << n;
    EXPECT_FALSE(zk_exists(dir / (std::string(n) + ".ctf"))) << n;
  }

  // Nothing to open: one line and status 1.
  EXPECT_EQ(kesmar(dir.path, "--apix 1 missing.mrc gone.mrc", &out), 1);
  EXPECT_NE(out.find("Error: none of the 2 micrographs given can be opened and read; nothing to do.\n"),
            std::string::npos)
      << out;
  // A summary that cannot be written ends the run.
  EXPECT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --ctfstar /nonexistent/dir/all good.mrc", &out), 1);
  EXPECT_NE(out.find("Cannot write to file /nonexistent/dir/all.star. Permission denied or no space left!"),
            std::string::npos)
      << out;
}

// --do_unfinished skips a micrograph whose log holds the marker and redoes
// one whose log stops early; a killed run leaves no log without the marker
// and no partial line in the summary.
TEST(KesmarRun, UnfinishedAndKilledRuns) {
  ZkTmpDir dir;
  for (int i = 0; i < 3; ++i)
    synth("--out " + dir / ("m" + std::to_string(i) + ".mrc") + " --nx 1024 --ny 1024 --defu " +
          std::to_string(12000 + 2000 * i) + " --seed " + std::to_string(20 + i));
  std::string out;
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --ctfstar NONE m0.mrc m1.mrc", &out), 0) << out;
  EXPECT_FALSE(zk_exists(dir / "micrographs_all_kesmar.star"));

  // m1's log loses its end, as a log of an older run that stopped.
  std::string log1 = zk_slurp(dir / "m1_kesmar.log");
  log1.resize(log1.size() / 2);
  zk_put(dir / "m1_kesmar.log", log1);
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --do_unfinished 1 m0.mrc m1.mrc m2.mrc", &out), 0) << out;
  EXPECT_NE(out.find("CTF parameter of \x1b[42mm0.mrc\x1b[m already determined. Automatically skipped.\n"),
            std::string::npos);
  EXPECT_EQ(out.find("m1.mrc\x1b[m already determined"), std::string::npos);
  const auto rows = star_rows(dir / "micrographs_all_kesmar.star");
  ASSERT_EQ(rows.size(), 2u);  // the summary of this run only
  EXPECT_EQ(rows[0][0], "m1.mrc");
  EXPECT_EQ(rows[1][0], "m2.mrc");
  EXPECT_NE(zk_slurp(dir / "m1_kesmar.log").find("Processing done successfully.\n"), std::string::npos);

  // A run killed at some moment: whatever it left, every log under its
  // name is finished and every summary line is whole.
  std::vector<std::string> mics;
  for (int k = 0; k < 4; ++k)
    for (int i = 0; i < 3; ++i) mics.push_back("m" + std::to_string(i) + ".mrc");
  std::string list;
  for (const auto& m : mics) list += " " + m;
  for (const char* ms : {"0.3", "0.9"}) {
    zk_run("cd '" + dir.path + "' && rm -f *_kesmar.log *.part* && OMP_WAIT_POLICY=passive timeout -s KILL " + ms +
               " " + KESMAR_BIN + " --apix 1 --boxsize 512 --ctfstar k" + list + " > /dev/null",
           nullptr);
    for (int i = 0; i < 3; ++i) {
      const std::string log = dir / ("m" + std::to_string(i) + "_kesmar.log");
      if (zk_exists(log)) {
        EXPECT_NE(zk_slurp(log).find("Processing done successfully.\n"), std::string::npos) << log;
      }
    }
    const std::string star = zk_slurp(dir / "k.star");
    if (!star.empty()) {
      EXPECT_EQ(star.back(), '\n');
    }
    for (const auto& row : star_rows(dir / "k.star")) EXPECT_EQ(row.size(), 12u);
  }
}

// A second run takes the spectrum from the .pow file when asked, and gives
// the same result as the first.
TEST(KesmarRun, ReloadsSpectrum) {
  ZkTmpDir dir;
  synth("--out " + dir / "r.mrc" + " --nx 1024 --ny 1024 --defu 14000 --defv 14600 --angle 80 --seed 9");
  std::string out;
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --do_EPA 1 --ctfstar first r.mrc", &out), 0) << out;
  EXPECT_TRUE(zk_exists(dir / "r.epa"));
  ASSERT_EQ(kesmar(dir.path, "--apix 1 --boxsize 512 --reload_ctf_files 1 --ctfstar again r.mrc", &out), 0) << out;
  EXPECT_NE(out.find("pre-loading CTF files r.ctf \n"), std::string::npos) << out;
  EXPECT_EQ(star_rows(dir / "again.star"), star_rows(dir / "first.star"));
}

}  // namespace
