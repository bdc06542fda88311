#include "cms/runtime/log.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <list>
#include <new>
#include <utility>

#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/line_text.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/internal/without_secrets.h"

namespace cms {
namespace {

constexpr std::size_t kMostLines = 2'000;
constexpr std::size_t kMostBytes = 4 * 1024 * 1024;
constexpr std::size_t kLongestLogText = 4096;
constexpr std::size_t kLongestTrace = 32 * 1024;
constexpr std::uint64_t kRepeatMs = 60'000;
constexpr std::size_t kMostRemembered = 512;  // lines that may come again
constexpr int kNothing = -1;

// What the callback's own thread logs would call for the next line, and so on.
thread_local bool isCallback = false;

struct KeptLine {
  LogLevel level = LogLevel::kInfo;
  std::int64_t timeUs = 0;
  std::string area;
  std::string text;
  std::size_t Bytes() const { return sizeof *this + area.size() + text.size(); }
};

// The lines of a trace stay lines.
std::string VisibleTrace(std::string_view text) {
  std::string visible;
  while (!text.empty() && visible.size() < kLongestTrace) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    visible += (visible.empty() ? "" : "\n") + OneLine(line, kLongestTrace - visible.size());
  }
  return visible;
}

class LibraryLog {
 public:
  bool IsWanted(LogLevel level) const {
    return static_cast<int>(level) <= highest_.load(std::memory_order_relaxed);
  }
  std::uint64_t Dropped() const { return dropped_.load(std::memory_order_relaxed); }

  bool SetCallback(LogCallback callback, LogLevel highest) {
    const ScopeLock setting(settingLock_);
    highest_.store(kNothing, std::memory_order_relaxed);
    {
      const ScopeLock hold(lock_);
      ended_ = true;
      changed_.notify_all();
    }
    thread_.Join();
    const ScopeLock hold(lock_);
    waiting_.clear();  // of those who were logging while it ended
    waitingBytes_ = 0;
    said_.clear();
    ended_ = false;
    toldDropped_ = Dropped();
    if (callback == nullptr) {
      return true;
    }
    callback_ = std::move(callback);
    if (!thread_.Start("cms-log", [this] { Work(); })) {
      return false;
    }
    highest_.store(static_cast<int>(highest), std::memory_order_relaxed);
    return true;
  }

  void Add(LogLevel level, std::string_view area, std::string_view text) {
    const bool isTrace = level == LogLevel::kTrace;
    text = text.substr(0, kLongestTrace);
    KeptLine line{level, WallMicroseconds(), std::string(area), WithoutSecrets(text)};
    line.text = isTrace ? VisibleTrace(line.text) : OneLine(line.text, kLongestLogText);
    const ScopeLock hold(lock_);
    if (ended_ || (!isTrace && IsRepeatedLocked(line))) {
      return;
    }
    KeepLocked(std::move(line));
  }

  void CountDropped() { dropped_.fetch_add(1, std::memory_order_relaxed); }

 private:
  struct Said {
    KeptLine line;
    std::uint64_t tick = 0;
    std::uint64_t again = 0;
  };

  static std::string TimesMore(std::uint64_t times) {
    return " (" + std::to_string(times) + (times == 1 ? " time more)" : " times more)");
  }

  bool IsRepeatedLocked(KeptLine& line) CMS_REQUIRES(lock_) {
    const std::uint64_t now = TickMilliseconds();
    for (auto said = said_.begin(); said != said_.end(); ++said) {
      if (said->line.text != line.text || said->line.area != line.area) {
        continue;
      }
      if (now - said->tick < kRepeatMs) {
        ++said->again;
        changed_.notify_all();  // it tells the count when the minute is over
        return true;
      }
      Said renewed{line, now, 0};
      if (said->again > 0) {
        line.text += TimesMore(said->again + 1);  // with this one, as the thread would count them
      }
      said_.erase(said);
      said_.push_back(std::move(renewed));
      return false;
    }
    while (!said_.empty() &&
           (said_.size() >= kMostRemembered ||
            (said_.front().again == 0 && now - said_.front().tick >= kRepeatMs))) {
      said_.pop_front();
    }
    said_.push_back({line, now, 0});
    return false;
  }

  void KeepLocked(KeptLine line) CMS_REQUIRES(lock_) {
    if (waiting_.size() >= kMostLines || waitingBytes_ + line.Bytes() > kMostBytes) {
      CountDropped();
      return;
    }
    waitingBytes_ += line.Bytes();
    waiting_.push_back(std::move(line));
    changed_.notify_all();
  }

  // Tells the counts of lines that came again and are a minute old, at the end all. How long until
  // the next one's.
  std::chrono::milliseconds TellRepeatsLocked() CMS_REQUIRES(lock_) {
    const std::uint64_t now = TickMilliseconds();
    std::uint64_t next = kNever;
    for (Said& said : said_) {
      if (said.again == 0) {
        continue;
      }
      if (ended_ || now - said.tick >= kRepeatMs) {
        KeptLine line = said.line;
        line.timeUs = WallMicroseconds();
        line.text += TimesMore(said.again);
        said.again = 0;
        said.tick = now;
        KeepLocked(std::move(line));
      } else {
        next = std::min(next, kRepeatMs - (now - said.tick));
      }
    }
    return std::chrono::milliseconds(next);
  }

  // Returns an empty list when it is over.
  std::deque<KeptLine> WaitForLines() {
    const ScopeLock hold(lock_);
    while (waiting_.empty()) {
      if (const auto next = TellRepeatsLocked(); ended_ || !waiting_.empty()) {
        break;
      } else if (next.count() == kNever) {
        changed_.wait(lock_);
      } else {
        changed_.wait_for(lock_, next);
      }
    }
    waitingBytes_ = 0;
    if (const std::uint64_t dropped = Dropped(); dropped != toldDropped_) {
      waiting_.push_back({LogLevel::kWarning, WallMicroseconds(), "log",
                          std::to_string(dropped - std::exchange(toldDropped_, dropped)) +
                              " lines were dropped: whoever takes them does not keep up"});
    }
    return std::exchange(waiting_, {});
  }

  void Work() {
    isCallback = true;
    for (auto lines = WaitForLines(); !lines.empty(); lines = WaitForLines()) {
      for (const KeptLine& line : lines) {
        try {
          callback_({line.level, line.timeUs, line.area, line.text});
        } catch (...) {  // there is nobody who could be told
        }
      }
    }
  }

  static constexpr std::uint32_t kNever = 0xFFFFFFFF;  // milliseconds

  std::atomic<int> highest_{kNothing};
  std::atomic<std::uint64_t> dropped_{0};

  CMSCritical settingLock_;
  NamedThread thread_ CMS_GUARDED_BY(settingLock_);
  LogCallback callback_;  // set while the thread does not run

  CMSCritical lock_;  // innermost of all: held for as long as a line takes to be put in
  std::condition_variable_any changed_;
  std::deque<KeptLine> waiting_ CMS_GUARDED_BY(lock_);
  std::size_t waitingBytes_ CMS_GUARDED_BY(lock_) = 0;
  std::list<Said> said_ CMS_GUARDED_BY(lock_);
  std::uint64_t toldDropped_ CMS_GUARDED_BY(lock_) = 0;
  bool ended_ CMS_GUARDED_BY(lock_) = false;
};

LibraryLog& TheLog() {
  static auto* const log = new LibraryLog;  // threads may still log while the process ends
  return *log;
}

}  // namespace

const char* LogLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "error";
    case LogLevel::kWarning:
      return "warning";
    case LogLevel::kInfo:
      return "info";
    case LogLevel::kTrace:
      break;
  }
  return "trace";
}

bool SetLogCallback(LogCallback callback, LogLevel highest) {
  return TheLog().SetCallback(std::move(callback), highest);
}

bool IsLogged(LogLevel level) {
  return TheLog().IsWanted(level) && !isCallback;
}

void Log(LogLevel level, std::string_view area, std::string_view text) noexcept {
  if (!IsLogged(level)) {
    return;
  }
  try {
    TheLog().Add(level, area, text);
  } catch (const std::bad_alloc&) {
    TheLog().CountDropped();
  }
}

std::uint64_t DroppedLogLines() {
  return TheLog().Dropped();
}

}  // namespace cms
