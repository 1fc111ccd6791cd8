#include "common/checked_seeks.h"

thread_local CheckedSeeks* CheckedSeeks::s_current = nullptr;

CheckedSeeks::CheckedSeeks(AVIOContext* io) : m_io(io) {
  const bool seeks = io != nullptr && (io->seekable & AVIO_SEEKABLE_NORMAL) != 0;
  if (!seeks || io->seek == nullptr || io->write_packet == nullptr) {
    m_io = nullptr;
    return;
  }
  s_current = this;
  m_seek = io->seek;
  m_write = io->write_packet;
  io->seek = &CheckedSeeks::seek;
  io->write_packet = &CheckedSeeks::write;
}

CheckedSeeks::~CheckedSeeks() {
  if (m_io == nullptr) return;
  m_io->seek = m_seek;
  m_io->write_packet = m_write;
  s_current = nullptr;
}

int64_t CheckedSeeks::seek(void* opaque, int64_t offset, int whence) {
  const int64_t result = s_current->m_seek(opaque, offset, whence);
  const bool asks_for_size = (whence & AVSEEK_SIZE) != 0;
  if (result < 0 && !asks_for_size && s_current->m_error == 0) s_current->m_error = result;
  return result;
}

int CheckedSeeks::write(void* opaque, meru_compat::WrittenByte* bytes, int size) {
  if (s_current->m_error != 0) return static_cast<int>(s_current->m_error);
  return s_current->m_write(opaque, bytes, size);
}
