#include "common/books.h"

#include "common/log_site.h"

namespace MR {

namespace {

std::atomic<BooksObserver> g_observer{nullptr};

}  // namespace

const char* drop_text(Drop reason) {
  static constexpr const char* kTexts[] = {"not started",   "paused",        "no such track", "refused", "timestamp",
                                           "filter",        "encoder",       "damaged",       "overlap", "left over",
                                           "failed output", "queue aborted", "out of memory"};
  static_assert(sizeof(kTexts) / sizeof(*kTexts) == static_cast<size_t>(Drop::kCount));
  return kTexts[static_cast<size_t>(reason)];
}

void report_drop(const char* what, Drop reason, bool first, const char* why) {
  if (first) MERU_LOG(2, "%s dropped (%s): %s; others are only counted", what, drop_text(reason), why);
}

bool Ledger::take_back(Drop reason, int64_t count) {
  m_passed.fetch_sub(count, std::memory_order_relaxed);
  return drop(reason, count);
}

void observe_books(BooksObserver observer) { g_observer = observer; }

bool books_are_observed() { return g_observer.load() != nullptr; }

void publish_books(const SessionReport& report) {
  if (const BooksObserver observer = g_observer; observer != nullptr) observer(report);
}

}  // namespace MR
