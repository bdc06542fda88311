// CCircularLogWriter, a log file of bounded size whose newest entries take the place of the oldest.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

// A file is plain text: a first line of 64 bytes that tells its size, and behind it a ring of lines
//
//   NUMBER CHECK TIME TEXT
//
// the entry's number in 16 and a CRC-32 (of all that stands before and behind it) in 8 hexadecimal
// digits, and the time in UTC. Numbers grow by one, so "sort FILE" shows the entries in their
// order.
// "#" stands behind the newest entry; what follows up to the end of that line is the rest of an old
// one. A line whose check does not fit is no entry.
struct CircularLogEntry {
  std::uint64_t number = 0;
  std::string time;  // "2026-11-21T10:56:01.123Z"
  std::string text;
};

// Reads the entries of a file (native path), oldest first, also while it is being written. False
// when it cannot be read or is no circular log.
CMS_API bool ReadCircularLog(const std::string& path, std::vector<CircularLogEntry>& entries);

// Members may be called from any thread. Each entry is one write to the file, under a lock: when
// the process dies, no entry is lost whose Write has returned, and none of others'. A power cut
// loses what the system had not yet written by itself, as nothing is synced.
class CMS_API CCircularLogWriter {
 public:
  static constexpr std::uint32_t kMinimumSize = 16 * 1024;
  static constexpr std::uint32_t kMaximumSize = 64 * 1024 * 1024;
  static constexpr std::size_t kLongestText = 4096;

  // Opens a log (native path), or makes one of `size` bytes, brought between the limits. An old
  // one goes on behind its newest entry and keeps the size that it has. nullptr with the error
  // number: EWOULDBLOCK when another writer has it, EEXIST when the file is something else, which
  // is left as it is.
  static std::unique_ptr<CCircularLogWriter> Open(const std::string& path, std::uint32_t size,
                                                  int& error);
  ~CCircularLogWriter();
  CCircularLogWriter(const CCircularLogWriter&) = delete;
  CCircularLogWriter& operator=(const CCircularLogWriter&) = delete;

  // Appends an entry of one line. Control characters become "\n", "\t" or "\x1b"; what is longer
  // than kLongestText bytes then is cut in front of a character. False when the disk
  // refuses; the next entry then takes its place.
  bool Write(std::string_view text);

 private:
  class CMS_HIDDEN Impl;
  explicit CCircularLogWriter(std::unique_ptr<Impl> impl);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace cms
