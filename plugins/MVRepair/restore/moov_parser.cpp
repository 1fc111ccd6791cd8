#include "MVRepair/restore/moov_parser.h"

#include <cstring>

#include "MVRepair/restore/nuv_base64.h"
#include "MVRepair/restore/regular_file.h"
#include "common/log_site.h"
#include "common/trim.h"

namespace {

constexpr int kLineSize = 8192;
/// A sequence and a picture parameter set of constrained-baseline H.264, for an index that holds none.
constexpr char kDefaultParameterSets[] = "AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKgAAAAFozg/I";

FilePtr open_trimmed(const char* path, const char* mode) { return open_regular_file(nuv::str::trim_path(path), mode); }

int version_of(const char* comment) {
  const char* at = strstr(comment, "version=");
  int version = 0;
  // One number of text that a person may have edited: sscanf leaves 0 when there is none.
  if (at != nullptr && sscanf(at, "version=%d", &version) != 1) version = 0;  // NOLINT(cert-err34-c)
  return version;
}

/// Parameter sets in a text of NAL units behind four-byte start codes; empty when one is missing.
struct ParameterSets {
  std::string sps;
  std::string pps;

  explicit ParameterSets(const std::string& annex_b) {
    const size_t sps_at = find_unit(annex_b, 7);
    const size_t pps_at = find_unit(annex_b, 8);
    if (sps_at == std::string::npos || pps_at == std::string::npos || pps_at < sps_at) return;
    sps = annex_b.substr(sps_at, pps_at - kStartCodeSize - sps_at);
    pps = annex_b.substr(pps_at);
  }

  bool usable() const { return sps.size() >= 4 && sps.size() <= 0xffff && !pps.empty() && pps.size() <= 0xffff; }

 private:
  static constexpr size_t kStartCodeSize = 4;

  static size_t find_unit(const std::string& data, int type) {
    const std::string start_code("\0\0\0\1", kStartCodeSize);
    for (size_t at = data.find(start_code); at != std::string::npos; at = data.find(start_code, at + 1)) {
      const size_t unit = at + kStartCodeSize;
      if (unit < data.size() && (static_cast<unsigned char>(data[unit]) & 0x1f) == type) return unit;
    }
    return std::string::npos;
  }
};

void append_sized(std::string* out, const std::string& unit) {
  out->push_back(static_cast<char>(unit.size() >> 8));
  out->push_back(static_cast<char>(unit.size() & 0xff));
  out->append(unit);
}

/// The AVC decoder configuration record of ISO/IEC 14496-15, with four-byte lengths.
std::string configuration_record(const ParameterSets& sets) {
  std::string record(1, '\1');
  record.append(sets.sps, 1, 3);  // profile, compatibility, level
  record.append("\xff\xe1");      // four-byte lengths, one sequence parameter set
  append_sized(&record, sets.sps);
  record.push_back('\1');  // one picture parameter set
  append_sized(&record, sets.pps);
  return record;
}

/// The bytes as hexadecimal numbers with commas.
std::string print_s16(const std::string& bytes) {
  std::string text;
  char digits[8];
  for (const char byte : bytes) {
    snprintf(digits, sizeof(digits), "%02x,", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

}  // namespace

MoovParser::MoovParser() : line(new char[kLineSize]()) {}

MoovParser::~MoovParser() = default;

void MoovParser::reset() {
  path.reset();
  fp.reset();
  body_lost = false;
  header_lines = 0;
  header = MVHeader();
}

bool MoovParser::start(const char* file) {
  reset();
  if (file == nullptr) return false;
  const FilePtr index = open_trimmed(file, "rt");
  if (index == nullptr) {
    MERU_LOG(2, "无法打开moov文件: %s", file);
    return false;
  }
  if (!read_header(index.get())) {
    MERU_LOG(2, "未找到有效的音视频流: %s", file);
    return false;
  }
  if (!get_extradata(header)) {
    MERU_LOG(2, "未找到extradata");
    return false;
  }
  path = file;
  fseeko(index.get(), 0, SEEK_END);
  file_size = ftello(index.get());
  file_pos = 0;
  return true;
}

/// Reads comments and stream lines up to the first line that is neither. @return whether a stream was described, and
/// all of them could be read
bool MoovParser::read_header(FILE* index) {
  int streams = 0;
  bool first = true;
  while (fgets(line.get(), kLineSize, index) != nullptr) {
    if (line[0] == '#') {
      if (first) header.version = version_of(line.get());
    } else {
      tiny::TinyJson json;
      if (line[0] != '{' || !json.ReadJson(line.get())) break;
      if (take_stream_line(json)) ++streams;
    }
    first = false;
    ++header_lines;
  }
  return streams > 0 && ferror(index) == 0;
}

/// @return whether the line describes sound or pictures
bool MoovParser::take_stream_line(const tiny::TinyJson& json) {
  const std::string type = json.Get<std::string>("type");
  if (type == "audio") {
    header.audio_index = json.Get<int>("index");
    header.audio_codec = json.Get<std::string>("codec");
    header.sample_fmt = json.Get<std::string>("format");
    header.channels = json.Get<int>("channels");
    header.sample_rate = json.Get<int>("sample_rate");
    header.frame_size = json.Get<int>("frame_size");
    header.audio_tb_num = json.Get<int>("tb.num");
    header.audio_tb_den = json.Get<int>("tb.den");
    header.audio_extradata = json.Get<std::string>("qv");
    return true;
  }
  if (type != "video") return false;
  header.video_index = json.Get<int>("index");
  header.video_codec = json.Get<std::string>("codec");
  header.pix_fmt = json.Get<std::string>("format");
  header.width = json.Get<int>("w");
  header.height = json.Get<int>("h");
  header.video_tb_num = json.Get<int>("tb.num");
  header.video_tb_den = json.Get<int>("tb.den");
  header.video_extradata = json.Get<std::string>("qv");
  return true;
}

bool MoovParser::get_extradata(MVHeader& described) {
  if (!described.video_extradata) {
    MERU_LOG(2, "---> 没有检测到视频流");
    return true;
  }
  if (described.video_extradata->empty()) {
    MERU_LOG(2, "--> no global PPS/SPS, generate ...");
    described.video_extradata = kDefaultParameterSets;
  }
  const ParameterSets sets(nuv::Base64::decode(*described.video_extradata));
  if (!sets.usable()) {
    MERU_LOG(2, "no sps/pps");
    return false;
  }
  const std::string record = configuration_record(sets);
  MERU_LOG(5, "===> ext_result: %s\\n", print_s16(record).c_str());
  described.video_extradata = nuv::Base64::encode(record);
  return true;
}

/// Opens the file again, behind the header lines.
bool MoovParser::open_body() {
  fp = open_trimmed(path->c_str(), "rb");
  body_lost = fp == nullptr;
  if (fp == nullptr) return false;
  for (int i = 0; i < header_lines; ++i) {
    if (fgets(line.get(), kLineSize, fp.get()) == nullptr) break;
  }
  line_no = header_lines;
  return true;
}

char* MoovParser::readBody() {
  if (!path || (fp == nullptr && !open_body())) return nullptr;
  const int64_t begin = ftello(fp.get());
  if (fgets(line.get(), kLineSize, fp.get()) == nullptr) {
    file_pos = file_size;
    return nullptr;
  }
  file_pos = begin;
  ++line_no;
  return line.get();
}

double MoovParser::progress() const {
  if (progress_override >= 0) return progress_override;
  if (file_size < 1) return 0.0;
  return static_cast<double>(file_pos) / static_cast<double>(file_size);
}
