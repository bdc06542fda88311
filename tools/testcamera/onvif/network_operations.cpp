// The device service's network settings. They are kept and read back; the camera's own sockets
// stay where they are.
#include "tools/testcamera/onvif/operations.h"

namespace testcamera {
namespace {

constexpr char kInterface[] = "eth0";

void AddAddress(Element parent, const char* name, const std::string& address) {
  Element element = parent.Add(name);
  element.Add("tt:Type", "IPv4");
  element.Add("tt:IPv4Address", address);
}

void GetNetworkInterfaces(Call& call) {
  const Network& network = call.camera.settings.network;
  Element interface = call.answer.Add("tds:NetworkInterfaces").Attribute("token", kInterface);
  interface.Add("tt:Enabled", true);
  Element info = interface.Add("tt:Info");
  info.Add("tt:Name", kInterface);
  info.Add("tt:HwAddress", "02:00:00:00:00:01");
  info.Add("tt:MTU", 1500);
  Element ipv4 = interface.Add("tt:IPv4");
  ipv4.Add("tt:Enabled", true);
  Element config = ipv4.Add("tt:Config");
  Element address = config.Add(network.dhcp ? "tt:FromDHCP" : "tt:Manual");
  address.Add("tt:Address", network.address);
  address.Add("tt:PrefixLength", network.prefix);
  config.Add("tt:DHCP", network.dhcp);
}

void SetNetworkInterfaces(Call& call) {
  if (TextAt(call.request, "InterfaceToken") != kInterface) {
    throw SoapFault{"ter:InvalidArgVal", "ter:InvalidNetworkInterface", "No such interface"};
  }
  Network network = call.camera.settings.network;
  const xmlNode* ipv4 = Find(call.request, "NetworkInterface/IPv4");
  Read(ipv4, "DHCP", &network.dhcp);
  ReadAddress(ipv4, "Manual/Address", &network.address);
  ReadNumber(ipv4, "Manual/PrefixLength", 1, 32, &network.prefix);
  call.camera.settings.network = network;
  call.answer.Add("tds:RebootNeeded", false);
}

void GetNetworkDefaultGateway(Call& call) {
  call.answer.Add("tds:NetworkGateway").Add("tt:IPv4Address", call.camera.settings.network.gateway);
}

void SetNetworkDefaultGateway(Call& call) {
  ReadAddress(call.request, "IPv4Address", &call.camera.settings.network.gateway);
}

void GetDns(Call& call) {
  const Network& network = call.camera.settings.network;
  Element information = call.answer.Add("tds:DNSInformation");
  information.Add("tt:FromDHCP", network.dnsDhcp);
  AddAddress(information, network.dnsDhcp ? "tt:DNSFromDHCP" : "tt:DNSManual", network.dns);
}

void SetDns(Call& call) {
  Network network = call.camera.settings.network;
  network.dnsDhcp = false;
  Read(call.request, "FromDHCP", &network.dnsDhcp);
  ReadAddress(call.request, "DNSManual/IPv4Address", &network.dns);
  call.camera.settings.network = network;
}

void GetNtp(Call& call) {
  const Network& network = call.camera.settings.network;
  Element information = call.answer.Add("tds:NTPInformation");
  information.Add("tt:FromDHCP", network.ntpDhcp);
  Element manual = information.Add("tt:NTPManual");
  manual.Add("tt:Type", "DNS");
  manual.Add("tt:DNSname", network.ntp);
}

void SetNtp(Call& call) {
  Network& network = call.camera.settings.network;
  Read(call.request, "FromDHCP", &network.ntpDhcp);
  Read(call.request, "NTPManual/DNSname", &network.ntp);
  Read(call.request, "NTPManual/IPv4Address", &network.ntp);
}

void GetHostname(Call& call) {
  Element information = call.answer.Add("tds:HostnameInformation");
  information.Add("tt:FromDHCP", false);
  information.Add("tt:Name", call.camera.settings.network.hostname);
}

void SetHostname(Call& call) {
  Read(call.request, "Name", &call.camera.settings.network.hostname);
}

int PortIn(const std::string& url) {
  return std::stoi(url.substr(url.rfind(':') + 1));
}

void GetNetworkProtocols(Call& call) {
  const std::pair<const char*, int> protocols[] = {{"HTTP", PortIn(call.onvif)},
                                                   {"RTSP", PortIn(call.rtsp)}};
  for (const auto& [name, port] : protocols) {
    Element protocol = call.answer.Add("tds:NetworkProtocols");
    protocol.Add("tt:Name", name);
    protocol.Add("tt:Enabled", true);
    protocol.Add("tt:Port", port);
  }
}

}  // namespace

void AddNetworkOperations(Operations* operations) {
  const auto add = [operations](const char* name, void (*run)(Call&), bool open = false) {
    (*operations)[{kDeviceSpace, name}] = {open, run};
  };
  add("GetNetworkInterfaces", GetNetworkInterfaces);
  add("SetNetworkInterfaces", SetNetworkInterfaces);
  add("GetNetworkDefaultGateway", GetNetworkDefaultGateway);
  add("SetNetworkDefaultGateway", SetNetworkDefaultGateway);
  add("GetDNS", GetDns);
  add("SetDNS", SetDns);
  add("GetNTP", GetNtp);
  add("SetNTP", SetNtp);
  add("GetHostname", GetHostname, true);
  add("SetHostname", SetHostname);
  add("GetNetworkProtocols", GetNetworkProtocols);
}

}  // namespace testcamera
