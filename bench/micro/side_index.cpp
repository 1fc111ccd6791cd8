// The side index: what its writer adds to a packet on its way through the muxer, and reading it. The time of an item is
// that of a packet.
#include <benchmark/benchmark.h>

#include <stdexcept>
#include <string>

#include "MVRepair/restore/moov_parser.h"
#include "MVRepair/restore/packet_record.h"
#include "support/indexed_output.h"
#include "support/temp_dir.h"

namespace {

constexpr int kPackets = 100000;
constexpr int kAudioPerVideo = 2;

/// Writes packets as a movie of 25 pictures a second with sound has them.
void write_packets(meru_test::IndexedOutput* output, int count) {
  for (int i = 0; i < count; ++i) {
    const int64_t number = i / (1 + kAudioPerVideo), place = i % (1 + kAudioPerVideo);
    const bool video = place == 0;
    const int64_t picture = output->context()->streams[0]->time_base.den / 25;
    const int64_t stamp = video ? number * picture : number * 1920 + place * 960;
    output->write(video ? 0 : 1, stamp, stamp, video ? picture : 1024, video && number % 50 == 0, 16);
  }
}

void write_movie(const std::string& index, int packets) {
  meru_test::IndexedOutput output("mp4", "/dev/null");
  // A pair of H.264 parameter sets, which the parser wants to see.
  meru_test::IndexedOutput::set_extradata(output.add_video(),
                                          std::string("\0\0\0\1\x67\x42\xc0\x1e\xd9\0\0\0\1\x68\xce\x3c\x80", 17));
  output.add_audio();
  if (!index.empty() && !output.index_to(index)) throw std::runtime_error("no index");
  if (output.write_header() < 0) throw std::runtime_error("no header");
  write_packets(&output, packets);
  output.write_trailer();
}

void write_index(benchmark::State& state) {
  const meru_test::TempDir folder;
  const std::string index = state.range(0) != 0 ? folder.file("movie.index") : "";
  for (auto _ : state) write_movie(index, kPackets);
  state.SetItemsProcessed(state.iterations() * kPackets);
}
BENCHMARK(write_index)->Name("Muxer/side index")->ArgName("on")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void parse_index(benchmark::State& state) {
  const meru_test::TempDir folder;
  const std::string index = folder.file("movie.index");
  write_movie(index, kPackets);
  int64_t records = 0;
  for (auto _ : state) {
    MoovParser parser;
    if (!parser.start(index.c_str())) state.SkipWithError("the index cannot be read");
    while (const char* line = parser.readBody()) {
      RecordReader reader(line, parser.get_header().version);
      for (PacketRecord record; reader.next(&record); ++records) benchmark::DoNotOptimize(record);
    }
  }
  if (records < state.iterations() * (kPackets - 2)) state.SkipWithError("records are missing");
  state.SetItemsProcessed(records);
}
BENCHMARK(parse_index)->Name("MoovParser/100000 records")->Unit(benchmark::kMillisecond);

}  // namespace
