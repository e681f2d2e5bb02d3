#include <cstdio>
#include "driver/zavik_para.h"
#include "driver/zavik_help.h"
#include "formats/str_utils.h"
int zavik_main(int argc, char** argv) {
  if (argc < 2) { zavik_help(argv[0]); return 0; }
  if (is_keywd_help(argv[1])) { zavik_help_full(argv[0]); return 0; }
  Zavik_Para para;
  zavik_init_parameters(argc, &para);
  zavik_get_parameters(argc, argv, &para);
  zavik_fput_parameters(argc, argv, &para, stdout);
  zavik_free_parameters(&para);
  return 0;
}
