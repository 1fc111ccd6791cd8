#include "base/base_writer.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr int64_t kOpeningSec = 10;

}  // namespace

void BaseWriter::limit_opening() { m_io->limit_opening(std::max<int64_t>(m_timeout_sec, kOpeningSec) * 1000000); }

void BaseWriter::create_other_writers(const char** /*urls*/) {}

int BaseWriter::writeHeader(AVFormatContext* s, const char* metainfo) {
  m_fmt_ctx = s;
  write_metainfo(&s->metadata, metainfo);
  const int ret = avformat_write_header(s, &s->metadata);
  if (ret >= 0) note_streams();
  return ret;
}

void BaseWriter::note_streams() {
  m_books.url = m_fmt_ctx->url != nullptr ? m_fmt_ctx->url : "";
  m_books.stream_count = std::min<size_t>(m_fmt_ctx->nb_streams, m_books.kinds.size());
  for (size_t i = 0; i < m_books.stream_count; ++i) m_books.kinds[i] = m_fmt_ctx->streams[i]->codecpar->codec_type;
}

int BaseWriter::writePacket(const AVRational* tb, AVPacket* pkt, bool /*flag*/) {
  if (pkt == nullptr) return 0;
  const AVStream* st = m_fmt_ctx->streams[pkt->stream_index];
  av_packet_rescale_ts(pkt, *tb, st->time_base);
  m_last_time = static_cast<double>(pkt->pts) * av_q2d(st->time_base);
  MR::Ledger& ledger = m_books.of(pkt->stream_index);
  ledger.take();
  const int ret = av_interleaved_write_frame(m_fmt_ctx, pkt);
  if (ret >= 0) ledger.pass();
  if (ret < 0) ledger.drop(MR::Drop::kFailedOutput);
  return ret;
}

int BaseWriter::writeTailer() {
  const int ret = av_write_trailer(m_fmt_ctx);
  m_books.complete = ret >= 0;
  return ret;
}

void BaseWriter::write_metainfo(AVDictionary** dict, const char* metainfo) {
  if (metainfo == nullptr) return;
  fprintf(stderr, "== MetaInfo: %s\n\n", metainfo);
  std::string copy(metainfo);
  splite_metaInfo(dict, copy.data());
}

bool splite_metaInfo(AVDictionary** dict, char* metainfo) {
  char* rest = nullptr;
  for (char* item = strtok_r(metainfo, ";", &rest); item != nullptr; item = strtok_r(nullptr, ";", &rest)) {
    char* colon = strchr(item, ':');
    if (colon == nullptr) continue;
    *colon = '\0';
    printf("%s ---> %s\n", item, colon + 1);
    av_dict_set(dict, item, colon + 1, 0);
  }
  return true;
}
