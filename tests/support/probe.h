#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/run_command.h"

namespace meru_test {

/// One packet as the demuxer sees it. Times in seconds.
struct ProbedPacket {
  int stream = 0;
  double pts = 0;
  double dts = 0;
  double duration = 0;
  long long size = 0;
  long long pos = -1;
  bool key = false;
  std::string hash;
};

/// A number that ffprobe wrote as text; `otherwise` when the member is missing or says "N/A".
inline double number(const nlohmann::json& object, const char* key, double otherwise = 0) {
  if (!object.contains(key)) return otherwise;
  const nlohmann::json& value = object.at(key);
  if (value.is_number()) return value.get<double>();
  const std::string text = value.get<std::string>();
  return text == "N/A" ? otherwise : std::strtod(text.c_str(), nullptr);
}

/// ffprobe's answer. Throws when ffprobe complains about the file in any way.
inline nlohmann::json probe(const std::string& path, const std::string& options) {
  const CommandResult result = run_command("ffprobe -v error -of json " + options + " -i " + quoted(path));
  nlohmann::json answer = nlohmann::json::parse(result.output, nullptr, false);
  if (result.status != 0 || answer.is_discarded()) throw std::runtime_error("ffprobe " + path + ": " + result.output);
  return answer;
}

/// The stream of this type ("video" or "audio"), or null.
inline nlohmann::json probe_stream(const std::string& path, const std::string& type, const std::string& options = "") {
  const nlohmann::json answer = probe(path, "-show_streams " + options);
  for (const auto& stream : answer.at("streams")) {
    if (stream.at("codec_type") == type) return stream;
  }
  return nullptr;
}

/// How many pictures decode.
inline int count_frames(const std::string& path) {
  return static_cast<int>(number(probe_stream(path, "video", "-count_frames"), "nb_read_frames", -1));
}

/// The packets of one stream ("v:0", "a:0") in file order.
inline std::vector<ProbedPacket> probe_packets(const std::string& path, const std::string& stream) {
  std::vector<ProbedPacket> packets;
  const nlohmann::json answer = probe(path, "-show_packets -show_data_hash md5 -select_streams " + stream);
  for (const auto& p : answer.at("packets")) {
    ProbedPacket packet;
    packet.stream = p.at("stream_index").get<int>();
    packet.pts = number(p, "pts_time");
    packet.dts = number(p, "dts_time", packet.pts);
    packet.duration = number(p, "duration_time");
    packet.size = static_cast<long long>(number(p, "size"));
    packet.pos = static_cast<long long>(number(p, "pos", -1));
    packet.key = p.at("flags").get<std::string>().find('K') != std::string::npos;
    packet.hash = p.value("data_hash", "");
    packets.push_back(packet);
  }
  return packets;
}

/// What a strict decode of every stream complains about; empty for a sound movie.
inline std::string decode_errors(const std::string& path) {
  const CommandResult result = run_command("ffmpeg -nostdin -v error -xerror -i " + quoted(path) + " -map 0 -f null -");
  return result.status == 0 ? result.output : result.output + "exit status " + std::to_string(result.status);
}

/// The arguments of the ffmpeg command that keep every picture and its stamp. Version 5.1 renamed the option, and
/// announced that the old name will go.
inline std::string every_picture() {
  static const bool renamed = run_command("ffmpeg -hide_banner -h long").output.find("-fps_mode") != std::string::npos;
  return renamed ? "-fps_mode passthrough" : "-vsync passthrough";
}

/// Everything that ffmpeg writes to its standard output for these arguments. Throws when it fails.
inline std::string decoded(const std::string& path, const std::string& arguments) {
  const std::string errors = path + ".errors";
  const std::string data = path + ".decoded";
  const CommandResult result = run_command("ffmpeg -nostdin -v error -y -i " + quoted(path) + " " + arguments + " " +
                                           quoted(data) + " 2> " + quoted(errors));
  if (result.status != 0) throw std::runtime_error("ffmpeg cannot decode " + path);
  std::ifstream in(data, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// The first audio stream as mono samples.
inline std::vector<int16_t> decoded_sound(const std::string& path) {
  const std::string bytes = decoded(path, "-map 0:a:0 -ac 1 -f s16le");
  std::vector<int16_t> samples(bytes.size() / sizeof(int16_t));
  bytes.copy(reinterpret_cast<char*>(samples.data()), samples.size() * sizeof(int16_t));
  return samples;
}

}  // namespace meru_test
