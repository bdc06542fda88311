// A hook that publishes to an MQTT broker.
#include <mosquitto.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "cms/runtime/wake_up.h"
#include "tools/service/hook_sender.h"

namespace tools {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int kAtLeastOnce = 1;  // the quality of service
constexpr int kKeepAliveSeconds = 60;
constexpr int kMiscMs = 10'000;  // how often the library looks after its keep-alive
constexpr std::chrono::seconds kFirstRest{1};
constexpr std::chrono::seconds kLongestRest{30};
constexpr std::chrono::milliseconds kFarewell{1'000};
constexpr std::uint16_t kPort = 1883;
constexpr std::uint16_t kTlsPort = 8883;

struct MosquittoDeleter {
  void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};

std::string OwnClientId() {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  return std::string("orvanta-") + host + "-" + std::to_string(getpid());
}

// The connection to the broker, which stays open between messages: the broker then tells others
// when the recorder is gone. Its thread may wait in the resolver or for a connection for minutes,
// so whoever ends it does not wait for it, and it keeps itself alive.
class MqttConnection : public std::enable_shared_from_this<MqttConnection> {
 public:
  explicit MqttConnection(const HookConfig& config)
      : config_(config),
        port_(config.port != 0 ? config.port
              : config.tls     ? kTlsPort
                               : kPort),
        address_(config.host + ":" + std::to_string(port_)) {
    static const int initialized = mosquitto_lib_init();
    const std::string id = config.clientId.empty() ? OwnClientId() : config.clientId;
    client_.reset(mosquitto_new(id.c_str(), true, this));
    const std::string status = StatusTopic();
    const auto check = [this](int result, const char* what) {
      if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("hook " + config_.name + ": " + what + ": " +
                                 mosquitto_strerror(result));
      }
    };
    if (initialized != MOSQ_ERR_SUCCESS || client_ == nullptr) {
      throw std::runtime_error("hook " + config.name + ": the MQTT client cannot be made");
    }
    check(mosquitto_pub_topic_check(status.c_str()), "topic");
    check(mosquitto_will_set(client_.get(), status.c_str(), 7, "offline", kAtLeastOnce, true),
          "last will");
    if (!config.user.empty()) {
      check(mosquitto_username_pw_set(client_.get(), config.user.c_str(), config.password.c_str()),
            "user");
    }
    if (config.tls) {
      const bool own = !config.caFile.empty();
      check(mosquitto_tls_set(client_.get(), own ? config.caFile.c_str() : nullptr,
                              own ? nullptr : "/etc/ssl/certs", nullptr, nullptr, nullptr),
            "TLS");
    }
    mosquitto_connect_callback_set(client_.get(), [](mosquitto*, void* self, int result) {
      static_cast<MqttConnection*>(self)->OnConnect(result);
    });
    mosquitto_publish_callback_set(client_.get(), [](mosquitto*, void* self, int message) {
      static_cast<MqttConnection*>(self)->OnPublished(message);
    });
  }

  void Start() {
    std::thread([self = shared_from_this()] {
      pthread_setname_np(pthread_self(), "orvanta-mqtt");
      self->Work();
    }).detach();
  }

  // Says "offline" and ends, if the broker lets it be soon.
  void End() {
    std::unique_lock hold(lock_);
    ended_ = true;
    wake_.Signal();
    changed_.notify_all();
    changed_.wait_for(hold, kFarewell, [this] { return finished_; });
  }

  HookAnswer Publish(const HookEvent& event, int interrupt) {
    const std::string text = HookJson(event);
    {
      const std::lock_guard hold(lock_);
      if (!message_ || message_->text != text || message_->done) {
        message_ = Message{config_.topic + "/events/" + HookEventName(event.kind), text};
      }
      answered_.Clear();
      wake_.Signal();
      changed_.notify_all();
    }
    const auto end = SteadyClock::now() + std::chrono::seconds(config_.timeoutSeconds);
    while (true) {
      {
        const std::lock_guard hold(lock_);
        if (message_->done) {
          return {};
        }
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - SteadyClock::now()).count();
      std::array<pollfd, 2> wait{{{answered_.Descriptor(), POLLIN, 0}, {interrupt, POLLIN, 0}}};
      if (left <= 0 || poll(wait.data(), wait.size(), static_cast<int>(left)) == 0 ||
          wait[1].revents != 0) {
        const std::lock_guard hold(lock_);
        return {HookResult::kAgain,
                "mqtt://" + address_ + ": " +
                    (problem_.empty() ? "the broker has not acknowledged the message" : problem_)};
      }
      answered_.Clear();
    }
  }

 private:
  struct Message {
    std::string topic;
    std::string text;
    int id = 0;  // once it is handed to the library, which sends it again after a reconnection
    bool done = false;
  };

  std::string StatusTopic() const { return config_.topic + "/status"; }

  void OnConnect(int result) {
    const std::lock_guard hold(lock_);
    connected_ = result == 0;
    problem_ = result == 0 ? "" : mosquitto_connack_string(result);
    if (connected_) {
      rest_ = kFirstRest;
      mosquitto_publish(client_.get(), nullptr, StatusTopic().c_str(), 6, "online", kAtLeastOnce,
                        true);
    }
  }

  void OnPublished(int id) {
    const std::lock_guard hold(lock_);
    if (message_ && message_->id == id) {
      message_->done = true;
      answered_.Signal();
    }
    farewell_ = farewell_ && *farewell_ == id ? std::nullopt : farewell_;
  }

  void Work() {
    while (Connect() && Serve()) {
    }
    const std::lock_guard hold(lock_);
    finished_ = true;
    changed_.notify_all();
  }

  // Waits as long as it takes; false when it is to end.
  bool Connect() {
    while (true) {
      {
        const std::lock_guard hold(lock_);
        if (ended_) {
          return false;
        }
      }
      const int result =
          mosquitto_connect(client_.get(), config_.host.c_str(), port_, kKeepAliveSeconds);
      if (result == MOSQ_ERR_SUCCESS) {
        return true;
      }
      std::unique_lock hold(lock_);
      problem_ = result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
      Rest(hold);
    }
  }

  void Rest(std::unique_lock<std::mutex>& hold) {
    changed_.wait_for(hold, rest_, [this] { return ended_; });
    rest_ = std::min(rest_ * 2, kLongestRest);
  }

  // Until the connection is gone; false when it is to end.
  bool Serve() {
    SteadyClock::time_point farewellEnd = SteadyClock::time_point::max();
    while (true) {
      {
        std::unique_lock hold(lock_);
        if (ended_ && farewellEnd == SteadyClock::time_point::max()) {
          farewellEnd = SteadyClock::now() + kFarewell;
          SayFarewell();
        }
        if (ended_ && (!connected_ || !farewell_ || SteadyClock::now() >= farewellEnd)) {
          mosquitto_disconnect(client_.get());
          return false;
        }
        HandOver();
      }
      if (const int result = Step(); result != MOSQ_ERR_SUCCESS) {
        std::unique_lock hold(lock_);
        connected_ = false;
        if (problem_.empty() || result != MOSQ_ERR_CONN_LOST) {
          problem_ = mosquitto_strerror(result);
        }
        Rest(hold);
        return !ended_;
      }
    }
  }

  void HandOver() {
    if (connected_ && message_ && message_->id == 0) {
      mosquitto_publish(client_.get(), &message_->id, message_->topic.c_str(),
                        static_cast<int>(message_->text.size()), message_->text.data(),
                        kAtLeastOnce, false);
    }
  }

  void SayFarewell() {
    int id = 0;
    if (connected_ && mosquitto_publish(client_.get(), &id, StatusTopic().c_str(), 7, "offline",
                                        kAtLeastOnce, true) == MOSQ_ERR_SUCCESS) {
      farewell_ = id;
    }
  }

  int Step() {
    const bool writes = mosquitto_want_write(client_.get());
    std::array<pollfd, 2> wait{{{mosquitto_socket(client_.get()),
                                 static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0},
                                {wake_.Descriptor(), POLLIN, 0}}};
    bool ending = false;
    {
      const std::lock_guard hold(lock_);
      ending = ended_;
    }
    poll(wait.data(), wait.size(), ending ? 100 : kMiscMs);
    wake_.Clear();
    int result = mosquitto_socket(client_.get()) < 0 ? MOSQ_ERR_CONN_LOST : MOSQ_ERR_SUCCESS;
    if (result == MOSQ_ERR_SUCCESS && (wait[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
      result = mosquitto_loop_read(client_.get(), 1);
    }
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(client_.get())) {
      result = mosquitto_loop_write(client_.get(), 1);
    }
    return result == MOSQ_ERR_SUCCESS ? mosquitto_loop_misc(client_.get()) : result;
  }

  const HookConfig config_;
  const std::uint16_t port_;
  const std::string address_;
  cms::WakeUp wake_;      // of the thread
  cms::WakeUp answered_;  // of who publishes
  std::unique_ptr<mosquitto, MosquittoDeleter> client_;

  std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by it.
  std::optional<Message> message_;
  std::optional<int> farewell_;  // not acknowledged yet
  std::string problem_;
  std::chrono::seconds rest_ = kFirstRest;
  bool connected_ = false;
  bool ended_ = false;
  bool finished_ = false;
};

class MqttSender final : public HookSender {
 public:
  explicit MqttSender(const HookConfig& config) {
    if (config.host.empty()) {
      throw std::runtime_error("hook " + config.name + ": no broker is given");
    }
    connection_ = std::make_shared<MqttConnection>(config);
    connection_->Start();
  }
  ~MqttSender() override { connection_->End(); }
  HookAnswer Send(const HookEvent& event, int interrupt) override {
    return connection_->Publish(event, interrupt);
  }

 private:
  std::shared_ptr<MqttConnection> connection_;
};

}  // namespace

std::unique_ptr<HookSender> MakeMqttSender(const HookConfig& config) {
  return std::make_unique<MqttSender>(config);
}

}  // namespace tools
