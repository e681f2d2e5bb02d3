// Rotational correlation search: for one template and one prepared
// micrograph, the best score over in-plane rotations at every pixel and the
// angle that gave it.
#pragma once

// All arrays on the device, images of nx by ny.  The score at (x, y) is the
// correlation of the template rotated by the best angle, its pixel
// (nx/2 - ox, ny/2 - oy) placed on (x, y), with ox = (nx - Tx)/2 and
// oy = (ny - Ty)/2, divided by D = sqrt(sum T^2 * pi R^2 * sum(mic^2 mask) /
// sum mask).  Angles from psi0 in steps of dpsi while below psi1.  psi may be
// null when do_psi is 0.  Prints one "." per angle and a line feed.
int zavik_ccmax_psi_by_one_template(const float* mic, const float* mask, float* ccmax, float* psi, int do_psi, int nx,
                                    int ny, const float* T, int Tx, int Ty, float R, float psi0, float psi1,
                                    float dpsi);
int zavik_ccmax_by_one_template(const float* mic, const float* mask, float* ccmax, int nx, int ny, const float* T,
                                int Tx, int Ty, float R, float psi0, float psi1, float dpsi);

// ccmax = cc where ccmax < cc (strictly: at equal scores the earlier angle
// stays, and a NaN replaces nothing), psi taking the angle with it.
void hcuda_update_ccmax_psi_2d(float* ccmax, const float* cc, float* psi, float angle, int nx, int ny);
void hcuda_update_ccmax_2d(float* ccmax, const float* cc, int nx, int ny);

// The score's divisor D from sum T^2, sum(mic^2 mask), sum mask and the
// template radius R, in the order the search uses.
float zavik_score_divisor(float sum_T2, float sum_mic2_mask, float sum_mask, float R);
