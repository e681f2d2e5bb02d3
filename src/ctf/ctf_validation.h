// How far a CTF result can be trusted: the result is disturbed, refined again
// from the disturbed point in five resolution bands, and each way back is
// graded from 5 (PERFECT) to 1 (WRONG).  A result that the refinement finds
// again from afar is sound.
#pragma once
#include <cstdio>
#include <vector>

struct CTF_VALIDATION_BAND {
  float resL, resH;       // the band, A
  float dU, dV, dA, ccc;  // refined less given values, and the score
  int grade;              // 5 PERFECT, 4 GOOD, 3 USABLE, 2 BAD, 1 WRONG
};

// The grade of a way back d against the disturbance e.
int ctf_validation_grade(float d, float e);

// d_real: the background-free half-plane spectrum of a box of nx by ny; the
// bands 20/8, 15/6, 12/5, 10/4, 8/3 A run while their high limit is above
// 2 apix.  The table goes to standard output and the log, with one
// "VALIDATION_SCORE: " line per band in the log.  spare is not read; resL and
// resH give the band of the model left in d_tmp at the end.  Returns 0; bands
// (when given) receives one record per band run.
int ctf_validation(const float* d_real, float* d_tmp, float apix, int nx, int ny, float ps, float kV, float Cs,
                   float ac, float U, float V, float A, float spare, float B, float resL, float resH, FILE* log,
                   std::vector<CTF_VALIDATION_BAND>* bands = nullptr);
