#include "raw_packets/session_books.h"

#include <new>

#include "common/books.h"
#include "common/log_site.h"

void publish_books(InputBuffer* video, InputBuffer* audio, const BaseWriter* first) {
  video->settle_books();
  audio->settle_books();
  if (!MR::books_are_observed()) return;
  try {
    MR::SessionReport report{false, {}, {}};
    report.accounts = {{"video bytes", &video->m_books.bytes},
                       {"video packets", &video->m_books.packets},
                       {"audio bytes", &audio->m_books.bytes},
                       {"audio packets", &audio->m_books.packets}};
    for (const BaseWriter* w = first; w != nullptr; w = w->m_next_writer) report.outputs.push_back(&w->m_books);
    MR::publish_books(report);
  } catch (const std::bad_alloc&) {
    MERU_LOG(4, "no memory for a report");
  }
}
