// Output files that appear under their final name only when complete.  The
// data go to a temporary file beside the final one, which is renamed into
// place once every byte is written; a run that fails or is stopped midway
// therefore never leaves a truncated result under the real name.
#pragma once
#include <cstdio>

#include "core/str_utils.h"

struct ZkOutFile;
void zk_out_abandon(ZkOutFile& out);

// A file not committed when the record goes (a failure thrown on the way) is
// abandoned: its temporary file is removed.
struct ZkOutFile {
  FILE* fp = nullptr;
  char final_name[ZK_TXT_LEN] = {};
  char tmp_name[ZK_TXT_LEN + 32] = {};

  ZkOutFile() = default;
  ZkOutFile(const ZkOutFile&) = delete;
  ZkOutFile& operator=(const ZkOutFile&) = delete;
  ~ZkOutFile() {
    if (fp) zk_out_abandon(*this);
  }
};

// Opens the temporary file with mode "w+".  A failure throws "Cannot write to
// file %s. Permission denied or no space left!" with the final name and the
// fatal report.
FILE* zk_out_open(ZkOutFile& out, const char* name);
// The same without the report: null when the temporary file cannot be made.
FILE* zk_out_try_open(ZkOutFile& out, const char* name);
// Flushes, checks and closes the stream, then renames the file into place.
// A failed write or rename removes the temporary file and throws the same
// report as zk_out_open.
void zk_out_commit(ZkOutFile& out);
// Closes and removes the temporary file; the final name is left untouched.
