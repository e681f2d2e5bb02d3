// The picker's run: parameters, the first usable micrograph and the geometry
// it fixes, the run-long buffers, then every micrograph through READING,
// NORMALIZATION and PICKING, and the closing banner.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "device/cuda_fft.h"
#include "device/cuda_general.h"
#include "device/process2d_local.h"
#include "driver/zavik_clock.h"
#include "driver/zavik_help.h"
#include "driver/zavik_para.h"
#include "driver/zavik_run.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"

// The driver reports in the name of main, the program's one entry.
#define MAIN_FATAL(msg) zk_fatal("main", zk_basename(__FILE__), __LINE__, (msg))
#define MAIN_FOPEN_READ(name) zk_fopen_read((name), "r", "main", zk_basename(__FILE__), __LINE__)
#define MAIN_FOPEN_WRITE(name) zk_fopen_write((name), "w+", "main", zk_basename(__FILE__), __LINE__)
#define MAIN_FATAL_AFTER(before, msg) zk_fatal_after((before), "main", zk_basename(__FILE__), __LINE__, (msg))

namespace {

void put_line(char c, int n, const char* end) {
  for (int i = 0; i < n; ++i) putchar(c);
  fputs(end, stdout);
}

// The parameter record's buffers, released however the run ends.
struct ZkParaHolder {
  Zavik_Para para;
  bool active = false;
  ~ZkParaHolder() {
    if (active) zavik_free_parameters(&para);
  }
};

// The transform plans and disc spectra made for the run's sizes, and the
// kept blocks, are given back however the run ends, so that a second run in
// the same process starts afresh.
struct ZkCacheGuard {
  ~ZkCacheGuard() {
    zk_local_disc_cache_clear();
    zk_fft_cache_clear();
    zk_release_cached_memory();
  }
};

// A micrograph that cannot be read as one ends the run before anything is
// written for it; the vetting prints the reason.
void vet_or_fail(const char* mic, FILE* fp, const MRC_HEAD* head) {
  if (mrc_vet_micrograph(mic, fp, head) != 0) zk_fail_plain("");
}

bool same_size_and_mode(const MRC_HEAD* a, const MRC_HEAD* b) {
  return a->nx == b->nx && a->ny == b->ny && a->nz == b->nz && a->mode == b->mode;
}

// All output names of one micrograph, beside it.
void set_output_names(ZkRun* run, const char* mic) {
  const Zavik_Para* para = run->para;
  set_outname_by_suffix(run->box_name, mic, "_zavik.box");
  if (para->exclusive_picking)
    set_outname_by_suffix(run->excluded_name, mic, para->excluded_suffix);
  else
    strlcpy(run->excluded_name, "NULL");
  set_name_shrinked_box(run->nonunique_name, mic, para->shrink);
  set_outname_by_suffix(run->star_name, mic, "_zavik.star");
  set_outname_by_suffix(run->pref_name, mic, "_pref.mrc");
  set_outname_by_suffix(run->mask_name, mic, "_mask.mrc");
  set_outname_by_suffix(run->bgfree_name, mic, "_bgfree.mrc");
  set_outname_by_suffix(run->ccmax_name, mic, "_ccmax.mrc");
}

// The next micrograph's slice 0, read by a second thread while the current
// one is searched.  It only reads: every message, check and output stays with
// the reading of that micrograph, which takes the samples when the file it
// opened is the file that was read, and reads them itself otherwise.
struct Prefetch {
  std::thread worker;
  bool busy = false;
  bool ok = false;
  int index = -1;
  struct stat id;
  std::vector<float> samples;  // Nx * Ny

  ~Prefetch() {
    if (busy) worker.join();
  }
};

void prefetch_start(Prefetch& pf, const ZkRun* run, int index, const char* mic) {
  if (pf.samples.empty()) pf.samples.resize((size_t)run->Nx * run->Ny);
  pf.index = index;
  pf.ok = false;
  pf.busy = true;
  const MRC_HEAD first = run->head_first;
  pf.worker = std::thread([&pf, first, mic]() {
    FILE* fp = fopen(mic, "rb");
    if (!fp) return;
    MRC_HEAD head;
    struct stat id;
    if (fstat(fileno(fp), &id) == 0 && mrc_read_head(fp, &head) == 0 && same_size_and_mode(&head, &first) &&
        mrc_mode_readable(head.mode) &&
        (long long)id.st_size >= 1024LL + (long long)head.nx * head.ny * mrc_mode_bytes(head.mode)) {
      mrc_read_slice(fp, &head, 0, 'z', pf.samples.data());
      pf.id = id;
      pf.ok = true;
    }
    fclose(fp);
  });
}

void prefetch_wait(Prefetch& pf) {
  if (pf.busy) pf.worker.join();
  pf.busy = false;
}

// True, with the samples moved into h_raw, when the prefetch read the very
// file that fp is open on, unchanged since.
bool prefetch_take(Prefetch& pf, int index, FILE* fp, std::vector<float>& h_raw) {
  prefetch_wait(pf);
  if (!pf.ok || pf.index != index) return false;
  struct stat id;
  if (fstat(fileno(fp), &id) != 0) return false;
  if (id.st_dev != pf.id.st_dev || id.st_ino != pf.id.st_ino || id.st_size != pf.id.st_size ||
      id.st_mtim.tv_sec != pf.id.st_mtim.tv_sec || id.st_mtim.tv_nsec != pf.id.st_mtim.tv_nsec)
    return false;
  std::swap(h_raw, pf.samples);
  pf.ok = false;
  return true;
}

// READING: names, the skip rule, head check, slice 0, exclusion file.
// Returns false when the micrograph is skipped.
bool read_micrograph(ZkRun* run, ZkStageClock* clock, const char* mic, Prefetch& pf, int index) {
  const Zavik_Para* para = run->para;
  zk_clock_open(clock);
  putchar('\n');
  put_line('-', 129, "\n");
  set_output_names(run, mic);

  if (para->do_unfinished && (is_file_zavik_done(run->box_name) || is_file_zavik_done(run->star_name))) {
    printf("Micrograph %s has already been processed. Automatically skipped.\n", mic);
    zk_clock_close(clock, "READING", false);
    return false;
  }

  // A micrograph that cannot be read as one (a short file, an absurd head)
  // ends the run before anything is written for it.  One of another size or
  // mode is left to the size check below, after the raw candidate file has
  // been created as usual.
  run->fp_mic.reset(MAIN_FOPEN_READ(mic));
  FILE* fp = run->fp_mic.get();
  mrc_read_head(fp, &run->head);
  if (same_size_and_mode(&run->head, &run->head_first)) vet_or_fail(mic, fp, &run->head);

  // The raw candidates of all templates; open through the template loop.
  run->fp_nonunique.reset(MAIN_FOPEN_WRITE(run->nonunique_name));
  check_mrc_head_sizes_two(para->first_mic, mic, &run->head_first, &run->head);
  printf("Reading File %s ...\n", mic);
  if (!prefetch_take(pf, index, fp, run->h_raw)) mrc_read_slice(fp, &run->head, 0, 'z', run->h_raw.data());

  run->n_excluded = 0;
  if (!is_str_null(run->excluded_name) && check_file_access(run->excluded_name, "FR") == 0) {
    run->n_excluded = read_all_ptcl_boxes(run->boxes_excluded.data(), run->Gx * run->Gy, run->excluded_name);
    printf("%8d particles in file %s excluded from auto-picking \n", run->n_excluded, run->excluded_name);
  } else {
    strlcpy(run->excluded_name, "NULL");
  }
  zk_clock_close(clock, "READING");
  return true;
}

void pick_micrograph(ZkRun* run, ZkStageClock* clock, const char* mic) {
  const Zavik_Para* para = run->para;
  zk_clock_open(clock);
  printf("Normalizing the micrograph %s ...\n", mic);
  zavik_stage_normalize(run, mic);
  zk_clock_close(clock, "NORMALIZATION");

  zk_clock_open(clock);
  zavik_stage_begin_picking(run);
  for (int t = 0; t < run->Nt; ++t) {
    printf("Template %03d\n", t + 1);
    zavik_stage_search_template(run, t);
  }
  if (para->write_ccmax_mic) zavik_stage_write_ccmax(run);
  run->fp_mic.reset();
  // The box filter reads the raw candidates back: a write that failed (a full
  // disk) must end the run here rather than give fewer picks without a word.
  if (run->fp_nonunique) {
    FILE* fp = run->fp_nonunique.release();
    const bool ok = fflush(fp) == 0 && !ferror(fp);
    if (fclose(fp) != 0 || !ok)
      MAIN_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", run->nonunique_name),
                       "open file failed.");
  }
  zavik_stage_box_filter(run);
  if (para->extract_raw) zavik_stage_extract(run, mic);
  printf("File %s finished.\n", mic);
  zk_clock_close(clock, "PICKING");
}

}  // namespace

int zavik_run(int argc, char** argv, const ZkRunShortcuts& shortcuts) {
  ZkStageClock clock;
  zk_clock_init(&clock);
  zk_clock_open(&clock);  // TOTAL
  zk_clock_open(&clock);  // PREPARATION

  if (argc < 2) {
    zavik_help(argv[0]);
    return 0;
  }
  if (is_keywd_help(argv[1])) {
    zavik_help_full(argv[0]);
    return 0;
  }

  ZkParaHolder holder;
  Zavik_Para& para = holder.para;
  zavik_init_parameters(argc, &para);
  holder.active = true;
  zavik_get_parameters(argc, argv, &para);
  zavik_fput_parameters(argc, argv, &para, stdout);
  if (zk_backend_note()[0]) printf("%s\n", zk_backend_note());
  ZK_CHECK(zk_set_device(para.gid));

  // Entry 0 gets storage of its own: the first usable name is copied into it.
  std::vector<char> first_mic(ZK_TXT_LEN, '\0');
  para.first_mic = first_mic.data();
  strlcpy(para.first_mic, para.files[0]);
  para.files[0] = para.first_mic;
  FILE* fp0 = nullptr;
  check_access_openf_1st(para.files, para.n_files, para.first_mic, fp0);
  ZkFilePtr fp(fp0);
  if (!fp) {
    char msg[128];
    snprintf(msg, sizeof msg, "none of the %d micrographs given exists and is readable", para.n_files);
    MAIN_FATAL(msg);
  }

  ZkCacheGuard caches;  // declared first, so that it goes after the run's arrays
  ZkRun run;
  run.para = &para;
  run.shortcuts = shortcuts;
  mrc_read_head(fp.get(), &run.head_first);
  vet_or_fail(para.first_mic, fp.get(), &run.head_first);
  fp.reset();
  zavik_run_set_geometry(&run);
  if (run.L < 2) {
    char msg[128];
    snprintf(msg, sizeof msg, "micrographs of %d x %d pixels are too small for speed %d, at least %d pixels a side",
             run.Nx, run.Ny, para.speed, 2 * para.shrink);
    MAIN_FATAL(msg);
  }

  if (para.auto_T) para.ang_step = 360.0f;  // a generated template has one orientation
  zavik_stage_load_templates(&run);
  zavik_run_allocate(&run);
  zavik_stage_upload_templates(&run);
  zavik_stage_prepare_search(&run);
  zk_clock_close(&clock, "PREPARATION");

  {
    Prefetch pf;
    for (int i = 0; i < para.n_files; ++i) {
      const char* mic = para.files[i];
      if (!read_micrograph(&run, &clock, mic, pf, i)) continue;
      prefetch_wait(pf);
      if (run.shortcuts.prefetch && i + 1 < para.n_files) prefetch_start(pf, &run, i + 1, para.files[i + 1]);
      pick_micrograph(&run, &clock, mic);
    }
  }

  zavik_stage_finish_search(&run);
  put_line('#', 129, "\n");
  printf("All %d files finished successfully:\n", para.n_files);
  zk_clock_close(&clock, "TOTAL");
  put_line('#', 129, "\n\n");
  zavik_put_one_random_tip();
  return 0;
}

int zavik_main(int argc, char** argv) {
  try {
    return zavik_run(argc, argv, ZkRunShortcuts());
  } catch (const ZkError& e) {
    zk_print_error(e);
    return e.status();
  }
}
