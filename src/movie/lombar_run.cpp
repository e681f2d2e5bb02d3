#include "movie/lombar_run.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "ctf/kesmar.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "movie/lombar_para.h"
#include "movie/pre_shiny6_logs.h"

namespace {

void put_rule(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

// A movie that cannot be weighted is named, with the reason, and skipped.
void report_unusable(const char* movie, const std::string& why) {
  printf("\x1b[41m\x1b[1m\x1b[5mWarning: the movie %s %s! Automatically ignored!\x1b[m\n\n", movie, why.c_str());
  fflush(stdout);
}

// The run's plans and kept blocks go back however the run ends.
struct LombarCaches {
  ~LombarCaches() {
    zk_fft_cache_clear();
    zk_release_cached_memory();
  }
};

// The movie can be read as a whole: a readable head of a usable size and
// exactly the samples it promises.
bool movie_readable(const char* movie, std::string& why) {
  if (access(movie, F_OK) != 0) {
    why = "does not exist";
    return false;
  }
  FILE* fp0 = fopen(movie, "rb");
  if (!fp0) {
    why = "cannot be opened";
    return false;
  }
  ZkFilePtr fp(fp0);
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  if (mrc_vet_micrograph(movie, fp.get(), &head) != 0) {
    why = "cannot be read as an MRC file";
    return false;
  }
  const long long need = 1024LL + (long long)mrc_head_samples(&head) * mrc_mode_bytes(head.mode);
  if ((long long)get_file_size(fp.get()) != need) {
    why = "has a file size that does not match its head";
    return false;
  }
  return true;
}

// Everything a movie needs before its run: the names, the skip rule, the
// frames, the logs and the cut-outs.  0 when the movie is to be weighted.
int lombar_prepare_movie(LOMBAR_PARA* para, int i) {
  const char* movie = para->movies[i];
  std::string why;
  if (!movie_readable(movie, why)) {
    report_unusable(movie, why);
    return -1;
  }
  lombar_set_current_parameters(para, i);
  if (para->do_unfinished && is_file_zavik_done(para->out_name)) {
    printf("Movie %s has already been weighted. Automatically skipped.\n", movie);
    return -1;
  }
  const int F = para->head.nz;
  if (F < 3) {
    report_unusable(movie, zk_format("has %d frames; weighting needs at least 3", F));
    return -1;
  }
  lombar_frames_of_movie(para, F, para->first, para->last);

  if (access(para->name_b, R_OK) != 0) {
    report_unusable(movie, zk_format("has no readable dose/drift log %s", para->name_b));
    return -1;
  }
  para->dose.assign(F, 0.0f);
  para->drift.assign(F, make_f2(0.0f, 0.0f));
  if (get_dose_smoothed_drift_from_txt(para->dose.data(), para->drift.data(), F, para->name_b) != 0) {
    report_unusable(movie,
                    zk_format("has a dose/drift log %s without a line for each of its %d frames", para->name_b, F));
    return -1;
  }
  if (access(para->name_a, R_OK) != 0) {
    report_unusable(movie, zk_format("has no readable box file %s", para->name_a));
    return -1;
  }

  printf("Reading movie %s and the boxes of %s ...\n", movie, para->name_a);
  int n = 0;
  try {
    n = lombar_cut_prepare(para->cut, movie, para->name_a, para->newsize, para->invert);
  } catch (const ZkError& e) {
    // A box file or movie that cannot be read costs this movie only; device
    // failures end the run.
    if (e.form() != ZkError::FATAL) throw;
    report_unusable(movie, zk_format("cannot be cut by %s: %s", para->name_a, zk_error_reason(e).c_str()));
    return -1;
  }
  if (n == 0) {
    report_unusable(movie, zk_format("has no particles in %s", para->name_a));
    return -1;
  }
  if (para->cut.w != para->cut.h || para->cut.w < 2) {
    report_unusable(movie, zk_format("has boxes of %d x %d pixels in %s; give a square size with --newsize",
                                     para->cut.w, para->cut.h, para->name_a));
    return -1;
  }
  if (para->cut.w > para->cut.nx || para->cut.h > para->cut.ny) {
    report_unusable(movie, zk_format("has boxes of %d x %d pixels in %s, larger than its %d x %d frames", para->cut.w,
                                     para->cut.h, para->name_a, para->cut.nx, para->cut.ny));
    return -1;
  }

  const int nxh = para->cut.w / 2 + 1;
  para->ctfw.assign(nxh, 1.0f);
  if (access(para->name_c, F_OK) != 0) {
    printf("No CTF weight log %s: no CTF weighting.\n", para->name_c);
  } else if (access(para->name_c, R_OK) != 0 || get_ctfw_from_txt(para->ctfw.data(), nxh, para->name_c) != 0) {
    report_unusable(movie,
                    zk_format("has a CTF weight log %s without a line for each of its %d radii", para->name_c, nxh));
    return -1;
  }
  printf("%d particles of %d x %d pixels, frames %d to %d of %d\n", n, para->cut.w, para->cut.h, para->first,
         para->last, F);
  return 0;
}

}  // namespace

int lombar_run_all(int argc, char** argv, const LombarRunOptions& options) {
  const double t_run = kesmar_wall_seconds();
  if (argc < 2) {
    lombar_help(argv[0]);
    return 0;
  }
  if (is_keywd_help(argv[1])) {
    lombar_help_full(argv[0]);
    return 0;
  }

  LOMBAR_PARA para;
  lombar_init_parameters(&para);
  para.options = options;
  lombar_get_parameters(argc, argv, &para);
  if (para.n_movies == 0) {
    printf("Error: No files to be processed.\n");
    lombar_help(argv[0]);
    zk_fail_plain("", 1);
  }
  if (check_and_set_gid(para.gid) != 0) {
    lombar_help(argv[0]);
    ZK_FATAL("Failed to find any usable GPU device!");
  }
  lombar_put_parameters(argc, argv, &para);
  if (zk_backend_note()[0]) printf("%s\n", zk_backend_note());
  ZK_CHECK(zk_set_device(para.gid));

  FILE* fp0 = nullptr;
  check_access_openf_1st(para.movies.data(), para.n_movies, para.first_movie, fp0);
  ZkFilePtr fp(fp0);
  if (!fp)
    zk_fail_plain(
        zk_format("Error: none of the %d movies given can be opened and read; nothing to do.\n", para.n_movies));
  fp.reset();
  lombar_check_first_parameters(&para, 0);

  LombarCaches caches;
  int done = 0, particles = 0;
  for (int i = 0; i < para.n_movies; ++i) {
    const double t0 = kesmar_wall_seconds();
    put_rule('-', 127);
    if (lombar_prepare_movie(&para, i) != 0) {
      para.cut.reset();
      continue;
    }
    mrcsf_dose_drift_ctf_wave_many(&para, i);
    particles += para.cut.n;
    para.cut.reset();
    ++done;
    printf("Movie %s finished: %s\n", para.movie, para.out_name);
    kesmar_print_time("MOVIE", t0);
  }
  put_rule('#', 127);
  printf("All %d movies finished: %d weighted (%d particles), %d skipped.\n", para.n_movies, done, particles,
         para.n_movies - done);
  kesmar_print_time("TOTAL", t_run);
  put_rule('#', 127);
  return 0;
}
