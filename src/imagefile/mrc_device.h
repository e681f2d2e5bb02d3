// MRC files written straight from device arrays: the samples are copied to
// the host and written as by the host forms of the MRC writers.
#pragma once
#include <cstdio>

#include "formats/mrcfile.h"

// mrc_write_head_data for data in device memory; mode must be 2.
int mrc_write_head_ddata(FILE* fp, MRC_HEAD* head, const float* d_data);
// A new mode 2 file of nx by ny by nz floats from device memory, under its
// name only when complete.
int mrcf_write_xyz_ddata(const char* name, const float* d_data, int nx, int ny, int nz);
// File-name form of mrc_write_head_ddata, written safely.
int mrcf_write_head_ddata(const char* name, MRC_HEAD* head, const float* d_data);
