// Ownership and reading of libxml2's trees.
#pragma once

#include <libxml/tree.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace testcamera {

struct XmlDocFree {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

inline const xmlChar* Xml(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

// The first child element with that local name, nullptr when there is none or no parent. Clients
// disagree about the namespaces of what stands inside an operation, so names alone count.
const xmlNode* Child(const xmlNode* parent, std::string_view name);
// Down a path such as "Multicast/Address/Type".
const xmlNode* Find(const xmlNode* parent, std::string_view path);
// The next sibling element with the same name.
const xmlNode* NextOfName(const xmlNode* node);

// The text inside, without white space around it.
std::string Text(const xmlNode* node);
std::optional<std::string> TextAt(const xmlNode* parent, std::string_view path);
std::string Attribute(const xmlNode* node, const char* name);

bool IsElement(const xmlNode* node, std::string_view space, std::string_view name);

}  // namespace testcamera
