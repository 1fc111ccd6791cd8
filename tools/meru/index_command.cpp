#include "index_command.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "console.h"
#include "failure.h"
#include "index_file.h"

namespace meru_tool {

namespace {

using Json = nlohmann::ordered_json;

constexpr char kDescription[] = "Prints what a side index says: the streams, and each packet's place, size and times.";

std::string dump(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

/// A member as it is printed, "?" when it is missing.
std::string text(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) return "?";
  return found->is_string() ? found->get<std::string>() : dump(*found);
}

std::string describe(const Json& stream) {
  std::string line = "stream " + text(stream, "index") + "  " + text(stream, "type") + "  " + text(stream, "codec");
  if (stream.contains("w")) {
    line += "  " + text(stream, "w") + "x" + text(stream, "h");
  } else if (stream.contains("sample_rate")) {
    line += "  " + text(stream, "sample_rate") + " Hz  " + text(stream, "channels") + " channels";
  }
  return line + "  " + text(stream, "format") + "  time base " + text(stream, "tb.num") + "/" + text(stream, "tb.den") +
         "  parameters of " + text(stream, "parameters") + " bytes";
}

/// Seconds of one unit of each stream's time stamps, by the stream's index.
std::map<int64_t, double> units_of(const IndexFile& index) {
  std::map<int64_t, double> units;
  for (const Json& stream : index.streams()) {
    const double den = std::atof(text(stream, "tb.den").c_str());
    if (den > 0) units[std::atoll(text(stream, "index").c_str())] = std::atof(text(stream, "tb.num").c_str()) / den;
  }
  return units;
}

void print_text(IndexFile* index) {
  std::printf("version %d\n", index->version());
  for (const Json& stream : index->streams()) std::printf("%s\n", describe(stream).c_str());
  std::printf("%8s %6s %14s %10s %14s %14s %12s %s\n", "packet", "stream", "position", "size", "pts", "dts", "duration",
              "key");
  std::map<int64_t, double> units = units_of(*index);
  IndexFile::Packet packet;
  for (long long n = 0; index->readable() && index->next(&packet); ++n) {
    const double unit = units[packet.stream];
    std::printf("%8lld %6lld %14lld %10lld %14.6f %14.6f %12.6f%s\n", n, static_cast<long long>(packet.stream),
                static_cast<long long>(packet.position), static_cast<long long>(packet.size),
                unit * static_cast<double>(packet.pts), unit * static_cast<double>(packet.dts),
                unit * static_cast<double>(packet.duration), packet.key ? " K" : "");
  }
}

/// One packet a line, so that an index of any length is printed as it is read.
void print_json(IndexFile* index) {
  std::printf("{\"version\":%d,\n\"streams\":%s,\n\"packets\":[", index->version(), dump(index->streams()).c_str());
  IndexFile::Packet packet;
  const char* separator = "\n";
  while (index->readable() && index->next(&packet)) {
    const Json json = {{"stream", packet.stream}, {"position", packet.position}, {"size", packet.size},
                       {"pts", packet.pts},       {"dts", packet.dts},           {"duration", packet.duration},
                       {"key", packet.key}};
    std::printf("%s%s", separator, dump(json).c_str());
    separator = ",\n";
  }
  std::printf("],\n\"damaged\":%d,\n\"cut\":%s}\n", index->damaged(), index->cut() ? "true" : "false");
}

}  // namespace

CLI::App* add_index_command(CLI::App* app, IndexOptions* options) {
  CLI::App* cmd = app->add_subcommand("index", kDescription);
  cmd->add_option("file", options->file, "The side index")->required()->type_name("FILE");
  cmd->add_flag("--json", options->json, "Print it as JSON, times in units of the stream's time base");
  return cmd;
}

int show_index(const IndexOptions& options) {
  IndexFile index(options.file);
  if (options.json) {
    print_json(&index);
  } else {
    print_text(&index);
  }
  if (std::fflush(stdout) != 0) throw Failure("cannot write the table: " + error_text(errno));
  if (!index.readable()) {
    throw Failure(options.file + ": its packets cannot be read, version " + std::to_string(index.version()) +
                  " is not known");
  }
  if (index.damaged() > 0) {
    throw Failure(options.file + ": " + std::to_string(index.damaged()) +
                  " damaged records; positions behind the first are not reliable");
  }
  return EXIT_SUCCESS;
}

}  // namespace meru_tool
