// The weighted particle-stack run: for one movie, the particle movies (all
// frames of a particle together) are Fourier-transformed, their frames merged
// by the dose, drift and CTF weights, and the averages transformed back into
// a stack of one image per particle, "<movie>_wave.mrc".
#pragma once
#include <cstddef>
#include <vector>

#include "core/hd.h"
#include "core/str_utils.h"
#include "device/cuda_general.h"
#include "formats/mrcfile.h"
#include "movie/pre_shiny6_cut.h"
#include "movie/pre_shiny6_weights.h"

// Ways of running that leave the result the same up to the FFT libraries'
// rounding; a normal run takes the defaults, tests compare them.
struct LombarRunOptions {
  // Device weighting of many particles at once from one weight table; false
  // takes each particle through the staged host operations.
  bool batched = true;
  // Device memory of one batch; 0 chooses 1 GiB on a GPU, 256 MiB on the host.
  size_t batch_bytes = 0;
};

// One run.  The fields down to ctfw are the weighting's; the rest belong to
// the front end.
struct LOMBAR_PARA {
  float apix = 1.34f;
  int first = 0;  // first frame used, from 0
  int last = 0;   // last frame used, inclusive
  GPS_PARA gps = gps_para_default();
  // The three suffixes: a the box file, b the dose/drift log, c the CTF
  // weight log.
  char suffix_a[ZK_TXT_LEN] = {};
  char suffix_b[ZK_TXT_LEN] = {};
  char suffix_c[ZK_TXT_LEN] = {};
  std::vector<char*> movies;
  char movie[ZK_TXT_LEN] = {};  // the current movie
  char name_c[ZK_TXT_LEN] = {};
  char particles_name[ZK_TXT_LEN] = {};  // "_particles.mrcs"
  MRC_HEAD head = {};                    // of the current movie
  char name_a[ZK_TXT_LEN] = {};
  char out_name[ZK_TXT_LEN] = {};  // "_wave.mrc"
  char name_b[ZK_TXT_LEN] = {};
  std::vector<float> dose;    // per frame
  std::vector<float2> drift;  // per frame
  std::vector<float> ctfw;    // per Fourier radius

  int n_movies = 0;
  int first_opt = 0, last_opt = 0;    // --first and --last as given; each movie's first and last come from them
  char first_movie[ZK_TXT_LEN] = {};  // the first usable movie, set by the front end
  int newsize = 360;                  // side of the cut-outs, 0 keeps the box file's
  int invert = 0;
  int gid = 0;
  int do_unfinished = 0;
  LombarCut cut;  // the current movie's particles, cut where they are weighted
  LombarRunOptions options;
};

// Reads the head of the first movie (first_movie, else movies[0]); a movie
// that is not square throws.  i plays no part.
void lombar_check_first_parameters(LOMBAR_PARA* para, int i);
// movies[i] becomes the current movie: its head, then out_name ("_wave.mrc"),
// name_a, name_b, name_c from the suffixes, and particles_name
// ("_particles.mrcs").
void lombar_set_current_parameters(LOMBAR_PARA* para, int i);
// The run over the current movie's particle movies: the cut-outs of cut when
// it is ready, else the stack particles_name.  Frames first to last of each particle
// (first below 0 counts as 0, last beyond the movie's last frame as that),
// weighted by gps.device: 2 on the device (back end in force), 1 by the host
// form, 3 plain mean, 4 the weights of the frames into "Weights3D.mrcs" (no
// image), any other nothing.  Writes out_name.  i plays no part.  Returns 0.
int mrcsf_dose_drift_ctf_wave_many(LOMBAR_PARA* para, int i);
