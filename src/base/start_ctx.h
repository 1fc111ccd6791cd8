#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "common/io_interrupt.h"
#include "meru/movie_info.h"

class MovieMuxer;

/// What the start routine works on. Shared by the muxer and the start thread, so that neither needs the other to stay.
struct StartCtx {
  StopFlag exited = std::make_shared<std::atomic<bool>>(false);
  MovieInfo info{};  // its other_urls point into other_urls
  MovieMuxer* muxer = nullptr;
  MovieStatusCallback cb = nullptr;
  void* user = nullptr;
  std::shared_ptr<void> keep_user;  // keeps `user` valid for a callback that is just about to be made

  std::mutex mutex;
  bool over = false;                  // guarded by mutex: the start routine no longer touches the muxer
  bool has_output = false;            // guarded by mutex: the start routine has an output context
  std::function<void()> last_leaves;  // guarded by mutex: what the start routine does last when it was left behind

  /// Copies the record, its addresses included: a start that MERU_stop has left behind may outlive the host's texts.
  void take(const MovieInfo& record);

  /// The start routine, on the start thread or inline.
  static void thread_running(const std::shared_ptr<StartCtx>& ctx);

 private:
  static void leave(StartCtx* ctx);

  std::array<std::string, 4> other_urls;
};
