#include "cms/ipcam/onvif_events.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "cms/ipcam/internal/event_subscription.h"
#include "cms/ipcam/internal/soap_transfer.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/condition.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {
namespace {

constexpr std::uint64_t kFarewellsMs =
    2'000;  // for all subscriptions together, at the end: a restart waits for it
constexpr std::uint64_t kLongestSleepMs = 3'600'000;

}  // namespace

// The thread owns the cameras; the others leave word.
class OnvifEvents::Impl {
 public:
  Impl() : multi_(InitializeCurl() ? curl_multi_init() : nullptr) {}
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  unsigned Subscribe(const OnvifAccess& access, OnEvent onEvent, OnStatus onStatus);
  void Unsubscribe(unsigned number);

 private:
  struct Camera {
    Camera(unsigned itsNumber, const OnvifAccess& access, OnEvent onEvent, OnStatus onStatus)
        : number(itsNumber),
          subscription(access, std::move(onEvent), std::move(onStatus)),
          transfer(access) {}

    const unsigned number;
    EventSubscription subscription;
    SoapTransfer transfer;
    bool asking = false;  // the transfer is on its way
  };
  using Cameras = std::vector<std::unique_ptr<Camera>>;

  void Run();
  bool TakeWord();
  void End(Camera& camera);
  void Ask(Camera& camera);
  void TakeAnswers();
  void Answer(Camera& camera, CURLcode code);
  int SleepMs(std::uint64_t end) const;

  const CurlMulti multi_;
  Cameras cameras_;  // the thread's own

  CMSCritical lock_;
  CMSCondition taken_{lock_};
  Cameras added_ CMS_GUARDED_BY(lock_);
  std::vector<unsigned> removed_ CMS_GUARDED_BY(lock_);
  bool stopping_ CMS_GUARDED_BY(lock_) = false;
  unsigned lastNumber_ CMS_GUARDED_BY(lock_) = 0;
  NamedThread thread_ CMS_GUARDED_BY(lock_);
};

OnvifEvents::Impl::~Impl() {
  {
    ScopeLock guard(lock_);
    stopping_ = true;
    if (!thread_.IsStarted()) {
      return;
    }
  }
  curl_multi_wakeup(multi_.get());
  // Nobody else starts or joins it any more; the thread itself takes the lock.
  [this]() CMS_NO_THREAD_SAFETY_ANALYSIS { thread_.Join(); }();
}

unsigned OnvifEvents::Impl::Subscribe(const OnvifAccess& access, OnEvent onEvent,
                                      OnStatus onStatus) {
  ScopeLock guard(lock_);
  if (multi_ == nullptr ||
      (!thread_.IsStarted() && !thread_.Start("cms-events", [this] { Run(); }))) {
    return 0;
  }
  added_.push_back(
      std::make_unique<Camera>(++lastNumber_, access, std::move(onEvent), std::move(onStatus)));
  curl_multi_wakeup(multi_.get());
  return lastNumber_;
}

void OnvifEvents::Impl::Unsubscribe(unsigned number) {
  ScopeLock guard(lock_);
  if (!thread_.IsStarted()) {
    return;
  }
  removed_.push_back(number);
  curl_multi_wakeup(multi_.get());
  while (std::ranges::count(removed_, number) > 0) {
    taken_.Wait();
  }
}

void OnvifEvents::Impl::Run() {
  std::uint64_t end = 0;  // of the farewells, once they have begun
  for (;;) {
    if (!TakeWord() && end == 0) {
      end = TickMilliseconds() + kFarewellsMs;
      for (const auto& camera : cameras_) {
        End(*camera);
      }
    }
    const std::uint64_t now = TickMilliseconds();
    for (const auto& camera : cameras_) {
      if (!camera->asking && !camera->subscription.IsOver() &&
          camera->subscription.DueAt() <= now) {
        Ask(*camera);
      }
    }
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    TakeAnswers();
    std::erase_if(cameras_, [](const auto& camera) { return camera->subscription.IsOver(); });
    if (end != 0 && (cameras_.empty() || TickMilliseconds() >= end)) {
      break;
    }
    curl_multi_poll(multi_.get(), nullptr, 0, SleepMs(end), nullptr);
  }
  for (const auto& camera : cameras_) {
    if (camera->asking) {
      curl_multi_remove_handle(multi_.get(), camera->transfer.Handle());
    }
  }
  cameras_.clear();
}

// False when all is to end.
bool OnvifEvents::Impl::TakeWord() {
  ScopeLock guard(lock_);
  std::ranges::move(added_, std::back_inserter(cameras_));
  added_.clear();
  for (const unsigned number : removed_) {
    const auto found =
        std::ranges::find(cameras_, number, [](const auto& camera) { return camera->number; });
    if (found != cameras_.end()) {
      End(**found);
    }
  }
  if (!removed_.empty()) {
    removed_.clear();
    taken_.NotifyAll();
  }
  return !stopping_;
}

void OnvifEvents::Impl::End(Camera& camera) {
  if (camera.subscription.Stop(camera.asking) && camera.asking) {
    curl_multi_remove_handle(multi_.get(), camera.transfer.Handle());
    camera.asking = false;
  }
}

void OnvifEvents::Impl::Ask(Camera& camera) {
  const SoapRequestText request = camera.subscription.NextRequest();
  camera.asking = camera.transfer.Prepare(request) &&
                  curl_multi_add_handle(multi_.get(), camera.transfer.Handle()) == CURLM_OK;
  if (!camera.asking) {
    SoapReply failed;
    failed.error = "the HTTP client cannot be started";
    camera.subscription.TakeReply(failed);
  }
}

void OnvifEvents::Impl::TakeAnswers() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    CURL* const handle = message->easy_handle;
    const CURLcode code = message->data.result;
    const auto camera = std::ranges::find(cameras_, handle,
                                          [](const auto& each) { return each->transfer.Handle(); });
    curl_multi_remove_handle(multi_.get(), handle);
    if (camera != cameras_.end()) {
      Answer(**camera, code);
    }
  }
}

void OnvifEvents::Impl::Answer(Camera& camera, CURLcode code) {
  camera.asking = camera.transfer.IsToBeRepeated(code) &&
                  curl_multi_add_handle(multi_.get(), camera.transfer.Handle()) == CURLM_OK;
  if (!camera.asking) {
    camera.subscription.TakeReply(camera.transfer.TakeReply(code));
  }
}

// Until the next request is due; libcurl sleeps less where its own times say so.
int OnvifEvents::Impl::SleepMs(std::uint64_t end) const {
  std::uint64_t wake = end != 0 ? end : TickMilliseconds() + kLongestSleepMs;
  for (const auto& camera : cameras_) {
    if (!camera->asking) {
      wake = std::min(wake, camera->subscription.DueAt());
    }
  }
  const std::uint64_t now = TickMilliseconds();
  return wake <= now ? 0 : static_cast<int>(std::min(wake - now, kLongestSleepMs));
}

OnvifEvents::OnvifEvents() : impl_(std::make_unique<Impl>()) {}

OnvifEvents::~OnvifEvents() = default;

unsigned OnvifEvents::Subscribe(const OnvifAccess& access, OnEvent onEvent, OnStatus onStatus) {
  return impl_->Subscribe(access, std::move(onEvent), std::move(onStatus));
}

void OnvifEvents::Unsubscribe(unsigned number) {
  impl_->Unsubscribe(number);
}

}  // namespace cms
