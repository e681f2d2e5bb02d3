#include "movie/pre_shiny6_cut.h"

#include <cstdio>
#include <vector>

#include "core/report.h"
#include "device/launch.h"
#include "formats/boxfile.h"
#include "formats/mrcfile.h"
#include "picking/extract.h"

void LombarCut::reset() {
  ready = false;
  d_movie.reset();
  d_corners.reset();
  boxes.clear();
  nx = ny = nz = n = w = h = 0;
  invert = 0;
}

int lombar_cut_prepare(LombarCut& cut, const char* movie, const char* boxf, int box, int invert) {
  cut.reset();
  cut.boxes.resize(ZK_EXTRACT_MAX_BOXES);
  cut.n = read_all_ptcl_boxes(cut.boxes.data(), ZK_EXTRACT_MAX_BOXES, boxf);
  if (box != 0) resize_ptcl_boxes(cut.boxes.data(), cut.n, box);
  cut.boxes.resize((size_t)cut.n);
  cut.w = cut.n > 0 ? cut.boxes[0].w : 0;
  cut.h = cut.n > 0 ? cut.boxes[0].h : 0;
  if (cut.w < 0 || cut.h < 0) ZK_FATAL("Particle box size error!");
  cut.invert = invert;
  std::vector<int2> corners((size_t)cut.n + 1);
  for (int p = 0; p < cut.n; ++p) corners[p] = make_i2(cut.boxes[p].x, cut.boxes[p].y);
  cut.d_corners.allocate(corners.size());
  ZK_CHECK(memcpy_H2D(cut.d_corners.get(), corners.data(), corners.size() * sizeof(int2)));

  ZkFilePtr fp(ZK_FOPEN_READ(movie, "rb"));
  MRC_HEAD head;
  mrc_read_head(fp.get(), &head);
  if (head.nz < 1) ZK_FATAL("Micrograph or movie size error!");
  cut.nx = head.nx;
  cut.ny = head.ny;
  cut.nz = head.nz;
  const size_t count = mrc_head_samples(&head);
  cut.d_movie.allocate(count);
  if (zk_on_gpu()) {
    std::vector<float> h(count);
    mrc_read_all(fp.get(), &head, h.data());
    ZK_CHECK(memcpy_H2D(cut.d_movie.get(), h.data(), count * sizeof(float)));
  } else {
    // Device memory is host memory: the samples go there directly.
    mrc_read_all(fp.get(), &head, cut.d_movie.get());
  }
  cut.ready = true;
  return cut.n;
}

void hcuda_2ds_extract_ptcls_from_movie(float* d_dst, int w, int h, int nf, int np, const float* d_movie, int nx,
                                        int ny, int first, const int2* d_corners, int p0, int invert) {
  const size_t frame = (size_t)nx * ny;
  // One row of the launch per row of every cut-out frame of the batch.
  launch_2d(w, h * nf * np, [=] HD(int x, int row) {
    const int y = row % h, f = (row / h) % nf, k = row / (h * nf);
    const int2 c = d_corners[p0 + k];
    const long long sx = (long long)c.x + x, sy = (long long)c.y + y;
    float v = (sx >= 0 && sx < nx && sy >= 0 && sy < ny) ? d_movie[(size_t)(first + f) * frame + sy * nx + sx] : 0.0f;
    if (invert) v = v * -1.0f;
    d_dst[(size_t)row * w + x] = v;
  });
}

void lombar_cut_to_device(const LombarCut& cut, int p0, int np, int first, int nf, float* d_dst) {
  hcuda_2ds_extract_ptcls_from_movie(d_dst, cut.w, cut.h, nf, np, cut.d_movie.get(), cut.nx, cut.ny, first,
                                     cut.d_corners.get(), p0, cut.invert);
}
