#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "byte_source.h"

namespace meru_tool {

/// Takes in what the library and the encoders print on standard output and standard error, and finds the reason of a
/// failure in it: some failures of the library are told nowhere else.
class Diagnostics {
 public:
  /// Points both descriptors to the end of `log`, or to a file without a name when `log` is empty and `verbose` is not
  /// set. Throws a Failure when the log cannot be written.
  Diagnostics(const std::string& log, bool verbose);

  /// The last failure that was printed, empty when there is none.
  std::string last_failure() const;
  /// Whether the start was given up without a word to the callback.
  bool start_given_up() const;
  /// Whether the side index could not be opened or attached.
  bool index_failed() const;

  /// What the library has said of an output.
  struct OutputState {
    bool open = false;
    std::string failure;  ///< empty while it has not failed
  };
  /// @param number  0 for the main output, else the place among the further ones
  OutputState output(int number) const;

 private:
  /// What the library's log is taken apart into. It may still log after this object's end.
  struct Heard {
    mutable std::mutex mutex;
    std::map<int, OutputState> outputs;  // guarded by mutex
    void note(const std::string& message);
  };

  void listen(int level);
  std::vector<std::string> lines() const;

  std::shared_ptr<Heard> m_heard = std::make_shared<Heard>();
  Fd m_file;
  off_t m_begin = 0;  // where this run's part of the log begins
};

}  // namespace meru_tool
