#include "raw_packets/session_books.h"

#include <cstddef>

namespace {

void copy(const MR::Ledger& from, MR::Ledger* to) {
  to->take(from.taken());
  to->pass(from.passed());
  for (size_t i = 0; i < static_cast<size_t>(MR::Drop::kCount); ++i) {
    const auto reason = static_cast<MR::Drop>(i);
    to->drop(reason, from.dropped(reason));
  }
}

}  // namespace

void SessionBooks::keep_outputs(const BaseWriter& first, const std::string& main_url,
                                const std::vector<const char*>& other_urls) {
  if (!MR::books_are_observed()) return;
  int number = 0;
  for (const BaseWriter* writer = &first; writer != nullptr; writer = writer->m_next_writer, ++number) {
    MR::OutputBooks& kept = m_kept.emplace_back();
    for (size_t i = 0; i < MR::OutputBooks::kStreams; ++i) copy(writer->m_books.streams[i], &kept.streams[i]);
    kept.complete = writer->m_books.complete.load();
    const std::string url = number == 0 ? main_url : other_urls.at(static_cast<size_t>(number) - 1);
    m_outputs.push_back({number, url, kept.complete, &kept});
  }
}

void SessionBooks::publish(InputBuffer* video, InputBuffer* audio) const {
  video->settle_books();
  audio->settle_books();
  if (!MR::books_are_observed()) return;
  const MR::SessionReport report{{{"video bytes", &video->m_books.bytes},
                                  {"video packets", &video->m_books.packets},
                                  {"audio bytes", &audio->m_books.bytes},
                                  {"audio packets", &audio->m_books.packets}},
                                 m_outputs};
  MR::publish_books(report);
}
