#include "events/EventFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Time.h"
#include "events/EventLines.h"
#include "events/OutputFile.h"

namespace armengine {

namespace {

constexpr const char* STANDARD_OUTPUT = "-";
constexpr std::size_t FULL = 64 * 1024;

int openFile(const std::string& path) {
  return path == STANDARD_OUTPUT ? STDOUT_FILENO : openForAppending(path);
}

}  // namespace

std::unique_ptr<EventFile> EventFile::open(const std::string& path, uint64_t engine,
                                           std::string* why) {
  const int file = openFile(path);
  if (file < 0) {
    *why = "cannot write events to " + path + " (" + std::strerror(errno) + ")";
    return nullptr;
  }
  return std::unique_ptr<EventFile>(new EventFile(path, engine, file));
}

EventFile::EventFile(std::string path, uint64_t engine, int file)
    : path_(std::move(path)), engine_(engine), file_(file) {}

EventFile::~EventFile() {
  write();
  if (file_ != STDOUT_FILENO) (void)close(file_);
}

void EventFile::consume(const Event& event, const Payload& payload) {
  if (reopen_.exchange(false)) openAgain();
  if (!begun_) appendFirstLine(&text_, engine_, wallTime());
  begun_ = true;
  appendEventLine(&text_, event, payload);
  ++lines_;
  if (text_.size() >= FULL) write();
}

void EventFile::flush() {
  if (reopen_.exchange(false)) openAgain();
  write();
}

void EventFile::write() {
  if (!text_.empty() && !writeAll(file_, text_)) lost_.add(lines_);
  text_.clear();
  lines_ = 0;
}

void EventFile::openAgain() {
  write();
  if (path_ == STANDARD_OUTPUT) return;
  const int file = openFile(path_);
  if (file < 0) return;  // the old one is better than none
  (void)close(file_);
  file_ = file;
  begun_ = false;
}

}  // namespace armengine
