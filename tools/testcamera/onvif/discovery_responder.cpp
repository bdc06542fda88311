#include "tools/testcamera/onvif/discovery_responder.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace testcamera {
namespace {

constexpr std::uint16_t kPort = 3702;
constexpr char kGroup[] = "239.255.255.250";
constexpr char kAnonymous[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing/role/anonymous";
constexpr char kComputer[] = "wsdp:Device pub:Computer";

[[noreturn]] void Fail(GError* error) {
  const ErrorPtr owned(error);
  throw std::runtime_error("cannot listen for WS-Discovery on UDP port " + std::to_string(kPort) +
                           ": " + owned->message);
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// Whether the device is of each type asked for, qualified names that the message declares.
bool HasTypes(const xmlNode* types) {
  for (const std::string& name : Words(types == nullptr ? "" : Text(types))) {
    const std::size_t colon = std::min(name.find(':'), name.size());
    const std::string prefix = name.substr(0, colon);
    const std::string local = colon == name.size() ? name : name.substr(colon + 1);
    const xmlNs* space = xmlSearchNs(types->doc, const_cast<xmlNode*>(types),
                                     colon == name.size() ? nullptr : Xml(prefix.c_str()));
    const std::string uri = space == nullptr ? "" : reinterpret_cast<const char*>(space->href);
    if (!(uri == kDeviceSpace && local == "Device") &&
        !(uri == "http://www.onvif.org/ver10/network/wsdl" && local == "NetworkVideoTransmitter")) {
      return false;
    }
  }
  return true;
}

// Section 5.1 of the standard, by RFC 3986: equal, or the beginning up to a "/".
bool HasScopes(const std::string& wanted, const std::vector<std::string>& scopes) {
  const std::vector<std::string> all = Words(wanted);
  return std::all_of(all.begin(), all.end(), [&](std::string each) {
    if (each.ends_with('/')) {
      each.pop_back();
    }
    return std::any_of(scopes.begin(), scopes.end(), [&](const std::string& scope) {
      return scope == each || scope.starts_with(each + "/");
    });
  });
}

}  // namespace

DiscoveryResponder::DiscoveryResponder(const std::string& bind, const Cameras& cameras,
                                       GMainContext* context)
    : bind_(bind), cameras_(cameras) {
  GError* error = nullptr;
  socket_.reset(
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, &error));
  const ObjectPtr<GSocketAddress> any(g_inet_socket_address_new_from_string("0.0.0.0", kPort));
  if (socket_ == nullptr || g_socket_bind(socket_.get(), any.get(), TRUE, &error) == FALSE) {
    Fail(error);
  }
  g_socket_set_blocking(socket_.get(), FALSE);
  JoinGroup();
  source_ = g_socket_create_source(socket_.get(), G_IO_IN, nullptr);
  g_source_set_callback(source_, G_SOURCE_FUNC(&OnReadable), this, nullptr);
  g_source_attach(source_, context);
}

DiscoveryResponder::~DiscoveryResponder() {
  g_source_destroy(source_);
  g_source_unref(source_);
}

// On every interface where a client can reach the cameras.
void DiscoveryResponder::JoinGroup() {
  ifaddrs* interfaces = nullptr;
  getifaddrs(&interfaces);
  GInetAddress* group = g_inet_address_new_from_string(kGroup);
  for (const ifaddrs* each = interfaces; each != nullptr; each = each->ifa_next) {
    if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    char address[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(each->ifa_addr)->sin_addr, address,
              sizeof address);
    if (bind_ == "0.0.0.0" || bind_ == address) {
      // An interface with two addresses is in the group already.
      g_socket_join_multicast_group(socket_.get(), group, FALSE, each->ifa_name, nullptr);
    }
  }
  g_object_unref(group);
  freeifaddrs(interfaces);
}

gboolean DiscoveryResponder::OnReadable(GSocket* socket, GIOCondition, gpointer self) {
  char buffer[65536];
  GSocketAddress* sender = nullptr;
  const gssize size =
      g_socket_receive_from(socket, &sender, buffer, sizeof buffer, nullptr, nullptr);
  const ObjectPtr<GSocketAddress> owned(sender);
  if (size > 0) {
    static_cast<DiscoveryResponder*>(self)->Answer(
        std::string(buffer, static_cast<std::size_t>(size)), sender);
  }
  return G_SOURCE_CONTINUE;
}

// The address of this machine that the sender is reached from.
std::string DiscoveryResponder::LocalHost(GSocketAddress* sender) const {
  if (bind_ != "0.0.0.0") {
    return bind_;
  }
  const ObjectPtr<GSocket> probe(
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, nullptr));
  g_socket_connect(probe.get(), sender, nullptr, nullptr);
  const ObjectPtr<GSocketAddress> local(g_socket_get_local_address(probe.get(), nullptr));
  return TextPtr(g_inet_address_to_string(
                     g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(local.get()))))
      .get();
}

void DiscoveryResponder::Answer(const std::string& bytes, GSocketAddress* sender) try {
  const SoapRequest probe(bytes);
  const xmlNode* types = Child(probe.Operation(), "Types");
  const auto message = TextAt(probe.Header(), "MessageID");
  if (!IsElement(probe.Operation(), kDiscoverySpace, "Probe") || !message || !HasTypes(types)) {
    return;
  }
  for (const auto& camera : cameras_) {
    const std::vector<std::string> scopes = camera->DeviceScopes();
    if (!HasScopes(TextAt(probe.Operation(), "Scopes").value_or(""), scopes)) {
      continue;
    }
    const OnvifStyle& style = camera->Style();
    SoapAnswer answer(style, {"wsa", "d", "dn", "tds", "wsdp", "pub"});
    Element header = answer.Header();
    const TextPtr uuid(g_uuid_string_random());
    header.Add("wsa:MessageID", std::string("urn:uuid:") + uuid.get());
    header.Add("wsa:RelatesTo", *message);
    header.Add("wsa:To", kAnonymous);
    header.Add("wsa:Action", std::string(kDiscoverySpace) + "/ProbeMatches");
    header.Add("d:AppSequence")
        .Attribute("InstanceId", "1")
        .Attribute("MessageNumber", std::to_string(++messages_));
    Element match = answer.Body().Add("d:ProbeMatches").Add("d:ProbeMatch");
    match.Add("wsa:EndpointReference").Add("wsa:Address", camera->Endpoint());
    match.Add("d:Types", style.computer ? kComputer : "dn:NetworkVideoTransmitter tds:Device");
    std::string list;
    for (const std::string& scope : scopes) {
      list += (list.empty() ? "" : " ") + scope;
    }
    match.Add("d:Scopes", list);
    match.Add("d:XAddrs", camera->Addresses(LocalHost(sender)));
    match.Add("d:MetadataVersion", 1);
    const std::string text = answer.Bytes();
    const auto send = [&](const std::string& datagram) {
      g_socket_send_to(socket_.get(), sender, datagram.data(), datagram.size(), nullptr, nullptr);
    };
    if (style.garbage) {
      send(std::string("\0\xff<:XAddrs>http://:XAddrs", 25));
      send(text.substr(0, text.size() / 3));
    }
    send(text);
    if (style.duplicates) {
      send(text);
    }
  }
} catch (const SoapFault&) {
  // Not a probe: whatever comes over multicast is not worth a fault.
}

}  // namespace testcamera
