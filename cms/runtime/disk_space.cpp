#include "cms/runtime/disk_space.h"

#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr std::size_t kDrives = 26;
constexpr std::uint32_t kRefreshMilliseconds = 60'000;

struct Answer {
  bool known = false;
  FreeSpace space;
  std::uint32_t tick = 0;
};

struct Cache {
  CMSCritical lock;
  std::array<Answer, kDrives> answers CMS_GUARDED_BY(lock);
};

Cache& TheCache() {
  static auto* cache = new Cache;  // threads may still ask while the process ends
  return *cache;
}

bool NamesDrive(std::wstring_view path) {
  return path.size() == 1 || (path.size() == 2 && path[1] == L':');
}

bool IsLetter(wchar_t c) {
  return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

std::uint32_t RefreshAfter() {
  const auto thread = static_cast<std::uint32_t>(gettid());
  return kRefreshMilliseconds + 13 * (thread * thread % 97);
}

bool CachedSpace(std::size_t drive, const std::string& native, FreeSpace& space) {
  Cache& cache = TheCache();
  ScopeLock lock(cache.lock);
  Answer& answer = cache.answers[drive];
  if (!answer.known || TickCount() - answer.tick > RefreshAfter()) {
    answer.known = CurrentFileIo().Space(native, answer.space);
    answer.tick = TickCount();
  }
  space = answer.space;
  return answer.known;
}

}  // namespace

int DiskFreeSpace(const wchar_t* path, std::uint64_t* freeToCaller, std::uint64_t* totalBytes,
                  std::uint64_t* totalFree) {
  const std::wstring_view text = path != nullptr ? path : L".";
  // A lone letter names a drive as well as one with its colon.
  const std::string native = text.size() == 1 && IsLetter(text[0]) ? "/" : NativePath(text);
  FreeSpace space;
  const bool found = NamesDrive(text) && text[0] >= L'A' && text[0] <= L'Z'
                         ? CachedSpace(static_cast<std::size_t>(text[0] - L'A'), native, space)
                         : CurrentFileIo().Space(native, space);
  if (!found) {
    return 0;
  }
  const auto put = [](std::uint64_t* out, std::uint64_t value) {
    if (out != nullptr) {
      *out = value;
    }
  };
  put(freeToCaller, space.freeToCaller);
  put(totalBytes, space.total);
  put(totalFree, space.free);
  return 1;
}

}  // namespace cms
