// The equiphase average (EPA): a 2D half-plane spectrum averaged along the
// curves of equal CTF phase, which for an astigmatic CTF are not circles.
// The 1D curve has ncurve = (nx - 1)*oversmp + 1 samples, sample i at
// s_i = i / (oversmp * 2 (nx - 1) apix), the frequency of sample i of a 1D half
// curve of ncurve samples.  The reference direction is the azimuth A.
#pragma once
#include <cstdio>

// The curve of d_in into d_1d (ncurve floats); samples with s outside
// (1/resL, 1/resH) are 0.
void hcuda_2d_half_EPA_X_res(const float* d_in, float* d_1d, int oversmp, float apix, int nx, int ny, float kV,
                             float Cs, float ac, float ps, float U, float V, float A, float resL, float resH);
// The curve (oversmp 1) projected back onto the half plane: each sample takes
// the curve's value at the radius where the reference direction has its
// phase, lifted by 1 + 10 r/nx for viewing.  Samples at s <= 1/resL are 0,
// those at s >= 1/resH keep d_in.
void hcuda_2d_half_EPA_from_1d(const float* d_1d, const float* d_in, float* d_out, float apix, int nx, int ny, float ps,
                               float kV, float Cs, float ac, float U, float V, float A, float resL, float resH);
// Both: the curve up to Nyquist, then the plane.
void hcuda_2d_half_EPA(const float* d_in, float* d_out, float apix, int nx, int ny, float ps, float kV, float Cs,
                       float ac, float U, float V, float A, float resL, float resH);

// The resolution limit of a fit: the first resolution below limit A where the
// local correlation between the EPA of d_a and the fitted |CTF| turns
// negative; when it never does, the highest resolution of the walk.  res is
// left as it is when the band leaves no walk.  d_b and the B-factor band are
// not read.
void ctf_epa_1d_ccf(float& res, float limit, const float* d_a, const float* d_b, int oversmp, float apix, int nx,
                    int ny, float ps, float kV, float Cs, float ac, float U, float V, float A, float resL, float resH,
                    float B_resL, float B_resH);
// The same, with the table of the walk in "<mic>_EPA.log" and, when
// estimate_B, the B-factor of the EPA of d_b.  Returns the B-factor (0 when
// not estimated).
float ctf_epa_1d_ccf_B_estimation(FILE* log, const char* mic_name, float& res, float limit, const float* d_a,
                                  const float* d_b, int oversmp, float apix, int nx, int ny, float ps, float kV,
                                  float Cs, float ac, float U, float V, float A, float resL, float resH, float B_resL,
                                  float B_resH, int estimate_B);

// A binned equiphase average on a host half plane: every sample of the band
// goes, with linear weights, to the two curve samples around the radius at
// which the reference direction has its phase; curve[i] is the weighted mean
// of what sample i received.  One pass over the plane, for the per-micrograph
// resolution limit.
void host_2d_half_epa_binned(const float* h_in, float* curve, int oversmp, float apix, int nx, int ny, float kV,
                             float Cs, float U, float V, float A, float resL, float resH);
// ctf_epa_1d_ccf with the binned average of the host half plane h_a.
void ctf_epa_1d_ccf_binned(float& res, float limit, const float* h_a, int oversmp, float apix, int nx, int ny, float ps,
                           float kV, float Cs, float ac, float U, float V, float A, float resL, float resH);

// B-factor from the slope of a log-amplitude curve of n samples against s^2
// over the band (r1, r2), either order: -4 times the slope.
float bfac_estimation_from_epa_1d2(const float* epa, float apix, int n, float r1, float r2);
// The same from the samples nearest the quarter-period crossings of phase.
float bfac_estimation_from_epa_1d(const float* epa, const float* phase, float apix, int n, float r1, float r2);
