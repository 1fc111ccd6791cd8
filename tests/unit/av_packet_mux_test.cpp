#include "raw_packets/av_packet_mux.h"

#include <gtest/gtest.h>

#include <string>

#include "support/case_name.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"

namespace {

struct FormatCase {
  const char* name;
  const char* url;
  const char* format;  ///< null: none
};

class OutputFormatTest : public testing::TestWithParam<FormatCase> {};

TEST_P(OutputFormatTest, FollowsFromTheAddress) {
  const AVOutputFormat* format = output_format(meru_test::raw_movie(GetParam().url));
  if (GetParam().format == nullptr) {
    EXPECT_EQ(format, nullptr);
  } else {
    ASSERT_NE(format, nullptr);
    EXPECT_STREQ(format->name, GetParam().format);
  }
}

INSTANTIATE_TEST_SUITE_P(All, OutputFormatTest,
                         testing::Values(FormatCase{"Rtmp", "rtmp://host/live/key", "flv"},
                                         FormatCase{"RtmpWithAnExtension", "rtmp://host/live/key.mp4", "flv"},
                                         FormatCase{"RtmpAnywhere", "tee:rtmp://host/live/key", "flv"},
                                         FormatCase{"Rtsp", "rtsp://host/live", "rtsp"},
                                         FormatCase{"RtspWithAnExtension", "rtsp://host/live.mp4", "rtsp"},
                                         FormatCase{"Mp4", "/folder/movie.mp4", "mp4"},
                                         FormatCase{"Matroska", "movie.mkv", "matroska"},
                                         FormatCase{"Flv", "movie.flv", "flv"},
                                         FormatCase{"UpperCaseScheme", "RTMP://host/live/key", nullptr},
                                         FormatCase{"UnknownExtension", "movie.nothing", nullptr},
                                         FormatCase{"NoExtension", "movie", nullptr}, FormatCase{"Empty", "", nullptr}),
                         meru_test::CaseName());

/// The session, by the class that is behind the handle.
TEST(AVPacketMuxTest, RecordsAndIsDestroyedByItsEnd) {
  const meru_test::TempDir dir;
  const auto video = meru_test::make_video(dir, {3});
  meru_test::StatusLog status;
  auto* session = new AVPacketMux;
  session->start(meru_test::raw_movie(dir.file("movie.mp4"), true, false), &meru_test::StatusLog::callback, &status);
  for (meru_test::RawPacket packet : video.packets) {
    push_data(session->video(), packet.data.data(), static_cast<int>(packet.data.size()), packet.pts);
  }
  AVPacketMux::end(session);
  ASSERT_EQ(status.entries().size(), 1U);
  EXPECT_EQ(status.entries()[0].text, "start success");
}

}  // namespace
