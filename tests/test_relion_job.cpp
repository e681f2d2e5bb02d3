// The picker and the CTF engine as RELION External jobs: the arguments, the
// places of the results, the STAR tables, and whole jobs on generated
// micrographs, extracted by RELION's own program where it is installed.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "driver/relion_job.h"
#include "formats/star_table.h"
#include "test_util.h"

namespace {

// A RELION 3.1 micrograph list in folder dir, as a motion-correction job
// leaves it; groups[i] is the optics group of micrograph i.
void write_list(const std::string& path, const std::vector<std::string>& mics, const std::vector<int>& groups,
                const char* apix) {
  std::string s =
      "\n# version 30001\n\ndata_optics\n\nloop_ \n_rlnOpticsGroupName #1 \n_rlnOpticsGroup #2 \n"
      "_rlnMicrographOriginalPixelSize #3 \n_rlnVoltage #4 \n_rlnSphericalAberration #5 \n"
      "_rlnAmplitudeContrast #6 \n_rlnMicrographPixelSize #7 \n";
  for (int g = 1; g <= 2; ++g)
    s += "opticsGroup" + std::to_string(g) + " " + std::to_string(g) + " " + apix + " 300.0 2.7 0.1 " + apix + "\n";
  s += "\n# version 30001\n\ndata_micrographs\n\nloop_ \n_rlnMicrographName #1 \n_rlnOpticsGroup #2 \n"
       "_rlnAccumMotionTotal #3 \n";
  for (size_t i = 0; i < mics.size(); ++i) s += mics[i] + " " + std::to_string(groups[i]) + " 12.5\n";
  zk_put(path, s);
}

int data_lines(const std::string& star) {
  int n = 0;
  for (const ZkStarTable& t : starf_read_tables(star.c_str())) n += (int)t.rows.size();
  return n;
}

std::string in_dir(const ZkTmpDir& dir, const std::string& cmd) { return "cd '" + dir.path + "' && " + cmd; }

bool have_relion() { return zk_run("command -v relion_preprocess", nullptr) == 0; }

}  // namespace

TEST(RelionJob, ResultsGoWhereRelionLooksForThem) {
  const std::string out = "External/job007/";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"MotionCorr/job002/Movies/mic001.mrc", "External/job007/Movies/mic001.mrc"},
      {"Import/job001/a.mrc", "External/job007/a.mrc"},
      {"Micrographs/mic001.mrc", "External/job007/Micrographs/mic001.mrc"},
      {"MotionCorr/jobs/mic.mrc", "External/job007/MotionCorr/jobs/mic.mrc"},
      {"MotionCorr/job/mic.mrc", "External/job007/MotionCorr/job/mic.mrc"},
      {"mic.mrc", "External/job007/mic.mrc"},
      {"/data/set1/mic.mrc", "External/job007/data/set1/mic.mrc"},
      {"Micro..graphs/a.mrc", "External/job007/Micro..graphs/a.mrc"},
  };
  for (const auto& c : cases) EXPECT_EQ(relion_job_result_name(out, c.first), c.second) << c.first;
  EXPECT_EQ(relion_job_result_name("External/job007", "a.mrc"), "External/job007/a.mrc");
  EXPECT_FAILS("the results of micrograph \\.\\./raw/a\\.mrc would lie outside the job folder",
               relion_job_result_name(out, "../raw/a.mrc"););
}

TEST(RelionJob, ArgumentsOfAnExternalJob) {
  const char* argv[] = {"p", "--o",        "External/job007", "--in_mics", "m.star", "--diameter",         "180", "--j",
                        "4", "--in_parts", "p.star",          "-speed",    "1",      "--pipeline_control", "ctl/"};
  const ZkRelionJob job = relion_job_arguments(15, (char**)argv);
  EXPECT_EQ(job.out_dir, "External/job007/");
  EXPECT_EQ(job.in_mics, "m.star");
  EXPECT_EQ(job.control_dir, "ctl/");
  EXPECT_EQ(job.options, (std::vector<std::string>{"--diameter", "180", "-speed", "1"}));
  const char* no_out[] = {"p", "--in_mics", "m.star"};
  EXPECT_FAILS("the job needs its folder: --o <folder>", relion_job_arguments(3, (char**)no_out););
  const char* no_mics[] = {"p", "--o", "x/", "--in_mics"};
  EXPECT_FAILS("the option --in_mics at the end of the command line has no value",
               relion_job_arguments(4, (char**)no_mics););
}

TEST(RelionJob, StarTablesOfARelion31List) {
  ZkTmpDir dir;
  zk_put(dir / "a.star",
         "# version 30001\ndata_optics\nloop_\n_rlnOpticsGroupName #1\n_rlnOpticsGroup #2\nog1 1\n\n"
         "data_micrographs\n_rlnSingle 5\nloop_\n_rlnMicrographName\n_rlnOpticsGroup\n"
         "'a b.mrc' 1\r\n  c.mrc   1 # note\n\n");
  const std::vector<ZkStarTable> t = starf_read_tables((dir / "a.star").c_str());
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(t[0].name, "optics");
  EXPECT_EQ(t[1].labels, (std::vector<std::string>{"_rlnMicrographName", "_rlnOpticsGroup"}));
  ASSERT_EQ(t[1].rows.size(), 2u);
  EXPECT_EQ(t[1].rows[0][0], "'a b.mrc'");
  EXPECT_EQ(t[1].rows[1], (std::vector<std::string>{"c.mrc", "1"}));
  EXPECT_EQ(star_find_table(t, "micrographs", "_rlnMicrographName"), &t[1]);
  EXPECT_EQ(star_find_table(t, "other", "_rlnOpticsGroupName"), &t[0]);
  // Written and read again: the same tables.
  ZkFilePtr fp(fopen((dir / "b.star").c_str(), "w"));
  for (const ZkStarTable& x : t) star_write_table(fp.get(), x);
  fp.reset();
  const std::vector<ZkStarTable> again = starf_read_tables((dir / "b.star").c_str());
  ASSERT_EQ(again.size(), 2u);
  EXPECT_EQ(again[1].rows, t[1].rows);
  EXPECT_EQ(again[0].labels, t[0].labels);
  zk_put(dir / "c.star", "data_\nloop_\n_rlnA #1\n_rlnB #2\n1 2\n3\n");
  EXPECT_FAILS("line 6 of " + dir / "c.star" + " has 1 values for the 2 labels of its table",
               starf_read_tables((dir / "c.star").c_str()););
}

// Picking and CTF as two jobs on three micrographs in two optics groups, then
// RELION's extraction of the picks with the CTF job's micrographs.
TEST(RelionJob, PickAndCtfJobsFeedRelionExtraction) {
  ZkTmpDir dir;
  ASSERT_EQ(system(("mkdir -p " + dir / "MotionCorr/job002/Movies").c_str()), 0);
  std::vector<std::string> mics;
  for (int i = 1; i <= 3; ++i) {
    mics.push_back("MotionCorr/job002/Movies/mic00" + std::to_string(i) + ".mrc");
    ASSERT_EQ(system((std::string(ZAVIK_SYNTH_BIN) + " --out " + dir / mics.back() +
                      " --nx 768 --ny 768 --apix 2 --diameter 160 --noise 0.5 --defocus 1.5 --seed " +
                      std::to_string(i) + " > /dev/null")
                         .c_str()),
              0);
  }
  write_list(dir / "MotionCorr/job002/corrected_micrographs.star", mics, {1, 2, 1}, "2.0");

  std::string out;
  ASSERT_EQ(zk_run(in_dir(dir, std::string(ZAVIK_RELION_BIN) +
                                   " --o External/job007/ --in_mics MotionCorr/job002/corrected_micrographs.star"
                                   " --diameter 160 --cc_cutoff 0.3 --j 1"),
                   &out),
            0)
      << out;
  const std::string job = dir / "External/job007/";
  EXPECT_TRUE(zk_exists(job + "RELION_JOB_EXIT_SUCCESS"));
  EXPECT_FALSE(zk_exists(job + "RELION_JOB_EXIT_FAILURE"));
  EXPECT_EQ(zk_slurp(job + "RELION_OUTPUT_NODES.star"),
            "\ndata_output_nodes\n\nloop_ \n_rlnPipeLineNodeName #1 \n_rlnPipeLineNodeType #2 \n"
            "External/job007/coords_suffix_zavik.star 2 \n \n");
  EXPECT_EQ(zk_slurp(job + "coords_suffix_zavik.star"), "MotionCorr/job002/corrected_micrographs.star\n");
  EXPECT_TRUE(zk_has(out, "--apixM" + std::string(14, ' ') + "2.000\n")) << out;  // from the optics table
  int picks = 0;
  for (int i = 1; i <= 3; ++i) {
    const std::string base = job + "Movies/mic00" + std::to_string(i);
    EXPECT_FALSE(zk_exists(base + ".mrc")) << "the link is gone";
    ASSERT_TRUE(zk_exists(base + "_zavik.star")) << base;
    picks += data_lines(base + "_zavik.star");
  }
  EXPECT_GT(picks, 20);

  ASSERT_EQ(zk_run(in_dir(dir, std::string(KESMAR_RELION_BIN) +
                                   " --o External/job008/ --in_mics MotionCorr/job002/corrected_micrographs.star"
                                   " --boxsize 256 --resH 6 --ctfstar ignored.star"),
                   &out),
            0)
      << out;
  const std::string ctf = dir / "External/job008/";
  EXPECT_TRUE(zk_exists(ctf + "RELION_JOB_EXIT_SUCCESS"));
  EXPECT_EQ(zk_slurp(ctf + "RELION_OUTPUT_NODES.star"),
            "\ndata_output_nodes\n\nloop_ \n_rlnPipeLineNodeName #1 \n_rlnPipeLineNodeType #2 \n"
            "External/job008/micrographs_ctf.star 1 \n \n");
  EXPECT_TRUE(zk_exists(ctf + "micrographs_all_kesmar_og1.star"));
  EXPECT_TRUE(zk_exists(ctf + "Movies/mic002.ctf"));
  EXPECT_FALSE(zk_exists(dir / "ignored.star"));
  const std::vector<ZkStarTable> t = starf_read_tables((ctf + "micrographs_ctf.star").c_str());
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(t[0].rows, starf_read_tables((dir / "MotionCorr/job002/corrected_micrographs.star").c_str())[0].rows);
  EXPECT_EQ(t[1].labels,
            (std::vector<std::string>{"_rlnMicrographName", "_rlnOpticsGroup", "_rlnAccumMotionTotal", "_rlnCtfImage",
                                      "_rlnDefocusU", "_rlnDefocusV", "_rlnCtfAstigmatism", "_rlnDefocusAngle",
                                      "_rlnCtfFigureOfMerit", "_rlnCtfMaxResolution"}));
  ASSERT_EQ(t[1].rows.size(), 3u);
  // Each row takes the values of its own micrograph from the summary of its
  // optics group's run.
  std::vector<std::vector<std::string>> summary;
  for (const char* g : {"og1", "og2"})
    for (const ZkStarTable& s : starf_read_tables((ctf + "micrographs_all_kesmar_" + g + ".star").c_str()))
      summary.insert(summary.end(), s.rows.begin(), s.rows.end());
  ASSERT_EQ(summary.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const std::vector<std::string>& r = t[1].rows[i];
    EXPECT_EQ(r[0], mics[i]);  // the input's rows, in their order
    EXPECT_EQ(r[1], i == 1 ? "2" : "1");
    EXPECT_EQ(r[2], "12.5");
    const std::string link = "External/job008/Movies/mic00" + std::to_string(i + 1);
    EXPECT_EQ(r[3], link + ".ctf:mrc");
    int found = 0;
    for (const std::vector<std::string>& s : summary)
      if (s[0] == link + ".mrc") {
        ++found;
        // U, V, angle, figure of merit, resolution
        EXPECT_EQ((std::vector<std::string>{r[4], r[5], r[7], r[8], r[9]}),
                  (std::vector<std::string>{s[2], s[3], s[4], s[10], s[11]}));
      }
    EXPECT_EQ(found, 1) << link;
    EXPECT_NEAR(atof(r[6].c_str()), std::fabs(atof(r[4].c_str()) - atof(r[5].c_str())), 1e-3);
  }

  if (!have_relion()) GTEST_SKIP() << "relion_preprocess is not installed";
  ASSERT_EQ(system(("mkdir -p " + dir / "Extract/job009").c_str()), 0);
  ASSERT_EQ(zk_run(in_dir(dir,
                          "relion_preprocess --i External/job008/micrographs_ctf.star --coord_dir "
                          "External/job007/ --coord_suffix _zavik.star --part_star Extract/job009/particles.star "
                          "--part_dir Extract/job009/ --extract --extract_size 64 --norm --bg_radius 25 "
                          "--invert_contrast"),
                   &out),
            0)
      << out;
  const std::vector<ZkStarTable> parts = starf_read_tables((dir / "Extract/job009/particles.star").c_str());
  const ZkStarTable* p = star_find_table(parts, "particles", "_rlnImageName");
  ASSERT_NE(p, nullptr) << out;
  EXPECT_EQ((int)p->rows.size(), picks) << out;
  EXPECT_GE(p->column("_rlnDefocusU"), 0);  // the CTF values came along
}

TEST(RelionJob, AFailedJobLeavesTheFailureMarker) {
  ZkTmpDir dir;
  std::string out;
  EXPECT_EQ(zk_run(std::string(ZAVIK_RELION_BIN) + " --help", &out), 0);
  EXPECT_TRUE(zk_has(out, "Usage: ")) << out;
  EXPECT_EQ(zk_run(in_dir(dir, std::string(ZAVIK_RELION_BIN) + " --o External/job003 --in_mics none.star"), &out), 1);
  EXPECT_TRUE(zk_has(out, "Cannot open file none.star")) << out;
  EXPECT_TRUE(zk_exists(dir / "External/job003/RELION_JOB_EXIT_FAILURE"));
  EXPECT_FALSE(zk_exists(dir / "External/job003/RELION_JOB_EXIT_SUCCESS"));
  // A list without optics table does not give the CTF engine its settings.
  zk_put(dir / "old.star", "data_\nloop_\n_rlnMicrographName #1\na.mrc\n");
  EXPECT_EQ(zk_run(in_dir(dir, std::string(KESMAR_RELION_BIN) + " --o External/job004/ --in_mics old.star"), &out), 1);
  EXPECT_TRUE(zk_has(out, "old.star has no optics table")) << out;
  EXPECT_TRUE(zk_exists(dir / "External/job004/RELION_JOB_EXIT_FAILURE"));
}
