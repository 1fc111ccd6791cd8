#pragma once

#include <atomic>
#include <chrono>

namespace meru_tool {

/// Whether the display answers. Nothing ends a question to a display that hangs, so the capturing thread says when it
/// asks, and another one looks at it.
class DisplayWatch {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Change { kNone, kHangs, kAnswers };
  /// How long a display may be busy before it is said to hang, and how long one is waited for when all is to end.
  static constexpr std::chrono::seconds kBusy{3};
  static constexpr std::chrono::seconds kPatience{2};

  /// The capturing thread's, for as long as a question is open.
  class Question {
   public:
    Question(DisplayWatch* watch, Clock::time_point now) : m_asked(&watch->m_asked) {
      *m_asked = now.time_since_epoch().count();
    }
    ~Question() { *m_asked = kNoQuestion; }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;

   private:
    std::atomic<Clock::rep>* m_asked;
  };

  /// What has changed since the last look. For the one thread that looks.
  Change look(Clock::time_point now) {
    const Clock::rep asked = m_asked;
    const bool hangs = asked != kNoQuestion && now - Clock::time_point(Clock::duration(asked)) >= kBusy;
    if (hangs == m_hangs) return Change::kNone;
    m_hangs = hangs;
    return hangs ? Change::kHangs : Change::kAnswers;
  }
  /// Whether the display keeps from ending what was to end at that time.
  bool holds_up(Clock::time_point end, Clock::time_point now) const {
    return m_asked != kNoQuestion && end <= now && now - end >= kPatience;
  }

 private:
  static constexpr Clock::rep kNoQuestion = -1;

  std::atomic<Clock::rep> m_asked{kNoQuestion};
  bool m_hangs = false;
};

}  // namespace meru_tool
