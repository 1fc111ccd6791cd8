// The command `meru screen`: what is on the screen is in the movie, when it was there.

#include <gtest/gtest.h>

#include <algorithm>

#include "support/screen_scene.h"

namespace meru_test {
namespace {

constexpr int kWidth = 320, kHeight = 240;
const std::string kQuick = "--audio none --preset ultrafast ";
const std::string kFine = "--audio none --crf 4 --seconds 0.5 ";

class MeruScreenTest : public testing::Test {
 protected:
  ToolRun record(const std::string& arguments) { return m_folder.run("screen " + m_display.option() + arguments); }
  std::string movie() const { return m_folder.file("m.mp4"); }

  XDisplay m_display;
  ToolFolder m_folder;
};

TEST_F(MeruScreenTest, MovieShowsWhatAnotherProgramSees) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT, "still", "43605"});
  ASSERT_TRUE(client.says("ready"));
  const ToolRun run = record(kFine + "-o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const std::string seen = m_display.grabbed();
  const std::string recorded = first_picture(movie());
  EXPECT_LT(difference(recorded, seen), 4);
  EXPECT_EQ(Pattern::numbers_in(movie(), kWidth, kHeight).at(0), 43605);
  // Which colour is which does not show in a difference alone.
  for (size_t i = 0; i < 4; ++i) {
    const int x = kWidth / 4 + (i % 2 == 0 ? 0 : kWidth / 2), y = kHeight / 4 + (i / 2 == 0 ? 0 : kHeight / 2);
    EXPECT_TRUE(looks_like(colour_at(recorded, kWidth, x, y), Pattern::kColours[i])) << i;
  }
}

TEST_F(MeruScreenTest, ProgramsOfOthersAreInTheMovie) {
  XProgram clock(m_display, {"xclock", "-digital", "-strftime", "meru", "-geometry", "200x100+0+0"});
  XProgram terminal(m_display, {"xterm", "-geometry", "20x5+0+110", "-e", "echo recorded; exec sleep 600"});
  const std::string nothing(static_cast<size_t>(kWidth * kHeight * 4), '\0');
  std::string seen, before;
  // Both have drawn when much of the screen is light and a moment later it is the same.
  ASSERT_TRUE(eventually([&] {
    before.swap(seen);
    seen = m_display.grabbed();
    return difference(seen, nothing) > 60 && seen == before;
  }));
  const ToolRun run = record(kFine + "-o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_LT(difference(first_picture(movie()), m_display.grabbed()), 4);
}

TEST_F(MeruScreenTest, RegionIsCutOut) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT, "still", "4660"});
  ASSERT_TRUE(client.says("ready"));
  const ToolRun run = record(kFine + "--region 280x101+32+0 -o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("280x100+32+0"), std::string::npos) << run.out;
  const std::string seen = m_display.grabbed("-draw_mouse 0 -grab_x 32 -grab_y 0 -video_size 280x100");
  EXPECT_LT(difference(first_picture(movie()), seen), 4);
}

TEST_F(MeruScreenTest, PointerIsInThePictureUnlessItIsLeftOut) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT, "still", "1", "pointer", "100", "60"});
  ASSERT_TRUE(client.says("ready"));
  ASSERT_EQ(record(kFine + "-o m.mp4").status, 0);
  const std::string with = first_picture(movie());
  EXPECT_LT(difference(with, m_display.grabbed("-draw_mouse 1")), 4);
  EXPECT_TRUE(looks_like(colour_at(with, kWidth, 108, 68), 0xFF0000)) << std::hex << colour_at(with, kWidth, 108, 68);
  ASSERT_EQ(record(kFine + "--no-pointer -o m.mp4").status, 0);
  const std::string without = first_picture(movie());
  EXPECT_TRUE(looks_like(colour_at(without, kWidth, 108, 68), Pattern::kColours[0]));
}

TEST_F(MeruScreenTest, PointerAtTheEdgeIsCutOff) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT, "still", "1", "pointer", "312", "232"});
  ASSERT_TRUE(client.says("ready"));
  ASSERT_EQ(record(kFine + "-o m.mp4").status, 0);
  const std::string picture = first_picture(movie());
  EXPECT_TRUE(looks_like(colour_at(picture, kWidth, 317, 237), 0xFF0000));
  EXPECT_LT(difference(picture, m_display.grabbed("-draw_mouse 1")), 4);
}

// The numbers follow the clock, so the pictures must show them in step with their time in the movie.
TEST_F(MeruScreenTest, MovingPatternKeepsItsPace) {
  XProgram client(m_display, {MERU_PATTERN_CLIENT});
  ASSERT_TRUE(client.says("ready"));
  const ToolRun run = record(kQuick + "--fps 25 --seconds 3 --json -o m.mp4");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(decode_errors(movie()), "");
  const PacedPattern pattern(movie(), kWidth, kHeight);
  EXPECT_TRUE(std::is_sorted(pattern.numbers().begin(), pattern.numbers().end()));
  // Two frames. At another pace the ends would be further off, and so would be every picture with a wrong time.
  pattern.expect_in_step(0.08, 0.8);
}

/// The last picture of a recording in which the screen became 200 pixels wide and 150 high.
class MeruScreenSizeTest : public MeruScreenTest {
 protected:
  std::string last_picture_behind_the_change(const std::string& arguments, int width, int height) {
    XProgram client(m_display, {MERU_PATTERN_CLIENT, "still", "43605"});
    EXPECT_TRUE(client.says("ready"));
    ScreenProcess tool(m_folder, m_display, "--crf 8 --json --progress 50 -o m.mp4 " + arguments);
    EXPECT_TRUE(tool.has_recorded(0.3));
    m_display.resize(200, 150);
    EXPECT_TRUE(tool.tells("screen_changed"));
    m_changed = event_in(tool.out(), "screen_changed");
    EXPECT_TRUE(tool.has_recorded(m_changed["time"].get<double>() + 0.3));
    tool.send(SIGINT);
    EXPECT_EQ(tool.wait(), 0) << tool.err();
    EXPECT_EQ(decode_errors(movie()), "");
    const std::string pictures = decoded(movie(), "-map 0:v -pix_fmt bgra -f rawvideo " + every_picture());
    return pictures.substr(pictures.size() - static_cast<size_t>(width * height * 4));
  }

  nlohmann::json m_changed;
};

TEST_F(MeruScreenSizeTest, WhatLiesBeyondASmallerScreenIsBlack) {
  const std::string last = last_picture_behind_the_change("", kWidth, kHeight);
  EXPECT_EQ(m_changed["width"], 200);
  EXPECT_EQ(m_changed["height"], 150);
  EXPECT_EQ(m_changed["whole"], false);
  EXPECT_TRUE(looks_like(colour_at(last, kWidth, 100, 80), Pattern::kColours[0]));
  EXPECT_TRUE(looks_like(colour_at(last, kWidth, 260, 80), 0));
  EXPECT_TRUE(looks_like(colour_at(last, kWidth, 100, 200), 0));
}

TEST_F(MeruScreenSizeTest, RegionThatStillFitsIsRecordedOn) {
  const std::string last = last_picture_behind_the_change("--region 60x40+100+60", 60, 40);
  EXPECT_EQ(m_changed["whole"], true);
  EXPECT_TRUE(looks_like(colour_at(last, 60, 30, 20), Pattern::kColours[0]));
}

TEST_F(MeruScreenSizeTest, RegionThatLiesBeyondAltogetherIsBlack) {
  const std::string last = last_picture_behind_the_change("--region 64x48+240+20", 64, 48);
  for (const int x : {1, 32, 62}) EXPECT_TRUE(looks_like(colour_at(last, 64, x, 24), 0)) << x;
}

}  // namespace
}  // namespace meru_test
