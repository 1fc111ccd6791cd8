#include "base/stream_url.h"

#include <strings.h>

#include <cstdint>
#include <cstring>
#include <new>

#include "common/ffmpeg_compat.h"
#include "common/log_site.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace MR {

namespace {

constexpr const char* kHidden = "***";

bool starts_with(const char* url, const char* prefix) {
  return url != nullptr && strncmp(url, prefix, strlen(prefix)) == 0;
}

/// "//user:password@host" becomes "//user:***@host".
void hide_password(std::string* url) {
  const size_t host = url->find("://");
  if (host == std::string::npos) return;
  const size_t begin = host + 3;
  const size_t at = url->rfind('@', url->find_first_of("/?", begin));
  const size_t colon = url->find(':', begin);
  if (at == std::string::npos || at < begin || colon > at) return;
  url->replace(colon + 1, at - colon - 1, kHidden);
}

/// Whatever follows the key, a slash, a token or the options behind a space, goes with it: it may hold secrets.
void hide_key(std::string* url) {
  const size_t begin = url->find("://") + 3;
  const size_t last = url->find_last_not_of('/', url->find_first_of("? ", begin) - 1);
  const size_t slash = url->rfind('/', last);
  const size_t path = url->find('/', begin);
  if (slash == std::string::npos || slash < begin) return;
  // An application alone, "rtmp://host/app/", has no key yet.
  if (slash == path && last + 1 < url->size() && (*url)[last + 1] == '/') return;
  url->replace(slash + 1, std::string::npos, kHidden);
}

/// RTMP and its kin: over TLS, over HTTP.
bool has_key(const char* url) {
  for (const char* scheme : {"rtmp://", "rtmps://", "rtmpt://", "rtmpts://", "rtmpe://", "rtmpte://"}) {
    if (strncasecmp(url, scheme, strlen(scheme)) == 0) return true;
  }
  return false;
}

/// A line of the log has 510 characters, and the reason comes behind the address.
std::string shortened(const std::string& url) {
  constexpr size_t kMost = 240, kEnd = 160;
  return url.size() <= kMost ? url : url.substr(0, kMost - kEnd) + "..." + url.substr(url.size() - kEnd);
}

std::string output_name(int number, const char* url) {
  const std::string place = number > 0 ? "further output " + std::to_string(number) : "main output";
  return place + " (" + shortened(public_url(url)) + ")";
}

}  // namespace

bool isRtmpStream(const char* url) { return starts_with(url, "rtmp://"); }
bool isRtspStream(const char* url) { return starts_with(url, "rtsp://"); }
bool isLiveStream(const char* url) { return isRtmpStream(url) || isRtspStream(url); }

const AVOutputFormat* further_format(const char* url) {
  if (isRtmpStream(url)) return av_guess_format("flv", url, nullptr);
  // Whatever the path ends in: no other format has a connection to send over.
  if (isRtspStream(url)) return av_guess_format("rtsp", url, nullptr);
  return av_guess_format(nullptr, url, nullptr);
}

std::string public_url(const char* url) {
  std::string text(url);
  hide_password(&text);
  if (has_key(url)) hide_key(&text);
  return text;
}

DictionaryPtr io_options(const char* url, int timeout_sec) {
  AVDictionary* options = nullptr;
  if (timeout_sec > 0 && isLiveStream(url)) {
    av_dict_set_int(&options, "rw_timeout", static_cast<int64_t>(timeout_sec) * 1000000, 0);
  }
  return DictionaryPtr(options);
}

void set_rtsp_options(AVFormatContext* ctx, int timeout_sec) {
  av_opt_set(ctx->priv_data, "rtsp_transport", "tcp", 0);
  // In 32 bits, as the option is documented: a huge value wraps.
  const auto usec = static_cast<int>(static_cast<uint32_t>(timeout_sec) * 1000000U);
  if (timeout_sec > 0) av_opt_set_int(ctx->priv_data, meru_compat::rtsp_timeout_option(), usec, 0);
}

void log_failed_output(int number, const char* url, int error) {
  try {
    MERU_LOG(2, "%s failed: %s", output_name(number, url).c_str(), AvError(error).text);
  } catch (const std::bad_alloc&) {
    MERU_LOG(2, "output %d failed: %s", number, AvError(error).text);
  }
}

void log_open_output(int number, const char* url) {
  try {
    MERU_LOG(4, "%s is open", output_name(number, url).c_str());
  } catch (const std::bad_alloc&) {
    MERU_LOG(4, "output %d is open", number);
  }
}

}  // namespace MR
