#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdio>
#include <memory>

/// Deleter for functions that take the pointer's address and clear it.
template <auto Free>
struct FreeBy {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(&p);
  }
};

/// Deleter for functions that take the pointer itself.
template <auto Free>
struct FreeWith {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};

using FramePtr = std::unique_ptr<AVFrame, FreeBy<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, FreeBy<av_packet_free>>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeBy<avcodec_free_context>>;
using DictionaryPtr = std::unique_ptr<AVDictionary, FreeBy<av_dict_free>>;
using SwrPtr = std::unique_ptr<SwrContext, FreeBy<swr_free>>;
using SwsPtr = std::unique_ptr<SwsContext, FreeWith<sws_freeContext>>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, FreeWith<av_audio_fifo_free>>;
using FormatContextPtr = std::unique_ptr<AVFormatContext, FreeWith<avformat_free_context>>;
using FilePtr = std::unique_ptr<FILE, FreeWith<fclose>>;

/// FFmpeg's text for an error code.
struct AvError {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  explicit AvError(int code) { av_strerror(code, text, sizeof(text)); }
};
