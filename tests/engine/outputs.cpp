#include "outputs.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "armext.h"
#include "process.h"

namespace armtest {

namespace {

std::vector<std::string> withListener(std::vector<std::string> more) {
  more.insert(more.begin(), {"--listen", "0"});
  return more;
}

std::string talk(int port, const std::string& request) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      send(connection, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    char part[65536];
    for (ssize_t got; (got = recv(connection, part, sizeof part, 0)) > 0;) {
      answer.append(part, static_cast<size_t>(got));
    }
  }
  (void)close(connection);
  return answer;
}

std::string get(int port, const std::string& target, const std::string& host = "127.0.0.1") {
  return talk(port, "GET " + target + " HTTP/1.0\r\nHost: " + host + "\r\n\r\n");
}

}  // namespace

std::string testTool(const std::string& path) {
  return ARM_SOURCE_DIR "/build/tools/" + path;
}

std::string httpGet(int port, const std::string& target) {
  const std::string answer = get(port, target);
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

std::string httpHead(int port, const std::string& target, const std::string& host) {
  const std::string answer = get(port, target, host);
  return answer.substr(0, answer.find("\r\n\r\n"));
}

ServingEngine::ServingEngine(std::vector<std::string> more)
    : EngineProcess(withListener(std::move(more))) {
  const std::string line = nextLine();
  const size_t colon = line.rfind(':');
  if (colon != std::string::npos) port_ = std::atoi(line.c_str() + colon + 1);
}

double ServingEngine::value(const std::string& series) const {
  std::istringstream lines(metrics());
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(series + " ", 0) == 0) return std::atof(line.c_str() + series.size() + 1);
  }
  return -1;
}

Background::Background(const std::vector<std::string>& arguments, Begins begins) {
  int ends[2];
  if (pipe(ends) != 0) return;
  std::vector<std::string> copies = arguments;
  std::vector<char*> pointers;
  for (std::string& argument : copies) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  process_ = forkChild([&] {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    execv(pointers[0], pointers.data());
    return 127;
  });
  close(ends[1]);
  output_ = ends[0];
  if (begins == Begins::silently) return;
  for (char byte; read(output_, &byte, 1) == 1 && byte != '\n';) first_line_ += byte;
}

Background::~Background() {
  kill(process_, SIGKILL);
  (void)exitCodeOf(process_);
  (void)close(output_);
}

int32_t registerClass(const std::string& application, const std::string& name) {
  const int32_t id = w_ArmInit(0, const_cast<char*>(application.c_str()), nullptr, 0, nullptr, 0);
  return w_ArmGetID(0, id, const_cast<char*>(name.c_str()), nullptr, 0, nullptr, 0);
}

void report(int32_t tran_class, int32_t status, int32_t milliseconds) {
  EXPECT_EQ(0, arm_transactionReport(tran_class, 0, nullptr, 0, 1, status, milliseconds, 0));
}

}  // namespace armtest
