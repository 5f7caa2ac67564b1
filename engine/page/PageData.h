#pragma once

#include "http/HttpServer.h"
#include "view/EngineView.h"

namespace armengine {

// The data of the page, as JSON.  Times and durations are nanoseconds, rates are per second; names
// are cut after ShownClass::LONGEST bytes where nothing else is said.  Queries that are wrong are
// answered as if they were not there.

/// The engine, all classes together, and the first classes of an order.
///   window  seconds that figures are about, at most 300; 0: since the engine's start
///   sort    application, transaction, count (without it), errors, p50, p95, p99, in_flight
///   order   asc or desc
///   filter  a piece of the names, in either case of ASCII
///   limit   classes, 100 without it, at most 500
HttpAnswer classesData(const EngineView& view, const HttpServer::Request& request);

/// What finished in every two seconds of the last five minutes.
///   class  key of a class; all without it
HttpAnswer historyData(const EngineView& view, const HttpServer::Request& request);

/// The slowest of the last and slow instances.
///   window, class  as above
///   limit          30 without it, at most 200
HttpAnswer slowestData(const EngineView& view, const HttpServer::Request& request);

/// The finished instances of a trace, whose id is the last part of the path.
HttpAnswer traceData(const EngineView& view, const HttpServer::Request& request);

}  // namespace armengine
