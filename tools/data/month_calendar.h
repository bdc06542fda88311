// A month as people draw it.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tools {

// The first second of a month in UTC; month 13 is the first of the next year.
std::int64_t MonthBegin(int year, int month);

// Weeks from Monday to Sunday; marked days (by their number, 1 to 31) stand in brackets.
std::string MonthCalendar(int year, int month, const std::array<int, 32>& marked);

}  // namespace tools
