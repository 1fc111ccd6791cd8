#include "capture/movie_convert.h"

#include "common/printf_i64.h"

MovieConvert::MovieConvert(BaseWriter* writer) : MovieMuxer(writer) {
  m_writer->m_status_cb = &s_writer_call_back;
  m_writer->m_status_user = this;
}

int MovieConvert::start(const MovieInfo& info, MovieStatusCallback cb, void* user, bool async) {
  m_start_ok = false;
  m_cb = cb;
  m_user = user;
  return MovieMuxer::start(info, &statu_callback, this, async);
}

bool MovieConvert::stop() {
  m_start_ok = false;
  return MovieMuxer::stop() != 0;
}

MovieInfo MovieConvert::mInfo(bool* started) const {
  if (started != nullptr) *started = m_start_ok;
  return info_copy();
}

void MovieConvert::forward(int id, const char* text) {
  if (m_cb != nullptr) m_cb(id, text, m_user);
  if (id == MERU_STATUS_OK) m_start_ok = true;
}

void MovieConvert::s_writer_call_back(int type, const char* describ, void* ctx) {
  static_cast<MovieConvert*>(ctx)->writer_call_back(type, describ);
}

void MovieConvert::writer_call_back(int type, const char* describ) {
  nuv::print_stderr("=== Writer error: type=%d, describ=%s\n", type, describ);
  forward(type, describ);
}

void MovieConvert::statu_callback(int id, const char* text, void* ctx) {
  static_cast<MovieConvert*>(ctx)->forward(id, text);
}
