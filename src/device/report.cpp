#include "device/report.h"

#include <cstdlib>

void zk_fatal(const char* func, const char* file, int line, const char* msg) {
  printf("Error in function %s(), file %s on line %d: %s! Exit now!\n", func, file, line, msg);
  fflush(stdout);
  exit(1);
}

void zk_warning(const char* func, const char* file, int line, const char* msg) {
  printf("Warning in function %s(), file %s on line %d: %s!\n", func, file, line, msg);
  fflush(stdout);
}

FILE* zk_fopen_read(const char* name, const char* mode, const char* func, const char* file, int line) {
  FILE* fp = fopen(name, mode);
  if (!fp) {
    printf("Cannot open file %s. Permission denied or wrong file name.\n", name);
    zk_fatal(func, file, line, "open file failed.");
  }
  return fp;
}

FILE* zk_fopen_write(const char* name, const char* mode, const char* func, const char* file, int line) {
  FILE* fp = fopen(name, mode);
  if (!fp) {
    printf("Cannot write to file %s. Permission denied or no space left!\n", name);
    zk_fatal(func, file, line, "open file failed.");
  }
  return fp;
}
