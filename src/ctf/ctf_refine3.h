// Refinements of defocus U, V and angle (no phase shift) from a given start
// against a background-free half-plane spectrum d_real of nx/2 + 1 by ny: the
// line search of the micrograph refinement cut down to mean, half difference
// and angle, without its extension step, with tolerances of 1 A and 0.5
// degrees and at most 100 cycles.  They serve validation, per-particle and
// per-frame refinement.  After each, d_tmp holds the model |C| exp(-B s^2/4)
// of the result in the band, and ccc is the score divided by the norms of
// model and data over the band.
#pragma once
#include <cstdio>

// Prints on standard output and, when log is open, into the log.
void ctf_say(FILE* log, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The first start has U and V exchanged, the second their own order; the
// angle starts at A0 and A0 + err_A, the mean at (U0 + V0)/2 and err_ave
// below.  At the end the angle is brought into [0, 90) (U and V exchanged
// when it was negative), and a result nearer the exchanged start is
// exchanged back with the angle turned by 90 degrees.  Returns the cycles
// run (100: ran out; the log says so).
int hcuda_ctfvalidate_half2d(const float* d_real, float* d_tmp, float& U, float& V, float& A, float& ccc, float apix,
                             int nx, int ny, float ps, float kV, float Cs, float ac, float U0, float V0, float A0,
                             float err_ave, float err_A, float B, float resL, float resH, FILE* log);
// The same search for one particle or frame group, with the angle in
// [0, 90) at the end and a warning on both when the cycles ran out.
int hcuda_ctfrefine_half2d_local(const float* d_real, float* d_tmp, float& U, float& V, float& A, float& ccc,
                                 float apix, int nx, int ny, float kV, float Cs, float ac, float ps, float U0, float V0,
                                 float A0, float err_ave, float err_A, float B, float resL, float resH, FILE* log);
// The mean defocus alone: the half difference (V0 - U0)/2 and the angle A
// stay.
int hcuda_ctfrefine_half2d_only_defave(const float* d_real, float* d_tmp, float& U, float& V, float& ccc, float apix,
                                       int nx, int ny, float kV, float Cs, float ac, float ps, float U0, float V0,
                                       float A, float err_ave, float B, float resL, float resH, FILE* log);
