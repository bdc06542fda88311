// SOAP 1.2 messages: reading requests, writing answers in the styles of several firmwares.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "tools/testcamera/onvif/onvif_options.h"
#include "tools/testcamera/onvif/xml_ptr.h"

namespace testcamera {

inline constexpr char kSoapSpace[] = "http://www.w3.org/2003/05/soap-envelope";
inline constexpr char kDeviceSpace[] = "http://www.onvif.org/ver10/device/wsdl";
inline constexpr char kMediaSpace[] = "http://www.onvif.org/ver10/media/wsdl";
inline constexpr char kImagingSpace[] = "http://www.onvif.org/ver20/imaging/wsdl";
inline constexpr char kEventsSpace[] = "http://www.onvif.org/ver10/events/wsdl";
inline constexpr char kNotificationSpace[] = "http://docs.oasis-open.org/wsn/b-2";
inline constexpr char kMedia2Space[] = "http://www.onvif.org/ver20/media/wsdl";
inline constexpr char kPtzSpace[] = "http://www.onvif.org/ver20/ptz/wsdl";
inline constexpr char kAddressingSpace[] = "http://schemas.xmlsoap.org/ws/2004/08/addressing";
inline constexpr char kDiscoverySpace[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery";

// A request's envelope. Holds the tree that its nodes live in.
class SoapRequest {
 public:
  // Throws SoapFault when it is no SOAP 1.2 envelope with a body.
  explicit SoapRequest(std::string_view bytes);

  const xmlNode* Header() const { return header_; }  // nullptr when there is none
  const xmlNode* Operation() const { return operation_; }
  std::string Name() const;   // the operation's local name
  std::string Space() const;  // the namespace it is in

 private:
  XmlDocPtr document_;
  const xmlNode* header_ = nullptr;
  const xmlNode* operation_ = nullptr;
};

// A place in an answer where elements are added. Names carry the usual prefixes: "tt:Name". Lives
// no longer than its answer.
class Element {
 public:
  explicit Element(xmlNode* node) : node_(node) {}

  Element Add(const char* name);
  Element Add(const char* name, const std::string& text);
  Element Add(const char* name, const char* text) { return Add(name, std::string(text)); }
  Element Add(const char* name, bool value) { return Add(name, value ? "true" : "false"); }
  Element Add(const char* name, int value) { return Add(name, std::to_string(value)); }
  // For xsd:float values: as short as it can be written.
  Element Add(const char* name, double value);
  Element& Attribute(const char* name, const std::string& value);

 private:
  xmlNode* node_;
};

// What goes wrong with a request: thrown by whoever finds it, answered as a SOAP fault.
struct SoapFault {
  std::string subcode;     // such as "ter:InvalidArgVal"
  std::string subsubcode;  // "" for none
  std::string reason;
  bool receiver = false;                  // the camera's fault, not the sender's
  std::function<void(Element)> detail{};  // writes it, if there is one
};

class SoapAnswer {
 public:
  // Declares these prefixes, and that of SOAP.
  explicit SoapAnswer(const OnvifStyle& style, std::initializer_list<std::string_view> prefixes = {
                                                   "tt", "tds", "trt", "timg", "ter", "tev", "wsnt",
                                                   "wsa5", "wsrf-rw", "tns1", "tptz", "tr2"});

  Element Header();  // made when first asked for
  Element Body() { return Element(body_); }
  void SetFault(const SoapFault& fault);  // in place of what the body holds

  // The document in its style. Call it once, at the end.
  std::string Bytes();

 private:
  const OnvifStyle style_;
  const XmlDocPtr document_;
  xmlNode* envelope_;
  xmlNode* body_;
};

}  // namespace testcamera
