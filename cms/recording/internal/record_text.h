// Small rules that the records of recordings share.
#pragma once

#include <cstdint>
#include <string_view>

namespace cms {

// The text behind a pointer of the interface, where null stands for no text.
inline std::wstring_view TextOf(const wchar_t* text) {
  return text == nullptr ? std::wstring_view() : std::wstring_view(text);
}

// How a recorded frame's time widens a record's times; 0 stands for a start that is not set. The
// end follows the last time reported and may move back.
inline void WidenRecordTimes(std::int64_t time, std::int64_t& start, std::int64_t& end) {
  if (start == 0) {
    start = time;
    end = time;
  } else if (time < start) {
    start = time;
  } else {
    end = time;
  }
}

}  // namespace cms
