#include "output_paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

namespace meru_tool {

namespace {

constexpr char kFileProtocol[] = "file:";

/// Whether both paths lead to one file, be it there already or not.
bool same_place(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return false;
  std::error_code error;
  return same_file(a, b) || std::filesystem::weakly_canonical(std::filesystem::absolute(a), error) ==
                                std::filesystem::weakly_canonical(std::filesystem::absolute(b), error);
}

}  // namespace

bool is_network(const std::string& url) { return url.rfind("rtmp://", 0) == 0 || url.rfind("rtsp://", 0) == 0; }

bool is_file(const std::string& url) {
  return url.rfind(kFileProtocol, 0) == 0 || url.find("://") == std::string::npos;
}

std::string without_protocol(const std::string& typed) {
  return typed.rfind(kFileProtocol, 0) == 0 ? typed.substr(sizeof(kFileProtocol) - 1) : typed;
}

std::string file_path(const std::string& typed) { return unmistakable(without_protocol(typed)); }

std::string unmistakable(const std::string& path) {
  return path.substr(0, path.find('/')).find(':') == std::string::npos ? path : "./" + path;
}

bool same_file(const std::string& a, const std::string& b) {
  std::error_code error;
  return std::filesystem::equivalent(a, b, error) && !error;
}

void check_writable(const std::string& what, const std::string& path) {
  const std::string failed = "cannot write " + what + " " + path + ": ";
  struct stat st {};
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) throw Failure(failed + "it is a folder");
    if (access(path.c_str(), W_OK) != 0) throw Failure(failed + error_text(errno));
    return;
  }
  const std::string parent = std::filesystem::path(path).parent_path().string();
  const std::string folder = parent.empty() ? "." : parent;
  if (stat(folder.c_str(), &st) != 0) throw Failure(failed + "the folder " + folder + ": " + error_text(errno));
  if (!S_ISDIR(st.st_mode)) throw Failure(failed + folder + " is not a folder");
  if (access(folder.c_str(), W_OK | X_OK) != 0) throw Failure(failed + error_text(errno));
}

void check_output_files(const std::string& output, const std::string& index, const std::vector<std::string>& also,
                        const std::vector<std::string>& sources) {
  std::vector<std::pair<const char*, std::string>> written = {{"the movie", output}, {"the index", index}};
  for (const std::string& url : also) written.emplace_back("the further output", url);
  for (size_t i = 0; i < written.size(); ++i) {
    const auto& [what, path] = written[i];
    if (path.empty() || !is_file(path)) continue;
    check_writable(what, path);
    for (const std::string& source : sources) {
      if (same_file(path, source)) throw UsageError(std::string(what) + " " + path + " is a source itself");
    }
    for (size_t k = 0; k < i; ++k) {
      const bool same = same_place(path, written[k].second);
      if (same && path.rfind("/dev/", 0) != 0) throw UsageError(std::string(what) + " " + path + " is given twice");
    }
  }
}

}  // namespace meru_tool
