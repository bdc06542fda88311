// A recorder's figures for Prometheus.
#pragma once

#include <string>

#include "tools/service/recorder_figures.h"

namespace tools {

inline constexpr char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

// The text exposition format, version 0.0.4. docs/watching.md lists the names.
std::string MetricsText(const RecorderFigures& figures);

}  // namespace tools
