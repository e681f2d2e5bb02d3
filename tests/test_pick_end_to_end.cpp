// The picker from end to end on synthetic micrographs with known particles:
// recall and precision, the two result files agreeing, no result left half
// written, and the same output bytes with and without each speed-up.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "driver/zavik_run.h"
#include "test_util.h"

namespace {

struct Centre {
  int x, y;
  float cc;
};

// Centres of a box file (corner + size/2) or of a .star file's data lines.
std::vector<Centre> read_centres(const std::string& name, bool star) {
  std::vector<Centre> out;
  FILE* fp = fopen(name.c_str(), "r");
  if (!fp) return out;
  char line[1024];
  while (fgets(line, sizeof line, fp)) {
    int x, y, w, h, t;
    float cc, psi;
    if (star) {
      if (sscanf(line, "%d %d %f %d %f", &x, &y, &psi, &t, &cc) == 5) out.push_back({x, y, cc});
    } else if (sscanf(line, "%d %d %d %d %f", &x, &y, &w, &h, &cc) == 5) {
      out.push_back({x + w / 2, y + h / 2, cc});
    } else if (sscanf(line, "%d %d %d %d", &x, &y, &w, &h) == 4) {
      out.push_back({x + w / 2, y + h / 2, 0.0f});
    }
  }
  fclose(fp);
  return out;
}

// Picks within tol pixels of a true centre, each true centre used once.
int matches(const std::vector<Centre>& picks, const std::vector<Centre>& truth, double tol) {
  std::vector<bool> used(truth.size(), false);
  int n = 0;
  for (const Centre& p : picks) {
    int best = -1;
    double bd = tol;
    for (size_t i = 0; i < truth.size(); ++i) {
      const double d = std::hypot(p.x - truth[i].x, p.y - truth[i].y);
      if (!used[i] && d <= bd) {
        bd = d;
        best = (int)i;
      }
    }
    if (best >= 0) {
      used[best] = true;
      ++n;
    }
  }
  return n;
}

// The synthetic micrograph generator and the picker, as programs.
int synth(const std::string& args) {
  return system((std::string(ZAVIK_SYNTH_BIN) + " " + args + " > /dev/null").c_str());
}
int pick(const std::string& args, std::string* out) { return zk_run(std::string(ZAVIK_BIN) + " " + args, out); }

}  // namespace

// 1024 x 1024 at 2 A/px, particles of 160 A: an easy noise level.
TEST(PickEndToEnd, RecallAndPrecisionOnASyntheticMicrograph) {
  ZkTmpDir dir;
  const std::string mic = dir / "mic.mrc", truth = dir / "truth.box", T = dir / "T.mrcs";
  ASSERT_EQ(synth("--out " + mic + " --nx 1024 --ny 1024 --apix 2 --diameter 160 --noise 0.5 --seed 7 --truth " + truth +
                  " --templates " + T + " --ntemplates 4"),
            0);
  const std::vector<Centre> real = read_centres(truth, false);
  ASSERT_GE(real.size(), 15u);
  for (const std::string& opts : {std::string(""), " --T " + T + " --apixT 2 --ang_step 10"}) {
    std::string out;
    ASSERT_EQ(pick("--apixM 2 --diameter 160 --cc_cutoff 0.3" + opts + " " + mic, &out), 0) << out;
    const std::vector<Centre> picks = read_centres(dir / "mic_zavik.box", false);
    const int tp = matches(picks, real, 20.0);
    EXPECT_GE(tp, 0.9 * real.size()) << "recall " << tp << " of " << real.size() << opts;
    EXPECT_GE(tp, 0.9 * picks.size()) << "precision " << tp << " of " << picks.size() << opts;
    // The .star file holds the same particles in the same order, as centres.
    const std::vector<Centre> star = read_centres(dir / "mic_zavik.star", true);
    ASSERT_EQ(star.size(), picks.size());
    for (size_t i = 0; i < star.size(); ++i) {
      EXPECT_NEAR(star[i].x, picks[i].x, 1) << i;
      EXPECT_NEAR(star[i].y, picks[i].y, 1) << i;
      EXPECT_EQ(star[i].cc, picks[i].cc) << i;
    }
  }
}

// A result that cannot be written ends the run with status 1, and the old
// result stays as it was: nothing half written under the final name.
TEST(PickEndToEnd, AFailedResultWriteEndsTheRunAndKeepsTheOldFile) {
  ZkTmpDir dir;
  const std::string mic = dir / "m.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --seed 3"), 0);
  // A directory where the .star result would go: the final rename fails.
  ASSERT_EQ(mkdir((dir / "m_zavik.star").c_str(), 0755), 0);
  std::string out;
  EXPECT_EQ(pick("--apixM 2 --diameter 150 " + mic, &out), 1);
  EXPECT_NE(out.find("Cannot write to file " + (dir / "m_zavik.star") + ". Permission denied or no space left!"),
            std::string::npos)
      << out;
  struct stat st;
  ASSERT_EQ(stat((dir / "m_zavik.star").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_FALSE(zk_has(zk_listing(dir.path), ".part"));  // no temporary file left behind
  // Under --do_unfinished the completed "_zavik.box" marks the micrograph done.
  EXPECT_TRUE(zk_exists(dir / "m_zavik.box"));
}

namespace {

// Runs the picker in this process on the micrographs of dir.
void run_in_process(const std::vector<std::string>& args, const ZkRunShortcuts& shortcuts) {
  std::vector<std::string> words = {"zavik"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  const int rc = zavik_run((int)words.size(), argv.data(), shortcuts);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(rc, 0);
}

// Every file beside the micrographs in a, byte for byte equal to its twin in b.
void expect_same_outputs(const std::string& a, const std::string& b, int at_least) {
  std::string ls;
  zk_run("cd '" + a + "' && ls *_* ", &ls);
  int n = 0;
  size_t pos = 0;
  while (pos < ls.size()) {
    const size_t eol = ls.find('\n', pos);
    const std::string f = ls.substr(pos, eol - pos);
    pos = eol + 1;
    ++n;
    EXPECT_EQ(zk_slurp(a + "/" + f), zk_slurp(b + "/" + f)) << f;
  }
  EXPECT_GE(n, at_least);
}

}  // namespace

// Each speed-up of the run is switched off in turn; every output file must
// keep its bytes.
TEST(PickEndToEnd, EverySpeedUpKeepsEveryOutputByte) {
  ZkTmpDir dir;
  const std::string T = dir / "T.mrcs";
  ASSERT_EQ(synth("--out " + (dir / "t.mrc") + " --nx 64 --ny 64 --count 0 --contamination 0 --apix 4" +
                  " --diameter 160 --templates " + T + " --ntemplates 3"),
            0);
  struct Variant {
    const char* name;
    void (*set)(ZkRunShortcuts&);
  };
  const Variant variants[] = {
      {"all", [](ZkRunShortcuts&) {}},
      {"no_run_search", [](ZkRunShortcuts& s) { s.run_search = false; }},
      {"no_kept_spectra", [](ZkRunShortcuts& s) { s.search.keep_spectra = false; }},
      {"one_thread", [](ZkRunShortcuts& s) { s.search.host_threads = 1; }},
      {"three_threads", [](ZkRunShortcuts& s) { s.search.host_threads = 3; }},
      {"gpu_batch_1", [](ZkRunShortcuts& s) { s.search.gpu_batch = 1; }},
      {"no_prefetch", [](ZkRunShortcuts& s) { s.prefetch = false; }},
      {"no_plan_cache", [](ZkRunShortcuts&) { zk_fft_set_cache(false); }},
  };
  for (const Variant& v : variants) {
    const std::string d = dir / v.name;
    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    for (int i = 1; i <= 3; ++i)
      ASSERT_EQ(synth("--out " + d + "/m" + std::to_string(i) + ".mrc --nx 600 --ny 560 --apix 4 --diameter 160" +
                      " --noise 0.8 --seed " + std::to_string(i)),
                0);
    ZkRunShortcuts shortcuts;
    v.set(shortcuts);
    const std::string mics[] = {d + "/m1.mrc", d + "/m2.mrc", d + "/m3.mrc"};
    run_in_process({"--apixM", "4", "--diameter", "160", "--speed", "2", "--T", T, "--apixT", "4", "--ang_step", "20",
                    "--write_ccmax_mic", "1", "--write_bgfree_mic", "1", mics[0], mics[1], mics[2]},
                   shortcuts);
    zk_fft_set_cache(true);
    if (std::string(v.name) == "all")
      ASSERT_GT(read_centres(d + "/m1_zavik.box", false).size(), 5u);  // something to compare
    else
      expect_same_outputs(dir / "all", d, 3 * 7);
  }
}

// Under --extract_raw every final pick is cut from the raw micrograph into
// "_particles.mrcs", one image a pick, of the box size.
TEST(PickEndToEnd, ExtractionCutsEveryPick) {
  ZkTmpDir dir;
  const std::string mic = dir / "e.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 5"), 0);
  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 --boxsize 80 --cc_cutoff 0.3 --extract_raw 1 " + mic, &out), 0) << out;
  const size_t picks = read_centres(dir / "e_zavik.box", false).size();
  ASSERT_GT(picks, 0u);
  const std::string stack = zk_slurp(dir / "e_particles.mrcs");
  ASSERT_GE(stack.size(), 1024u);
  int32_t dims[4];
  memcpy(dims, stack.data(), sizeof dims);
  EXPECT_EQ(std::vector<int32_t>(dims, dims + 4), (std::vector<int32_t>{80, 80, (int32_t)picks, 2}));  // floats
  EXPECT_EQ(stack.size(), 1024u + picks * 80 * 80 * 4);
}

// A full disk, played by a file size limit: the run ends with status 1 and
// leaves no result that --do_unfinished would take as finished.
TEST(PickEndToEnd, AFullDiskEndsTheRunWithoutAResult) {
  ZkTmpDir dir;
  const std::string mic = dir / "f.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 9"), 0);
  std::string out;
  // Writes beyond 1 KiB fail with EFBIG instead of killing the process.
  const int rc = zk_run("bash -c \"trap '' XFSZ; ulimit -f 1; exec " + std::string(ZAVIK_BIN) +
                            " --apixM 2 --diameter 150 --cc_cutoff 0.05 " + mic + "\"",
                        &out);
  EXPECT_EQ(rc, 1) << out;
  EXPECT_NE(out.find("Permission denied or no space left!"), std::string::npos) << out;
  EXPECT_FALSE(zk_exists(dir / "f_zavik.box"));
  EXPECT_FALSE(zk_exists(dir / "f_zavik.star"));
}

// A micrograph with NaN samples (a broken motion correction, say) gives empty
// results and a warning; the run goes on, and the next micrograph's results
// are those of a run without it.
TEST(PickEndToEnd, AMicrographWithNaNSamplesGivesEmptyResultsAndTheRunGoesOn) {
  ZkTmpDir dir;
  const std::string bad = dir / "bad.mrc", good = dir / "good.mrc", alone = dir / "alone";
  ASSERT_EQ(synth("--out " + bad + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --mode 2 --seed 3"), 0);
  ASSERT_EQ(synth("--out " + good + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 4"), 0);
  ASSERT_EQ(mkdir(alone.c_str(), 0755), 0);
  ASSERT_EQ(system(("cp " + good + " " + alone + "/good.mrc").c_str()), 0);
  // A stripe of NaN floats in the first rows of samples (after the 1024-byte head).
  FILE* fp = fopen(bad.c_str(), "r+b");
  ASSERT_NE(fp, nullptr);
  const std::vector<float> stripe(3000, NAN);
  fseek(fp, 1024 + 4 * 10000, SEEK_SET);
  ASSERT_EQ(fwrite(stripe.data(), sizeof(float), stripe.size(), fp), stripe.size());
  fclose(fp);

  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 " + bad + " " + good, &out), 0) << out;
  EXPECT_NE(out.find("Warning: micrograph " + bad + " holds NaN or infinite samples (3000 of them)"),
            std::string::npos)
      << out;
  EXPECT_TRUE(zk_exists(dir / "bad_zavik.box"));
  EXPECT_EQ(zk_slurp(dir / "bad_zavik.box"), "");
  EXPECT_TRUE(read_centres(dir / "bad_zavik.star", true).empty());

  ASSERT_EQ(pick("--apixM 2 --diameter 150 " + alone + "/good.mrc", &out), 0) << out;
  EXPECT_GT(read_centres(dir / "good_zavik.box", false).size(), 3u);
  EXPECT_EQ(zk_slurp(dir / "good_zavik.box"), zk_slurp(alone + "/good_zavik.box"));
  EXPECT_EQ(zk_slurp(dir / "good_zavik.star"), zk_slurp(alone + "/good_zavik.star"));
}

// A micrograph that is not square goes through the whole run: the picks are
// fixed (any exchange of the two sizes moves them), the generated template is
// searched at one angle (one dot) and every pick has angle 0.
TEST(PickEndToEnd, NonSquareMicrographWithTheGeneratedTemplate) {
  ZkTmpDir dir;
  const std::string mic = dir / "ns.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 720 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 11"), 0);
  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 --cc_cutoff 0.3 --ang_step 10 " + mic, &out), 0) << out;
  EXPECT_NE(out.find("Template 001\n.\n"), std::string::npos) << out;
  const std::vector<Centre> picks = read_centres(dir / "ns_zavik.box", false);
  const int want[][2] = {{88, 116},  {268, 112}, {568, 180}, {148, 220}, {260, 212},
                         {460, 216}, {576, 316}, {308, 360}, {492, 416}};
  ASSERT_EQ(picks.size(), sizeof want / sizeof want[0]);
  for (size_t i = 0; i < picks.size(); ++i) {
    EXPECT_EQ(picks[i].x, want[i][0]) << i;
    EXPECT_EQ(picks[i].y, want[i][1]) << i;
  }
  FILE* fp = fopen((dir / "ns_zavik.star").c_str(), "r");
  ASSERT_NE(fp, nullptr);
  char line[256];
  int rows = 0;
  while (fgets(line, sizeof line, fp)) {
    int x, y, t;
    float psi, cc;
    if (sscanf(line, "%d %d %f %d %f", &x, &y, &psi, &t, &cc) != 5) continue;
    EXPECT_EQ(psi, 0.0f);
    EXPECT_EQ(t, 0);
    ++rows;
  }
  fclose(fp);
  EXPECT_EQ(rows, (int)picks.size());
}

// Micrographs and templates with an extended header (as microscope software
// writes them) give the same picks as the plain files.
TEST(PickEndToEnd, ExtendedHeadersAreSkipped) {
  ZkTmpDir dir;
  const std::string args = " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 5 --ntemplates 2";
  ASSERT_EQ(synth("--out " + (dir / "p.mrc") + " --templates " + (dir / "p_T.mrcs") + args), 0);
  ASSERT_EQ(synth("--out " + (dir / "e.mrc") + " --templates " + (dir / "e_T.mrcs") + args + " --next 1024"), 0);
  ASSERT_EQ(zk_slurp(dir / "e.mrc").size(), zk_slurp(dir / "p.mrc").size() + 1024);
  std::string out;
  for (const char* m : {"p", "e"}) {
    const std::string base = dir / m;
    ASSERT_EQ(pick("--apixM 2 --diameter 150 --T " + base + "_T.mrcs --apixT 2 --ang_step 30 " + base + ".mrc", &out),
              0)
        << out;
  }
  EXPECT_GT(read_centres(dir / "p_zavik.box", false).size(), 3u);
  EXPECT_EQ(zk_slurp(dir / "e_zavik.box"), zk_slurp(dir / "p_zavik.box"));
  EXPECT_EQ(zk_slurp(dir / "e_zavik.star"), zk_slurp(dir / "p_zavik.star"));
}

// Under --do_unfinished a micrograph counts as done only with both results:
// a box file without its .star (a run stopped between them) is picked again.
TEST(PickEndToEnd, DoUnfinishedRedoesABoxWithoutItsStar) {
  ZkTmpDir dir;
  const std::string mic = dir / "h.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 8"), 0);
  std::string out;
  ASSERT_EQ(pick("--apixM 2 --diameter 150 " + mic, &out), 0) << out;
  const std::string box = zk_slurp(dir / "h_zavik.box"), star = zk_slurp(dir / "h_zavik.star");
  ASSERT_EQ(remove((dir / "h_zavik.star").c_str()), 0);
  ASSERT_EQ(pick("--apixM 2 --diameter 150 --do_unfinished 1 " + mic, &out), 0) << out;
  EXPECT_NE(out.find("Micrograph " + mic + " has " + (dir / "h_zavik.box") + " but not " + (dir / "h_zavik.star") +
                     ": it is picked again.\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(zk_slurp(dir / "h_zavik.box"), box);
  EXPECT_EQ(zk_slurp(dir / "h_zavik.star"), star);
  // With both there, it is skipped.
  ASSERT_EQ(pick("--apixM 2 --diameter 150 --do_unfinished 1 " + mic, &out), 0) << out;
  EXPECT_NE(out.find("has already been processed. Automatically skipped."), std::string::npos);
}

// The box filter works on the run's own candidates in memory, never on what
// "_nonunique.box" holds by then: another run in the same folder may have
// rewritten it.  Here the name is a link to /dev/null, which swallows every
// write; the picks are those of a plain run, and the candidates file ends up
// as a file of its own in place of the link.
TEST(PickEndToEnd, TheBoxFilterUsesTheRunsOwnCandidates) {
  ZkTmpDir dir;
  const std::string a = dir / "a", b = dir / "b";
  ASSERT_EQ(mkdir(a.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(b.c_str(), 0755), 0);
  for (const std::string& d : {a, b})
    ASSERT_EQ(synth("--out " + d + "/m.mrc --nx 512 --ny 512 --apix 2 --diameter 150 --noise 0.5 --seed 4"), 0);
  ASSERT_EQ(symlink("/dev/null", (b + "/m_nonunique.box").c_str()), 0);
  std::string out;
  for (const std::string& d : {a, b}) ASSERT_EQ(pick("--apixM 2 --diameter 150 " + d + "/m.mrc", &out), 0) << out;
  EXPECT_GT(read_centres(a + "/m_zavik.box", false).size(), 3u);
  for (const char* f : {"/m_zavik.box", "/m_zavik.star", "/m_nonunique.box"})
    EXPECT_EQ(zk_slurp(b + f), zk_slurp(a + f)) << f;
  struct stat st;
  ASSERT_EQ(lstat((b + "/m_nonunique.box").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

namespace {

// Scores of the candidates of a run (every one under --cc_cutoff -10): those
// within 20 px of a true centre, and the highest of the others that lie on or
// within two diameters of the carbon film of a features file.
struct EdgeScores {
  std::vector<float> particles;
  float edge_max = 0.0f;
};

EdgeScores edge_scores(const std::string& stem, double diameter_px) {
  EdgeScores out;
  const std::vector<Centre> truth = read_centres(stem + "_truth.box", false);
  double ex = 0, ey = 0, c = 1e300;
  FILE* fp = fopen((stem + "_features.txt").c_str(), "r");
  char kind[32];
  double a, b, r;
  while (fp && fscanf(fp, "%31s %lf %lf %lf", kind, &a, &b, &r) == 4)
    if (std::string(kind) == "carbon") ex = a, ey = b, c = r;
  if (fp) fclose(fp);
  for (const Centre& p : read_centres(stem + "_zavik.box", false)) {
    bool right = false;
    for (const Centre& t : truth) right = right || std::hypot(p.x - t.x, p.y - t.y) < 20;
    if (right)
      out.particles.push_back(p.cc);
    else if (ex * p.x + ey * p.y > c - 2 * diameter_px)
      out.edge_max = std::max(out.edge_max, p.cc);
  }
  return out;
}

float median_of(std::vector<float> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0f : v[v.size() / 2];
}

}  // namespace

// The band-pass rings at the step of a carbon edge, and the classic score
// lets the ringing look like a particle; with the rejected film filled by the
// background of the ice first, the edge scores like noise.
TEST(PickEndToEnd, FillRejectedTakesTheCarbonEdgeOutOfTheScores) {
  ZkTmpDir dir;
  ASSERT_EQ(synth("--out " + (dir / "c.mrc") + " --nx 2048 --ny 2048 --apix 1.34 --diameter 200 --noise 2" +
                  " --carbon 0.3 --contamination 0 --seed 4 --truth " + (dir / "c_truth.box") + " --features " +
                  (dir / "c_features.txt")),
            0);
  std::string out;
  float ratio[2];
  for (int fill = 0; fill < 2; ++fill) {
    ASSERT_EQ(pick("--apixM 1.34 --diameter 200 --cc_cutoff -10 --fill_rejected " + std::to_string(fill) + " " +
                       (dir / "c.mrc"),
                   &out),
              0)
        << out;
    const EdgeScores s = edge_scores(dir / "c", 200 / 1.34);
    ASSERT_GE(s.particles.size(), 25u) << fill;
    ratio[fill] = s.edge_max / median_of(s.particles);
  }
  EXPECT_GT(ratio[0], 0.25f);
  EXPECT_LT(ratio[1], 0.5f * ratio[0]);
}

// At the automatic cutoff with the rejected areas filled, a micrograph with
// contamination at a high noise level is picked with the precision asked of
// the picker: at least 0.95 at a recall of at least 0.95.
TEST(PickEndToEnd, AutomaticCutoffReachesThePrecisionTarget) {
  ZkTmpDir dir;
  const std::string mic = dir / "m.mrc";
  ASSERT_EQ(synth("--out " + mic + " --nx 2048 --ny 2048 --apix 1.34 --diameter 200 --noise 2 --contamination 2" +
                  " --seed 6 --truth " + (dir / "m_truth.box")),
            0);
  std::string out;
  ASSERT_EQ(pick("--apixM 1.34 --diameter 200 --cc_cutoff auto --fill_rejected 1 " + mic, &out), 0) << out;
  EXPECT_NE(out.find("Automatic cutoff for " + mic + ": "), std::string::npos) << out;
  const std::vector<Centre> truth = read_centres(dir / "m_truth.box", false);
  const std::vector<Centre> picks = read_centres(dir / "m_zavik.box", false);
  ASSERT_GE(truth.size(), 20u);
  const int right = matches(picks, truth, 200 / 1.34 / 4);
  EXPECT_GE(right, 0.95 * truth.size()) << right << " of " << truth.size();
  EXPECT_GE(right, 0.95 * picks.size()) << right << " of " << picks.size();
}
