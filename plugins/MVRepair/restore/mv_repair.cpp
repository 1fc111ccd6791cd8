#include "MVRepair/restore/mv_repair.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "MVRepair/restore/repair_output.h"
#include "common/c_numbers.h"
#include "common/checked_seeks.h"
#include "common/ffmpeg_compat.h"
#include "common/log_site.h"
#include "common/no_sigpipe.h"
#include "common/trim.h"

namespace {

constexpr unsigned kMaxStreamIndex = 4;
constexpr int kLinesPerReport = 10;
constexpr double kAsGoodAsComplete = 0.9;
constexpr int kLargestPacket = 256 << 20;  // a record that says more is damaged: no encoder makes such a packet

constexpr int kNoMovie = -1;
constexpr int kNoIndex = -2;
constexpr int kStopped = -5;
constexpr int kWriteFailed = -10;

/// Sums of damaged records may be anything: they wrap.
int64_t add(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b)); }

int64_t subtract(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

std::string trimmed(const char* path) { return path != nullptr ? nuv::str::trim_path(path) : std::string(); }

/// Bytes of an encoder end with a bit that is set. PCM silence does not, and ends no movie.
bool may_end_with_zeros(const MVHeader& header) {
  return !header.video_extradata && header.audio_codec.rfind("pcm_", 0) == 0;
}

bool is_audio(const PacketRecord& record, const MVHeader& header) {
  return header.audio_extradata && record.stream_index == header.audio_index;
}

/// A time stamp in seconds, as FFmpeg's tools print it.
std::string time_text(int64_t value, AVRational tb) {
  if (value == AV_NOPTS_VALUE) return "NOPTS";
  const nuv::CNumbers c_numbers;
  char text[32];
  snprintf(text, sizeof(text), "%.6g", av_q2d(tb) * static_cast<double>(value));
  return text;
}

void print_packet(const AVPacket& packet, AVRational tb) {
  printf("pts:%lld pts_time:%s dts:%lld dts_time:%s duration:%lld duration_time:%s stream_index:%d\n",
         static_cast<long long>(packet.pts), time_text(packet.pts, tb).c_str(), static_cast<long long>(packet.dts),
         time_text(packet.dts, tb).c_str(), static_cast<long long>(packet.duration),
         time_text(packet.duration, tb).c_str(), packet.stream_index);
  fflush(stdout);
}

/// Clears a flag at the end of a scope.
class ClearAtEnd {
 public:
  explicit ClearAtEnd(std::atomic<bool>* flag) : m_flag(flag) {}
  ~ClearAtEnd() { *m_flag = false; }
  ClearAtEnd(const ClearAtEnd&) = delete;
  ClearAtEnd& operator=(const ClearAtEnd&) = delete;

 private:
  std::atomic<bool>* m_flag;
};

}  // namespace

MVRepair::MVRepair() : packet(av_packet_alloc()) { meru_compat::register_all(); }

MVRepair::~MVRepair() {
  stop();
  // Left over when the stop came from the thread itself, or from another thread before this one was made.
  std::thread worker = take_thread();
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();
  } else {
    worker.join();
  }
}

std::thread MVRepair::take_thread() {
  const std::lock_guard<std::mutex> lock(thread_mutex);
  return std::move(thread);
}

void MVRepair::print_progress(double progress) {
  const nuv::CNumbers c_numbers;
  printf("progress:%.6lf\n", progress);
  fflush(stdout);
}

void MVRepair::on_progress(double progress, int code, const char* msg) {
  print_progress(progress);
  if (callback && !silent) callback(progress, code, msg != nullptr ? msg : "");
}

void MVRepair::start_async(const char* broken, const char* moov, const char* output, Callback on_report) {
  if (aborted) {
    // Not through the member: a thread that stopped itself may still be using it.
    print_progress(0.0);
    if (on_report) on_report(0.0, kStopped, "repair: already stopped.  can't recall this function...");
    return;
  }
  std::thread finished = take_thread();
  if (finished.joinable()) finished.join();
  callback = std::move(on_report);
  const auto copy = [](const char* path) { return std::string(path != nullptr ? path : ""); };
  running = true;
  const std::lock_guard<std::mutex> lock(thread_mutex);  // the callback may ask for the thread before it is stored
  try {
    // The thread shares the object: its callback may end the repair, and with it the last other holder.
    thread = std::thread([this, self = weak_from_this().lock(), movie = copy(broken), index = copy(moov),
                          target = copy(output)] { work_running(movie.c_str(), index.c_str(), target.c_str()); });
  } catch (const std::system_error& e) {
    running = false;
    throw std::system_error(e.code(), "thread constructor failed");
  } catch (...) {  // no memory
    running = false;
    throw;
  }
}

bool MVRepair::start_sync(const char* broken, const char* moov, const char* output, Callback on_report) {
  callback = std::move(on_report);
  return work_running(broken, moov, output);
}

void MVRepair::stop() {
  if (aborted.exchange(true)) return;
  if (is_own_thread()) {
    silent = true;
    return;
  }
  std::thread worker = take_thread();
  if (!worker.joinable()) return;
  MERU_LOG(5, "repair: stop() ...");
  worker.join();
  MERU_LOG(5, "repair: stop() success.");
}

bool MVRepair::is_own_thread() {
  const std::lock_guard<std::mutex> lock(thread_mutex);
  return thread.get_id() == std::this_thread::get_id();
}

bool MVRepair::work_running(const char* broken, const char* moov, const char* output) {
  running = true;
  const ClearAtEnd clear(&running);
  const NoSigpipe no_sigpipe;
  try {
    return repair(broken, moov, output);
  } catch (const std::exception& e) {  // no memory
    MERU_LOG(2, "the repair failed: %s", e.what());
    on_progress(0.0, kWriteFailed, e.what());
    return false;
  }
}

bool MVRepair::repair(const char* broken, const char* moov, const char* output) {
  const std::string broken_path = trimmed(broken);
  BrokenMovie movie;
  if (!movie.open(broken_path)) {
    MERU_LOG(2, "无法打开mdata文件: %s", broken != nullptr ? broken : "");
    on_progress(0.0, kNoMovie, "cannot open broken_file...");
    return false;
  }
  MoovParser parser;
  if (!parser.start(moov)) {
    on_progress(0.0, kNoIndex, "parse moov file failed ...");
    return false;
  }
  if (!may_end_with_zeros(parser.get_header())) movie.ignore_zero_tail();
  const int ret = rebuild(output, broken_path, trimmed(moov), &movie, parser);
  if (ret >= 0 || ret == AVERROR_EOF) return true;
  MERU_LOG(2, "Error occurred(%d): %s", ret, AvError(ret).text);
  on_progress(parser.progress(), kWriteFailed, AvError(ret).text);
  return false;
}

/// @return 0 or FFmpeg's negative error
int MVRepair::rebuild(const char* output, const std::string& broken_path, const std::string& moov, BrokenMovie* broken,
                      MoovParser& parser) {
  if (packet == nullptr) return AVERROR(ENOMEM);
  OutputPtr out;
  int ret = open_repair_output(output, broken_path, moov, parser.get_header(), &out);
  if (ret < 0) return ret;
  totals = Totals();
  audio_pts = audio_dts = video_pts = video_dts = video_step = 0;
  video_begun = false;
  failure = 0;
  RoomAhead room(out.get());
  restore_packages(out.get(), broken, parser, &room);
  CheckedSeeks checked(out->pb);
  ret = av_write_trailer(out.get());
  if (ret >= 0) ret = failure != 0 ? failure : broken->error();
  MERU_LOG(4, "restored: packets=%lld, bytes=%lld, duration=%.6f", static_cast<long long>(totals.packets),
           static_cast<long long>(totals.bytes), totals.duration_sec);
  return ret;
}

bool MVRepair::restore_packages(AVFormatContext* out, BrokenMovie* broken, MoovParser& parser, RoomAhead* room) {
  int lines = 0;
  int ignored = 0;
  int first_ignored = 0;
  for (const char* line = parser.readBody(); line != nullptr; line = parser.readBody(), ++lines) {
    if (aborted) {
      MERU_LOG(2, "repair aborted .");
      break;
    }
    if (broken->ended()) {
      if (ignored++ == 0) {
        MERU_LOG(2, ">> 损坏视频已经读取到末尾了,第一个忽略行 ========> %s", line);
        first_ignored = lines;
      }
      continue;
    }
    remux_packets(line, broken, out, parser);
    room->follow();
    if (broken->lost_position()) break;
    if ((lines + 1) % kLinesPerReport == 0) on_progress(parser.progress(), 0, "");
  }
  if (parser.unreadable()) failure = AVERROR(EIO);
  if (parser.progress() >= kAsGoodAsComplete) parser.set_progress(1.0);
  on_progress(parser.progress(), 0, "");
  MERU_LOG(2, ">> 执行完成 %.6lf, （忽略索引: [%d ~ %d) 共%d行）", parser.progress(), first_ignored,
           first_ignored + ignored, ignored);
  return true;
}

/// Restores the packets of one line. At a record that cannot be restored the rest of the line is passed over, keeping
/// count of its bytes and times, since the following lines continue from them.
void MVRepair::remux_packets(const char* line, BrokenMovie* broken, AVFormatContext* out, const MoovParser& parser) {
  const MVHeader& header = parser.get_header();
  if (header.version != 1 && header.version != 2) {
    printf("[ERROR] version=%d, parse failed\n", header.version);
    return;
  }
  RecordReader records(line, header.version);
  PacketRecord record;
  while (records.next(&record)) {
    const auto index = static_cast<unsigned>(record.stream_index);
    if (index > kMaxStreamIndex || index >= out->nb_streams) {
      MERU_LOG(2, "===> stream.idx=%d 不合法，moov已处理 %d 行(%.6lf)：%s", record.stream_index, parser.line_number(),
               parser.progress(), line);
      pass_over(record, broken, header);
      break;
    }
    if (!restore_packet(record, broken, out, header)) break;
    if (!write(record, out, parser, records.rest())) break;
  }
  if (records.damaged() != nullptr) {
    MERU_LOG(2, "no record can be read in line %d: %s", parser.line_number(), records.damaged());
  }
  if (broken->ended() || broken->lost_position()) return;
  while (records.next(&record)) pass_over(record, broken, header);
}

/// Makes the packet of a record: its bytes, and its times in the output's time base.
bool MVRepair::restore_packet(const PacketRecord& record, BrokenMovie* broken, AVFormatContext* out,
                              const MVHeader& header) {
  const AVStream* st = out->streams[record.stream_index];
  const bool audio = is_audio(record, header);
  follow(record, header);
  if (!read_bytes(record, broken)) return false;
  constexpr auto kRounding = static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
  const bool sound = st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
  const AVRational tb = sound ? AVRational{header.audio_tb_num, header.audio_tb_den}
                              : AVRational{header.video_tb_num, header.video_tb_den};
  const int64_t duration = duration_of(record, st, header);
  meru_compat::init_packet(packet.get());
  packet->data = buffer.get();
  packet->size = record.size;
  packet->stream_index = record.stream_index;
  packet->flags = record.key_flag != 0 ? AV_PKT_FLAG_KEY : 0;
  packet->pos = -1;
  packet->pts = av_rescale_q_rnd(audio ? audio_pts : video_pts, tb, st->time_base, kRounding);
  packet->dts = av_rescale_q_rnd(audio ? audio_dts : video_dts, tb, st->time_base, kRounding);
  packet->duration = av_rescale_q(duration, tb, st->time_base);
  return true;
}

bool MVRepair::write(const PacketRecord& record, AVFormatContext* out, const MoovParser& parser, const char* rest) {
  const AVRational tb = out->streams[record.stream_index]->time_base;
  const int64_t end = add(packet->pts, packet->duration);
  const int ret = av_write_frame(out, packet.get());
  if (ret >= 0) {
    if (record.size == 0) return true;  // which no container keeps
    ++totals.packets;
    totals.bytes += record.size;
    totals.duration_sec = std::max(totals.duration_sec, av_q2d(tb) * static_cast<double>(end));
    return true;
  }
  if (ret == AVERROR(ENOMEM)) failure = ret;
  print_packet(*packet, tb);
  MERU_LOG(2, "@@ moov已处理 %d 行(%.6lf); write frame err: %s, next=%s", parser.line_number(), parser.progress(),
           AvError(ret).text, rest);
  if (parser.progress() < kAsGoodAsComplete) printf("error:ret=%d,msg=%s\n", ret, AvError(ret).text);
  return false;
}

/// The duration of the record that follow() was called for last. An index also omits a video packet's when it is the
/// same number as the frame size of the audio packet after it, and the last frame would not be shown without one.
int64_t MVRepair::duration_of(const PacketRecord& record, const AVStream* st, const MVHeader& header) {
  if (record.duration != 0) return record.duration;
  if (is_audio(record, header)) return st->codecpar->frame_size;
  if (video_step != 0) return std::max<int64_t>(video_step, 0);
  return header.audio_extradata ? header.frame_size : 0;
}

/// Brings the last time stamps of the record's kind to this record.
void MVRepair::follow(const PacketRecord& record, const MVHeader& header) {
  const bool audio = is_audio(record, header);
  int64_t& pts = audio ? audio_pts : video_pts;
  int64_t& dts = audio ? audio_dts : video_dts;
  const int64_t previous = dts;
  pts = add(pts, record.pts_delta);
  dts = record.dts_delta != 0 ? add(dts, record.dts_delta) : pts;
  if (audio) return;
  video_step = video_begun ? subtract(dts, previous) : 0;
  video_begun = true;
}

void MVRepair::pass_over(const PacketRecord& record, BrokenMovie* broken, const MVHeader& header) {
  follow(record, header);
  if (record.position != 0) broken->go_to(record.position);
  if (record.size > 0) broken->skip(record.size);
}

/// Goes to where the record's bytes begin, if any file can have them.
bool MVRepair::seek_to(const PacketRecord& record, BrokenMovie* broken) {
  if (record.position != 0) {
    MERU_LOG(5, "packet数据 seek fpos=%lld", static_cast<long long>(record.position));
    if (!broken->go_to(record.position)) {
      MERU_LOG(2, "no packet can be at %lld of the movie", static_cast<long long>(record.position));
      return false;
    }
  }
  if (record.size >= 0) return true;
  MERU_LOG(2, "no packet can have %d bytes", record.size);
  return false;
}

/// Reads the record's bytes into the buffer, which never grows beyond what the movie holds.
bool MVRepair::read_bytes(const PacketRecord& record, BrokenMovie* broken) {
  const bool found = seek_to(record, broken);
  if (broken->lost_position()) return false;
  if (!found || !grow_buffer(broken->readable(record.size))) {
    if (record.size > 0) broken->skip(record.size);  // where the next record's bytes begin
    return false;
  }
  const int got = broken->read(buffer.get(), record.size);
  if (got < record.size) {
    MERU_LOG(2, "读取packet数据 %d < %d(需求)，该行索引处理结束 (eof=%d, fpos=%lld) err_code=%d", got, record.size,
             broken->ended() ? 1 : 0, static_cast<long long>(broken->position()), broken->read_failed() ? 1 : 0);
    return false;
  }
  memset(buffer.get() + got, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  return true;
}

bool MVRepair::grow_buffer(int size) {
  if (buffer != nullptr && size <= buffer_size) return true;
  void* grown = av_realloc(buffer.get(), static_cast<size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE);
  if (grown == nullptr) {
    MERU_LOG(2, "no memory for a packet of %d bytes", size);
    if (size <= kLargestPacket) failure = AVERROR(ENOMEM);
    return false;
  }
  (void)buffer.release();  // realloc has taken it
  buffer.reset(static_cast<uint8_t*>(grown));
  buffer_size = size;
  return true;
}
