#include "programs.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "files.h"
#include "process.h"

namespace armtest {

namespace {

std::string readLine(std::FILE* file) {
  char* line = nullptr;
  size_t size = 0;
  const ssize_t length = getline(&line, &size, file);
  std::string text = length > 0 ? std::string(line, static_cast<size_t>(length)) : "";
  free(line);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

std::string readAll(std::FILE* file) {
  std::string text;
  char part[4096];
  for (size_t length; (length = fread(part, 1, sizeof part, file)) > 0;) text.append(part, length);
  return text;
}

}  // namespace

std::string builtProgram(const std::string& name) {
  return ARM_BUILD_DIR "/bin/" + name;
}

Ran runShell(const std::string& command) {
  const std::string out = "/tmp/out." + std::to_string(getpid());
  const std::string err = "/tmp/err." + std::to_string(getpid());
  const int status = std::system(("(" + command + ") >" + out + " 2>" + err).c_str());
  const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return {code, contentOf(out), contentOf(err)};
}

size_t linesWith(const std::string& text, const std::string& piece) {
  std::istringstream lines(text);
  size_t count = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(piece) != std::string::npos) ++count;
  }
  return count;
}

std::vector<std::string> wordsOfLine(const std::string& text,
                                     const std::vector<std::string>& pieces) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    bool all = true;
    for (const std::string& piece : pieces) all = all && line.find(piece) != std::string::npos;
    if (!all) continue;
    std::istringstream rest(line);
    std::vector<std::string> words;
    for (std::string word; rest >> word;) words.push_back(word);
    return words;
  }
  return {};
}

EngineProcess::EngineProcess(const std::vector<std::string>& arguments,
                             const std::string& build_dir) {
  int ends[2];
  if (pipe(ends) != 0) return;
  std::string program = build_dir + "/bin/armengine";
  std::vector<std::string> copies = arguments;
  std::vector<char*> pointers = {program.data()};
  for (std::string& argument : copies) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  process_ = forkChild([&] {
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
    execv(program.c_str(), pointers.data());
    return 127;
  });
  close(ends[1]);
  output_ = fdopen(ends[0], "r");
  ready_ = readLine(output_);
}

EngineProcess::~EngineProcess() {
  if (process_ > 0) (void)end(SIGKILL);
  if (output_ != nullptr) (void)fclose(output_);
}

std::string EngineProcess::nextLine() {
  return readLine(output_);
}

void EngineProcess::signal(int number) const {
  EXPECT_EQ(0, kill(process_, number));
}

int EngineProcess::end(int number) {
  signal(number);
  report_ = readAll(output_);
  const int code = exitCodeOf(process_);
  process_ = -1;
  return code;
}

}  // namespace armtest
