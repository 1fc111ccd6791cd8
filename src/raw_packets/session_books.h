#pragma once

#include <list>
#include <string>
#include <vector>

#include "base/base_writer.h"
#include "common/books.h"
#include "raw_packets/input_buffer.h"

/// The books of a session of packets. Its writers end before its inputs, so what they counted is kept.
class SessionBooks {
 public:
  /// Takes over the accounts of a chain of writers that have stopped. Nothing happens unless the books are observed.
  void keep_outputs(const BaseWriter& first, const std::string& main_url, const std::vector<const char*>& other_urls);
  /// At the end of the session, when nobody pushes and nobody reads any more.
  void publish(InputBuffer* video, InputBuffer* audio) const;

 private:
  std::list<MR::OutputBooks> m_kept;
  std::vector<MR::OutputReport> m_outputs;
};
