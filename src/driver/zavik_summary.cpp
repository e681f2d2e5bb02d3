#include "driver/zavik_summary.h"

#include <algorithm>
#include <cstdio>

#include "core/report.h"
#include "formats/safe_output.h"

std::string zavik_summary_head() {
  static const char* const labels[] = {"_rlnMicrographName",  "_zavikNumberOfPicks", "_zavikMeanScore",
                                       "_zavikMedianScore",   "_zavikRejectedShare", "_zavikSeconds",
                                       "_zavikStatus",        "_zavikReason"};
  std::string s = "\n# version 30001\n\ndata_zavik_summary\n\nloop_\n";
  int k = 0;
  for (const char* l : labels) s += zk_format("%s #%d\n", l, ++k);
  return s;
}

std::string zavik_star_word(const std::string& s) {
  bool plain = !s.empty();
  for (char c : s)
    if (c == ' ' || c == '\t' || c == '"') plain = false;
  if (plain) return s;
  std::string q = "\"";
  for (char c : s) q += c == '"' ? '\'' : c == '\t' ? ' ' : c;
  return q + "\"";
}

double zavik_mean(const std::vector<float>& v) {
  double sum = 0;
  for (float x : v) sum += x;
  return v.empty() ? 0.0 : sum / (double)v.size();
}

double zavik_median(std::vector<float> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? (double)v[n / 2] : 0.5 * ((double)v[n / 2 - 1] + (double)v[n / 2]);
}

std::string zavik_summary_line(const ZkMicSummary& m) {
  static const char* const words[] = {"done", "skipped", "failed"};
  // The reason goes last: a reader that splits at every blank still sees
  // every other column in its place.
  return zk_format("%s %d %.6f %.6f %.4f %.3f %s %s\n", zavik_star_word(m.name).c_str(), (int)m.scores.size(),
                   zavik_mean(m.scores), zavik_median(m.scores), m.rejected_share, m.seconds,
                   words[(int)m.status], m.reason.empty() ? "-" : zavik_star_word(m.reason).c_str());
}

void zavik_summary_write(const char* name, const std::vector<ZkParItem>& lines) {
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  const std::string head = zavik_summary_head();
  fwrite(head.data(), 1, head.size(), fp);
  for (const ZkParItem& l : lines) fwrite(l.text.data(), 1, l.text.size(), fp);
  zk_out_commit(out);
}
