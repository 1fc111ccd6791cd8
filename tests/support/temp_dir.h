#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace meru_test {

/// A folder of its own for one test, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "meru-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    m_path = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return m_path.string(); }
  std::string file(const std::string& name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

}  // namespace meru_test
