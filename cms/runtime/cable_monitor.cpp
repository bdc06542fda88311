#include "cms/runtime/cable_monitor.h"

#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <string>

#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/wake_up.h"

namespace cms {
class CNetworkCableMonitor::Impl {
 public:
  Impl(NetworkCableCallback callback, void* context) : callback_(callback), context_(context) {}
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool Start();
  void Stop();

 private:
  struct Link {
    std::string name;
    bool connected = false;
    bool seen = true;  // in the list that the kernel is just sending
  };

  void Run();
  void AskForAll();
  void Read();
  void Take(const void* message, bool gone);
  void EndOfList();
  void Tell(const Link& link) { callback_(context_, link.name.c_str(), link.connected ? 1 : 0); }

  const NetworkCableCallback callback_;
  void* const context_;
  WakeUp stop_;
  int socket_ = -1;
  NamedThread thread_;
  std::map<int, Link> links_;  // by the interface's number; the thread's own
  bool listing_ = false;
  bool lost_ = false;  // messages, while a list was on its way
};

CNetworkCableMonitor::CNetworkCableMonitor(NetworkCableCallback callback, void* context)
    : impl_(std::make_unique<Impl>(callback, context)) {}

CNetworkCableMonitor::~CNetworkCableMonitor() = default;

bool CNetworkCableMonitor::Start() {
  return impl_->Start();
}

void CNetworkCableMonitor::Stop() {
  impl_->Stop();
}

CNetworkCableMonitor::Impl::~Impl() {
  Stop();
  if (socket_ >= 0) {
    close(socket_);
  }
}

bool CNetworkCableMonitor::Impl::Start() {
  if (callback_ == nullptr || socket_ >= 0) {
    errno = callback_ == nullptr ? EINVAL : EALREADY;
    return false;
  }
  socket_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (socket_ < 0 || stop_.Descriptor() < 0 ||
      bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  return thread_.Start("cms-cable", [this] { Run(); });
}

void CNetworkCableMonitor::Impl::Stop() {
  if (thread_.IsStarted()) {
    stop_.Signal();
    thread_.Join();
  }
}

void CNetworkCableMonitor::Impl::Run() {
  AskForAll();
  pollfd waited[] = {{socket_, POLLIN, 0}, {stop_.Descriptor(), POLLIN, 0}};
  for (;;) {
    if (poll(waited, std::size(waited), -1) < 0 && errno != EINTR) {
      return;
    }
    if (waited[1].revents != 0) {
      return;
    }
    if (waited[0].revents != 0) {
      Read();
    }
  }
}

void CNetworkCableMonitor::Impl::AskForAll() {
  struct {
    nlmsghdr header;
    ifinfomsg body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  for (auto& [index, link] : links_) {
    link.seen = false;
  }
  lost_ = false;
  listing_ = send(socket_, &request, sizeof request, 0) == sizeof request;
}

void CNetworkCableMonitor::Impl::Read() {
  alignas(nlmsghdr) char buffer[32 * 1024];
  sockaddr_nl sender{};
  socklen_t senderSize = sizeof sender;
  const ssize_t received = recvfrom(socket_, buffer, sizeof buffer, MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&sender), &senderSize);
  if (received < 0 || received > static_cast<ssize_t>(sizeof buffer)) {
    if (received > 0 || errno == ENOBUFS) {  // messages were lost: ask how things are now
      lost_ = true;
      if (!listing_) {
        AskForAll();
      }
    }
    return;
  }
  if (sender.nl_pid != 0) {  // only the kernel is believed
    return;
  }
  auto left = static_cast<std::uint32_t>(received);
  for (auto* each = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(each, left);
       each = NLMSG_NEXT(each, left)) {
    if (each->nlmsg_type == NLMSG_DONE || each->nlmsg_type == NLMSG_ERROR) {
      EndOfList();
    } else if (each->nlmsg_type == RTM_NEWLINK || each->nlmsg_type == RTM_DELLINK) {
      Take(each, each->nlmsg_type == RTM_DELLINK);
    }
  }
}

void CNetworkCableMonitor::Impl::Take(const void* message, bool gone) {
  const auto* const header = static_cast<const nlmsghdr*>(message);
  if (header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
    return;
  }
  const auto* const body = static_cast<const ifinfomsg*>(NLMSG_DATA(header));
  // Bridges tell of their ports in messages of their own, which are not about the interface.
  if (body->ifi_family != AF_UNSPEC || (body->ifi_flags & IFF_LOOPBACK) != 0) {
    return;
  }
  std::string name;
  auto left = IFLA_PAYLOAD(header);
  for (const rtattr* each = IFLA_RTA(body); RTA_OK(each, left); each = RTA_NEXT(each, left)) {
    if (each->rta_type == IFLA_IFNAME) {
      const auto* const text = static_cast<const char*>(RTA_DATA(each));
      name.assign(text, strnlen(text, RTA_PAYLOAD(each)));
    }
  }
  constexpr unsigned kPlugged = IFF_UP | IFF_LOWER_UP;
  const bool connected = !gone && (body->ifi_flags & kPlugged) == kPlugged;
  const auto [place, isNew] = links_.try_emplace(body->ifi_index);
  Link& link = place->second;
  link.name = name;
  link.seen = true;
  if (isNew ? !gone : link.connected != connected) {
    link.connected = connected;
    Tell(link);
  }
  if (gone) {
    links_.erase(place);
  }
}

void CNetworkCableMonitor::Impl::EndOfList() {
  if (!listing_) {
    return;
  }
  listing_ = false;
  for (auto each = links_.begin(); each != links_.end();) {
    Link& link = each->second;
    if (link.seen) {
      ++each;
      continue;
    }
    if (link.connected) {
      link.connected = false;
      Tell(link);
    }
    each = links_.erase(each);
  }
  if (lost_) {
    AskForAll();
  }
}

}  // namespace cms
