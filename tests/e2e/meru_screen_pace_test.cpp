// The command `meru screen` at its full pace. The build runs this test while no other one runs.

#include <gtest/gtest.h>

#include "support/machine_watch.h"
#include "support/screen_scene.h"

namespace meru_test {
namespace {

TEST(MeruScreenPaceTest, ThreeHundredImagesInTenSecondsAndNoneIsDropped) {
  const XDisplay display;
  const ToolFolder folder;
  XProgram client(display, {MERU_PATTERN_CLIENT});
  ASSERT_TRUE(client.says("ready"));
  MachineWatch machine;
  const ToolRun run = folder.run("screen " + display.option() +
                                 "--audio none --preset ultrafast --fps 30 --seconds 10 --json -o m.mp4");
  const bool idle = machine.was_idle();
  EXPECT_EQ(run.status, 0) << run.err;
  const nlohmann::json finished = event_in(run.out, "finished");
  ASSERT_FALSE(finished.is_null()) << run.out;
  const int frames = finished["frames"], dropped = finished["dropped"];
  EXPECT_EQ(frames + dropped, 300);
  EXPECT_EQ(count_frames(folder.file("m.mp4")), frames);
  EXPECT_EQ(finished["time"], 10.0);
  // How many are missing depends on what else the machine does; that each is accounted for, above, does not.
  if (!idle && dropped > 0 && !HasFailure()) {
    GTEST_SKIP() << dropped << " of 300 images were dropped, but the machine had more to do than this";
  }
  EXPECT_EQ(dropped, 0);
}

}  // namespace
}  // namespace meru_test
