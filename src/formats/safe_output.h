// Output files that appear under their final name only when complete.  The
// data go to a temporary file beside the final one, which is renamed into
// place once every byte is written; a run that fails or is stopped midway
// therefore never leaves a truncated result under the real name.
#pragma once
#include <cstdio>

#include "formats/str_utils.h"

struct ZkOutFile {
  FILE* fp;
  char final_name[ZK_TXT_LEN];
  char tmp_name[ZK_TXT_LEN + 32];
};

// Opens the temporary file with mode "w+".  A failure prints "Cannot write to
// file %s. Permission denied or no space left!" with the final name and the
// fatal report, status 1.
FILE* zk_out_open(ZkOutFile& out, const char* name);
// Flushes, checks and closes the stream, then renames the file into place.
// A failed write or rename removes the temporary file and ends the run with
// the same report as zk_out_open.
void zk_out_commit(ZkOutFile& out);
// Closes and removes the temporary file; the final name is left untouched.
void zk_out_abandon(ZkOutFile& out);
