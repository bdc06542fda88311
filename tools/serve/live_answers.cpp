#include "tools/serve/live_answers.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <deque>
#include <stdexcept>
#include <string>

#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using std::chrono::milliseconds;

// How often is looked for what is new while somebody watches.
constexpr milliseconds kLookEvery{40};
// Something is sent so often at least, so that a client that went is noticed.
constexpr milliseconds kSignOfLife{2000};
constexpr char kNothingNew[] = "{}\n";

class Watching {
 public:
  explicit Watching(std::atomic<int>& watchers) : watchers_(watchers) {
    if (++watchers_ > LiveAnswers::kMost) {
      --watchers_;
      throw std::runtime_error("too many are watching already");
    }
  }
  ~Watching() { --watchers_; }
  Watching(const Watching&) = delete;
  Watching& operator=(const Watching&) = delete;

 private:
  std::atomic<int>& watchers_;
};

// Sends what `take` appends, turn by turn, until the client has gone or a stop is asked for.
template <typename Take>
void SendTurns(WebRequest& request, Take take) {
  RecordBytes turn;
  milliseconds silent = kSignOfLife;
  do {
    turn.clear();
    take(turn);
    silent = turn.empty() ? silent + kLookEvery : milliseconds::zero();
    if (silent >= kSignOfLife) {
      turn.assign(std::begin(kNothingNew), std::end(kNothingNew) - 1);
      silent = milliseconds::zero();
    }
    if (!turn.empty() && !request.Send(turn)) {
      return;
    }
  } while (!WaitForStop(kLookEvery));
  request.EndStream();
}

struct UsedStream {
  UsedStream(std::shared_ptr<ServeSite> of, StreamRing& ring)
      : site(std::move(of)), use(site->Watched()), watch(ring) {}
  std::shared_ptr<ServeSite> site;
  OpenWhileUsed::Use use;
  StreamRing::Watch watch;
};

}  // namespace

std::vector<std::shared_ptr<ServeSite>> LiveAnswers::Wanted(const WebRequest& request) const {
  auto sites = sites_();
  const auto list = request.Value("sites");
  if (!list) {
    return sites;
  }
  std::vector<int> numbers;
  for (const char* at = list->data(); at < list->data() + list->size(); ++at) {
    const auto [end, error] =
        std::from_chars(at, list->data() + list->size(), numbers.emplace_back());
    if (error != std::errc() || (end != list->data() + list->size() && *end != ',')) {
      throw BadRequest("sites is a row of numbers such as 1,2");
    }
    at = end;
  }
  std::erase_if(sites, [&](const auto& site) {
    return std::find(numbers.begin(), numbers.end(), site->Number()) == numbers.end();
  });
  return sites;
}

void LiveAnswers::Pictures(WebRequest& request) {
  struct Used {
    Used(std::shared_ptr<ServeSite> of, long width)
        : site(std::move(of)), use(site->Watched()), watch(site->Pictures(), width) {}
    std::shared_ptr<ServeSite> site;
    OpenWhileUsed::Use use;
    LivePictures::Watch watch;
  };
  constexpr long kLeastWidth = 16;
  const long width = request.Value("width")
                         ? request.Number("width", kLeastWidth, LivePictures::Watch::kFullWidth)
                         : LivePictures::Watch::kFullWidth;
  const Watching watching(watchers_);
  std::deque<Used> used;
  for (auto& site : Wanted(request)) {
    used.emplace_back(std::move(site), width);
  }
  SendTurns(request, [&](RecordBytes& turn) {
    for (Used& each : used) {
      if (const PictureRecord picture = each.watch.Next()) {
        turn.insert(turn.end(), picture->begin(), picture->end());
      }
    }
  });
}

void LiveAnswers::Video(WebRequest& request) {
  const Watching watching(watchers_);
  std::deque<UsedStream> used;
  for (const auto& site : Wanted(request)) {
    used.emplace_back(site, site->Stream().Video());
  }
  SendTurns(request, [&](RecordBytes& turn) {
    for (UsedStream& each : used) {
      each.watch.Take(turn);
    }
  });
}

void LiveAnswers::Sound(WebRequest& request) {
  const std::int64_t number = request.Number("site", 1, INT32_MAX);
  const Watching watching(watchers_);
  std::deque<UsedStream> used;
  for (const auto& site : sites_()) {
    if (site->Number() == number) {
      used.emplace_back(site, site->Stream().Sound());
    }
  }
  if (used.empty()) {
    throw BadRequest("there is no site " + std::to_string(number));
  }
  SendTurns(request, [&](RecordBytes& turn) { used.front().watch.Take(turn); });
}

}  // namespace tools
