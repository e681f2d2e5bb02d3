// File-level particle extraction: every box of a coordinate file cut out of
// the raw micrograph (or each frame of a movie) into a particle stack.
#pragma once

// Reads the box list (at most 10240 particles) and the micrograph, cuts the
// stack and writes it beside the micrograph as "<mic>_particles.mrcs", a mode
// 2 stack of (w, h, nz * n).  box: side of the square cut-out in raw pixels, 0
// to keep the list's size; invert: multiply the stack by -1.  Returns 0.
int mrcf_x2d_extract_ptcls_from_micrograph(const char* mic, const char* boxf, int box, int invert);
// The stack alone, newly allocated (free() it): image f of particle p at
// (p * nz + f) * w * h, with the w and h of the list's first record.
float* get_mrcf_data_ptcls(const char* mic, const char* boxf, int box, int invert);
