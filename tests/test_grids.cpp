// Peak grids on hand-made score maps: the cell scan's tie rules, the filter's
// cutoff, exclusion and neighbour competition, and the raw output lines.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "backend_fixture.h"
#include "device/cuda_general.h"
#include "picking/zavik56_grids.h"
#include "test_util.h"

namespace {

struct GridResult {
  std::vector<unsigned int> index;
  std::vector<float> cc, psi;
};

// Runs the driver's finder and filter on a host score map.  ice holds the
// rejected positions (0 for none), one word per cell.
GridResult find_filter(const std::vector<float>& map, const std::vector<float>& psi, int nx, int ny, int G,
                       float cutoff, std::vector<unsigned int> ice = {}) {
  const int cells = ((nx + G - 1) / G) * ((ny + G - 1) / G);
  if (ice.empty()) ice.assign(cells, 0u);
  Dev d;
  float *d_map = d.put(map), *d_psi = d.put(psi);
  unsigned int* d_ice = d.put(ice);
  GridResult r = {std::vector<unsigned int>(cells), std::vector<float>(cells), std::vector<float>(cells)};
  gpu_find_filter_ccmax_psi_grids_exclusive(d_map, d_psi, r.index.data(), r.cc.data(), r.psi.data(), cutoff, nx, ny,
                                            G, d_ice, (unsigned int)cells);
  return r;
}

unsigned int at(int x, int y, int nx) { return (unsigned int)(y * nx + x); }

}  // namespace

class Grids : public BackendTest {};

TEST_P(Grids, CellMaximumTiesAndTheFirstPixelRule) {
  const int nx = 30, ny = 30, G = 10;  // 3 x 3 cells
  std::vector<float> map(nx * ny, 0.0f), psi(nx * ny, 0.0f);
  // Cell (1,1): two equal maxima; the first in row order is kept, with its angle.
  map[at(16, 13, nx)] = 0.9f;
  psi[at(16, 13, nx)] = 15.0f;
  map[at(12, 14, nx)] = 0.9f;
  psi[at(12, 14, nx)] = 25.0f;
  // Cell (2,1): its maximum on its own first pixel: no candidate.
  map[at(20, 10, nx)] = 0.8f;
  map[at(25, 15, nx)] = 0.7f;
  // Cell (2,2): a maximum at the far corner.
  map[at(29, 29, nx)] = 0.6f;
  GridResult r = find_filter(map, psi, nx, ny, G, 0.1f);
  EXPECT_EQ(r.index[4], at(16, 13, nx));
  EXPECT_EQ(r.psi[4], 15.0f);
  EXPECT_FLOAT_EQ(r.cc[4], 0.9f);
  EXPECT_EQ(r.index[5], 0u);
  EXPECT_FLOAT_EQ(r.cc[5], 0.8f);  // the grid still holds the first pixel's score
  EXPECT_EQ(r.index[7], 0u);       // a constant cell has no candidate
  EXPECT_EQ(r.index[8], at(29, 29, nx));

  // 25 x 25: the last cells are clipped to 5 pixels.
  std::vector<float> map25(25 * 25, 0.0f), psi25(25 * 25, 0.0f);
  map25[at(24, 24, 25)] = 0.5f;
  psi25[at(24, 24, 25)] = 355.0f;
  r = find_filter(map25, psi25, 25, 25, G, 0.1f);
  ASSERT_EQ(r.index.size(), 9u);
  EXPECT_EQ(r.index[8], at(24, 24, 25));
  EXPECT_EQ(r.psi[8], 355.0f);
}

// Hand-made maps in cells of 10 (limit 2*G*G = 200): the score cutoff, the
// neighbour competition and the rejected positions, each case with the
// candidate it expects in some cells (-1: none).
TEST_P(Grids, CutoffCompetitionAndRejectedPositions) {
  struct Peak {
    int x, y;
    float cc;
  };
  const struct {
    const char* what;
    int nx, ny;
    float ground, cutoff;
    std::vector<Peak> peaks;
    std::vector<std::pair<int, int>> ice;        // cell, rejected position x + nx * y
    std::vector<std::pair<int, int>> expected;   // cell, candidate x + nx * y or -1
  } cases[] = {
      {"cutoff equality stays", 30, 30, -1.0f, 0.25f, {{15, 15, 0.25f}}, {}, {{4, 15 * 30 + 15}}},
      {"cutoff just above goes", 30, 30, -1.0f, 0.2500001f, {{15, 15, 0.25f}}, {}, {{4, -1}}},
      {"negative maximum at cutoff 0", 30, 30, -2.0f, 0.0f, {{15, 15, -0.5f}}, {}, {{4, -1}}},
      // Cells (1,1) and (2,1), within reach of each other.
      {"the lower neighbour goes", 40, 40, 0.0f, 0.1f, {{18, 15, 0.5f}, {21, 13, 0.7f}}, {},
       {{5, -1}, {6, 13 * 40 + 21}}},
      {"equal neighbours both stay", 40, 40, 0.0f, 0.1f, {{18, 15, 0.7f}, {21, 13, 0.7f}}, {},
       {{5, 15 * 40 + 18}, {6, 13 * 40 + 21}}},
      // d2 = 10^2 + 10^2 = 200: no competition.
      {"exactly the diagonal apart", 40, 40, 0.0f, 0.1f, {{15, 12, 0.4f}, {25, 22, 0.9f}}, {},
       {{5, 12 * 40 + 15}, {10, 22 * 40 + 25}}},
      // A < B < C in adjacent cells, B within reach of both: C removes B, and B
      // still removes A, since the filter reads the candidates as they were
      // before any verdict.
      {"chain", 50, 20, 0.0f, 0.1f, {{17, 5, 0.3f}, {24, 5, 0.5f}, {31, 5, 0.9f}}, {},
       {{1, -1}, {2, -1}, {3, 5 * 50 + 31}}},
      // A rejected position of another cell 13 away in x and 4 in y (d2 185);
      // empty entries stand for position (0, 0), within reach of (5, 5).
      {"rejected positions", 40, 40, 0.0f, 0.1f, {{25, 25, 0.9f}, {35, 5, 0.8f}, {5, 5, 0.8f}}, {{9, 21 * 40 + 12}},
       {{10, -1}, {3, 5 * 40 + 35}, {0, -1}}},
  };
  for (const auto& c : cases) {
    std::vector<float> map(c.nx * c.ny, c.ground), psi(c.nx * c.ny, 0.0f);
    for (const Peak& q : c.peaks) map[at(q.x, q.y, c.nx)] = q.cc;
    std::vector<unsigned int> ice(((c.nx + 9) / 10) * ((c.ny + 9) / 10), 0u);
    for (const auto& e : c.ice) ice[e.first] = (unsigned int)e.second;
    GridResult r = find_filter(map, psi, c.nx, c.ny, 10, c.cutoff, ice);
    for (const auto& e : c.expected) EXPECT_EQ(r.index[e.first], e.second < 0 ? 0u : (unsigned int)e.second) << c.what;
  }
}

ZK_BACKEND_SUITE(Grids);

TEST(GridOutput, LinesOfCandidatesWhoseBoxLiesInside) {
  ZkTmpDir dir;
  const std::string name = dir / "m_nonunique.box";
  FILE* fp = fopen(name.c_str(), "w+");
  const int nx = 100, ny = 100, b = 21;  // half 10
  std::vector<unsigned int> index = {at(11, 50, nx), at(10, 50, nx), at(89, 89, nx), at(90, 50, nx), 0u};
  std::vector<float> cc = {0.5f, 0.6f, 0.123456789f, 0.7f, 0.9f};
  std::vector<float> psi = {5.0f, 10.0f, 355.0f, 0.0f, 0.0f};
  output_zavik_coord_one_temp(fp, index.data(), cc.data(), psi.data(), 2, 5, nx, ny, b);
  fclose(fp);
  EXPECT_EQ(zk_slurp(name),
            "1       40      21      21      0.500000\t2       \t5.000   \n"
            "79      79      21      21      0.123457\t2       \t355.000 \n");
}
