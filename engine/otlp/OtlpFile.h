#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "base/Counter.h"
#include "otlp/OtlpSettings.h"
#include "otlp/Span.h"

namespace armengine {

/// Writes spans to a file, one export request a line.
class OtlpFile : public SpanExporter {
 public:
  /// Opens a file and appends to it.  Null, with a sentence in why, when that fails.
  static std::unique_ptr<OtlpFile> open(const std::string& path, const OtlpSettings& settings,
                                        std::string* why);
  ~OtlpFile() override;

  void consume(const Span& span) override;
  void flush() override;

  /// Makes the writing thread open the path again: somebody has moved the file away.  Any thread.
  void reopen() { reopen_ = true; }
  /// Spans that could not be written.
  uint64_t lost() const { return lost_.get(); }
  uint64_t written() const { return written_.get(); }

 private:
  OtlpFile(std::string path, const OtlpSettings& settings, int file);

  const std::string path_;
  const OtlpSettings settings_;
  int file_;
  std::vector<Span> spans_;
  Counter lost_;
  Counter written_;
  std::atomic<bool> reopen_{false};
};

}  // namespace armengine
