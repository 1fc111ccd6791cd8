#include <gtest/gtest.h>

#include <string>

#include "support/probe.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

using meru_test::quoted;

TEST(CHost, LoadsRecordsAndUnloadsTwice) {
  const meru_test::TempDir dir;
  const std::string movies[] = {dir.file("first.mp4"), dir.file("second.mov")};
  const auto result = meru_test::run_command(std::string(quoted(MERU_C_HOST)) + " " + quoted(MERU_LIBRARY) + " " +
                                             quoted(movies[0]) + " " + quoted(movies[1]));
  ASSERT_EQ(result.status, 0) << result.output;
  const std::string once = "status 0: start OK";
  const size_t first = result.output.find(once);
  ASSERT_NE(first, std::string::npos) << result.output;
  EXPECT_NE(result.output.find(once, first + 1), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("could not find suitable output format: movie.nothing"), std::string::npos)
      << result.output;

  for (const std::string& movie : movies) {
    EXPECT_EQ(meru_test::count_frames(movie), 25) << movie;
    EXPECT_EQ(meru_test::decode_errors(movie), "") << movie;
    const auto video = meru_test::probe_stream(movie, "video");
    EXPECT_EQ(video.at("codec_name"), "h264");
    EXPECT_EQ(video.at("width"), 64);
    EXPECT_EQ(video.at("height"), 48);
    EXPECT_EQ(meru_test::probe_stream(movie, "audio").at("codec_name"), "aac");
  }
}

}  // namespace
