#pragma once

#include <string>

#include "view/EngineView.h"

namespace armengine {

/// Media type of what prometheusText makes.
inline constexpr const char* PROMETHEUS_MEDIA_TYPE = "text/plain; version=0.0.4; charset=utf-8";

/// Everything that the engine counts, in Prometheus' text format.  Any thread.
std::string prometheusText(const EngineView& view);

}  // namespace armengine
