#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/io_interrupt.h"
#include "output/local_file.h"

namespace MR {

/// Between the start of a session and its stop, which may come at any moment of it: once the session is stopped, the
/// start touches no file any more, and what it has created is closed and removed before the stop returns.
///
/// Each step of the start that opens or writes local files passes the gate. A stop closes it, waiting for the step
/// under way. Steps that wait for a network do not pass it, so that a stop never waits for them.
class StartGate {
 public:
  /// Set by the stop. Interrupts the network I/O of the start as well.
  const StopFlag& exited() const { return m_exited; }

  /// Runs `step` unless the session was stopped. @return whether it was run
  bool pass(const std::function<void()>& step);
  /// The last step: afterwards the stop closes the outputs in the usual way. @return whether it was run
  bool pass_last(const std::function<void()>& step);

  /// Opens a file within a step. Should the start be abandoned, `close` is called, and the file removed if it was new.
  /// @param open  @return whether the file is open
  void open_file(const std::string& path, const std::function<bool()>& open, std::function<void()> close);

  /// A step that opens one file; an empty `path`, for what is none, opens without passing the gate.
  /// @return false, without opening, when the session was stopped
  bool open(const std::string& path, const std::function<bool()>& open, std::function<void()> close);
  /// Within a step: should the start be abandoned, `close` is called, before those that were given earlier.
  void note_open(std::function<void()> close);

  /// The stop. @return whether the start is over; if not, everything local that it opened has been closed (from inside
  /// a step it will be once that has returned), and `destroy` will be the start's last act
  bool close();
  /// Leaves something to the start that close() has found running. @return false when it has ended meanwhile
  bool leave(std::function<void()> last_act);

  /// The start has ended without its last step. @return whether it was stopped; local files are closed then
  bool end();
  /// What the start does last when it was stopped: marks its end. @return what was left to it, or null
  std::function<void()> take_last_act();

  bool over() const { return m_over; }

 private:
  struct OpenFile {
    CreatedFile file;
    std::function<void()> close;
  };

  std::unique_lock<std::mutex> lock_unless_inside();
  bool inside_step() const { return m_inside == std::this_thread::get_id(); }
  void abandon();

  StopFlag m_exited = std::make_shared<std::atomic<bool>>(false);
  std::mutex m_mutex;                       // held by a step while it runs
  std::atomic<std::thread::id> m_inside{};  // the thread that runs a step
  std::atomic<bool> m_over{false};          // written under m_mutex: the start no longer touches the session
  bool m_stopped_inside = false;            // of the thread that runs a step: it was stopped from inside it
  std::vector<OpenFile> m_files;            // guarded by m_mutex
  std::function<void()> m_last_act;         // guarded by m_mutex
};

}  // namespace MR
