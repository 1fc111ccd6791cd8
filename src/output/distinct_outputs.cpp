#include "output/distinct_outputs.h"

#include <utility>
#include <vector>

#include "output/local_file.h"

namespace MR {

namespace {

constexpr int kMaxOthers = 4;

}  // namespace

std::string shared_file(const char* url, const char* snapshot_path, const char* const* other_urls) {
  std::vector<std::pair<std::string, std::string>> files{{"the main output", local_path(url)}};
  files.emplace_back("the side index", local_path(snapshot_path));
  for (int i = 0; i < kMaxOthers && other_urls[i] != nullptr; ++i) {
    files.emplace_back("further output " + std::to_string(i + 1), local_path(other_urls[i]));
  }
  for (size_t i = 1; i < files.size(); ++i) {
    for (size_t k = 0; k < i; ++k) {
      if (same_file(files[k].second, files[i].second))
        return files[k].first + " and " + files[i].first + " are one file";
    }
  }
  return {};
}

}  // namespace MR
