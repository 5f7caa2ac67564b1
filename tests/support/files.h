#pragma once

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace armtest {

inline bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

/// The whole content of a file; empty when there is none.
inline std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

/// Replaces a file's content.
inline void writeContent(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

/// The number of files that this process has open.
inline int openFiles() {
  DIR* files = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(files) != nullptr) ++count;
  closedir(files);
  return count;
}

}  // namespace armtest
