#include "volume/map_templates.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/report.h"
#include "device/cuda_general.h"
#include "imagefile/mrc_whole.h"
#include "volume/process3d_raw.h"
#include "volume/sym.h"

int mrcf_3d_project_templates(const char* map, const char* out, const char* sym, float step, float apix) {
  const std::vector<EM_Trans_Orient> orients = asym_unit_orientations(sym, step);
  MRC_HEAD head;
  std::vector<float> v;
  mrcf_read_whole(map, &head, v);
  mrc_require_cube(map, &head, "projection at every orientation");
  if (!(apix > 0.0f)) apix = mrc_head_apix(&head);
  if (!(apix > 0.0f)) {
    const std::string msg = zk_format("%s holds no pixel size; give it", map);
    ZK_FATAL(msg.c_str());
  }
  const int n = head.nx;
  const float c = (float)(n - 1) / 2.0f;
  ZkDeviceArray<float> d_map(v.size()), d_img((size_t)n * n);
  ZK_CHECK(memcpy_H2D(d_map.get(), v.data(), v.size() * sizeof(float)));
  std::vector<float> img((size_t)n * n);
  MRC_HEAD hs;
  mrc_head_for_output(&hs, &head, n, n, 1);
  mrc_set_head_xyz_apix(&hs, n, n, 1, apix);
  hs.ispg = 0;  // a stack of images
  ZkMrcStackWriter stack(out, hs);
  for (size_t k = 0; k < orients.size(); ++k) {
    const EM_Trans_Orient& o = orients[k];
    hcuda_3d_project(d_img.get(), d_map.get(), n, n, n, c, c, c, (float)o.rot, (float)o.tilt, (float)o.psi, -1);
    ZK_CHECK(memcpy_D2H(img.data(), d_img.get(), img.size() * sizeof(float)));
    stack.add(img.data());
    printf("template %4d: rot %8.3f tilt %8.3f psi %8.3f\n", (int)k, o.rot, o.tilt, o.psi);
  }
  stack.finish();
  printf("%d templates of %d x %d pixels of %.4f A (%s, step %.2f degrees) written to %s\n", stack.count(), n, n, apix,
         sym, step, out);
  return stack.count();
}

int mrcf_3d_test_lobes(const char* name, int box, float apix, float diameter) {
  if (box < 8 || box > 1024) ZK_FATAL("The box of the test map must lie between 8 and 1024 pixels");
  if (!(apix > 0.0f) || !(diameter > 0.0f)) ZK_FATAL("The pixel size and the diameter must be positive");
  // Centre and width in units of the particle's radius.  Seen along z (tilt
  // 0) the lobes lie where the synthetic micrographs put theirs.
  static const double lobes[3][4] = {{-0.40, 0.00, 0.00, 0.34}, {0.30, 0.22, 0.15, 0.30}, {0.18, -0.32, -0.15, 0.26}};
  const double r = 0.5 * diameter / apix, c = (box - 1) / 2.0;
  std::vector<float> v((size_t)box * box * box);
  for (int z = 0; z < box; ++z)
    for (int y = 0; y < box; ++y)
      for (int x = 0; x < box; ++x) {
        const double u = (x - c) / r, w = (y - c) / r, t = (z - c) / r;
        double d = 0.0;
        for (const auto& l : lobes) {
          const double e = (u - l[0]) * (u - l[0]) + (w - l[1]) * (w - l[1]) + (t - l[2]) * (t - l[2]);
          d += exp(-e / (2.0 * l[3] * l[3]));
        }
        v[((size_t)z * box + y) * box + x] = (float)d;
      }
  MRC_HEAD head;
  mrc_head_for_output(&head, nullptr, box, box, box);
  mrc_set_head_xyz_apix(&head, box, box, box, apix);
  mrcf_write_head_data(name, &head, v.data());
  return 0;
}
