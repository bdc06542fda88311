// Times on the command line and in what it prints: ISO 8601, local unless they say otherwise.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

// How a moment that is named by its day alone is meant.
enum class DayEdge { kFirstSecond, kLastSecond };

// Seconds since 1970-01-01 UTC of "2026-11-21T10:30:00Z", "...+01:00", or without a zone in local
// time; the seconds may be missing, a blank may stand for the "T", and a day alone is its edge.
// Throws UsageError that names the option and says what it takes.
std::int64_t ReadTime(const std::string& option, const std::string& text,
                      DayEdge edge = DayEdge::kFirstSecond);

std::string UtcTime(std::int64_t seconds);    // 2026-11-21T10:30:00Z
std::string LocalTime(std::int64_t seconds);  // 2026-11-21T11:30:00+01:00

}  // namespace tools
