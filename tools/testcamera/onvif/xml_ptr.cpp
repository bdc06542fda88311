#include "tools/testcamera/onvif/xml_ptr.h"

namespace testcamera {
namespace {

std::string_view View(const xmlChar* text) {
  return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

std::string Take(xmlChar* text) {
  std::string copy(View(text));
  xmlFree(text);
  return copy;
}

const xmlNode* FirstElement(const xmlNode* node, std::string_view name) {
  while (node != nullptr && (node->type != XML_ELEMENT_NODE || View(node->name) != name)) {
    node = node->next;
  }
  return node;
}

}  // namespace

const xmlNode* Child(const xmlNode* parent, std::string_view name) {
  return parent == nullptr ? nullptr : FirstElement(parent->children, name);
}

const xmlNode* Find(const xmlNode* parent, std::string_view path) {
  while (parent != nullptr && !path.empty()) {
    const std::size_t end = path.find('/');
    parent = Child(parent, path.substr(0, end));
    path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
  }
  return parent;
}

const xmlNode* NextOfName(const xmlNode* node) {
  return FirstElement(node->next, View(node->name));
}

std::string Text(const xmlNode* node) {
  const std::string text = Take(xmlNodeGetContent(node));
  constexpr char kSpace[] = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  return first == std::string::npos ? std::string()
                                    : text.substr(first, text.find_last_not_of(kSpace) + 1 - first);
}

std::optional<std::string> TextAt(const xmlNode* parent, std::string_view path) {
  const xmlNode* node = Find(parent, path);
  return node == nullptr ? std::nullopt : std::optional(Text(node));
}

std::string Attribute(const xmlNode* node, const char* name) {
  return node == nullptr ? std::string() : Take(xmlGetProp(node, Xml(name)));
}

bool IsElement(const xmlNode* node, std::string_view space, std::string_view name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE && View(node->name) == name &&
         node->ns != nullptr && View(node->ns->href) == space;
}

}  // namespace testcamera
