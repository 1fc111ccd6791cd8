#include "support/books_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "common/books.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace meru_test {

std::atomic<bool> leave_files_unread{false};

namespace {

namespace fs = std::filesystem;

constexpr uintmax_t kLargestRead = uintmax_t{256} << 20;
const pid_t g_test_process = getpid();

/// A forked child has nobody who reads its failures: it ends by a signal instead.
void complain(const std::string& text) {
  if (getpid() == g_test_process) {
    ADD_FAILURE() << text;
    return;
  }
  std::cerr << text << std::endl;
  abort();
}

std::string shown(const MR::Ledger& ledger) {
  std::ostringstream text;
  text << ledger.taken() << " taken, " << ledger.passed() << " passed";
  for (int i = 0; i < static_cast<int>(MR::Drop::kCount); ++i) {
    const auto reason = static_cast<MR::Drop>(i);
    if (ledger.dropped(reason) != 0) text << ", " << ledger.dropped(reason) << " dropped: " << MR::drop_text(reason);
  }
  return text.str();
}

void check_balance(const std::string& name, const MR::Ledger& ledger) {
  if (!ledger.balances() || ledger.passed() < 0) complain("the books do not balance: " + name + ": " + shown(ledger));
}

struct CloseInput {
  void operator()(AVFormatContext* ctx) const { avformat_close_input(&ctx); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

/// What a file holds, by media type.
struct Contents {
  std::string format;
  std::map<int, int64_t> packets;
  std::map<int, int64_t> pcm_samples;
  std::set<int> with_empty_packets;
};

/// @return whether the file could be opened
bool read_file(const std::string& path, Contents* contents) {
  AVDictionary* options = nullptr;
  av_dict_set(&options, "advanced_editlist", "0", 0);  // which leaves out what is not to be shown
  AVFormatContext* opened = nullptr;
  const int ret = avformat_open_input(&opened, path.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (ret < 0) return false;
  const std::unique_ptr<AVFormatContext, CloseInput> ctx(opened);
  contents->format = ctx->iformat->name;
  // Without a header nothing says how many channels there are.
  const AVOutputFormat* muxer = av_guess_format(nullptr, path.c_str(), nullptr);
  const bool has_header = muxer == nullptr || (muxer->flags & AVFMT_NOTIMESTAMPS) == 0;
  const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
  while (av_read_frame(ctx.get(), packet.get()) >= 0) {
    const AVCodecParameters* par = ctx->streams[packet->stream_index]->codecpar;
    if (packet->size > 0) ++contents->packets[par->codec_type];
    // Theora repeats a frame by an empty packet, and FLAC ends with one. No reader returns them.
    if (par->codec_id == AV_CODEC_ID_THEORA || par->codec_id == AV_CODEC_ID_FLAC)
      contents->with_empty_packets.insert(par->codec_type);
    if (has_header && std::string_view(avcodec_get_name(par->codec_id)).substr(0, 4) == "pcm_") {
      contents->pcm_samples[par->codec_type] +=
          av_get_audio_frame_duration2(ctx->streams[packet->stream_index]->codecpar, packet->size);
    }
    av_packet_unref(packet.get());
  }
  return true;
}

bool keeps_packets(const std::string& format) {
  for (const char* name : {"mov,mp4", "matroska", "flv", "avi", "nut", "asf"}) {
    if (format.rfind(name, 0) == 0) return true;
  }
  return false;
}

/// Whether FFmpeg reads the container that it writes to a file of that name.
bool is_readable(const std::string& path) {
  const AVOutputFormat* format = av_guess_format(nullptr, path.c_str(), nullptr);
  return format == nullptr ||
         (av_find_input_format(format->name) != nullptr && (format->flags & (AVFMT_NOFILE | AVFMT_NOTIMESTAMPS)) == 0);
}

/// What the main output drops is handed to no other one.
bool drops_any(const MR::SessionReport& report, size_t stream) {
  return std::any_of(report.outputs.begin(), report.outputs.end(),
                     [stream](const MR::OutputBooks* output) { return output->streams[stream].dropped() != 0; });
}

void check_file(const MR::SessionReport& report, const MR::OutputBooks& output, const std::string& path) {
  Contents contents;
  int64_t written = 0;
  for (size_t i = 0; i < output.stream_count; ++i) written += output.streams[i].passed();
  if (!read_file(path, &contents)) {
    if (written > 0 && is_readable(path)) {
      complain(path + " cannot be read, with " + std::to_string(written) + " packets written");
    }
    return;
  }
  for (size_t i = 0; i < output.stream_count; ++i) {
    const int kind = output.kinds[i];
    const MR::Ledger& ledger = output.streams[i];
    if (contents.pcm_samples.count(kind) != 0) {
      const MR::Ledger& samples = *report.accounts.back().ledger;
      // W64 fills up to eight bytes, and counts them.
      const int64_t padding = contents.format == "w64" && contents.pcm_samples[kind] == samples.passed() + 1 ? 1 : 0;
      if (report.encodes && !drops_any(report, i) && contents.pcm_samples[kind] != samples.passed() + padding) {
        complain(path + " holds " + std::to_string(contents.pcm_samples[kind]) + " samples; " + shown(samples));
      }
    } else if (keeps_packets(contents.format) && contents.with_empty_packets.count(kind) == 0 &&
               contents.packets[kind] != ledger.passed()) {
      complain(path + " holds " + std::to_string(contents.packets[kind]) + " packets of stream " + std::to_string(i) +
               "; " + shown(ledger));
    }
  }
}

/// @return the path of a file that can be compared; empty for anything else
std::string path_of(const MR::OutputBooks& output) {
  const std::string path = output.url.rfind("file:", 0) == 0 ? output.url.substr(5) : output.url;
  std::error_code error;
  const bool readable = output.complete && !path.empty() && fs::is_regular_file(path, error) &&
                        fs::file_size(path, error) <= kLargestRead;
  return readable ? path : std::string();
}

}  // namespace

void check_books(const MR::SessionReport& report) {
  for (const auto& account : report.accounts) check_balance(account.name, *account.ledger);
  for (const MR::OutputBooks* output : report.outputs) {
    for (size_t i = 0; i < output->streams.size(); ++i) {
      check_balance(output->url + ", stream " + std::to_string(i), output->streams[i]);
    }
    const std::string path = leave_files_unread ? std::string() : path_of(*output);
    if (!path.empty()) check_file(report, *output, path);
  }
}

namespace {

const bool g_observed = [] {
  MR::observe_books(&check_books);
  return true;
}();

}  // namespace

int64_t video_packets(const std::string& path) {
  Contents contents;
  return read_file(path, &contents) ? contents.packets[AVMEDIA_TYPE_VIDEO] : -1;
}

}  // namespace meru_test
