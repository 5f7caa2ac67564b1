#pragma once

#include <string_view>

namespace armengine {

/// A file of the page, as it is served.
struct PageFile {
  std::string_view path;  ///< "/page.js"
  std::string_view media_type;
  std::string_view content;
};

/// All files of the page: of static storage.
struct PageFiles {
  const PageFile* begin() const { return first; }
  const PageFile* end() const { return first + count; }
  const PageFile* first;
  unsigned count;
};
PageFiles pageFiles();

}  // namespace armengine
