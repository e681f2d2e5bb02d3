// The finished CTF result of one micrograph, read back from a summary STAR
// file of kesmar runs.
#pragma once
#include "ctf/ctf_core.h"

struct KESMAR_RESULT {
  CTF_INFO ctf;  // kV, Cs, ac, phase shift, U, V, angle; B 0
  float apix;    // dstep * 10000 / magnification
  float dstep, mag, ccc;
};

// The line of micrograph mic: the last line whose _rlnMicrographName is mic,
// or, failing that, whose base name (the part after the last '/') is mic's.
// 0 when found; -1 when the file holds no such line, -2 when the file cannot
// be read or lacks a defocus or micrograph column (nothing is thrown).
int kesmar_find_result(const char* star, const char* mic, KESMAR_RESULT& out);
