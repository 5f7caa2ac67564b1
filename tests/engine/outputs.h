#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "files.h"
#include "programs.h"

namespace armtest {

/// A program of the tools that './run' has put into build/tools.
std::string testTool(const std::string& path);

/// What a GET request to a port of this machine answers, headers left out; empty when nothing does.
std::string httpGet(int port, const std::string& target);
/// The status and headers of the same, the server being called by a name.
std::string httpHead(int port, const std::string& target, const std::string& host = "127.0.0.1");

/// An engine with an HTTP server on a free port.
class ServingEngine : public EngineProcess {
 public:
  explicit ServingEngine(std::vector<std::string> more = {});
  int port() const { return port_; }
  std::string metrics() const { return httpGet(port_, "/metrics"); }
  /// The value of a series, as its line begins; -1 when there is none.
  double value(const std::string& series) const;

 private:
  int port_ = 0;
};

/// A program in the background.
class Background {
 public:
  enum class Begins { with_a_line, silently };
  ///   arguments  the program first
  ///   begins     whether its first line of output is to be waited for
  explicit Background(const std::vector<std::string>& arguments,
                      Begins begins = Begins::with_a_line);
  /// Kills it.
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  const std::string& firstLine() const { return first_line_; }

 private:
  pid_t process_ = -1;
  int output_ = -1;
  std::string first_line_;
};

/// The id of a class of an application, with names in UTF-8 of any length.
int32_t registerClass(const std::string& application, const std::string& name);
/// Reports a finished transaction of a known length.
void report(int32_t tran_class, int32_t status, int32_t milliseconds);

}  // namespace armtest
