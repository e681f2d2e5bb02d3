// The system's failure reports: one fatal form that ends the process with
// status 1, one warning form, and the two messages for files that do not open.
#pragma once
#include <cstdio>

// Source file name without its directories, as the reports print it.
constexpr const char* zk_basename(const char* path) {
  const char* base = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/') base = p + 1;
  return base;
}

[[noreturn]] void zk_fatal(const char* func, const char* file, int line, const char* msg);
void zk_warning(const char* func, const char* file, int line, const char* msg);
FILE* zk_fopen_read(const char* name, const char* mode, const char* func, const char* file, int line);
FILE* zk_fopen_write(const char* name, const char* mode, const char* func, const char* file, int line);

// "Error in function %s(), file %s on line %d: %s! Exit now!\n", status 1.
#define ZK_FATAL(msg) zk_fatal(__func__, zk_basename(__FILE__), __LINE__, (msg))
// "Warning in function %s(), file %s on line %d: %s!\n".
#define ZK_WARNING(msg) zk_warning(__func__, zk_basename(__FILE__), __LINE__, (msg))
// fopen for reading; a failure prints "Cannot open file ..." and the fatal report.
#define ZK_FOPEN_READ(name, mode) zk_fopen_read((name), (mode), __func__, zk_basename(__FILE__), __LINE__)
// fopen for writing; a failure prints "Cannot write to file ..." and the fatal report.
#define ZK_FOPEN_WRITE(name, mode) zk_fopen_write((name), (mode), __func__, zk_basename(__FILE__), __LINE__)
