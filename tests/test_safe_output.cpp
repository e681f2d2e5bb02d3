#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "formats/safe_output.h"
#include "test_util.h"

TEST(SafeOutput, FinalNameAppearsOnlyAfterCommitAndAbandonKeepsTheOldResult) {
  ZkTmpDir dir;
  std::string name = dir / "a_zavik.box";
  ZkOutFile out;
  fputs("12      34\n", zk_out_open(out, name.c_str()));
  EXPECT_FALSE(zk_exists(name));
  zk_out_commit(out);
  EXPECT_EQ(zk_slurp(name), "12      34\n");
  EXPECT_FALSE(zk_exists(out.tmp_name));
  fputs("new\n", zk_out_open(out, name.c_str()));
  zk_out_abandon(out);
  EXPECT_EQ(zk_slurp(name), "12      34\n");
  EXPECT_FALSE(zk_exists(out.tmp_name));
}

// Failed opens and writes are checked where files are written: the MRC
// writer (no directory, a file size limit), the box filter, and the
// full-disk run end to end.

TEST(SafeOutput, AStopSignalLeavesNoTemporaryFile) {
  ZkTmpDir dir;
  const std::string name = dir / "s_zavik.box";
  EXPECT_EXIT(
      {
        ZkOutFile out;
        fputs("half", zk_out_open(out, name.c_str()));
        raise(SIGTERM);
      },
      ::testing::KilledBySignal(SIGTERM), "");
  std::string ls;
  zk_run("ls -A " + dir.path, &ls);
  EXPECT_EQ(ls, "");
}
