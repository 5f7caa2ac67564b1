#include "http/HttpServer.h"

#include <arpa/inet.h>
#include <httplib.h>

#include <thread>

#include "text/HostPort.h"

namespace armengine {

namespace {

constexpr std::size_t THREADS = 8;
constexpr std::size_t LARGEST_REQUEST = 64 * 1024;
constexpr time_t IDLE_SECONDS = 2;
/// Nothing but this server's own files, and nothing within texts.
constexpr const char* CONTENT_SECURITY_POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

constexpr const char* FOREIGN_NAME = "this server answers to its address and to localhost only\n";

bool isAddress(const std::string& host) {
  in6_addr six = {};
  in_addr four = {};
  return inet_pton(AF_INET, host.c_str(), &four) == 1 ||
         inet_pton(AF_INET6, host.c_str(), &six) == 1;
}

bool isLoopback(const std::string& address) {
  return address == "::1" || address.rfind("127.", 0) == 0 || address == "localhost";
}

}  // namespace

struct HttpServer::Parts {
  httplib::Server server;
  std::thread thread;
  bool loopback = false;
};

HttpServer::HttpServer() : parts_(std::make_unique<Parts>()) {
  httplib::Server& server = parts_->server;
  server.new_task_queue = [] { return new httplib::ThreadPool(THREADS); };
  // Without the library's default of sharing a port with whoever else asks for it.
  server.set_socket_options([](socket_t socket) {
    const int yes = 1;
    (void)setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  // A page of elsewhere can have its own name lead to this machine, and read what is said here as
  // if it were its own.
  server.set_pre_routing_handler(
      [parts = parts_.get()](const httplib::Request& request, httplib::Response& response) {
        const std::string host = armtext::hostOf(request.get_header_value("Host"));
        if (!parts->loopback || host.empty() || host == "localhost" || isAddress(host)) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        response.status = 421;  // Misdirected Request
        response.set_content(FOREIGN_NAME, "text/plain");
        return httplib::Server::HandlerResponse::Handled;
      });
  server.set_payload_max_length(LARGEST_REQUEST);
  // A browser that keeps a connection open would keep a thread with it.
  server.set_keep_alive_max_count(1);
  server.set_read_timeout(IDLE_SECONDS);
  server.set_write_timeout(IDLE_SECONDS);
  server.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                              {"Cache-Control", "no-store"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Content-Security-Policy", CONTENT_SECURITY_POLICY}});
}

HttpServer::~HttpServer() {
  if (!parts_->thread.joinable()) return;
  // Stopping a server that does not run yet has no effect.
  while (!parts_->server.is_running()) std::this_thread::yield();
  parts_->server.stop();
  parts_->thread.join();
}

void HttpServer::add(const std::string& pattern, const Page& page) {
  parts_->server.Get(pattern.c_str(), [page](const httplib::Request& request,
                                             httplib::Response& response) {
    const HttpAnswer answer =
        page({request.path, [&request](const std::string& key) {
                return request.has_param(key.c_str()) ? request.get_param_value(key.c_str()) : "";
              }});
    response.status = answer.status;
    response.set_content(answer.body, answer.media_type.c_str());
  });
}

bool HttpServer::bind(const std::string& address, int port, std::string* why) {
  httplib::Server& server = parts_->server;
  const int bound = port != 0 ? (server.bind_to_port(address.c_str(), port) ? port : -1)
                              : server.bind_to_any_port(address.c_str());
  if (bound < 0) {
    *why = "cannot listen on " + armtext::HostPort{address, port}.text() +
           ": the port is in use, or the address is not this machine's";
    return false;
  }
  parts_->loopback = isLoopback(address);
  url_ = "http://" + armtext::HostPort{address, bound}.text() + "/";
  return true;
}

void HttpServer::start() {
  parts_->thread = std::thread([this] { (void)parts_->server.listen_after_bind(); });
}

}  // namespace armengine
