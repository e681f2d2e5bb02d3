// One particle box, the record that coordinate files, extraction, the peak
// grids and the exclusion lists share.
#pragma once
#include <climits>
#include <cstddef>
#include <cstdint>

// One particle.  x, y is the box corner of smallest x and y (the centre in a
// record read from a .star file, whose w and h are 0); the centre is always
// (x + w / 2, y + h / 2) with truncating division.
struct PTCL_BOX {
  int32_t x;
  int32_t y;
  int32_t w;
  int32_t h;
  float cc;              // figure of merit; the neighbour generators store a weight
  int32_t class_number;  // the template index, from 0, in the picker's own picks
  float psi;             // in-plane angle, degrees
  float dist;            // distance from the centre box (neighbour generators only)
};
static_assert(sizeof(PTCL_BOX) == 32, "PTCL_BOX is eight 32-bit fields");
static_assert(offsetof(PTCL_BOX, x) == 0 && offsetof(PTCL_BOX, y) == 4 && offsetof(PTCL_BOX, w) == 8 &&
                  offsetof(PTCL_BOX, h) == 12 && offsetof(PTCL_BOX, cc) == 16 &&
                  offsetof(PTCL_BOX, class_number) == 20 && offsetof(PTCL_BOX, psi) == 24 &&
                  offsetof(PTCL_BOX, dist) == 28,
              "PTCL_BOX field order");

// Centre of a record, by the one rule of both coordinate families.
inline long long ptcl_centre_x(const PTCL_BOX& b) { return (long long)b.x + b.w / 2; }
inline long long ptcl_centre_y(const PTCL_BOX& b) { return (long long)b.y + b.h / 2; }

// A coordinate held to the int range.
inline int ptcl_clamp_to_int(long long v) { return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : (int)v; }
// Truncation towards zero of a float, saturated at the int range, NaN as 0:
// a corrupt input never reaches an undefined conversion.
inline int ptcl_trunc_to_int(float v) {
  if (v != v) return 0;
  if (v >= 2147483648.0f) return INT_MAX;
  if (v <= -2147483648.0f) return INT_MIN;
  return (int)v;
}
