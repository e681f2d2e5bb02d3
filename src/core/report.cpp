#include "core/report.h"

#include <cstdarg>
#include <utility>

ZkError::ZkError(Form form, std::string before, const char* func, const char* file, int line, std::string msg,
                 int status)
    : form_(form),
      before_(std::move(before)),
      func_(func ? func : ""),
      file_(file ? file : ""),
      line_(line),
      msg_(std::move(msg)),
      status_(status) {}

std::string zk_error_reason(const ZkError& e) {
  std::string msg = e.message();
  while (!msg.empty() && msg.back() == '!') msg.pop_back();
  return msg;
}

std::string zk_error_text(const ZkError& e) {
  switch (e.form()) {
    case ZkError::FATAL:
      return e.before() + zk_format("Error in function %s(), file %s on line %d: %s! Exit now!\n", e.func().c_str(),
                                    e.file().c_str(), e.line(), e.message().c_str());
    case ZkError::DEVICE:
      return e.before() +
             zk_format("Error %s at line %d in file %s\n", e.message().c_str(), e.line(), e.file().c_str());
    case ZkError::PLAIN: break;
  }
  return e.before();
}

void zk_print_error(const ZkError& e) {
  if (e.form() == ZkError::DEVICE) {
    fputs(e.before().c_str(), stdout);
    fflush(stdout);
    fprintf(stderr, "Error %s at line %d in file %s\n", e.message().c_str(), e.line(), e.file().c_str());
    fflush(stderr);
    return;
  }
  fputs(zk_error_text(e).c_str(), stdout);
  fflush(stdout);
}

std::string zk_format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int n = vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string s(n > 0 ? (size_t)n : 0, '\0');
  if (n > 0) vsnprintf(&s[0], (size_t)n + 1, fmt, again);
  va_end(again);
  return s;
}

void zk_fatal(const char* func, const char* file, int line, const char* msg) {
  throw ZkError(ZkError::FATAL, "", func, file, line, msg);
}

void zk_fatal_after(const std::string& before, const char* func, const char* file, int line, const char* msg) {
  throw ZkError(ZkError::FATAL, before, func, file, line, msg);
}

void zk_fail_plain(const std::string& lines, int status) {
  throw ZkError(ZkError::PLAIN, lines, "", "", 0, "", status);
}

void zk_warning(const char* func, const char* file, int line, const char* msg) {
  printf("Warning in function %s(), file %s on line %d: %s!\n", func, file, line, msg);
  fflush(stdout);
}

FILE* zk_fopen_read(const char* name, const char* mode, const char* func, const char* file, int line) {
  FILE* fp = fopen(name, mode);
  if (!fp)
    zk_fatal_after(zk_format("Cannot open file %s. Permission denied or wrong file name.\n", name), func, file, line,
                   "open file failed.");
  return fp;
}

FILE* zk_fopen_write(const char* name, const char* mode, const char* func, const char* file, int line) {
  FILE* fp = fopen(name, mode);
  if (!fp)
    zk_fatal_after(zk_format("Cannot write to file %s. Permission denied or no space left!\n", name), func, file, line,
                   "open file failed.");
  return fp;
}
