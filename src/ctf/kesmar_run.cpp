// The run sequence: parameters, the first usable micrograph and the buffers
// allocated once for its geometry, then every micrograph from reading to the
// last output.
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "core/txt_file.h"
#include "ctf/kesmar.h"
#include "device/cuda_fft.h"

namespace {

void put_rule(char c, int n) {
  for (int i = 0; i < n; ++i) putchar(c);
  putchar('\n');
}

// A micrograph that cannot be used is named, with the reason, and skipped.
void report_unusable(const char* mic, const std::string& why) {
  printf("\x1b[41m\x1b[1m\x1b[5mWarning: the micrograph %s %s! Automatically ignored!\x1b[m\n\n", mic, why.c_str());
  fflush(stdout);
}

// True when the file holds the head and every sample the head promises.
bool whole_file_present(FILE* fp, const MRC_HEAD* head) {
  const long long need = 1024LL + (long long)mrc_head_samples(head) * mrc_mode_bytes(head->mode);
  return (long long)get_file_size(fp) >= need;
}

bool all_finite(const std::vector<float>& v, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

// The run's plans and kept blocks go back however the run ends.
struct ZkRunCaches {
  ~ZkRunCaches() {
    zk_fft_cache_clear();
    zk_release_cached_memory();
  }
};

}  // namespace

double kesmar_wall_seconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return (double)tv.tv_sec + (double)tv.tv_usec / 1000000.0;
}

void kesmar_print_time(const char* label, double t0) {
  printf(">>>>>>TIME<<<<<<%32s: %fs\n", label, kesmar_wall_seconds() - t0);
}

KESMAR_A::KESMAR_A() { kesmar_ref_control_init(ctrl); }
KESMAR_A::~KESMAR_A() = default;

void KESMAR_A::say(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  vprintf(fmt, ap);
  if (log_fp) vfprintf(log_fp, fmt, again);
  va_end(again);
  va_end(ap);
}

void KESMAR_A::log(const char* fmt, ...) {
  if (!log_fp) return;
  va_list ap;
  va_start(ap, fmt);
  vfprintf(log_fp, fmt, ap);
  va_end(ap);
}

// A fixed seed by default, so that a micrograph gives the same numbers on
// every run and on both back ends; seed 0 takes the clock.
void KESMAR_A::kesmar_srand() { rng_state = options.seed ? options.seed : (unsigned int)time(nullptr); }

float KESMAR_A::kesmar_rand_unit() {
  rng_state = rng_state * 1103515245u + 12345u;
  const unsigned int r = (rng_state >> 1) & 0x7fffffffu;
  return (float)((double)r / 2147483648.0);
}

int KESMAR_A::kesmar_run_all(int argc, char** argv) { return kesmar_run_all(argc, argv, KesmarRunOptions()); }

int KESMAR_A::kesmar_run_all(int argc, char** argv, const KesmarRunOptions& opt) {
  options = opt;
  kesmar_srand();
  ZkRunCaches caches;
  const double t0 = kesmar_wall_seconds();
  kesmar_preparation(argc, argv);
  kesmar_print_time("PREPARATION", t0);
  // The ranks of a job share the list: micrograph i is rank (i mod ranks)'s.
  for (imic = zk_par_first(); imic < para->nfiles; imic += zk_par_stride()) {
    zk_par_set_current(para->files[imic]);
    if (kesmar_prep_one_mic() != 0) continue;
    if (kesmar_generate_ctf_d_data() != 0) {
      kesmar_abandon_one_mic();
      continue;
    }
    kesmar_1D_search_2D_refine();
    kesmar_set_res_limit();
    // The pictures first, so that the summary never names a .ctf file that a
    // failed write left missing.
    kesmar_write_ctfout('W');
    kesmar_write_star_oneline();
    kesmar_end_one_mic();
    ++n_fitted;
  }
  zk_par_set_current("");
  kesmar_finish_job();
  kesmar_free_ctf_data();
  return 0;
}

void KESMAR_A::kesmar_preparation(int argc, char** argv) {
  kesmar_init_parameters(argc, argv);
  kesmar_get_parameters(argc, argv);
  kesmar_test_set_io_info();
  kesmar_allocate_ctf_data();
  // The ranks of a job run the same command line: one echo is enough.
  if (zk_par_rank() == 0) kesmar_put_parameters(argc, argv);
  if (zk_backend_note()[0]) printf("%s\n", zk_backend_note());
  kesmar_open_sumlog();
}

int KESMAR_A::kesmar_check_access_openf_1st() {
  KESMAR_Para& p = *para;
  for (int i = 0; i < p.nfiles; ++i) {
    const char* mic = p.files[i];
    if (access(mic, F_OK) != 0) {
      printf(
          "\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s does NOT exsit! "
          "Automatically ignored!\x1b[m\n\n",
          __func__, zk_basename(__FILE__), __LINE__, mic);
      continue;
    }
    if (access(mic, R_OK) != 0) {
      printf(
          "\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s are NOT readable! "
          "Automatically ignored!\x1b[m\n\n",
          __func__, zk_basename(__FILE__), __LINE__, mic);
      continue;
    }
    printf("Opening %s for initial test and preperation .......\n", mic);
    ZkFilePtr fp(ZK_FOPEN_READ(mic, "rb"));
    MRC_HEAD h;
    mrc_read_head(fp.get(), &h);
    // A file that is no readable MRC cannot fix the geometry: the walk goes on.
    if (mrc_vet_micrograph(mic, fp.get(), &h) != 0) {
      report_unusable(mic, "cannot be read as an MRC file");
      continue;
    }
    strlcpy(p.first_mic, mic);
    head = h;
    return i;
  }
  return -1;
}

void KESMAR_A::kesmar_test_set_io_info() {
  mic_name = para->files[0];
  if (kesmar_check_access_openf_1st() < 0)
    zk_fail_plain(
        zk_format("Error: none of the %d micrographs given can be opened and read; nothing to do.\n", para->nfiles));
  head_ref = head;
  head_1 = head;
  head_1.nz = 1;
}

void KESMAR_A::kesmar_check_boxsizes() {
  KESMAR_Para& p = *para;
  const int m = head_ref.nx < head_ref.ny ? head_ref.nx : head_ref.ny;
  if (m < p.boxsize) {
    p.boxsize = m;
    p.convsize = m / 12;
  }
  if ((float)m < p.local_radius) p.local_radius = (float)m;
  if (m < p.local_boxsize) p.local_boxsize = m;
}

void KESMAR_A::kesmar_allocate_ctf_data() {
  kesmar_check_boxsizes();
  KESMAR_Para& p = *para;
  nx = ny = p.boxsize;
  nxh = p.boxsize / 2 + 1;
  ndef = p.defS > 0.0f ? (int)((p.defH - p.defL) / p.defS) : 1;
  if (ndef < 1) ndef = 1;
  p.step = (int)((1.0 - (double)p.overlap) * (double)p.boxsize);
  if (p.step < 1) p.step = 1;
  gridx = (head_ref.nx - p.boxsize) / p.step + 1;
  gridy = (head_ref.ny - p.boxsize) / p.step + 1;
  ngrid = gridx * gridy;
  nfull = nx * ny;
  nhalf = nxh * ny;
  nimage = head_ref.nx * head_ref.ny;
  nstack = nimage * (head_ref.nz > 0 ? head_ref.nz : 1);

  h_stack.assign((size_t)nstack, 0.0f);
  for (std::vector<float>* v : {&h_raw_full, &h_bg_full, &h_sub_full, &h_out}) v->assign((size_t)nfull, 0.0f);
  for (std::vector<float>* v : {&h_raw_half, &h_bg_half, &h_sub_half, &h_sim_half, &h_epa_half})
    v->assign((size_t)nhalf, 0.0f);
  h_rot1d.assign((size_t)nxh, 0.0f);
  h_def_ccc.assign((size_t)ndef, 0.0f);
  h_def_value.assign((size_t)ndef, 0.0f);

  // A movie needs a frame buffer and a frame spectrum besides the sum.
  if (head_ref.nz > 1) {
    d_frame.allocate((size_t)nimage);
    d_frame_amp.allocate((size_t)nhalf);
  }
  d_image.allocate((size_t)nimage);
  for (ZkDeviceArray<float>* d : {&d_raw_full, &d_bg_full, &d_sub_full}) d->allocate((size_t)nfull);
  for (ZkDeviceArray<float>* d : {&d_raw, &d_bg, &d_sub, &d_tmp, &d_tmp2, &d_epa, &d_sq}) {
    d->allocate((size_t)nhalf);
    hcuda_empty_float(d->get(), (size_t)nhalf);
  }
  d_rot1d.allocate((size_t)nxh);
  d_sim1d.allocate((size_t)ndef * nxh);
  d_def_ccc.allocate((size_t)ndef);
  d_def_value.allocate((size_t)ndef);
}

void KESMAR_A::kesmar_open_sumlog() {
  if (is_str_null(para->ctfstar) || zk_par_rank() != 0) return;
  star_file.reset(ZK_FOPEN_WRITE(para->ctfstar, "w+"));
  star_fp = star_file.get();
  if (para->do_phase_shift)
    log_ctfstar_ex_head_phase_shift(star_fp);
  else
    log_ctfstar_ex_head(star_fp);
  if (fflush(star_fp) != 0 || ferror(star_fp))
    ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", para->ctfstar),
                   "open file failed.");
}

namespace {
bool kesmar_is_file_ctf_done(const char* name) {
  if (access(name, F_OK) != 0) return false;
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  return FILE_find_str_line(fp.get(), "Processing done successfully") >= 0;
}
}  // namespace

int KESMAR_A::kesmar_prep_one_mic() {
  const double t0 = kesmar_wall_seconds();
  KESMAR_Para& p = *para;
  mic_name = p.files[imic];
  if (check_file_access(mic_name, "FR") != 0) return -1;
  set_outname_by_suffix(log_name, mic_name, p.logsuffix);
  set_outname_by_suffix(ctf_name, mic_name, ".ctf");
  set_outname_by_suffix(pow_name, mic_name, ".pow");
  set_outname_by_suffix(epa_name, mic_name, ".epa");
  if (p.do_unfinished && kesmar_is_file_ctf_done(log_name)) {
    printf("CTF parameter of \x1b[42m%s\x1b[m already determined. Automatically skipped.\n", mic_name);
    return -1;
  }

  FILE* fp0 = fopen(mic_name, "rb");
  if (!fp0) {
    report_unusable(mic_name, "cannot be opened");
    return -1;
  }
  ZkFilePtr fp(fp0);
  mrc_read_head(fp.get(), &head);
  if (mrc_vet_micrograph(mic_name, fp.get(), &head) != 0 || !whole_file_present(fp.get(), &head)) {
    report_unusable(mic_name, "cannot be read as an MRC file");
    return -1;
  }
  if (head.nx < p.boxsize || head.ny < p.boxsize) {
    report_unusable(mic_name,
                    zk_format("is smaller than the box: %d x %d pixels, box %d", head.nx, head.ny, p.boxsize));
    return -1;
  }
  check_mrc_head_sizes_two(p.first_mic, mic_name, &head_ref, &head);

  printf("Reading file: %s\n", mic_name);
  mrc_read_all_nocheck(fp.get(), &head, h_stack.data());
  fp.reset();
  if (!all_finite(h_stack, (size_t)nstack)) {
    report_unusable(mic_name, "has NaN or infinite samples");
    return -1;
  }
  log_fp = zk_out_open(log_out, log_name);
  kesmar_fput_parameters_ctffind3();
  log("Reading file: %s\n", mic_name);
  kesmar_print_time("READING", t0);
  return 0;
}

void KESMAR_A::kesmar_end_one_mic() {
  puts("Processing done successfully.");
  log("Processing done successfully.\n");
  log_fp = nullptr;
  zk_out_commit(log_out);
  put_rule('-', 127);
  fflush(stdout);
}

void KESMAR_A::kesmar_abandon_one_mic() {
  log_fp = nullptr;
  zk_out_abandon(log_out);
}

void KESMAR_A::kesmar_finish_job() {
  if (zk_par_size() == 1) return;
  const std::vector<ZkParItem> lines = zk_par_gather(star_lines);
  const long long fitted = zk_par_sum(n_fitted);
  if (star_fp) {
    for (const ZkParItem& l : lines)
      if (fwrite(l.text.data(), 1, l.text.size(), star_fp) != l.text.size()) break;
    if (fflush(star_fp) != 0 || ferror(star_fp))
      ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", para->ctfstar),
                     "open file failed.");
  }
  // The parts go only once the summary holds every line.
  zk_par_barrier();
  if (star_part) {
    star_part.reset();
    remove(star_part_name.c_str());
  }
  if (zk_par_rank() == 0)
    printf("All %d ranks finished: %lld of the %d micrographs have their CTF.\n", zk_par_size(), fitted,
           para->nfiles);
}

void KESMAR_A::kesmar_free_ctf_data() {
  for (std::vector<float>* v : {&h_stack, &h_raw_full, &h_raw_half, &h_bg_full, &h_bg_half, &h_sub_full, &h_sub_half,
                                &h_sim_half, &h_rot1d, &h_epa_half, &h_out, &h_def_ccc, &h_def_value})
    std::vector<float>().swap(*v);
  for (ZkDeviceArray<float>* d :
       {&d_frame, &d_image, &d_raw_full, &d_raw, &d_bg_full, &d_bg, &d_sub_full, &d_sub, &d_frame_amp, &d_tmp, &d_tmp2,
        &d_epa, &d_sq, &d_rot1d, &d_sim1d, &d_def_ccc, &d_def_value})
    d->reset();
  star_file.reset();
  star_fp = nullptr;
}

int KESMAR_A::kesmar_1D_search_2D_refine() {
  return para->do_phase_shift ? kesmar_1D_search_2D_refine_simplex_PS() : kesmar_1D_search_2D_refine_simplex_noPS();
}
