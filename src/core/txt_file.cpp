#include "core/txt_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/report.h"
#include "core/str_utils.h"

int read_one_line(char* line, FILE* stream) {
  if (!fgets(line, ZK_TXT_LEN, stream)) return 0;  // nothing read: the line stays as cleared
  return 0;
}

long FILE_find_str_line(FILE* stream, const char* text) {
  char line[ZK_TXT_LEN];
  rewind(stream);
  while (true) {
    long pos = ftell(stream);
    empty_txt_line(line);
    if (!fgets(line, ZK_TXT_LEN, stream)) return -1;
    if (strstr(line, text)) {
      fseek(stream, pos, SEEK_SET);
      return pos;
    }
  }
}

int f_Nfind_str_line(const char* name, const char* text, int max) {
  FILE* fp = ZK_FOPEN_READ(name, "r");
  char line[ZK_TXT_LEN];
  int found = -1;
  for (int n = 1; n <= max + 1; ++n) {
    empty_txt_line(line);
    if (!fgets(line, ZK_TXT_LEN, fp)) break;
    if (strstr(line, text)) {
      found = n;
      break;
    }
  }
  fclose(fp);
  return found;
}

#define ACCESS_WARNING(what)                                                                          \
  printf("\x1b[43m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the file %s " what \
         " Automatically ignored!\x1b[m\n\n",                                                          \
         __func__, zk_basename(__FILE__), __LINE__, name)

int check_file_access(const char* name, const char* modes) {
  for (const char* m = modes; *m; ++m) {
    switch (*m) {
      case 'f':
      case 'F':
        if (access(name, F_OK) != 0) {
          ACCESS_WARNING("does NOT exist!");
          return -1;
        }
        break;
      case 'r':
      case 'R':
        if (access(name, R_OK) != 0) {
          ACCESS_WARNING("are NOT readable!");
          return -1;
        }
        break;
      case 'w':
      case 'W':
        if (access(name, W_OK) != 0) {
          ACCESS_WARNING("are NOT writable!");
          return -1;
        }
        break;
      case 'x':
      case 'X':
        if (access(name, X_OK) != 0) {
          ACCESS_WARNING("are NOT executable!");
          return -1;
        }
        break;
      default:
        printf("\x1b[43m\x1b[1m\x1b[5mError in function %s(), file %s on line %d:  the mode '%c' for checking "
               "access of file %s are NOT recoganized!\x1b[m\n\n",
               __func__, zk_basename(__FILE__), __LINE__, *m, name);
        return -1;
    }
  }
  return 0;
}

bool zk_is_other_than_regular(const char* name) {
  struct stat st;
  return stat(name, &st) == 0 && !S_ISREG(st.st_mode);
}

int is_file_zavik_done(const char* name) { return (access(name, F_OK) == 0 && access(name, R_OK) == 0) ? 1 : 0; }

int check_access_openf_1st(char** files, int n_files, char* first_mic, FILE*& stream) {
  stream = nullptr;
  for (int i = 0; i < n_files; ++i) {
    const char* mic = files[i];
    if (access(mic, F_OK) != 0) {
      printf("\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s does NOT "
             "exsit! Automatically ignored!\x1b[m\n\n",
             __func__, zk_basename(__FILE__), __LINE__, mic);
      continue;
    }
    if (access(mic, R_OK) != 0) {
      printf("\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s are NOT "
             "readable! Automatically ignored!\x1b[m\n\n",
             __func__, zk_basename(__FILE__), __LINE__, mic);
      continue;
    }
    // A directory or a pipe would pass the tests above, and a pipe would keep
    // the run waiting at the open.
    struct stat st;
    if (stat(mic, &st) == 0 && !S_ISREG(st.st_mode)) {
      printf("\x1b[41m\x1b[1m\x1b[5mWarning in function %s(), file %s on line %d: the micrograph %s is NOT a "
             "regular file! Automatically ignored!\x1b[m\n\n",
             __func__, zk_basename(__FILE__), __LINE__, mic);
      continue;
    }
    printf("Opening %s for initial test and preperation .......\n", mic);
    stream = ZK_FOPEN_READ(mic, "r");
    if (first_mic != mic) {
      char tmp[ZK_TXT_LEN];
      strlcpy(tmp, mic);
      strlcpy(first_mic, tmp);
    }
    return 0;
  }
  return 0;
}

long zk_read_text_line(char* line, FILE* stream) {
  empty_txt_line(line);
  long taken = 0;
  int kept = 0;
  int c;
  while ((c = getc(stream)) != EOF) {
    ++taken;
    if (kept < ZK_TXT_LEN - 1) line[kept++] = (char)c;
    if (c == '\n') break;
  }
  return taken;
}

ZkMemText::ZkMemText() {
  fp_ = open_memstream(&buf_, &len_);
  if (!fp_) ZK_FATAL("memory allocation failed");
}

ZkMemText::~ZkMemText() {
  if (fp_) fclose(fp_);
  free(buf_);
}

void ZkMemText::finish() {
  if (!fp_) return;
  const bool ok = fflush(fp_) == 0 && !ferror(fp_);
  fclose(fp_);
  fp_ = nullptr;
  if (!ok) ZK_FATAL("memory allocation failed");
}
