// Movies beyond 4 GiB: complete, cut short and killed, and what a repair makes of them; see soak.sh. TMPDIR says where
// they are made; ten gigabytes must be free there.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/eventually.h"
#include "support/index_reader.h"
#include "support/meru_tool.h"
#include "support/noise_host.h"
#include "support/probe.h"
#include "support/temp_dir.h"

namespace meru_test {
namespace {

constexpr uintmax_t kFourGib = uintmax_t{1} << 32;
constexpr uintmax_t kBeyond = kFourGib + (uintmax_t{64} << 20);
constexpr double kFrame = 1.0 / 25;

uintmax_t size_of(const std::string& path) {
  std::error_code none_yet;
  const uintmax_t size = std::filesystem::file_size(path, none_yet);
  return none_yet ? 0 : size;
}

/// Every packet, without decoding: how many, and where the last one is.
struct Walked {
  long packets = 0;
  double last_pts = 0;
  double worst = 0;  ///< how far a stamp is from its place
  unsigned long long last_pos = 0;

  static Walked through(const std::string& path) {
    const std::string list = path + ".packets";
    const CommandResult result =
        run_command("ffprobe -v error -select_streams v:0 -show_entries packet=pts_time,pos -of csv=p=0 " +
                    quoted(path) + " > " + quoted(list));
    EXPECT_EQ(result.output, "");
    Walked walked;
    std::ifstream in(list);
    for (std::string line; std::getline(in, line); ++walked.packets) {
      std::sscanf(line.c_str(), "%lf,%llu", &walked.last_pts, &walked.last_pos);
      walked.worst = std::max(walked.worst, std::abs(walked.last_pts - static_cast<double>(walked.packets) * kFrame));
    }
    return walked;
  }
};

/// The checksum of the packets of the first `images` images, as they lie in the file.
std::string packets_hash(const std::string& path, long images) {
  return run_command("ffmpeg -nostdin -v error -i " + quoted(path) + " -map 0:v -c copy -frames:v " +
                     std::to_string(images) + " -f md5 -")
      .output;
}

/// Decodes the last second.
void expect_end_decodes(const std::string& path) {
  const CommandResult result = run_command("ffmpeg -nostdin -v error -xerror -sseof -1 -i " + quoted(path) +
                                           " -map 0:v -f framemd5 - | grep -vc '^#'");
  EXPECT_GE(std::atoi(result.output.c_str()), 20) << result.output;
}

void expect_whole(const std::string& path, long packets) {
  const Walked walked = Walked::through(path);
  EXPECT_EQ(walked.packets, packets);
  EXPECT_LT(walked.worst, 1e-5);
  EXPECT_GT(walked.last_pos, kFourGib);
  EXPECT_NEAR(number(probe(path, "-show_format").at("format"), "duration"), static_cast<double>(packets) * kFrame,
              kFrame);
  expect_end_decodes(path);
}

class LargeMovieTest : public testing::Test {
 protected:
  MovieInfo record() const {
    MovieInfo info = noise_movie(movie, 0);
    set_text(info.snapshot_path, index);
    info.width = info.width_src = 1280;
    info.height = info.height_src = 720;
    return info;
  }
  void repair() const {
    const CommandResult result = run_command(MERU_TOOL " repair " + quoted(movie) + " " + quoted(index) + " " +
                                             quoted(repaired) + " > " + quoted(dir.file("repair.log")));
    EXPECT_EQ(result.status, 0) << result.output;
  }
  /// How many packets the index tells of that lie in the movie with all their bytes.
  long complete_packets() const {
    std::string text = read_file(index);
    text.resize(text.rfind(';') + 1);  // a record under way when the process ended
    const auto size = static_cast<int64_t>(size_of(movie));
    long complete = 0;
    for (const IndexReader::Packet& packet : IndexReader(text).packets()) {
      if (packet.pos + packet.size <= size) ++complete;
    }
    return complete;
  }
  void tell(const char* what, long packets) const {
    std::printf("large %s movie_bytes %ju packets %ld repaired_bytes %ju\n", what, size_of(movie), packets,
                size_of(repaired));
  }

  const TempDir dir;
  const std::string movie = dir.file("large.mp4");
  const std::string index = dir.file("large.index");
  const std::string repaired = dir.file("repaired.mp4");
};

TEST_F(LargeMovieTest, IsRightAndRepairedWhenItIsCutShort) {
  NoiseHost host(record());
  while (size_of(movie) < kBeyond) host.push(25);
  host.stop();
  EXPECT_EQ(host.taken(), host.pushed());
  expect_whole(movie, host.pushed());
  const std::string hash = packets_hash(movie, 1000);
  tell("Finished", host.pushed());

  // In the middle of a packet, without the movie's own table, which lies at its end.
  std::filesystem::resize_file(movie, kFourGib + (uintmax_t{32} << 20) + 4711);
  const long complete = complete_packets();
  EXPECT_LT(complete, host.pushed());
  repair();
  expect_whole(repaired, complete);
  EXPECT_EQ(packets_hash(repaired, 1000), hash);
  tell("CutShort", complete);
}

TEST_F(LargeMovieTest, IsRepairedWhenItsRecorderIsKilled) {
  const pid_t recorder = fork();
  ASSERT_GE(recorder, 0);
  if (recorder == 0) {
    NoiseHost host(record());
    for (;;) host.push(1);
  }
  EXPECT_TRUE(eventually([&] { return size_of(movie) >= kBeyond; }, std::chrono::minutes(30)));
  kill(recorder, SIGKILL);
  waitpid(recorder, nullptr, 0);
  const long complete = complete_packets();
  repair();
  expect_whole(repaired, complete);
  tell("Killed", complete);
}

}  // namespace
}  // namespace meru_test
