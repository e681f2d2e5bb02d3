// STAR files of starting CTF values: one record per data line.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/report.h"
#include "core/txt_file.h"
#include "ctf/kesmar_para.h"
#include "formats/starfile.h"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

float column_value(char** words, int col, float fallback) { return col >= 1 ? zk_atof(words[col - 1]) : fallback; }

// Calls each(ctf, micrograph name or "") for every data line that has as many
// words as the head has labels; returns how many it called.
template <class F>
int read_ctfstar(const char* name, F&& each) {
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  std::unique_ptr<StarHead, FreeDeleter> head(star_head_new());
  star_read_head(fp.get(), head.get());
  ParticleInfoIndex idx;
  set_info_index_from_star_head(head.get(), &idx);
  const int n_words = head->n_labels;
  if (n_words <= 0) return 0;
  std::vector<char*> words((size_t)n_words);
  char line[ZK_TXT_LEN];
  star_set_pointer(fp.get(), 0);
  int count = 0;
  while (zk_read_text_line(line, fp.get()) > 0) {
    const int k = strnsplit_inplace_byspace(line, words.data(), n_words);
    if (is_words_starhead(words.data(), k) || k != n_words) continue;
    CTF_INFO c = ctf2d_default();
    char** w = words.data();
    c.defU = column_value(w, idx.DefocusU, c.defU);
    c.defV = column_value(w, idx.DefocusV, c.defV);
    c.defA = column_value(w, idx.DefocusAngle, c.defA);
    c.kV = column_value(w, idx.Voltage, c.kV);
    c.Cs = column_value(w, idx.SphericalAberration, c.Cs);
    c.ac = column_value(w, idx.AmplitudeContrast, c.ac);
    c.B = column_value(w, idx.Bfactor, c.B);
    c.ps = column_value(w, idx.PhaseShift, c.ps);
    const char* mic = idx.MicrographName >= 1 ? w[idx.MicrographName - 1] : "";
    if (!each(c, mic)) break;
    ++count;
  }
  return count;
}

}  // namespace

int get_all_ctfinfo_from_ctfstar(const char* name, CTF_INFO* out, int max) {
  int n = 0;
  return read_ctfstar(name, [&](const CTF_INFO& c, const char*) {
    if (n >= max) return false;
    out[n++] = c;
    return true;
  });
}

int get_all_defocus_from_ctfstar(const char* name, DEFOCUS* out, int max) {
  int n = 0;
  return read_ctfstar(name, [&](const CTF_INFO& c, const char*) {
    if (n >= max) return false;
    out[n++] = hd_ctfinfo_to_defocus(c);
    return true;
  });
}

int get_all_initctf_from_ctfstar(KESMAR_Para* para, const char* name, std::vector<CTF_INIT>& ctfinit,
                                 std::vector<char*>& files, int nfiles) {
  int n = nfiles;
  return read_ctfstar(name, [&](const CTF_INFO& c, const char* mic) {
    // The lists leave room for a closing null entry.
    if ((size_t)n + 1 >= files.size()) return false;
    std::unique_ptr<char[]> copy(new char[ZK_TXT_LEN]);
    strlcpy(copy.get(), mic);
    files[n] = copy.get();
    para->names.push_back(std::move(copy));
    ctfinit[n] = ctf2d_to_ctfinit(c);
    ++n;
    return true;
  });
}
