// The sub-commands of kesmar_more around the library operations.
#include "ctf/kesmar_more.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "ctf/ctf_local.h"
#include "ctf/ctf_movie.h"
#include "ctf/ctf_refine3.h"
#include "ctf/ctf_spectrum.h"
#include "ctf/ctf_validation.h"
#include "ctf/kesmar_result.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "formats/safe_output.h"

namespace {

struct MorePara {
  std::string cmd;
  char ctfstar[ZK_TXT_LEN] = "micrographs_all_kesmar.star";
  char boxsuffix[ZK_TXT_LEN] = "_zavik.star";
  char box[ZK_TXT_LEN] = "";
  float apix = 0.0f, overlap = 0.5f, bfac = 150.0f, resL = 15.0f, resH = 5.0f, err = -1.0f, radius = 384.0f;
  int boxsize = 512, convsize = 0, avetype = 0, refine_astm = 0, write_local_ctf = 0, use_EPA = 0, aveN = 7, fit = 1;
  std::vector<const char*> mics;
};

const char* kUsage =
    "Usage: kesmar_more local|validate|frames [options] <micrographs>\n"
    "  local     per-particle CTF from the boxes around each particle: <mic>_local.star (and --write_local_ctf 1:\n"
    "            <mic>_local.ctf, one picture per particle)\n"
    "  validate  disturbs the micrograph's CTF and refines it back in five bands: grades 5 (PERFECT) to 1 (WRONG)\n"
    "  frames    defocus of sliding groups of --aveN frames of a movie, and a line fitted through them\n"
    "Options (defaults):\n"
    "  --ctfstar micrographs_all_kesmar.star  the kesmar summary that holds each micrograph's CTF\n"
    "  --apix 0           pixel size in A; 0 takes it from the summary (detector pixel / magnification)\n"
    "  --boxsize 512      box of the spectra (local: 256);  --overlap 0.5;  --convsize box/12 (background)\n"
    "  --resL 15 --resH 5 band of the refinement in A (validate: of the model left at the end)\n"
    "  --bfac 150         B-factor of the model;  --err  start step x3 (local, 600) or x10 (frames, 1000), A\n"
    "  local:  --boxsuffix _zavik.star | --box FILE,  --radius 384 (disc of boxes, pixels),  --avetype 0 (1, 2: "
    "weighted by distance),\n"
    "          --refine_astm 0 (1: also astigmatism and angle),  --write_local_ctf 0,  --use_EPA 0\n"
    "  frames: --aveN 7 (frames per group),  --fit 1 (0: no line),  --refine_astm 0\n";

[[noreturn]] void bad_line(const std::string& why) { zk_fail_plain(why + "\n" + kUsage, 1); }

MorePara parse(int argc, char** argv) {
  MorePara p;
  if (argc < 2 || is_keywd_help(argv[1])) zk_fail_plain(kUsage, argc < 2 ? 1 : 0);
  p.cmd = argv[1];
  if (p.cmd != "local" && p.cmd != "validate" && p.cmd != "frames") bad_line("Unknown sub-command " + p.cmd + ".");
  // Per-particle spectra come from small boxes near the particle, so that a
  // tilted specimen's defocus gradient averages out around it.
  if (p.cmd == "local") p.boxsize = 256;
  if (p.cmd == "validate") p.resL = 50.0f, p.resH = 4.0f;
  struct F {
    const char* word;
    float* f;
    int* i;
    char* s;
  };
  const F opts[] = {{"ctfstar", nullptr, nullptr, p.ctfstar},
                    {"boxsuffix", nullptr, nullptr, p.boxsuffix},
                    {"box", nullptr, nullptr, p.box},
                    {"apix", &p.apix, nullptr, nullptr},
                    {"overlap", &p.overlap, nullptr, nullptr},
                    {"bfac", &p.bfac, nullptr, nullptr},
                    {"resL", &p.resL, nullptr, nullptr},
                    {"resH", &p.resH, nullptr, nullptr},
                    {"err", &p.err, nullptr, nullptr},
                    {"radius", &p.radius, nullptr, nullptr},
                    {"boxsize", nullptr, &p.boxsize, nullptr},
                    {"convsize", nullptr, &p.convsize, nullptr},
                    {"avetype", nullptr, &p.avetype, nullptr},
                    {"refine_astm", nullptr, &p.refine_astm, nullptr},
                    {"write_local_ctf", nullptr, &p.write_local_ctf, nullptr},
                    {"use_EPA", nullptr, &p.use_EPA, nullptr},
                    {"aveN", nullptr, &p.aveN, nullptr},
                    {"fit", nullptr, &p.fit, nullptr}};
  for (int i = 2; i < argc; ++i) {
    if (argv[i][0] != '-') {
      p.mics.push_back(argv[i]);
      continue;
    }
    if (is_keywd_help(argv[i])) zk_fail_plain(kUsage, 0);
    const F* hit = nullptr;
    for (const F& o : opts)
      if (keywd_cmp(argv[i], o.word)) hit = &o;
    if (!hit) bad_line(std::string("Unknown option ") + argv[i] + ".");
    if (i + 1 >= argc) bad_line(std::string("No value after ") + argv[i] + ".");
    const char* v = argv[++i];
    if (hit->f) *hit->f = zk_atof(v);
    if (hit->i) *hit->i = zk_atoi(v);
    if (hit->s) strlcpy(hit->s, v);
  }
  if (p.err < 0.0f) p.err = p.cmd == "frames" ? 1000.0f : 600.0f;
  if (p.convsize <= 0) p.convsize = p.boxsize / 12 > 0 ? p.boxsize / 12 : 1;
  if (p.boxsize < 32 || p.boxsize % 2) bad_line("--boxsize must be even and at least 32.");
  if (!(p.overlap >= 0.0f && p.overlap < 1.0f)) bad_line("--overlap must lie in [0, 1).");
  if (!(p.resL > p.resH && p.resH > 0.0f)) bad_line("--resL must be above --resH, both positive.");
  if (p.aveN < 1) bad_line("--aveN must be at least 1.");
  if (!is_str_null(p.box) && p.mics.size() > 1) bad_line("--box names the particles of one micrograph only.");
  if (p.mics.empty()) bad_line("No micrograph given.");
  return p;
}

void skip(const char* mic, const std::string& why) {
  printf("\x1b[41m\x1b[1m\x1b[5mWarning: the micrograph %s %s! Automatically ignored!\x1b[m\n\n", mic, why.c_str());
  fflush(stdout);
}

// The frames of a micrograph, or a reason why they cannot be had.
bool read_frames(const char* mic, MRC_HEAD& head, std::vector<float>& data, std::string& why) {
  FILE* f = fopen(mic, "rb");
  if (!f) {
    why = "cannot be opened";
    return false;
  }
  ZkFilePtr fp(f);
  mrc_read_head(fp.get(), &head);
  const long long need = 1024LL + (long long)mrc_head_samples(&head) * mrc_mode_bytes(head.mode);
  if (mrc_vet_micrograph(mic, fp.get(), &head) != 0 || (long long)get_file_size(fp.get()) < need) {
    why = "cannot be read as an MRC file";
    return false;
  }
  data.assign(mrc_head_samples(&head), 0.0f);
  mrc_read_all_nocheck(fp.get(), &head, data.data());
  for (float v : data)
    if (!std::isfinite(v)) {
      why = "has NaN or infinite samples";
      return false;
    }
  return true;
}

// One micrograph; 0 done, -1 skipped (said so).
int one_micrograph(const MorePara& p, const char* mic) {
  KESMAR_RESULT r;
  const int found = kesmar_find_result(p.ctfstar, mic, r);
  if (found == -2) {
    skip(mic, std::string("has no kesmar result: the summary ") + p.ctfstar +
                  " cannot be read or has no micrograph and defocus columns");
    return -1;
  }
  if (found == -1) {
    skip(mic, std::string("has no kesmar result in ") + p.ctfstar);
    return -1;
  }
  const float apix = p.apix > 0.0f ? p.apix : r.apix;
  if (!(apix > 0.0f)) {
    skip(mic, "has no pixel size in the kesmar summary; give --apix");
    return -1;
  }
  MRC_HEAD head;
  std::vector<float> data;
  std::string why;
  if (!read_frames(mic, head, data, why)) {
    skip(mic, why);
    return -1;
  }
  const int nx = head.nx, ny = head.ny, nz = head.nz > 0 ? head.nz : 1;
  if (nx < p.boxsize || ny < p.boxsize) {
    skip(mic, zk_format("is smaller than the box: %d x %d pixels, box %d", nx, ny, p.boxsize));
    return -1;
  }
  if (p.cmd == "frames" && nz < 2) {
    skip(mic, "is a stack of one frame; per-frame refinement needs a movie");
    return -1;
  }
  const size_t nimage = (size_t)nx * ny;
  // The frames of a movie are summed for the whole-micrograph operations.
  for (int k = 1; k < nz && p.cmd != "frames"; ++k)
    for (size_t i = 0; i < nimage; ++i) data[i] += data[(size_t)k * nimage + i];

  char log_name[ZK_TXT_LEN];
  set_outname_by_suffix(log_name, mic,
                        p.cmd == "local"      ? "_local.log"
                        : p.cmd == "validate" ? "_validation.log"
                                              : "_frames.log");
  ZkOutFile log_out;
  FILE* log = zk_out_open(log_out, log_name);
  const CTF_INFO& c = r.ctf;
  fprintf(log,
          "kesmar_more %s of %s\nStart: U %.2f V %.2f angle %.2f phase shift %.2f kV %.1f Cs %.2f ac %.3f apix %.4f\n",
          p.cmd.c_str(), mic, c.defU, c.defV, c.defA, c.ps, c.kV, c.Cs, c.ac, apix);
  int step = (int)((1.0 - (double)p.overlap) * (double)p.boxsize);
  if (step < 1) step = 1;
  int rc = 0;
  if (p.cmd == "local") {
    char box_name[ZK_TXT_LEN];
    if (is_str_null(p.box))
      set_outname_by_suffix(box_name, mic, p.boxsuffix);
    else
      strlcpy(box_name, p.box);
    try {
      rc = ctf_local_refine_boxf(mic, box_name, data.data(), nx, ny, p.radius, p.boxsize, p.overlap, p.write_local_ctf,
                                 1, p.use_EPA, p.refine_astm, r.dstep, apix, c.kV, c.Cs, c.ac, c.ps, c.defU, c.defV,
                                 c.defA, r.ccc, p.err, p.bfac, p.resL, p.resH, p.avetype, log);
    } catch (const ZkError& e) {
      // A box file that cannot be read costs this micrograph only.
      if (e.form() != ZkError::FATAL) throw;
      skip(mic, zk_format("cannot be refined by the boxes of %s: %s", box_name, zk_error_reason(e).c_str()));
      return -1;
    }
  } else if (p.cmd == "validate") {
    const size_t nhalf = (size_t)(p.boxsize / 2 + 1) * p.boxsize;
    ZkDeviceArray<float> d_image(nimage), d_sub(nhalf), d_tmp(nhalf);
    ZK_CHECK(memcpy_H2D(d_image.get(), data.data(), nimage * sizeof(float)));
    hcuda_2d_gridfft_r2c_amp_ave_log_subbg(d_image.get(), d_sub.get(), nx, ny, p.boxsize, p.boxsize, step, p.convsize);
    std::vector<CTF_VALIDATION_BAND> bands;
    ctf_validation(d_sub.get(), d_tmp.get(), apix, p.boxsize, p.boxsize, c.ps, c.kV, c.Cs, c.ac, c.defU, c.defV, c.defA,
                   0.0f, p.bfac, p.resL, p.resH, log, &bands);
    int lowest = 5;
    for (const CTF_VALIDATION_BAND& b : bands) lowest = b.grade < lowest ? b.grade : lowest;
    static const char* const kWord[6] = {"", "WRONG", "BAD", "USABLE", "GOOD", "PERFECT"};
    if (bands.empty())
      ctf_say(log, "No validation band lies above twice the pixel size of %s.\n", mic);
    else
      ctf_say(log, "Lowest validation score of %s: %d (%s) over %d bands\n", mic, lowest, kWord[lowest],
              (int)bands.size());
  } else {
    CTF_REF_CONTROL ctrl;
    kesmar_ref_control_init(ctrl);
    ctf_movie_stack_refine(data.data(), nx, ny, nz, apix, p.boxsize, step, p.convsize, c.ps, c.kV, c.Cs, c.ac, c.defU,
                           c.defV, c.defA, r.ccc, p.bfac, p.resL, p.resH, p.err, log, 1, p.aveN, p.fit, p.refine_astm,
                           ctrl);
  }
  if (rc != 0) return -1;  // the log goes with the skipped micrograph
  fprintf(log, "Processing done successfully.\n");
  zk_out_commit(log_out);
  return 0;
}

// The run's plans and kept blocks go back however the run ends.
struct Caches {
  ~Caches() {
    zk_fft_cache_clear();
    zk_release_cached_memory();
  }
};

}  // namespace

int kesmar_more_main(int argc, char** argv) {
  const MorePara p = parse(argc, argv);
  Caches caches;
  int done = 0;
  for (const char* mic : p.mics) done += one_micrograph(p, mic) == 0 ? 1 : 0;
  printf("kesmar_more %s: %d of %d micrographs done\n", p.cmd.c_str(), done, (int)p.mics.size());
  return done > 0 ? 0 : 1;
}
