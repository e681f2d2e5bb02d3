// Templates of a run: a stack of 2-D images at the pixel size of the working
// image, read from an MRC file (scaled by apixT/apixM, then mean-shrunk) or
// generated as one soft disc, and the normalisation of each template.
//
// A stack is Nt images of Tx by Ty floats, image t at t*Tx*Ty, allocated here
// and released by destroy_template_data.
#pragma once

// The generated template when T is a null name ("NULL", "NONE" in any letter
// case, or empty), the template file otherwise.  Sets Tx, Ty, Nt.
float* get_or_create_template_data(int& Tx, int& Ty, int& Nt, const char* T, float T_radius, float apixT,
                                   float apixM, int shrink, float center1_ratio);
// One soft disc in a box of 4*trunc(T_radius): 1 up to T_radius*center1_ratio,
// then a Gaussian edge of sigma (1 - center1_ratio)*T_radius/3 cut to 0 at
// T_radius (the host mask's edge).  Nt = 1.
float* create_template_data(int& Tx, int& Ty, int& Nt, float T_radius, float center1_ratio);
// Every section of the MRC file T, in any mode the reader takes; Tx, Ty, Nt
// are the file's sizes.
float* get_template_data(int& Tx, int& Ty, int& Nt, const char* T);
void destroy_template_data(float* T);

// Pixels further than R from the centre become 0; then the sum of the box
// (in double) divided by nx*ny is subtracted from every pixel, so that the box
// sums to zero and the area outside the disc holds one constant.
void rmask_subtract_background(float* T, float R, int nx, int ny);

// The normalisation of one template by T_norm_type: 1 subtracts the box's
// mean, 2 rmask_subtract_background at T_radius, 3 mean 0 and deviation 1
// under the host mask of flat radius (1 - center1_ratio)*T_radius and edge
// center1_ratio*T_radius, then multiplied by it; any other leaves it as it is.
void normalize_template_by_type(float* T, int Tx, int Ty, int type, float T_radius, float center1_ratio);
