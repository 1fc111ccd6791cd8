#include "raw_packets/session_books.h"

#include "common/books.h"

void publish_books(InputBuffer* video, InputBuffer* audio, const BaseWriter* first) {
  video->settle_books();
  audio->settle_books();
  if (!MR::books_are_observed()) return;
  MR::SessionReport report{false,
                           {{"video bytes", &video->m_books.bytes},
                            {"video packets", &video->m_books.packets},
                            {"audio bytes", &audio->m_books.bytes},
                            {"audio packets", &audio->m_books.packets}},
                           {}};
  for (const BaseWriter* w = first; w != nullptr; w = w->m_next_writer) report.outputs.push_back(&w->m_books);
  MR::publish_books(report);
}
