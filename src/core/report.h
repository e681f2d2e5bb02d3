// Failure reports.  Library code never ends the process: a failure that its
// caller cannot be expected to survive is thrown as one ZkError, which carries
// every line the user is to see; a program's entry catches it, prints it with
// zk_print_error and chooses the exit status.  Warnings are printed at once.
#pragma once
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

// Source file name without its directories, as the reports print it.
constexpr const char* zk_basename(const char* path) {
  const char* base = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/') base = p + 1;
  return base;
}

class ZkError : public std::exception {
 public:
  enum Form {
    FATAL,   // "Error in function %s(), file %s on line %d: %s! Exit now!\n" on stdout
    DEVICE,  // "Error %s at line %d in file %s\n" on stderr
    PLAIN,   // the lines before alone
  };
  // before: lines printed ahead of the report, each with its line feed.
  ZkError(Form form, std::string before, const char* func, const char* file, int line, std::string msg, int status = 1);
  const char* what() const noexcept override { return msg_.c_str(); }

  Form form() const { return form_; }
  const std::string& before() const { return before_; }
  const std::string& func() const { return func_; }
  const std::string& file() const { return file_; }
  int line() const { return line_; }
  const std::string& message() const { return msg_; }
  // The exit status the program chooses for it: 1, or 0 for an unknown option.
  int status() const { return status_; }

 private:
  Form form_;
  std::string before_, func_, file_;
  int line_;
  std::string msg_;
  int status_;
};

// The report of e as the user sees it: the lines before, then the report line.
std::string zk_error_text(const ZkError& e);
// Prints it (the device form on stderr) and flushes.
void zk_print_error(const ZkError& e);
// Its message without the closing "!", for the report of an input a batch
// skips.
std::string zk_error_reason(const ZkError& e);

// printf into a string.
std::string zk_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Throw the fatal report; before holds the reason lines printed ahead of it.
[[noreturn]] void zk_fatal(const char* func, const char* file, int line, const char* msg);
[[noreturn]] void zk_fatal_after(const std::string& before, const char* func, const char* file, int line,
                                 const char* msg);
// Throw lines that stand alone, with the given status.
[[noreturn]] void zk_fail_plain(const std::string& lines, int status = 1);
// "Warning in function %s(), file %s on line %d: %s!\n", printed now.
void zk_warning(const char* func, const char* file, int line, const char* msg);
// fopen; a failure throws "Cannot open file %s. Permission denied or wrong file
// name." (reading) or "Cannot write to file %s. Permission denied or no space
// left!" (writing) and the fatal report with "open file failed.".
FILE* zk_fopen_read(const char* name, const char* mode, const char* func, const char* file, int line);
FILE* zk_fopen_write(const char* name, const char* mode, const char* func, const char* file, int line);

#define ZK_FATAL(msg) zk_fatal(__func__, zk_basename(__FILE__), __LINE__, (msg))
#define ZK_FATAL_AFTER(before, msg) zk_fatal_after((before), __func__, zk_basename(__FILE__), __LINE__, (msg))
#define ZK_WARNING(msg) zk_warning(__func__, zk_basename(__FILE__), __LINE__, (msg))
#define ZK_FOPEN_READ(name, mode) zk_fopen_read((name), (mode), __func__, zk_basename(__FILE__), __LINE__)
#define ZK_FOPEN_WRITE(name, mode) zk_fopen_write((name), (mode), __func__, zk_basename(__FILE__), __LINE__)

// A stream closed when it goes out of scope, so that a failure thrown between
// opening and closing leaks no descriptor.
struct ZkFileCloser {
  void operator()(FILE* fp) const {
    if (fp) fclose(fp);
  }
};
using ZkFilePtr = std::unique_ptr<FILE, ZkFileCloser>;
