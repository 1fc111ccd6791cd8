#pragma once

#include <string>

namespace MR {

/// @return the path of the file that FFmpeg writes for `url`; empty for a network address, a pipe, a device, and
///         anything else that is not a regular file or a name for a new one
std::string local_path(const char* url);

/// @return whether both paths lead to one file, whatever the spelling, links included; also where neither exists yet
bool same_file(const std::string& a, const std::string& b);

/// A file that is about to be created at a path, to be removed again if it is still the one that was created.
class CreatedFile {
 public:
  /// Call before the file is opened.
  explicit CreatedFile(std::string path);
  /// Call once it is open.
  void opened();
  /// Removes the file if it was created between the two, and the path still leads to it.
  void remove() const;

 private:
  std::string m_path;
  bool m_created;
  unsigned long long m_device = 0;
  unsigned long long m_inode = 0;
};

}  // namespace MR
