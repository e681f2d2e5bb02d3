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

TEST(SafeOutput, FailuresEndTheRunWithTheWriteMessageAndLeaveNoFile) {
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        ZkOutFile out;
        zk_out_open(out, "/nonexistent_dir_zk/x_zavik.box");
      },
      ::testing::ExitedWithCode(1),
      "Cannot write to file /nonexistent_dir_zk/x_zavik.box. Permission denied or no space left!");
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  // Writing through /dev/full fails at the flush, as a full disk does.
  EXPECT_EXIT(
      {
        ZK_STDOUT_TO_STDERR();
        ZkOutFile out;
        strlcpy(out.final_name, "/tmp/zk_never_written.box");
        snprintf(out.tmp_name, sizeof out.tmp_name, "/dev/full");
        out.fp = fopen("/dev/full", "w");
        for (int i = 0; i < 100000; ++i) fputs("0123456789", out.fp);
        zk_out_commit(out);
      },
      ::testing::ExitedWithCode(1), "Cannot write to file /tmp/zk_never_written.box");
  EXPECT_FALSE(zk_exists("/tmp/zk_never_written.box"));
}

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
