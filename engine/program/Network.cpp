#include "program/Network.h"

#include "http/HttpServer.h"
#include "metrics/Prometheus.h"
#include "otlp/OtlpSender.h"
#include "page/PageData.h"
#include "page/PageFiles.h"

namespace armengine {

namespace {

class ServedPages : public Pages {
 public:
  explicit ServedPages(const EngineView& view) {
    server_.add("/metrics", [&view](const HttpServer::Request&) {
      return HttpAnswer{200, PROMETHEUS_MEDIA_TYPE, prometheusText(view)};
    });
    server_.add("/healthz", [](const HttpServer::Request&) {
      return HttpAnswer{200, "text/plain; charset=utf-8", "serving\n"};
    });
    addPage(view);
  }

  bool open(const std::string& address, int port, std::string* why) {
    if (!server_.bind(address, port, why)) return false;
    server_.start();
    return true;
  }
  std::string url() const override { return server_.url(); }

 private:
  using Data = HttpAnswer (*)(const EngineView&, const HttpServer::Request&);

  void addPage(const EngineView& view) {
    for (const PageFile& file : pageFiles()) {
      server_.add(std::string(file.path), [file](const HttpServer::Request&) {
        return HttpAnswer{200, std::string(file.media_type) + "; charset=utf-8",
                          std::string(file.content)};
      });
    }
    const auto add = [this, &view](const std::string& path, Data data) {
      server_.add(
          path, [&view, data](const HttpServer::Request& request) { return data(view, request); });
    };
    add("/api/classes", classesData);
    add("/api/history", historyData);
    add("/api/slowest", slowestData);
    add("/api/trace/[^/]*", traceData);
  }

  HttpServer server_;
};

}  // namespace

std::unique_ptr<Pages> servePages(const std::string& address, int port, const EngineView& view,
                                  std::string* why) {
  auto pages = std::make_unique<ServedPages>(view);
  if (!pages->open(address, port, why)) return nullptr;
  return pages;
}

std::unique_ptr<SpanExporter> sendTraces(const OtlpSettings& settings, EngineView* view,
                                         std::string*) {
  auto sender = std::make_unique<OtlpSender>(settings);
  const OtlpSender* from = sender.get();
  view->drops.push_back({"otlp", "too_many_waiting", [from] { return from->withoutRoom(); }});
  view->drops.push_back({"otlp", "refused", [from] { return from->refused(); }});
  view->drops.push_back({"otlp", "receiver_away", [from] { return from->unsent(); }});
  view->sent.push_back({"otlp", "spans", [from] { return from->sent(); }});
  view->sent.push_back({"otlp", "requests", [from] { return from->requests(); }});
  view->sent.push_back({"otlp", "retries", [from] { return from->retries(); }});
  return sender;
}

bool hasNetwork() {
  return true;
}

}  // namespace armengine
