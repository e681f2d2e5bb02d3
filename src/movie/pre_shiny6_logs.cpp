#include "movie/pre_shiny6_logs.h"

#include <cstdio>
#include <cstring>

#include "core/report.h"
#include "core/str_utils.h"
#include "core/txt_file.h"
#include "formats/safe_output.h"

namespace {

const char* const LOG_DELIMITERS = " \t\n\r#:,;";
constexpr int MAX_WORDS = 16;

struct LogLine {
  char text[ZK_TXT_LEN];
  char* words[MAX_WORDS];
  int n = 0;
};

// The next line of the log split into words; false at the end of the file.
bool next_line(FILE* fp, LogLine& l) {
  if (zk_read_text_line(l.text, fp) == 0) return false;
  l.n = strnsplit_inplace(l.text, LOG_DELIMITERS, l.words, MAX_WORDS);
  return true;
}

}  // namespace

int get_dose_smoothed_drift_from_txt(float* dose, float2* drift, int n, const char* name) {
  if (n < 3) ZK_FATAL("Critical ERROR! Too few Movie frames!");
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  LogLine l;
  for (int i = 0; i < n;) {
    if (!next_line(fp.get(), l)) {
      ZK_WARNING(
          "Can not get lines from dose/drift log file. Check file format or parameters. Or have you modified the log "
          "file?");
      return -1;
    }
    if (l.n < 4) continue;
    if (zk_atoi(l.words[0]) != i) {
      ZK_WARNING(
          "Can not get dose/drift parameters from log file. Check file format or parameters. Or have you modified "
          "the log file?");
      return -1;
    }
    dose[i] = zk_atof(l.words[1]);
    drift[i] = make_f2(zk_atof(l.words[2]), zk_atof(l.words[3]));
    ++i;
  }
  return 0;
}

int get_drift_from_txt(float2* drift, int n, const char* name) {
  if (n < 3) ZK_FATAL("Critical ERROR! Too few Movie frames!");
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  LogLine l;
  char as_read[ZK_TXT_LEN];
  for (int i = 0; i < n;) {
    const long got = zk_read_text_line(l.text, fp.get());
    if (got == 0) {
      ZK_WARNING(
          "Can not get lines from drift log file. Check file format or parameters. Or have you modified the log "
          "file?\n");
      return -1;
    }
    strlcpy(as_read, l.text);
    as_read[strcspn(as_read, "\r\n")] = '\0';
    l.n = strnsplit_inplace(l.text, LOG_DELIMITERS, l.words, MAX_WORDS);
    // A line of too few words is passed over, as the dose/drift reader does.
    if (l.n < 3) continue;
    printf("....i = %d, str_line_split[0]= %s  %s \n", i, l.words[0], as_read);
    if (zk_atoi(l.words[0]) != i) {
      ZK_WARNING(
          "Can not get drift parameters from log file. Check file format or parameters. Or have you modified the log "
          "file?\n");
      return -1;
    }
    printf("..ffffff.. %d %s \n", i, l.words[0]);
    drift[i] = make_f2(zk_atof(l.words[1]), zk_atof(l.words[2]));
    ++i;
  }
  return 0;
}

int get_ctfw_from_txt(float* ctfw, int n, const char* name) {
  for (int i = 0; i < n; ++i) ctfw[i] = 0.0f;
  ZkFilePtr fp(ZK_FOPEN_READ(name, "r"));
  LogLine l;
  for (int i = 0; i < n;) {
    if (!next_line(fp.get(), l)) {
      ZK_WARNING(
          "Can not get lines from CTF_W log file. Check file format or parameters. Or have you modified the log "
          "file?");
      return -1;
    }
    if (l.n < 3) {
      ZK_WARNING("CTFw text line format error!");
      continue;
    }
    if (zk_atoi(l.words[0]) != i) {
      ZK_WARNING(
          "Can not get CTF_W parameters from log file. Check file format or parameters. Or have you modified the log "
          "file?");
      return -1;
    }
    ctfw[i] = zk_atof(l.words[2]);
    ++i;
  }
  return 0;
}

int write_dose_drift_txt(const char* name, const float* dose, const float2* drift, int n) {
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  for (int i = 0; i < n; ++i) fprintf(fp, "%6d %14.6f %14.6f %14.6f\n", i, dose[i], drift[i].x, drift[i].y);
  zk_out_commit(out);
  return 0;
}

int write_ctfw_txt(const char* name, const float* s, const float* ctfw, int n) {
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  for (int i = 0; i < n; ++i) fprintf(fp, "%6d %12.6f %12.6f\n", i, s[i], ctfw[i]);
  zk_out_commit(out);
  return 0;
}
