#include "base/start_ctx.h"

#include <cstdio>
#include <iterator>
#include <utility>

#include "base/MR_AVWriter.h"
#include "base/movie_muxer.h"
#include "common/log_site.h"
#include "common/no_sigpipe.h"

namespace {

// Longer than any text of ours. Fixed, because the report of a failed start must not want memory.
constexpr size_t kTextSize = 128;

}  // namespace

void StartCtx::take(const MovieInfo& record) {
  info = record;
  for (size_t i = 0; i < other_urls.size() && info.other_urls[i] != nullptr; ++i) {
    other_urls[i] = info.other_urls[i];
    info.other_urls[i] = other_urls[i].c_str();
  }
}

void StartCtx::thread_running(const std::shared_ptr<StartCtx>& shared) {
  // Held here: the muxer may be destroyed, and drop its reference, while a callback made below still runs.
  const std::shared_ptr<StartCtx> ctx = shared;  // NOLINT(performance-unnecessary-copy-initialization)
  int code = MERU_STATUS_OK;
  char text[kTextSize] = "start OK";
  bool report = true;
  const NoSigpipe no_sigpipe;
  if (*ctx->gate.exited()) {
    MERU_LOG(2, "=^= running begin: already exited,  exit thread");
    leave(ctx.get());
    return;
  }
  try {
    ctx->muxer->start_thread_running(ctx->info, ctx.get());
  } catch (const MR::MRException& e) {
    MERU_LOG(2, " ---- catch error --- : %s", e.what());
    code = e.code();
    snprintf(text, sizeof(text), "%s", e.what());
  } catch (...) {
    MERU_LOG(2, " ---- catch error --- : Unknow\\n");
    report = false;
  }

  if (ctx->gate.end()) {
    if (code != MERU_STATUS_OK) MERU_LOG(2, "=#= catch exception: already exited, ignore ...");
    ctx->muxer->close_output();
    leave(ctx.get());
    return;
  }
  // From here on the muxer may be gone.
  if (code == MR::kAlreadyExited) {
    MERU_LOG(2, "== catch exception: already exited, ignore ...");
  } else if (report && ctx->cb != nullptr) {
    ctx->cb(code, text, ctx->user);
  }
}

/// The start routine's last act when the recording was stopped meanwhile: what MERU_stop left to it is done here.
void StartCtx::leave(StartCtx* ctx) {
  const std::function<void()> last_act = ctx->gate.take_last_act();
  if (last_act) last_act();
}
