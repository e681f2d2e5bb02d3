#include "formats/boxfile.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "formats/safe_output.h"
#include "formats/starfile.h"

namespace {

// The word of column col (from 1) of a split line, or null when absent.
const char* column_word(char** words, int count, int col) {
  return (col >= 1 && col <= count) ? words[col - 1] : nullptr;
}

void set_star_record(PTCL_BOX& b, char** words, int count, int col_x, int col_y, int col_cc, int col_class,
                     int col_psi) {
  const char* w;
  b.x = zk_atoi(words[col_x - 1]);
  b.y = zk_atoi(words[col_y - 1]);
  b.w = 0;
  b.h = 0;
  b.cc = (w = column_word(words, count, col_cc)) ? zk_atof(w) : 0.0f;
  b.class_number = (w = column_word(words, count, col_class)) ? zk_atoi(w) : 0;
  b.psi = (w = column_word(words, count, col_psi)) ? zk_atof(w) : 0.0f;
}

// The extended box family: the number of words of a line decides its meaning.
int read_box_lines(FILE* fp, PTCL_BOX* boxes, int max) {
  char line[ZK_TXT_LEN];
  char* words[7];
  int n = 0;
  while (n < max) {
    if (zk_read_text_line(line, fp) == 0) break;
    int count = strnsplit_inplace_byspace(line, words, 7);
    if (count == 0) continue;
    if (count < 4) ZK_FATAL("unrecognized box format!");
    PTCL_BOX& b = boxes[n++];
    b.x = zk_atoi(words[0]);
    b.y = zk_atoi(words[1]);
    b.w = zk_atoi(words[2]);
    b.h = zk_atoi(words[3]);
    if (count >= 5) b.cc = zk_atof(words[4]);
    if (count >= 6) b.class_number = zk_atoi(words[5]);
    if (count >= 7) b.psi = zk_atof(words[6]);
  }
  return n;
}

// Files that the narrow reader cannot place (RELION 3.1 files open with a
// "# version" comment, some put a data_optics table first, some labels carry
// no "#n"): the first loop_ table that has both coordinate labels is read.
int read_star_tolerant(FILE* fp, PTCL_BOX* boxes, int max, const char* name) {
  const char* const want[5] = {"_rlnCoordinateX", "_rlnCoordinateY", "_rlnAutopickFigureOfMerit",
                               "_rlnClassNumber", "_rlnAnglePsi"};
  int cols[5];
  int n_cols = 0;
  long pos = 0;
  char table[ZK_TXT_LEN];
  if (star_find_loop_table(fp, want, 5, 2, cols, &n_cols, &pos, table) != 0) {
    char msg[ZK_TXT_LEN + 160];
    snprintf(msg, sizeof msg,
             "no _rlnCoordinateX and _rlnCoordinateY columns in the STAR file %s, read as an empty list", name);
    ZK_WARNING(msg);
    return 0;
  }
  printf("Reading %s with the tolerant STAR reader: coordinates found in table %s.\n", name, table);
  std::vector<char*> words((size_t)n_cols);
  char line[ZK_TXT_LEN];
  int n = 0;
  while (n < max) {
    int count = star_read_loop_row(fp, line, words.data(), n_cols);
    if (count < 0) break;
    if (count != n_cols) continue;
    set_star_record(boxes[n++], words.data(), count, cols[0], cols[1], cols[2], cols[3], cols[4]);
  }
  return n;
}

int read_star_lines(FILE* fp, PTCL_BOX* boxes, int max, const char* name) {
  StarHead* head = star_head_new();
  ParticleInfoIndex index;
  star_read_head(fp, head);
  set_info_index_from_star_head(head, &index);
  int n_words = head->n_labels;
  free(head);
  // A column beyond the labels of the head cannot be read from a line that
  // has as many words as labels: it counts as absent.
  auto col = [n_words](int c) { return (c >= 1 && c <= n_words) ? c : 0; };
  int col_x = col(index.CoordinateX), col_y = col(index.CoordinateY);
  if (col_x == 0 || col_y == 0) return read_star_tolerant(fp, boxes, max, name);

  char** words = (char**)calloc((size_t)n_words, sizeof(char*));
  if (!words) ZK_FATAL("memory allocation failed");
  char line[ZK_TXT_LEN];
  star_set_pointer(fp, 0);
  int n = 0;
  while (n < max && !feof(fp)) {
    if (zk_read_text_line(line, fp) == 0) break;
    if (is_str_null(line)) continue;
    int count = strnsplit_inplace_byspace(line, words, n_words);
    if (count != n_words) continue;
    set_star_record(boxes[n++], words, count, col_x, col_y, col(index.AutopickFigureOfMerit),
                    col(index.ClassNumber), col(index.AnglePsi));
  }
  free(words);
  return n;
}

}  // namespace

int read_all_ptcl_boxes(PTCL_BOX* boxes, int max, const char* name) {
  ZkFilePtr file(ZK_FOPEN_READ(name, "r"));
  FILE* fp = file.get();
  empty_all_ptcl_boxes(boxes, max);
  int n = 0;
  switch (get_boxf_suffixf(name)) {
    case 2:
      n = read_box_lines(fp, boxes, max);
      break;
    case 1:
      n = read_star_lines(fp, boxes, max, name);
      break;
    default:
      ZK_WARNING("unrecognized box file format, only EMAN .box and Relion .star file are supported now.");
  }
  return n;
}

std::vector<PTCL_BOX> read_ptcl_box_list(const char* name) {
  // A record takes a line, so the lines bound the records.
  long long lines = 1;
  {
    ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
    int c;
    while ((c = getc(fp.get())) != EOF) lines += c == '\n';
  }
  const int max = lines < ZK_MAX_PTCL_BOXES ? (int)lines : ZK_MAX_PTCL_BOXES;
  std::vector<PTCL_BOX> boxes((size_t)max);
  boxes.resize((size_t)read_all_ptcl_boxes(boxes.data(), max, name));
  return boxes;
}

int get_boxf_suffixf(const char* name) {
  size_t n = strlen(name);
  if (n >= 5 && strcmp(name + n - 5, ".star") == 0) return 1;
  if (n >= 4 && strcmp(name + n - 4, ".box") == 0) return 2;
  return 0;
}

int empty_all_ptcl_boxes(PTCL_BOX* boxes, int count) {
  if (count > ZK_MAX_PTCL_BOXES) {
    ZK_WARNING("Too many particle numbers!");
    count = ZK_MAX_PTCL_BOXES;
  }
  if (count > 0) memset(boxes, 0, (size_t)count * sizeof(PTCL_BOX));
  return 0;
}

PTCL_BOX one_new_ptcl_box() {
  PTCL_BOX b;
  memset(&b, 0, sizeof b);
  return b;
}

int resize_ptcl_boxes(PTCL_BOX* boxes, int count, int box) {
  for (int i = 0; i < count; ++i) {
    PTCL_BOX& b = boxes[i];
    // C++ division truncates towards zero, as the centre rule wants.
    b.x = ptcl_clamp_to_int((long long)b.x + ((long long)b.w - box) / 2);
    b.y = ptcl_clamp_to_int((long long)b.y + ((long long)b.h - box) / 2);
    b.w = box;
    b.h = box;
  }
  return 0;
}

void output_starbox_head(FILE* stream) {
  rewind(stream);
  fprintf(stream, "\ndata_\n");
  fprintf(stream, "\nloop_\n");
  fprintf(stream, "_rlnCoordinateX #1\n");
  fprintf(stream, "_rlnCoordinateY #2\n");
  fprintf(stream, "_rlnAnglePsi #3\n");
  fprintf(stream, "_rlnClassNumber #4\n");
  fprintf(stream, "_rlnAutopickFigureOfMerit #5\n");
}

void output_starbox_head_XYonly(FILE* stream) {
  rewind(stream);
  fprintf(stream, "\ndata_\n");
  fprintf(stream, "\nloop_\n");
  fprintf(stream, "_rlnCoordinateX #1\n");
  fprintf(stream, "_rlnCoordinateY #2\n");
}

void write_nonunique_line(FILE* fp, int x, int y, int w, int h, float cc, int t, float psi) {
  fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d\t%-8.3f\n", x, y, w, h, cc, t, psi);
}

void write_zavik_box_line(FILE* fp, int x, int y, int w, int h, float cc, int t, float psi) {
  fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f\t%-8d%-8.6f\n", x, y, w, h, cc, t, psi);
}

void write_zavik_star_line(FILE* fp, int x, int y, float psi, int t, float cc) {
  fprintf(fp, "%-8d%-8d%-8.6f\t%-8d%-8.6f\n", x, y, psi, t, cc);
}

void write_rejected_box_line(FILE* fp, int x, int y, int w, int h, float ave, float sigma) {
  fprintf(fp, "%-8d%-8d%-8d%-8d\t%-8.6f\t%-8.6f\n", x, y, w, h, ave, sigma);
}

void write_rejected_star_line(FILE* fp, int x, int y) { fprintf(fp, "%-8d%-8d\n", x, y); }

namespace {

// One record of a neighbour disc: the box of side box centred at (cx, cy),
// weighted by its squared distance r2 from the particle.
PTCL_BOX neighbor_box(long long cx, long long cy, float r2, float radius, int box) {
  PTCL_BOX b = one_new_ptcl_box();
  b.x = ptcl_clamp_to_int(cx - box / 2);
  b.y = ptcl_clamp_to_int(cy - box / 2);
  b.w = box;
  b.h = box;
  b.cc = expf(-r2 / (radius * radius / 4.5f)) * 0.3989423f;
  b.psi = 0.0f;
  b.dist = sqrtf(r2);
  return b;
}

}  // namespace

int auto_generate_neighbor_boxes(PTCL_BOX* boxes, int max, PTCL_BOX centre, float radius, int box, int step) {
  long long cx = ptcl_centre_x(centre), cy = ptcl_centre_y(centre);
  empty_all_ptcl_boxes(boxes, max);
  // A step below 1 would never leave the disc.
  if (step < 1 || !(radius > 0.0f)) return 0;
  int n = 0;
  long long wanted = 0;
  auto put = [&](long long dx, long long dy, float r2) {
    ++wanted;
    if (n < max) boxes[n++] = neighbor_box(cx + dx, cy + dy, r2, radius, box);
  };
  const float r2_max = radius * radius;
  for (long long j = 0; (float)(j * step) < radius; ++j) {
    for (long long i = 0; (float)(i * step) < radius; ++i) {
      float r2 = (float)((i * i + j * j) * step * step);
      if (r2 > r2_max) continue;
      long long dx = i * step, dy = j * step;
      put(dx, dy, r2);
      if (i != 0) put(-dx, dy, r2);
      if (i != 0 && j != 0) put(-dx, -dy, r2);
      if (j != 0) put(dx, -dy, r2);
    }
  }
  if (wanted > n) ZK_WARNING("More neighbour boxes than room for them; the disc has been cut");
  return n;
}

int generate_neighbor_boxes_from_boxf(PTCL_BOX* boxes, int max, PTCL_BOX centre, float radius, int box,
                                      const char* name) {
  if (max <= 0) return 0;
  std::vector<PTCL_BOX> list((size_t)max);
  int n_list = read_all_ptcl_boxes(list.data(), max, name);
  long long cx = ptcl_centre_x(centre), cy = ptcl_centre_y(centre);
  empty_all_ptcl_boxes(boxes, max);
  const float r2_max = radius * radius;
  int n = 0;
  for (int k = 0; k < n_list && n < max; ++k) {
    long long qx = ptcl_centre_x(list[k]), qy = ptcl_centre_y(list[k]);
    double dx = (double)(qx - cx), dy = (double)(qy - cy);
    float r2 = (float)(dx * dx + dy * dy);
    if (r2 > r2_max) continue;
    boxes[n++] = neighbor_box(qx, qy, r2, radius, box);
  }
  return n;
}

namespace {

void put_all_boxes(FILE* fp, const PTCL_BOX* boxes, int count) {
  if (count > ZK_MAX_PTCL_BOXES) count = ZK_MAX_PTCL_BOXES;
  for (int i = 0; i < count; ++i) {
    const PTCL_BOX& b = boxes[i];
    if (b.w != 0 && b.h != 0)
      fprintf(fp, "%-8d%-8d%-8d%-8d%-8.6f        %-8d%-8.6f\n", b.x, b.y, b.w, b.h, b.cc, b.class_number, b.psi);
  }
}

}  // namespace

void print_all_ptcl_boxes(const PTCL_BOX* boxes, int count) { put_all_boxes(stdout, boxes, count); }

void fprint_all_ptcl_boxes(const char* name, const PTCL_BOX* boxes, int count) {
  FILE* fp = fopen(name, "w+");
  if (!fp) {
    ZK_FATAL_AFTER(zk_format("Cannot open file %s. strike any key exit!\n", name), "open file failed.");
  }
  put_all_boxes(fp, boxes, count);
  fclose(fp);
}

int get_ptcl_number_from_boxf(const char* name) {
  FILE* fp = ZK_FOPEN_READ(name, "r");
  char line[ZK_TXT_LEN];
  char* words[7];
  int n = 0;
  while (zk_read_text_line(line, fp) > 0)
    if (strnsplit_inplace_byspace(line, words, 7) >= 7) ++n;
  fclose(fp);
  return n;
}

namespace {

// Number of grid points from start to end inclusive; the small tolerance
// keeps an end that the steps reach up to rounding.
long long grid_count(float step, float start, float end) {
  if (!(step > 0.0f) || !(end >= start)) return 0;
  double n = floor(((double)end - start) / step + 1e-6) + 1;
  return n > 1e9 ? (long long)1e9 : (long long)n;
}

}  // namespace

int auto_gridbox_2d(float* xy, int max, float step_x, float x_start, float x_end, float step_y, float y_start,
                    float y_end) {
  long long nx = grid_count(step_x, x_start, x_end), ny = grid_count(step_y, y_start, y_end);
  long long total = nx * ny;
  if (total > INT_MAX) total = INT_MAX;
  if (!xy) return (int)total;
  int n = 0;
  for (long long j = 0; j < ny && n < max; ++j)
    for (long long i = 0; i < nx && n < max; ++i) {
      xy[2 * n] = (float)(x_start + (double)i * step_x);
      xy[2 * n + 1] = (float)(y_start + (double)j * step_y);
      ++n;
    }
  return n;
}

int auto_gridboxf_2d(const char* name, float step_x, float x_start, float x_end, float step_y, float y_start,
                     float y_end) {
  int n = auto_gridbox_2d(nullptr, 0, step_x, x_start, x_end, step_y, y_start, y_end);
  std::vector<float> xy((size_t)(n > 0 ? n : 1) * 2);
  n = auto_gridbox_2d(xy.data(), n, step_x, x_start, x_end, step_y, y_start, y_end);
  FILE* fp = ZK_FOPEN_WRITE(name, "w+");
  fprintf(fp, "\ndata_\n\nloop_\n_rlnCoordinateX #1\n_rlnCoordinateY #2\n");
  for (int i = 0; i < n; ++i) fprintf(fp, "%12.2f%12.2f\n", xy[2 * i], xy[2 * i + 1]);
  fprintf(fp, "\n");
  fclose(fp);
  return n;
}
