#include "core/str_utils.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "core/report.h"

size_t strlcpy(char* dst, const char* src) {
  memset(dst, 0, ZK_TXT_LEN);
  if (!src) return 0;
  size_t n = strnlen(src, ZK_TXT_LEN - 1);
  memcpy(dst, src, n);
  return n;
}

int empty_txt_line(char* line) {
  memset(line, 0, ZK_TXT_LEN);
  return 0;
}

void strlempty(char* line) { memset(line, 0, ZK_TXT_LEN); }

int keywd_cmp(const char* word, const char* keyword) {
  if (!word || !keyword || word[0] != '-') return 0;
  const char* w = word + 1;
  if (w[0] == '-') ++w;
  return strcasecmp(w, keyword) == 0 ? 1 : 0;
}

int is_keywd_help(const char* word) {
  return (keywd_cmp(word, "h") || keywd_cmp(word, "help")) ? 1 : 0;
}

void get_bool_keyword(int argc, char** argv, int& value, int& i) {
  if (i >= argc - 1) {
    value = 1;
    return;
  }
  const char* next = argv[i + 1];
  if (next[0] == '-' || isalpha((unsigned char)next[0])) {
    value = 1;
    return;
  }
  ++i;
  value = atoi(next) != 0 ? 1 : 0;
}

int is_str_null(const char* text) {
  if (!text || text[0] == '\0' || text[0] == '\n') return 1;
  return (strcasecmp(text, "NULL") == 0 || strcasecmp(text, "NONE") == 0) ? 1 : 0;
}

int strnsplit_inplace(char* text, const char* delimiters, char** words, int max) {
  if (!words) {
    printf("Error in function strnsplit()!Memory for 'dest' not allocated.\n");
    return 0;
  }
  if (!text || !delimiters || !text[0] || !delimiters[0] || max <= 0) return 0;
  int n = 0;
  char* p = text;
  while (*p && n < max) {
    while (*p && strchr(delimiters, *p)) ++p;  // runs of delimiters count as one
    if (!*p) break;
    words[n++] = p;
    while (*p && !strchr(delimiters, *p)) ++p;
    if (*p) *p++ = '\0';
  }
  return n;
}

int strnsplit_inplace_byspace(char* text, char** words, int max) {
  return strnsplit_inplace(text, " \t\n\r\v\f", words, max);
}

int get_micrograph_suffixn(const char* name) {
  size_t n = strlen(name);
  if (n < 4) return 0;
  if (strcmp(name + n - 4, ".mrc") == 0) return 4;
  if (n >= 5 && strcmp(name + n - 5, ".mrcs") == 0) return 5;
  return 0;
}

int get_file_suffixn(const char* name, const char* suffix) {
  size_t n = strlen(name), s = strlen(suffix);
  if (n <= s) return 0;
  return strcmp(name + n - s, suffix) == 0 ? (int)s : 0;
}

namespace {
// Writes the pieces into out; a name that would not fit in 1024 bytes ends
// the run instead of being cut, so no output lands under a wrong name.
void build_name(char* out, const char* a, size_t na, const char* b, const char* c, size_t nc) {
  size_t nb = strlen(b);
  if (na + nb + nc >= (size_t)ZK_TXT_LEN) {
    ZK_FATAL_AFTER(zk_format("The output name built from %s is longer than %d characters.\n", a, ZK_TXT_LEN - 1),
                   "file name too long");
  }
  memset(out, 0, ZK_TXT_LEN);
  memcpy(out, a, na);
  memcpy(out + na, b, nb);
  memcpy(out + na + nb, c, nc);
}
}  // namespace

int set_outname_by_suffix(char* out, const char* mic, const char* suffix) {
  size_t keep = strlen(mic) - get_micrograph_suffixn(mic);
  build_name(out, mic, keep, suffix, "", 0);
  return 0;
}

int set_name_shrinked_box(char* out, const char* mic, int shrink) {
  (void)shrink;
  return set_outname_by_suffix(out, mic, "_nonunique.box");
}

int set_outname_by_insertion(char* out, const char* mic, const char* text) {
  int sn = get_micrograph_suffixn(mic);
  size_t keep = strlen(mic) - sn;
  build_name(out, mic, keep, text, mic + keep, sn);
  return 0;
}

int replace_file_suffix(char* out, const char* new_suffix, const char* name, const char* old_suffix) {
  size_t keep = strlen(name) - get_file_suffixn(name, old_suffix);
  build_name(out, name, keep, new_suffix, "", 0);
  return 0;
}

int zk_atoi(const char* word) {
  errno = 0;
  long v = strtol(word, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return (int)v;
}

float zk_atof(const char* word) { return (float)strtod(word, nullptr); }
