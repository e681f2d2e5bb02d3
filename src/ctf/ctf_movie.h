// Defocus through the frames of a movie or the images of a stack: a sliding
// group of frames gives a spectrum on which the CTF is refined, and the series
// can be fitted with a line.
#pragma once
#include <cstdio>
#include <vector>

#include "ctf/kesmar.h"

struct CTF_FRAME_VALUE {
  int frame;  // index of the group's central frame, from 0
  float U, V, A, ccc;
};

// h_stack: nz frames of nx by ny.  Only ave_type 1 (amplitudes summed over
// the frames of a group of aveN, box spectra as the micrograph's) does
// anything.  Every group starts from U, V, A and refines the mean defocus
// (with refine_astm also U, V and angle first) within err/10.  With fit 1 a
// line through the series is printed for every frame, counted from 1; it
// needs nz > aveN + 1.  Lines go to standard output and the log.  Returns 0;
// values and fitted (when given) receive the group values and the fitted
// value of every frame.
int ctf_movie_stack_refine(const float* h_stack, int nx, int ny, int nz, float apix, int boxsize, int step,
                           int convsize, float ps, float kV, float Cs, float ac, float U, float V, float A, float ccc,
                           float B, float resL, float resH, float err, FILE* log, int ave_type, int aveN, int fit,
                           int refine_astm, CTF_REF_CONTROL ctrl, std::vector<CTF_FRAME_VALUE>* values = nullptr,
                           std::vector<CTF_FRAME_VALUE>* fitted = nullptr);
