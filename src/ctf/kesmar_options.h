// The option words of a CTF run: how each is read and where it is stored.
#pragma once
#include "ctf/kesmar_para.h"

enum KesmarOptKind { KOPT_FLOAT, KOPT_INT, KOPT_BOOL, KOPT_NAME };

// Fields of the record by their type.
using KesmarFloatField = float KESMAR_Para::*;
using KesmarIntField = int KESMAR_Para::*;
using KesmarNameField = char (KESMAR_Para::*)[ZK_TXT_LEN];

struct KesmarOption {
  const char* word;  // matched behind one or two dashes, any letter case
  KesmarOptKind kind;
  KesmarFloatField f;
  KesmarIntField i;
  KesmarNameField s;
  bool int_from_float;  // read as a number, stored as int
};

// The option of a command-line word, in the scan's order; null for none.
const KesmarOption* kesmar_find_option(const char* word);
// The option of a record field name; null for none.
const KesmarOption* kesmar_option_named(const char* name);
// One echo line: 8 blanks, "--", the label padded to 21 characters, the
// value (%.3f for apix and dstep, %.2f for other numbers, %d, %s).
void kesmar_fput_option_line(FILE* fp, const KESMAR_Para& p, const KesmarOption& o);
