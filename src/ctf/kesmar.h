// One CTF determination run over a list of micrographs: parameters, buffers
// allocated once for the first micrograph's geometry, then per micrograph the
// power spectrum, the 1D and phase-shift searches, the 2D refinement, the
// equiphase average and the outputs.  Every stage works on the state of the
// run record KESMAR_A.
#pragma once
#include <cstdio>
#include <memory>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "ctf/ctf_core.h"
#include "ctf/kesmar_para.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "formats/safe_output.h"
#include "parallel/zk_parallel.h"

// Switches and tolerances of the 2D refinement.
struct CTF_REF_CONTROL {
  float A_tol;   // degrees
  float UV_tol;  // A
  float ps_tol;  // degrees
  int search_A, n_search_A;
  int refine_UVave, refine_UVdif, refine_A, refine_ps;
  int do_Hres;  // this is the high-resolution stage
  int UVave_done, UVdif_done, A_done, ps_done;
  int warn_cycles, to_screen, to_log;

  void set_PHSLC(int P, int H, int S, int L, int C) {
    refine_ps = P;
    do_Hres = H;
    to_screen = S;
    to_log = L;
    warn_cycles = C;
  }
  void reset_is_refined() { UVave_done = UVdif_done = A_done = ps_done = 0; }
};
void kesmar_ref_control_init(CTF_REF_CONTROL& c);

// The result record of the free refinement forms.
struct CTF_REF_INFO {
  float kV, Cs, ac, ps, defU, defV, defA, B;
  float ccc, spare, res;
  void set_PUVAC(float p, float u, float v, float a, float c) {
    ps = p;
    defU = u;
    defV = v;
    defA = a;
    ccc = c;
  }
};

// Ways of running that tests and benchmarks choose; a normal run takes the
// defaults.
struct KesmarRunOptions {
  // The jitter of the line searches comes from a generator reseeded with
  // this at each refinement; 0 takes the clock, so that two runs differ in
  // the last digits.
  unsigned int seed = 1;
};

class KESMAR_A {
 public:
  KESMAR_A();
  ~KESMAR_A();
  KESMAR_A(const KESMAR_A&) = delete;
  KESMAR_A& operator=(const KESMAR_A&) = delete;

  // The whole run of a command line.  Returns 0; failures are thrown as
  // ZkError (status 1, or 0 after the option list of an unknown option).
  int kesmar_run_all(int argc, char** argv);
  int kesmar_run_all(int argc, char** argv, const KesmarRunOptions& opt);

  // Parameters.
  void kesmar_init_parameters(int argc, char** argv);
  void kesmar_get_parameters(int argc, char** argv);
  void kesmar_check_parameters(int argc, char** argv);
  void kesmar_put_parameters(int argc, char** argv);
  void kesmar_fput_parameters();
  void kesmar_set_ctfstar(int argc, char** argv, int& i);

  // Run sequence.
  void kesmar_preparation(int argc, char** argv);
  void kesmar_test_set_io_info();
  int kesmar_check_access_openf_1st();
  void kesmar_check_boxsizes();
  void kesmar_allocate_ctf_data();
  void kesmar_open_sumlog();
  int kesmar_prep_one_mic();
  void kesmar_end_one_mic();
  void kesmar_abandon_one_mic();
  void kesmar_free_ctf_data();
  // Under mpirun: every rank's summary lines to rank 0, which writes them in
  // list order, and the closing line with the totals of all ranks.
  void kesmar_finish_job();

  // Power spectrum.
  int kesmar_generate_ctf_d_data();
  int kesmar_generate_ctf_d_data_from_mrc();
  void kesmar_reload_pre_ctf_files();
  void kesmar_write_powf();

  // Searches.
  int kesmar_1D_search_2D_refine();
  void kesmar_1D_search2(float ps);
  int kesmar_1D_search_2D_refine_simplex_noPS();
  int kesmar_1D_search_2D_refine_simplex_PS();

  // 2D refinement.
  void kesmar_set_init_defUVA_for_2D_refine(float ps);
  float kesmar_start_angle(PUVA start);
  void kesmar_set_init_for_Hres_ref();
  void kesmar_set_init_from_ref2d();
  void kesmar_set_Bres();
  void kesmar_set_init_2DR_Para(CTF_2DR_Para& rp);
  void kesmar_hcuda_ctfrefine_half2d();
  void kesmar_hcuda_ctfrefine_A_half2d(CTF_2DR_Para& rp);
  void kesmar_hcuda_ctfrefine_UVave_half2d(CTF_2DR_Para& rp);
  void kesmar_hcuda_ctfrefine_UVdif_half2d(CTF_2DR_Para& rp);
  void kesmar_hcuda_ctfrefine_PS_half2d(CTF_2DR_Para& rp);
  float kesmar_ccc_sim_with_real_2d_half(PUVA p);
  void kesmar_set_refined_PUVAC(float ps, float U, float V, float A, float ccc);
  void kesmar_set_refined_PUVAC(PUVA p, float ccc);
  void kesmar_hcuda_ctfrefine_end_half2d();
  void kesmar_hcuda_ctfrefine_output_FinalValues();

  // Simplex refinement (strategies 2 and 3).
  void kesmar_set_init_simplex(float ps);
  void kesmar_set_init_simplex_from_ref2d();
  PUVA kesmar_get_ctf_simplex_center();
  PUVA kesmar_get_ctf_simplex_reflect(int i);
  PUVA kesmar_get_ctf_simplex_rextend(int i);
  void kesmar_hcuda_ctfrefine_simplex2_half2d();
  void kesmar_hcuda_ctfrefine_simplex3_half2d();
  void kesmar_hcuda_ctfrefine_simplex_half2d(int strategy);
  void kesmar_refine_by_strategy(bool from_1d, float ps);

  // Equiphase average and resolution limit.
  void kesmar_do_epa_2d();
  void kesmar_set_res_limit();
  void kesmar_epa_1d_ccf_B_estimation();

  // Outputs.
  void kesmar_write_ctfout(char c);
  void kesmar_write_star_oneline();
  void kesmar_fput_parameters_ctffind3();

  // Random numbers of the start angles and jitter: rand()/2^31 in [0, 1).
  void kesmar_srand();
  float kesmar_rand_unit();

  // Both to the log (when open) and standard output.
  void say(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void log(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // ---- State ----
  std::unique_ptr<KESMAR_Para> para_store;
  KESMAR_Para* para = nullptr;
  PUVA simplex[5] = {};
  int best_vertex = 0;
  PUVA err = {}, init = {}, trial = {};
  float def_err = 0, def_1d = 0;
  float ref_defU = 0, ref_defV = 0, ref_defA = 0, ref_ps = 0, ref_ccc = 0;
  float res_limit = 0;
  float B_cur = 0, resL_cur = 0, resH_cur = 0;
  ZkOutFile log_out;  // the log of the current micrograph, renamed into place when finished
  FILE* log_fp = nullptr;
  ZkFilePtr star_file;
  FILE* star_fp = nullptr;
  // Under mpirun, this rank's summary lines by their place in the list, also
  // kept as they come in "<summary>.rank<r>", so that a job that is killed
  // leaves every finished line; removed when the summary is whole.
  std::vector<ZkParItem> star_lines;
  ZkFilePtr star_part;
  std::string star_part_name;
  int n_fitted = 0;
  const char* mic_name = nullptr;
  char ctf_name[ZK_TXT_LEN] = {}, pow_name[ZK_TXT_LEN] = {}, epa_name[ZK_TXT_LEN] = {}, log_name[ZK_TXT_LEN] = {};
  MRC_HEAD head = {}, head_1 = {}, head_ref = {};
  int nx = 0, ny = 0, nxh = 0, ndef = 0, gridx = 0, gridy = 0, ngrid = 0;
  int nfull = 0, nhalf = 0, nimage = 0, nstack = 0;

  std::vector<float> h_stack, h_raw_full, h_raw_half, h_bg_full, h_bg_half, h_sub_full, h_sub_half, h_sim_half, h_rot1d,
      h_epa_half, h_out, h_def_ccc, h_def_value;
  ZkDeviceArray<float> d_frame, d_image, d_raw_full, d_raw, d_bg_full, d_bg, d_sub_full, d_sub, d_frame_amp, d_tmp,
      d_tmp2, d_epa, d_sq, d_rot1d, d_sim1d, d_def_ccc, d_def_value;

  CTF_REF_CONTROL ctrl = {};
  int imic = 0;

  KesmarRunOptions options;
  unsigned int rng_state = 1;
  double t_mark = 0;  // start of the timed step
};

// Seconds of the wall clock.
double kesmar_wall_seconds();
// ">>>>>>TIME<<<<<<%32s: %fs\n" with the seconds since t0.
void kesmar_print_time(const char* label, double t0);

// Summary STAR file: heads and lines.
void log_ctfstar_head(FILE* fp);
void log_ctfstar_ex_head(FILE* fp);
void log_ctfstar_ex_head_phase_shift(FILE* fp);
void log_ctfstar_ex_oneline(FILE* fp, const char* mic, const char* ctf, float U, float V, float A, float kV, float Cs,
                            float ac, float mag, float dstep, float ccc, float res);
void log_ctfstar_ex_oneline_phase_shift(FILE* fp, const char* mic, const char* ctf, float U, float V, float A, float ps,
                                        float kV, float Cs, float ac, float mag, float dstep, float ccc, float res);
// The .ctf picture of an nx by ny plane from two half planes: the simulation
// turned through 180 degrees on the left, the spectrum on the right.
void host_2d_half_sim_raw_combine(float* out, const float* sim, const float* raw, int nx, int ny);
void host_2d_half_sim_raw_combine2(float* out, const float* sim, const float* raw, int nx, int ny);
