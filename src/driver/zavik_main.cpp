// The picker's run: parameters, the first usable micrograph and the geometry
// it fixes, the run-long buffers, then every micrograph through READING,
// NORMALIZATION and PICKING, and the closing banner.
#include <sys/stat.h>

#include <chrono>
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
#include "parallel/zk_parallel.h"

// The driver reports in the name of main, the program's one entry.
#define MAIN_FATAL(msg) zk_fatal("main", zk_basename(__FILE__), __LINE__, (msg))
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

// A micrograph that is passed over: its reason, marked as the warnings about
// unusable micrographs are, and the record for the closing banner.
void pass_over(ZkRun* run, const std::string& why, const char* what_next) {
  printf("\x1b[41m\x1b[1m\x1b[5m%s %s\x1b[m\n\n", why.c_str(), what_next);
  run->failed.push_back(why);
  run->failed_index.push_back(run->current_index);
}

// Why the picker cannot square a micrograph of nx by ny at this shrink, or "":
// the short side is mirrored up to the long one, so the long side of the
// even shrunk image must be less than twice the short one.
std::string shape_problem(const char* mic, int nx, int ny, int shrink) {
  const int sx = nx / (2 * shrink) * 2, sy = ny / (2 * shrink) * 2;
  if (sx == sy || (sy < sx && sx < 2 * sy) || (sx < sy && sy < 2 * sx)) return "";
  return zk_format("Micrograph %s is %d x %d pixels: the picker needs its longer side to be less than twice the "
                   "shorter (%d x %d pixels after shrinking by %d).",
                   mic, nx, ny, sx, sy, shrink);
}

bool same_size_and_mode(const MRC_HEAD* a, const MRC_HEAD* b) {
  return a->nx == b->nx && a->ny == b->ny && a->nz == b->nz && a->mode == b->mode;
}

// All output names of one micrograph, beside it.
void set_output_names(ZkRun* run, const char* mic) {
  const Zavik_Para* para = run->para;
  strlcpy(run->mic_name, mic);
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
  set_outname_by_suffix(run->png_name, mic, "_zavik.png");
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
    if (zk_is_other_than_regular(mic)) return;  // a pipe would block the open
    FILE* fp = fopen(mic, "rb");
    if (!fp) return;
    MRC_HEAD head;
    struct stat id;
    if (fstat(fileno(fp), &id) == 0 && mrc_read_head(fp, &head) == 0 && same_size_and_mode(&head, &first) &&
        mrc_mode_readable(head.mode) && head.next >= 0 &&
        (long long)id.st_size >= mrc_data_offset(&head) + (long long)head.nx * head.ny * mrc_mode_bytes(head.mode)) {
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

  if (para->do_unfinished) {
    // Done means every result the run writes is there: a box file without
    // its .star (a run stopped between the two) is picked again.  Under
    // --write_star 0 either file marks the micrograph as done.
    const bool box = is_file_zavik_done(run->box_name), star = is_file_zavik_done(run->star_name);
    if (para->write_star ? (box && star) : (box || star)) {
      printf("Micrograph %s has already been processed. Automatically skipped.\n", mic);
      zk_clock_close(clock, "READING", false);
      return false;
    }
    if (box || star)
      printf("Micrograph %s has %s but not %s: it is picked again.\n", mic, box ? run->box_name : run->star_name,
             box ? run->star_name : run->box_name);
  }

  // A file that cannot be opened, a directory or a pipe (refused before it is
  // opened, so that it cannot block the run), a file that is no micrograph
  // at all (too short for a head, no size in it) and one that is shorter than
  // its head promises are passed over with their reason: they get no results
  // and the run goes on.  One of another size or mode ends the run at the
  // size check, as the run's one geometry requires.
  const char* going_on = "It gets no results; the run goes on.";
  if (zk_is_other_than_regular(mic)) {
    pass_over(run, zk_format("Micrograph %s is not a regular file (a directory, pipe or device).", mic), going_on);
    zk_clock_close(clock, "READING", false);
    return false;
  }
  run->fp_mic.reset(fopen(mic, "r"));
  if (!run->fp_mic) {
    pass_over(run, zk_format("Cannot open file %s. Permission denied or wrong file name.", mic), going_on);
    zk_clock_close(clock, "READING", false);
    return false;
  }
  FILE* fp = run->fp_mic.get();
  mrc_read_head(fp, &run->head);
  const std::string problem = mrc_micrograph_problem(mic, fp, &run->head);
  struct stat st;
  const bool has_head = fstat(fileno(fp), &st) == 0 && st.st_size >= 1024 && run->head.nx > 0 && run->head.ny > 0 &&
                        run->head.nz > 0;
  if (has_head) check_mrc_head_sizes_two(para->first_mic, mic, &run->head_first, &run->head);
  if (!problem.empty()) {
    run->fp_mic.reset();
    pass_over(run, problem, going_on);
    zk_clock_close(clock, "READING", false);
    return false;
  }

  // The raw candidates of all templates: the temporary file of
  // "_nonunique.box" is made now, so that a folder that cannot take it ends
  // the run before the search.
  run->nonunique_out.reset(new ZkOutFile());
  if (!zk_out_try_open(*run->nonunique_out, run->nonunique_name))
    MAIN_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", run->nonunique_name),
                     "open file failed.");
  run->raw.reset(new ZkMemText());
  printf("Reading File %s ...\n", mic);
  if (!prefetch_take(pf, index, fp, run->h_raw)) mrc_read_slice(fp, &run->head, 0, 'z', run->h_raw.data());

  // Every record of the exclusion file counts, however long the list.
  run->n_excluded = 0;
  if (!is_str_null(run->excluded_name) && check_file_access(run->excluded_name, "FR") == 0) {
    run->boxes_excluded = read_ptcl_box_list(run->excluded_name);
    run->n_excluded = (int)run->boxes_excluded.size();
    printf("%8d particles in file %s excluded from auto-picking \n", run->n_excluded, run->excluded_name);
  } else {
    strlcpy(run->excluded_name, "NULL");
  }
  zk_clock_close(clock, "READING");
  return true;
}

// The share of grid cells that ice detection and exclusion rejected.
double rejected_share(const ZkRun* run) {
  std::vector<unsigned int> ice((size_t)run->Gx * run->Gy);
  ZK_CHECK(memcpy_D2H(ice.data(), run->d_ice.get(), ice.size() * sizeof(unsigned int)));
  size_t n = 0;
  for (unsigned int w : ice) n += w != 0;
  return ice.empty() ? 0.0 : (double)n / (double)ice.size();
}

void pick_micrograph(ZkRun* run, ZkStageClock* clock, const char* mic, ZkMicSummary* sum) {
  const Zavik_Para* para = run->para;
  zk_clock_open(clock);
  printf("Normalizing the micrograph %s ...\n", mic);
  zavik_stage_normalize(run, mic);
  if (!is_str_null(para->summary)) sum->rejected_share = rejected_share(run);
  zk_clock_close(clock, "NORMALIZATION");

  zk_clock_open(clock);
  zavik_stage_begin_picking(run);
  for (int t = 0; t < run->Nt; ++t) {
    printf("Template %03d\n", t + 1);
    zavik_stage_search_template(run, t);
  }
  if (para->write_ccmax_mic) zavik_stage_write_ccmax(run);
  run->fp_mic.reset();
  zavik_stage_box_filter(run);
  run->raw.reset();
  run->nonunique_out.reset();
  if (para->png) zavik_stage_write_picture(run);
  if (para->extract_raw) zavik_stage_extract(run, mic);
  sum->scores = run->pick_scores;
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
  // The ranks of a job run the same command line: one echo is enough.
  if (zk_par_rank() == 0) zavik_fput_parameters(argc, argv, &para, stdout);
  if (zk_backend_note()[0]) printf("%s\n", zk_backend_note());
  ZK_CHECK(zk_set_device(para.gid));

  // Entry 0 gets storage of its own: the first usable name is copied into it.
  std::vector<char> first_mic(ZK_TXT_LEN, '\0');
  para.first_mic = first_mic.data();
  strlcpy(para.first_mic, para.files[0]);
  para.files[0] = para.first_mic;

  ZkCacheGuard caches;  // declared first, so that it goes after the run's arrays
  ZkRun run;
  run.para = &para;
  run.shortcuts = shortcuts;
  const bool want_summary = !is_str_null(para.summary);

  // The first usable micrograph fixes the geometry of the run.  One that is
  // there but cannot be picked is reported and the next one is tried; later
  // names meet their own checks in the list.  When entry 0 itself is passed
  // over, the name that stands in for it takes its storage, so it is recorded
  // here.
  bool found = false;
  for (int k = 0; k < para.n_files && !found; ++k) {
    FILE* fp0 = nullptr;
    check_access_openf_1st(para.files + k, 1, para.first_mic, fp0);
    if (!fp0) continue;
    ZkFilePtr fp(fp0);
    mrc_read_head(fp.get(), &run.head_first);
    std::string problem = mrc_micrograph_problem(para.first_mic, fp.get(), &run.head_first);
    if (problem.empty()) problem = shape_problem(para.first_mic, run.head_first.nx, run.head_first.ny, para.shrink);
    if (problem.empty()) {
      found = true;
    } else if (k == 0) {
      pass_over(&run, problem, "It gets no results; the next micrograph is tried.");
      if (want_summary && zk_par_rank() == 0) {
        ZkMicSummary sum;
        sum.name = para.first_mic;
        sum.status = ZkMicStatus::Failed;
        sum.reason = problem;
        run.summary_lines.push_back({-1, zavik_summary_line(sum)});
      }
    } else {
      printf("%s The next micrograph is tried.\n\n", problem.c_str());
    }
  }
  if (!found) {
    char msg[160];
    if (run.failed.empty())
      snprintf(msg, sizeof msg, "none of the %d micrographs given exists and is readable", para.n_files);
    else
      snprintf(msg, sizeof msg, "none of the %d micrographs given can be picked", para.n_files);
    MAIN_FATAL(msg);
  }
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
    // The ranks of a job share the list: micrograph i is rank (i mod ranks)'s.
    Prefetch pf;
    const int step = zk_par_stride();
    for (int i = zk_par_first(); i < para.n_files; i += step) {
      const char* mic = para.files[i];
      zk_par_set_current(mic);
      run.current_index = i;
      const auto t0 = std::chrono::steady_clock::now();
      const size_t failed_before = run.failed.size();
      ZkMicSummary sum;
      sum.name = mic;
      if (read_micrograph(&run, &clock, mic, pf, i)) {
        prefetch_wait(pf);
        if (run.shortcuts.prefetch && i + step < para.n_files)
          prefetch_start(pf, &run, i + step, para.files[i + step]);
        pick_micrograph(&run, &clock, mic, &sum);
      } else if (run.failed.size() > failed_before) {
        sum.status = ZkMicStatus::Failed;
        sum.reason = run.failed.back();
      } else {
        sum.status = ZkMicStatus::Skipped;
      }
      sum.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      if (want_summary) run.summary_lines.push_back({i, zavik_summary_line(sum)});
    }
  }
  zavik_stage_finish_search(&run);
  zk_par_set_current("");

  // Every rank's failures and summary lines reach rank 0 in list order; the
  // first micrograph's own failure is counted once, by rank 0.
  std::vector<ZkParItem> mine;
  for (size_t k = 0; k < run.failed.size(); ++k)
    if (run.failed_index[k] >= 0 || zk_par_rank() == 0) mine.push_back({run.failed_index[k], run.failed[k]});
  const std::vector<ZkParItem> failed = zk_par_gather(mine);
  const std::vector<ZkParItem> lines = zk_par_gather(run.summary_lines);
  if (zk_par_rank() != 0) {
    printf("Rank %d of %d finished its share of the %d files.\n", zk_par_rank(), zk_par_size(), para.n_files);
    return 0;
  }
  if (want_summary) zavik_summary_write(para.summary, lines);

  put_line('#', 129, "\n");
  if (failed.empty()) {
    printf("All %d files finished successfully:\n", para.n_files);
  } else {
    printf("Finished %d files; %d micrographs could not be picked and have no results:\n", para.n_files,
           (int)failed.size());
    for (const ZkParItem& why : failed) printf("    %s\n", why.text.c_str());
  }
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
