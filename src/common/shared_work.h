#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Does jobs that come in pieces on the caller's thread and on some of its own, which sleep from one job to the next.
/// Whoever is free takes the next piece: threads that the system keeps waiting hold nobody up for longer than a piece.
class SharedWork {
 public:
  /// @param threads  how many take part, the caller's included. Fewer do when the system gives no more.
  explicit SharedWork(int threads);
  ~SharedWork();
  SharedWork(const SharedWork&) = delete;
  SharedWork& operator=(const SharedWork&) = delete;

  /// How many threads one image is worth: those of the machine, at most four, since encoders need some as well.
  static int usual_threads();

  /// How many take part, the caller's included.
  int threads() const { return static_cast<int>(m_helpers.size()) + 1; }

  /// Does a piece, on the thread of that number, from 0 to threads() - 1. Must not throw.
  using Work = std::function<void(int piece, int thread)>;
  /// Has `work` called once for each piece from 0 to `pieces` - 1, and returns when all are done. One caller at a time.
  void run(int pieces, const Work& work);

 private:
  void help(int thread);
  void take_pieces(int thread, std::unique_lock<std::mutex>* lock);

  std::mutex m_mutex;
  std::condition_variable m_begun, m_done;
  const Work* m_work = nullptr;  // guarded by m_mutex, like all that follow but the threads
  int m_pieces = 0;
  int m_next = 0;     // the piece that nobody has taken yet
  int m_running = 0;  // pieces being done
  bool m_over = false;
  std::vector<std::thread> m_helpers;  // last: they use the others
};
