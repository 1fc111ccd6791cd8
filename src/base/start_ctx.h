#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "meru/movie_info.h"
#include "output/start_gate.h"

class MovieMuxer;

/// What the start routine works on. Shared by the muxer and the start thread, so that neither needs the other to stay.
struct StartCtx {
  MR::StartGate gate;
  MovieInfo info{};  // its other_urls point into other_urls
  MovieMuxer* muxer = nullptr;
  MovieStatusCallback cb = nullptr;
  void* user = nullptr;
  std::shared_ptr<void> keep_user;  // keeps `user` valid for a callback that is just about to be made

  std::atomic<bool> has_output{false};  // the start routine has an output context

  /// Copies the record, its addresses included: a start that MERU_stop has left behind may outlive the host's texts.
  void take(const MovieInfo& record);

  /// The start routine, on the start thread or inline.
  static void thread_running(const std::shared_ptr<StartCtx>& ctx);

 private:
  static void leave(StartCtx* ctx);

  std::array<std::string, 4> other_urls;
};
