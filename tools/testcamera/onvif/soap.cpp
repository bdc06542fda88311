#include "tools/testcamera/onvif/soap.h"

#include <libxml/parser.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace testcamera {
namespace {

constexpr struct {
  const char* prefix;
  const char* other;  // another firmware's, just as long
  const char* space;
} kSpaces[] = {
    {"SOAP-ENV", "soapenv1", kSoapSpace},
    {"tt", "sc", "http://www.onvif.org/ver10/schema"},
    {"tds", "dev", kDeviceSpace},
    {"trt", "med", kMediaSpace},
    {"timg", "imag", kImagingSpace},
    {"ter", "err", "http://www.onvif.org/ver10/error"},
    {"tev", "evt", kEventsSpace},
    {"tptz", "move", kPtzSpace},
    {"tr2", "me2", kMedia2Space},
    {"wsnt", "note", kNotificationSpace},
    {"wsa5", "addr", "http://www.w3.org/2005/08/addressing"},
    {"wsrf-rw", "resourc", "http://docs.oasis-open.org/wsrf/rw-2"},
    {"tns1", "top1", "http://www.onvif.org/ver10/topics"},
    {"wsa", "adr", kAddressingSpace},
    {"d", "p", kDiscoverySpace},
    {"dn", "nv", "http://www.onvif.org/ver10/network/wsdl"},
    {"wsdp", "prof", "http://schemas.xmlsoap.org/ws/2006/02/devprof"},
    {"pub", "win", "http://schemas.microsoft.com/windows/pub/2005/07"},
};

// What the schema lets a device leave out, and what some leave out though it does not.
constexpr const char* kOptional[] = {
    "TimeZone",        "LocalDateTime", "Info",   "Link",   "Extension", "Multicast",
    "SessionTimeout",  "UseCount",      "CrGain", "CbGain", "Level",     "SearchDomain",
    "MetadataVersion",
};

void RemoveOptional(xmlNode* parent) {
  for (xmlNode* child = parent->children; child != nullptr;) {
    xmlNode* next = child->next;
    const bool optional =
        child->type == XML_ELEMENT_NODE &&
        std::any_of(std::begin(kOptional), std::end(kOptional),
                    [&](const char* name) { return xmlStrcmp(child->name, Xml(name)) == 0; });
    if (optional) {
      xmlUnlinkNode(child);
      xmlFreeNode(child);
    } else {
      RemoveOptional(child);
    }
    child = next;
  }
}

void ReverseAttributes(xmlNode* node) {
  if (node->type != XML_ELEMENT_NODE) {
    return;
  }
  for (xmlAttr* each = node->properties; each != nullptr;) {
    xmlAttr* next = each->next;
    std::swap(each->next, each->prev);
    node->properties = each;
    each = next;
  }
  for (xmlNode* child = node->children; child != nullptr; child = child->next) {
    ReverseAttributes(child);
  }
}

const char* OtherPrefix(std::string_view prefix) {
  for (const auto& each : kSpaces) {
    if (prefix == each.prefix) {
      return each.other;
    }
  }
  return nullptr;
}

// Texts that are qualified names ("ter:NotAuthorized", "dn:NetworkVideoTransmitter tds:Device") go
// with the declarations.
void ChangeTextPrefixes(xmlNode* node) {
  for (xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type == XML_TEXT_NODE &&
        (xmlStrcmp(node->name, Xml("Types")) == 0 || xmlStrcmp(node->name, Xml("Value")) == 0 ||
         xmlStrcmp(node->name, Xml("Topic")) == 0)) {
      std::string text = Text(child);
      for (std::size_t at = 0; at < text.size();
           at = std::min(text.find(' ', at), text.size() - 1) + 1) {
        const std::size_t colon = text.find(':', at);
        const char* other = colon == std::string::npos
                                ? nullptr
                                : OtherPrefix(std::string_view(text).substr(at, colon - at));
        if (other != nullptr) {
          text.replace(at, colon - at, other);
        }
      }
      xmlNodeSetContent(child, Xml(text.c_str()));
    }
    ChangeTextPrefixes(child);
  }
}

void ChangePrefixes(xmlNode* root) {
  ChangeTextPrefixes(root);
  for (xmlNs* each = root->nsDef; each != nullptr; each = each->next) {
    const char* other = OtherPrefix(reinterpret_cast<const char*>(each->prefix));
    xmlFree(const_cast<xmlChar*>(each->prefix));
    each->prefix = xmlStrdup(Xml(other));
  }
}

[[noreturn]] void Refuse(const char* reason) {
  throw SoapFault{"ter:WellFormed", "", reason};
}

}  // namespace

SoapRequest::SoapRequest(std::string_view bytes)
    : document_(xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING)) {
  if (document_ == nullptr) {
    Refuse("The request is not well-formed XML");
  }
  // SOAP 1.2 Messaging Framework, section 5: no document type declaration, so no entities either.
  if (document_->intSubset != nullptr) {
    Refuse("A SOAP message has no document type declaration");
  }
  const xmlNode* envelope = xmlDocGetRootElement(document_.get());
  if (!IsElement(envelope, kSoapSpace, "Envelope")) {
    Refuse("The request is no SOAP 1.2 envelope");
  }
  header_ = Child(envelope, "Header");
  const xmlNode* body = Child(envelope, "Body");
  operation_ = body == nullptr ? nullptr : xmlFirstElementChild(const_cast<xmlNode*>(body));
  if (operation_ == nullptr) {
    Refuse("The request's body is empty");
  }
}

std::string SoapRequest::Name() const {
  return reinterpret_cast<const char*>(operation_->name);
}

std::string SoapRequest::Space() const {
  return operation_->ns == nullptr ? std::string()
                                   : reinterpret_cast<const char*>(operation_->ns->href);
}

Element Element::Add(const char* name) {
  const char* colon = std::strchr(name, ':');
  xmlNs* space = xmlSearchNs(node_->doc, node_, Xml(std::string(name, colon).c_str()));
  return Element(xmlNewChild(node_, space, Xml(colon + 1), nullptr));
}

Element Element::Add(const char* name, const std::string& text) {
  const Element added = Add(name);
  xmlNodeAddContent(added.node_, Xml(text.c_str()));
  return added;
}

Element Element::Add(const char* name, double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return Add(name, text);
}

Element& Element::Attribute(const char* name, const std::string& value) {
  const char* colon = std::strchr(name, ':');
  if (colon == nullptr) {
    xmlNewProp(node_, Xml(name), Xml(value.c_str()));
  } else {
    xmlNewNsProp(node_, xmlSearchNs(node_->doc, node_, Xml(std::string(name, colon).c_str())),
                 Xml(colon + 1), Xml(value.c_str()));
  }
  return *this;
}

SoapAnswer::SoapAnswer(const OnvifStyle& style, std::initializer_list<std::string_view> prefixes)
    : style_(style),
      document_(xmlNewDoc(Xml("1.0"))),
      envelope_(xmlNewDocNode(document_.get(), nullptr, Xml("Envelope"), nullptr)) {
  xmlDocSetRootElement(document_.get(), envelope_);
  for (const auto& each : kSpaces) {
    const bool wanted = std::find(prefixes.begin(), prefixes.end(), each.prefix) != prefixes.end();
    if (!wanted && envelope_->ns != nullptr) {
      continue;
    }
    xmlNs* space = xmlNewNs(envelope_, Xml(each.space), Xml(each.prefix));
    if (envelope_->ns == nullptr) {
      xmlSetNs(envelope_, space);
    }
  }
  body_ = xmlNewChild(envelope_, envelope_->ns, Xml("Body"), nullptr);
}

Element SoapAnswer::Header() {
  xmlNode* header = envelope_->children;
  if (header == body_) {
    header = xmlAddPrevSibling(
        body_, xmlNewDocNode(document_.get(), envelope_->ns, Xml("Header"), nullptr));
  }
  return Element(header);
}

// SOAP 1.2 Messaging Framework, section 5.4, with the subcodes that ONVIF's core names.
void SoapAnswer::SetFault(const SoapFault& fault) {
  while (body_->children != nullptr) {
    xmlNode* child = body_->children;
    xmlUnlinkNode(child);
    xmlFreeNode(child);
  }
  Element element = Body().Add("SOAP-ENV:Fault");
  Element code = element.Add("SOAP-ENV:Code");
  code.Add("SOAP-ENV:Value", fault.receiver ? "SOAP-ENV:Receiver" : "SOAP-ENV:Sender");
  Element subcode = code.Add("SOAP-ENV:Subcode");
  subcode.Add("SOAP-ENV:Value", fault.subcode);
  if (!fault.subsubcode.empty()) {
    subcode.Add("SOAP-ENV:Subcode").Add("SOAP-ENV:Value", fault.subsubcode);
  }
  element.Add("SOAP-ENV:Reason").Add("SOAP-ENV:Text", fault.reason).Attribute("xml:lang", "en");
  if (fault.detail) {
    fault.detail(element.Add("SOAP-ENV:Detail"));
  }
}

std::string SoapAnswer::Bytes() {
  if (style_.sparse) {
    RemoveOptional(body_);
  }
  if (style_.attributes) {
    ReverseAttributes(envelope_);
  }
  if (style_.prefixes) {
    ChangePrefixes(envelope_);
  }
  xmlChar* text = nullptr;
  int length = 0;
  xmlDocDumpFormatMemoryEnc(document_.get(), &text, &length, "UTF-8", style_.pretty ? 1 : 0);
  std::string bytes(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
  xmlFree(text);
  if (style_.pretty) {
    bytes.insert(bytes.find('\n'), "\r");
  }
  return bytes;
}

}  // namespace testcamera
