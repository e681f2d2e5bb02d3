// Text files and file vetting.
#pragma once
#include <cstdio>

// Reads up to 1023 characters, through the line feed if it comes first.
// Returns 0 whether or not anything was read; callers clear line first.
int read_one_line(char* line, FILE* stream);
// Finds the first line that contains text, from the start of the stream; the
// stream is left at the start of that line.  Its position, or -1.
long FILE_find_str_line(FILE* stream, const char* text);
// 1-based number of the first of lines 1 .. max + 1 of the file holding text,
// or -1.  A file that does not open throws its report.
int f_Nfind_str_line(const char* name, const char* text, int max);

// Tests the file against each letter of modes in order: F exists, R readable,
// W writable, X executable.  Stops with a warning at the first failure.
// 0 when every letter passes, -1 otherwise.
int check_file_access(const char* name, const char* modes);
// 1 when the file exists and is readable, whatever its size.
int is_file_zavik_done(const char* name);
// True when name exists but is no regular file (a directory, a pipe, a
// device): such a name is refused before it is opened, so that a pipe never
// blocks a run.
bool zk_is_other_than_regular(const char* name);
// Finds the first micrograph of files that exists, is readable and is a
// regular file, opens it into stream and copies its name to first_mic.
// Returns 0; stream is null when no name was usable.
int check_access_openf_1st(char** files, int n_files, char* first_mic, FILE*& stream);
// Reads one line of a text file into line (1024 bytes, cleared first).  At
// most 1023 characters are kept; the rest of a longer line, up to and with
// its line feed, is passed over, so that one line of the file is always one
// line for the reader and the tail of a long line never turns into a record
// of its own.  Returns the number of bytes taken from the stream, 0 at the
// end of the file.
long zk_read_text_line(char* line, FILE* stream);

// Text written through a stream into memory (open_memstream): a second
// reader of what a writer of lines produces, without a file in between.
class ZkMemText {
 public:
  // Throws the fatal report when no stream can be made.
  ZkMemText();
  ~ZkMemText();
  ZkMemText(const ZkMemText&) = delete;
  ZkMemText& operator=(const ZkMemText&) = delete;

  FILE* fp() const { return fp_; }
  // Ends the writing; from then on data() and size() hold the text.
  void finish();
  const char* data() const { return buf_; }
  size_t size() const { return len_; }

 private:
  FILE* fp_ = nullptr;
  char* buf_ = nullptr;
  size_t len_ = 0;
};
