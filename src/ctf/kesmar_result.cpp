#include "ctf/kesmar_result.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "formats/starfile.h"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

const char* base_of(const char* path) {
  const char* s = strrchr(path, '/');
  return s ? s + 1 : path;
}

float word_or(char** w, int col, float fallback) { return col >= 1 ? zk_atof(w[col - 1]) : fallback; }

}  // namespace

int kesmar_find_result(const char* star, const char* mic, KESMAR_RESULT& out) {
  if (access(star, R_OK) != 0) return -2;
  FILE* f = fopen(star, "r");
  if (!f) return -2;
  ZkFilePtr fp(f);
  std::unique_ptr<StarHead, FreeDeleter> head(star_head_new());
  star_read_head(fp.get(), head.get());
  ParticleInfoIndex idx;
  set_info_index_from_star_head(head.get(), &idx);
  const int n_words = head->n_labels;
  if (n_words <= 0 || idx.MicrographName < 1 || idx.DefocusU < 1 || idx.DefocusV < 1) return -2;
  std::vector<char*> words((size_t)n_words);
  char line[ZK_TXT_LEN];
  star_set_pointer(fp.get(), 0);
  int found = 0;  // 2: whole name, 1: base name
  while (zk_read_text_line(line, fp.get()) > 0) {
    const int k = strnsplit_inplace_byspace(line, words.data(), n_words);
    if (k != n_words || is_words_starhead(words.data(), k)) continue;
    char** w = words.data();
    const char* name = w[idx.MicrographName - 1];
    const int match = strcmp(name, mic) == 0 ? 2 : strcmp(base_of(name), base_of(mic)) == 0 ? 1 : 0;
    if (match == 0 || match < found) continue;
    found = match;
    out.ctf = CTF_INFO(word_or(w, idx.Voltage, 300.0f), word_or(w, idx.SphericalAberration, 2.7f),
                       word_or(w, idx.AmplitudeContrast, 0.1f), word_or(w, idx.PhaseShift, 0.0f),
                       word_or(w, idx.DefocusU, 0.0f), word_or(w, idx.DefocusV, 0.0f),
                       word_or(w, idx.DefocusAngle, 0.0f), 0.0f);
    out.dstep = word_or(w, idx.DetectorPixelSize, 14.0f);
    out.mag = word_or(w, idx.Magnification, 0.0f);
    out.ccc = word_or(w, idx.CtfFigureOfMerit, 0.0f);
    out.apix = out.mag > 0.0f ? (float)((double)out.dstep * 10000.0 / (double)out.mag) : 0.0f;
  }
  return found ? 0 : -1;
}
