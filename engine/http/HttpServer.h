#pragma once

#include <functional>
#include <memory>
#include <string>

namespace armengine {

/// What a page answers.
struct HttpAnswer {
  int status = 200;
  std::string media_type = "text/plain; charset=utf-8";
  std::string body;
};

/// A small HTTP server for GET requests, on threads of its own. On a loopback address it answers
/// only requests that name an address or localhost as their host.
class HttpServer {
 public:
  /// The path, and the query's value of a key.
  struct Request {
    std::string path;
    std::function<std::string(const std::string& key)> query;
  };
  using Page = std::function<HttpAnswer(const Request&)>;

  HttpServer();
  /// Finishes the answers that are being given.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Adds a page; before start.
  ///   pattern  a path, or a regular expression of paths
  void add(const std::string& pattern, const Page& page);
  /// Takes the address; 0 is any free port.  On failure false, with a sentence in why.
  bool bind(const std::string& address, int port, std::string* why);
  /// Serves from now on.
  void start();

  /// "http://127.0.0.1:9464/", once bound.
  const std::string& url() const { return url_; }

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
  std::string url_;
};

}  // namespace armengine
