#pragma once

/// @return a number that differs in a forked child from that of its parent. Cheap
unsigned fork_generation();

/// A session remembers the process that started it: a forked child has its memory, but none of its threads.
class OfThisProcess {
 public:
  bool is_foreign() const { return m_generation != fork_generation(); }

 private:
  unsigned m_generation = fork_generation();
};
