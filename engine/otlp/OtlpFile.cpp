#include "otlp/OtlpFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "events/OutputFile.h"

namespace armengine {

std::unique_ptr<OtlpFile> OtlpFile::open(const std::string& path, const OtlpSettings& settings,
                                         std::string* why) {
  const int file = openForAppending(path);
  if (file < 0) {
    *why = "cannot write traces to " + path + " (" + std::strerror(errno) + ")";
    return nullptr;
  }
  return std::unique_ptr<OtlpFile>(new OtlpFile(path, settings, file));
}

OtlpFile::OtlpFile(std::string path, const OtlpSettings& settings, int file)
    : path_(std::move(path)), settings_(settings), file_(file) {}

OtlpFile::~OtlpFile() {
  OtlpFile::flush();
  (void)close(file_);
}

void OtlpFile::consume(const Span& span) {
  spans_.push_back(span);
  if (spans_.size() >= settings_.batch) flush();
}

void OtlpFile::flush() {
  if (reopen_.exchange(false)) {
    const int file = openForAppending(path_);
    if (file >= 0) {
      (void)close(file_);
      file_ = file;
    }
  }
  if (spans_.empty()) return;
  const bool done = writeAll(file_, exportRequest(spans_, settings_.resource) + "\n");
  (done ? written_ : lost_).add(spans_.size());
  spans_.clear();
}

}  // namespace armengine
