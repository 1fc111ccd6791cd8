#include "base/base_writer.h"

#include <cstring>
#include <string>

void BaseWriter::create_other_writers(const char** /*urls*/) {}

int BaseWriter::writeHeader(AVFormatContext* s, const char* metainfo) {
  m_fmt_ctx = s;
  write_metainfo(&s->metadata, metainfo);
  return avformat_write_header(s, &s->metadata);
}

int BaseWriter::writePacket(const AVRational* tb, AVPacket* pkt, bool /*flag*/) {
  if (pkt == nullptr) return 0;
  const AVStream* st = m_fmt_ctx->streams[pkt->stream_index];
  av_packet_rescale_ts(pkt, *tb, st->time_base);
  m_last_time = static_cast<double>(pkt->pts) * av_q2d(st->time_base);
  return av_interleaved_write_frame(m_fmt_ctx, pkt);
}

int BaseWriter::writeTailer() { return av_write_trailer(m_fmt_ctx); }

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
