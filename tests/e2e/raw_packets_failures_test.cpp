// What a session that fails tells the host, and that it never holds the host up.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "support/case_name.h"
#include "support/eventually.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/raw_checks.h"
#include "support/raw_media.h"
#include "support/temp_dir.h"
#include "support/within.h"

namespace meru_test {
namespace {

/// FFmpeg's error codes that are made of letters.
constexpr int tag_error(unsigned a, char b, char c, char d) {
  const auto letter = [](char value) { return static_cast<unsigned>(static_cast<unsigned char>(value)); };
  return -static_cast<int>(a | letter(b) << 8 | letter(c) << 16 | letter(d) << 24);
}
constexpr int kUnknown = tag_error('U', 'N', 'K', 'N');
constexpr int kMuxerNotFound = tag_error(0xf8, 'M', 'U', 'X');
constexpr int kInvalidData = tag_error('I', 'N', 'D', 'A');
constexpr int kEndOfFile = tag_error('E', 'O', 'F', ' ');
constexpr int kHeader = -5;
const char* const kHeaderText = "failed to writing header";

/// What is pushed in a session that should fail; both media when it does not say otherwise.
struct Pushed {
  RawPackets video, audio;
};

struct FailureCase {
  const char* name;
  std::function<void(MovieInfo2*, const TempDir&)> spoil;
  int code;
  std::string text;  ///< "URL" stands for the record's address
  bool after_start;  ///< "start success" comes before
  std::function<void(Pushed*)> spoil_packets = [](Pushed*) {};
};
void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

class RawPacketsFailureTest : public testing::TestWithParam<FailureCase> {
 protected:
  static void SetUpTestSuite() {
    const TempDir dir;
    s_media = {make_video(dir, {60}).packets, make_audio(dir, 2).packets};
  }
  static Pushed s_media;
};
Pushed RawPacketsFailureTest::s_media;

TEST_P(RawPacketsFailureTest, IsReportedOnceAndTheHostGoesOn) {
  const TempDir dir;
  MovieInfo2 info = raw_movie(dir.file("movie.mp4"));
  GetParam().spoil(&info, dir);
  Pushed media = s_media;
  GetParam().spoil_packets(&media);
  std::string text = GetParam().text;
  if (const size_t at = text.find("URL"); at != std::string::npos) text.replace(at, 3, info.url);

  PacketHost host(info);
  ASSERT_NE(host.session(), nullptr);
  host.push_from_two_threads(media.video, media.audio);
  host.stop();
  EXPECT_EQ(host.session(), nullptr);
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), GetParam().after_start ? 2U : 1U);
  EXPECT_EQ(entries.back().code, GetParam().code);
  EXPECT_EQ(entries.back().text, text);
  if (GetParam().after_start) {
    EXPECT_EQ(entries[0].text, "start success");
  }
}

const char* const kLengthFields =
    "the packets of 'h264' have length fields (AVCC), where start codes (Annex B) are needed";
const char* const kOpenText = "could not open output url 'URL': ";

std::vector<FailureCase> output_failures() {
  const auto no_change = [](MovieInfo2*, const TempDir&) {};
  const std::string no_such = std::string(kOpenText) + "No such file or directory";
  return {
      {"NoContainer", [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, dir.file("movie.nothing")); }, kUnknown,
       "could not find suitable output format: URL", false},
      {"EmptyUrl", [](MovieInfo2* m, const TempDir&) { set_text(m->url, ""); }, kUnknown,
       "could not find suitable output format: URL", false},
      {"LongestUrlWithoutExtension", [](MovieInfo2* m, const TempDir&) { set_text(m->url, std::string(511, 'x')); },
       kUnknown, "could not find suitable output format: URL", false},
      {"UnknownFolder", [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, dir.file("no/movie.mp4")); }, -ENOENT,
       no_such, false},
      {"LongestPath", [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, longest_path(dir, ".mp4")); }, -ENOENT,
       no_such, false},
      {"NameTooLong", [](MovieInfo2* m, const TempDir&) { set_text(m->url, std::string(507, 'x') + ".mp4"); },
       -ENAMETOOLONG, std::string(kOpenText) + "File name too long", false},
      {"UrlIsAFolder",
       [](MovieInfo2* m, const TempDir& dir) {
         std::filesystem::create_directory(dir.file("folder.mkv"));
         set_text(m->url, dir.file("folder.mkv"));
       },
       -EISDIR, std::string(kOpenText) + "Is a directory", false},
      {"NobodyListens", [](MovieInfo2* m, const TempDir&) { set_text(m->url, "rtmp://127.0.0.1:1/live/key"); },
       -ECONNREFUSED, std::string(kOpenText) + "Connection refused", false},
      {"MuxerOptionOutOfRange", [](MovieInfo2* m, const TempDir&) { set_text(m->metadata, "moov_size:-1"); }, kHeader,
       kHeaderText, true},
      {"ContainerRefusesTheCodec", [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, dir.file("movie.wav")); },
       kHeader, kHeaderText, true},
      {"NoStreams", [](MovieInfo2* m, const TempDir&) { m->video_format = m->audio_format = nullptr; }, kHeader,
       kHeaderText, true},
      {"NoStreamsByEmptyNames", [](MovieInfo2* m, const TempDir&) { m->video_format = m->audio_format = ""; }, kHeader,
       kHeaderText, true},
      {"UnknownVideoFormat", [](MovieInfo2* m, const TempDir&) { m->video_format = "nonsense"; }, kMuxerNotFound,
       "could not find input format 'nonsense'", true},
      {"UnknownAudioFormat", [](MovieInfo2* m, const TempDir&) { m->audio_format = "nonsense"; }, kMuxerNotFound,
       "could not find input format 'nonsense'", true},
      {"NothingPushed", no_change, kInvalidData, "could not find stream information for 'h264'", true,
       [](Pushed* p) { *p = {}; }},
      {"NoAudio", no_change, kEndOfFile, "Could not open input 'aac': End of file", true,
       [](Pushed* p) { p->audio.clear(); }},
      {"GarbageForVideo", no_change, kInvalidData, "could not find stream information for 'h264'", true,
       [](Pushed* p) {
         for (size_t i = 0; i < p->video.size(); ++i) p->video[i].data = random_bytes(1000, static_cast<unsigned>(i));
       }},
      {"ZeroBytesForVideo", no_change, kInvalidData, "could not find stream information for 'h264'", true,
       [](Pushed* p) {
         for (RawPacket& packet : p->video) packet.data.assign(1000, '\0');
       }},
      {"SixteenMebibytesOfGarbageForVideo", no_change, -EINVAL,
       "no parameters of 'h264' in 8388608 bytes of its packets", true,
       [](Pushed* p) {
         p->video = {{random_bytes(16 << 20, 1), 0}, {random_bytes(16 << 20, 2), 1}};
       }},
      {"LengthsInsteadOfStartCodes", no_change, -EINVAL, kLengthFields, true,
       [](Pushed* p) {
         for (RawPacket& packet : p->video) packet.data = with_lengths(packet.data);
       }},
      {"RecordOfParametersFirst", no_change, -EINVAL, kLengthFields, true,
       [](Pushed* p) { p->video[0].data = std::string("\1\x64\0\x1f\xff\xe1\0\4abcd\1\0\2ef", 17); }},
      {"ZeroBytesForAudio", no_change, kEndOfFile, "Could not open input 'aac': End of file", true,
       [](Pushed* p) {
         for (RawPacket& packet : p->audio) packet.data.assign(1000, '\0');
       }},
      {"OneByteForVideo", no_change, kInvalidData, "could not find stream information for 'h264'", true,
       [](Pushed* p) {
         p->video = {{"x", 0}};
       }},
      {"OneByteForAudio", no_change, kEndOfFile, "Could not open input 'aac': End of file", true,
       [](Pushed* p) {
         p->audio = {{"x", 0}};
       }},
  };
}

INSTANTIATE_TEST_SUITE_P(All, RawPacketsFailureTest, testing::ValuesIn(output_failures()), CaseName());

TEST(RawPacketsHeaderTest, RefusedHeaderIsFollowedByNothing) {
  const TempDir dir;
  const RawVideo video = make_video(dir);
  MovieInfo2 info = raw_movie(dir.file("movie.mp4"), true, false);
  set_text(info.metadata, "moov_size:-1");
  PacketHost host(info);
  for (const RawPacket& packet : video.packets) host.push_video(packet);
  ASSERT_TRUE(host.status().wait_for_code(kHeader));
  host.stop();
  EXPECT_EQ(file_bytes(info.url), "");
}

/// A session that fails while the host is blocked in a push, which a full queue brings about.
struct BlockedCase {
  const char* name;
  std::function<void(MovieInfo2*, const TempDir&)> spoil;
  bool fails_at_once;  ///< before the output is open
};
void PrintTo(const BlockedCase& c, std::ostream* out) { *out << c.name; }

class BlockedHostTest : public testing::TestWithParam<BlockedCase> {};

constexpr int kQueued = 500 + 6;  // packets that are taken without anybody reading: queued, and held back

/// The worker is held in its first report. When that is the failure, nobody is blocked any more; otherwise the host is
/// blocked until the failure comes.
TEST_P(BlockedHostTest, IsReleasedWhenTheSessionFails) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {700});
  const RawAudio audio = make_audio(dir);
  MovieInfo2 info = raw_movie(dir.file("movie.mp4"));
  GetParam().spoil(&info, dir);
  std::atomic<bool> told{false};
  std::atomic<bool> release{false};
  std::atomic<int> pushed{0};
  PacketHost host(info, [&](int) {
    told = true;
    eventually([&] { return release.load(); }, std::chrono::seconds(60));
  });
  ASSERT_TRUE(eventually([&] { return told.load(); }));
  host.push({}, audio.packets);
  const Background pushing([&] {
    for (const RawPacket& packet : video.packets) {
      host.push_video(packet);
      ++pushed;
    }
  });
  if (!GetParam().fails_at_once) {
    EXPECT_TRUE(eventually([&] { return pushed == kQueued; }));
    EXPECT_FALSE(pushing.ends_within(std::chrono::milliseconds(50)));
    EXPECT_EQ(pushed, kQueued);
    release = true;
  }
  const bool released = pushing.ends();
  EXPECT_TRUE(released);
  if (!released) _exit(1);  // a thread that hangs cannot be ended
  release = true;

  // Later pushes find nobody, and return at once.
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(host.push_video(video.packets[0]));
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(host.push_audio(audio.packets[0]));
  host.stop();
  EXPECT_LT(host.status().entries().back().code, 0);
}

INSTANTIATE_TEST_SUITE_P(
    All, BlockedHostTest,
    testing::Values(
        BlockedCase{"OutputCannotBeOpened",
                    [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, dir.file("no/movie.mp4")); }, true},
        BlockedCase{"NoContainer", [](MovieInfo2* m, const TempDir& dir) { set_text(m->url, dir.file("no.thing")); },
                    true},
        BlockedCase{"UnknownVideoFormat", [](MovieInfo2* m, const TempDir&) { m->video_format = "nonsense"; }, false},
        BlockedCase{"UnknownAudioFormat", [](MovieInfo2* m, const TempDir&) { m->audio_format = "nonsense"; }, false},
        BlockedCase{"HeaderRefused", [](MovieInfo2* m, const TempDir&) { set_text(m->metadata, "moov_size:-1"); },
                    false}),
    CaseName());

TEST(RawPacketsFullDiskTest, IsReportedWithTheSystemsErrorAndReleasesTheHost) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {60, 30, "640x480"});
  LogCapture log;
  PacketHost host(raw_movie(dir.file("movie.mkv"), true, false));
  ASSERT_TRUE(host.status().wait_for_code(0));
  const FileSizeLimit limit(64 * 1024);
  const Background pushing([&] {
    for (int i = 0; i < 3000; ++i) {
      RawPacket packet = video.packets[static_cast<size_t>(i) % video.packets.size()];
      packet.pts = i * kUsecPerSec / video.fps;
      host.push_video(packet);
    }
  });
  const bool pushed = pushing.ends();
  EXPECT_TRUE(pushed);
  if (!pushed) _exit(1);
  host.stop();
  const auto entries = host.status().entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[1].code, -EFBIG);
  EXPECT_EQ(entries[1].text, "File too large");
  EXPECT_EQ(log.count(2, "error muxing packet: Operation not permitted"), 1);
}

/// The host need not push seven packets, or stop, to be told.
TEST(WrongPacketsTest, AreReportedWithTheFirst) {
  const TempDir dir;
  const RawVideo video = make_video(dir, {1});
  PacketHost host(raw_movie(dir.file("movie.mp4"), true, false));
  host.push_video({with_lengths(video.packets[0].data), 0});
  ASSERT_TRUE(eventually([&] { return host.status().entries().size() == 2; }));
  EXPECT_EQ(host.status().entries()[1].code, -EINVAL);
  EXPECT_EQ(host.status().entries()[1].text, kLengthFields);
}

/// Packets with lengths of which the first is no whole packet: found out by what never comes.
TEST(WrongPacketsTest, AreReportedWithinEightMebibytes) {
  const TempDir dir;
  constexpr size_t kPacket = 64 << 10;
  constexpr size_t kLimit = 8 << 20;
  PacketHost host(raw_movie(dir.file("movie.mp4"), true, false));
  // One packet more than are read, and what is held back.
  for (size_t i = 0; i < kLimit / kPacket + 1 + 6; ++i) {
    host.push_video({random_bytes(kPacket, static_cast<unsigned>(i)), static_cast<long long>(i)});
  }
  ASSERT_TRUE(eventually([&] { return host.status().entries().size() == 2; }));
  EXPECT_EQ(host.status().entries()[1].code, -EINVAL);
  EXPECT_EQ(host.status().entries()[1].text, "no parameters of 'h264' in 8388608 bytes of its packets");
}

}  // namespace
}  // namespace meru_test
