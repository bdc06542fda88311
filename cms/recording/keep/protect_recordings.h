// Recordings that are kept whatever the limits say.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

// Of a site, seconds since 1970-01-01 UTC, both ends belong to it.
struct SiteSpan {
  std::uint32_t site = 0;
  std::int64_t from = 0;
  std::int64_t to = 0;

  bool operator==(const SiteSpan&) const = default;
};

struct ProtectedSpan {
  SiteSpan span;
  std::int64_t since = 0;  // when it was protected
};

// A data root's list "KeepList0" (docs/formats.md). What is protected is time, not files: every
// recording of the site that touches the span is left by all that removes recordings, also one that
// is recorded, repaired, renamed or moved later. Each function takes the list's lock of the process
// and waits for the disk. `root` is an absolute native path. Results: empty, or why it was not
// done; the list is as it was then.

CMS_API std::string ProtectRecordings(const std::string& root, const SiteSpan& span);
// Takes the span out of what is protected, wherever it lies in it.
CMS_API std::string ReleaseRecordings(const std::string& root, const SiteSpan& span);

struct ProtectedSpans {
  std::string error;  // empty; else why the list could not be read, or not to its end
  std::vector<ProtectedSpan> spans;  // in the order in which they were protected
};
CMS_API ProtectedSpans ReadProtectedSpans(const std::string& root);

// The span that protects a recording of the root by itself, without those that only share its first
// or last second. `file`: the absolute native path of its .drv file. Nothing when it is no
// recording of the root. It reads all of the root's record lists.
CMS_API std::vector<std::optional<SiteSpan>> SpansOfRecordings(
    const std::string& root, const std::vector<std::string>& files);

}  // namespace cms
