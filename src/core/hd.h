// Qualifiers for code that runs both on the host and inside CUDA kernels, and
// the small vector types that both back ends share.
#pragma once

#if defined(__CUDACC__)
#define HD __host__ __device__
#define HDI __host__ __device__ __forceinline__
#else
#define HD
#define HDI inline
#endif

#if defined(ZAVIK_HAVE_CUDA)
#include <vector_types.h>
#else
// The host-only build has no CUDA headers: the same three records, same layout.
struct float2 {
  float x, y;
};
struct int2 {
  int x, y;
};
struct dim3 {
  unsigned int x, y, z;
  constexpr dim3(unsigned int vx = 1, unsigned int vy = 1, unsigned int vz = 1) : x(vx), y(vy), z(vz) {}
};
#endif

HDI float2 make_f2(float x, float y) {
  float2 c;
  c.x = x;
  c.y = y;
  return c;
}
HDI int2 make_i2(int x, int y) {
  int2 c;
  c.x = x;
  c.y = y;
  return c;
}
