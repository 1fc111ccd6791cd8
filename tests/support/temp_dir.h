#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace meru_test {

/// A folder of its own for one test, removed with everything in it.
class TempDir {
 public:
  TempDir() : TempDir(std::filesystem::temp_directory_path()) {}
  explicit TempDir(const std::filesystem::path& parent) {
    std::string pattern = (parent / "meru-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    m_path = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  /// Where many files can be written quickly: in memory, if the system has such a folder.
  static std::filesystem::path fast_parent() {
    const std::filesystem::path memory = "/dev/shm";
    return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
  }

  std::string path() const { return m_path.string(); }
  std::string file(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

}  // namespace meru_test
