// zktool's entry: the sub-commands live in the library's toolbox front end.
#include "toolbox/zktool.h"

#include <cstdio>
#include <exception>

#include "core/report.h"

int main(int argc, char** argv) {
  try {
    return zktool_main(argc, argv);
  } catch (const ZkError& e) {
    zk_print_error(e);
    return e.status();
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "zktool: %s\n", e.what());
    return 1;
  }
}
