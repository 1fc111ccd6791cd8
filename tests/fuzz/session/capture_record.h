#pragma once

#include <string>
#include <vector>

#include "fuzz/session/world.h"
#include "meru/movie_info.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace session_fuzz {

inline constexpr int kPixelFormats[] = {AV_PIX_FMT_BGRA,
                                        AV_PIX_FMT_BGRA,
                                        AV_PIX_FMT_RGB24,
                                        AV_PIX_FMT_NV12,
                                        AV_PIX_FMT_YUV420P,
                                        AV_PIX_FMT_YUYV422,
                                        AV_PIX_FMT_YUV422P,
                                        AV_PIX_FMT_GRAY8,
                                        AV_PIX_FMT_YUV420P10,
                                        AV_PIX_FMT_VAAPI,
                                        -1,
                                        9999};

/// A record with a few odd values, and the texts that it points at.
class Record {
 public:
  Record(Worker* worker, bool once);
  const MovieInfo& info() const { return m_info; }
  bool live() const { return m_live; }

 private:
  void choose_outputs(Worker* worker, bool once);
  void add_output(Worker* worker);
  void make_odd(Dice* dice);

  MovieInfo m_info{};
  std::vector<std::string> m_others;
  bool m_live = false;
};

}  // namespace session_fuzz
