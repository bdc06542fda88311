// Normalized: one pass over an answer, tag by tag.
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/tag_search.h"

namespace cms {
namespace {

constexpr std::size_t kMaxDeclarations = 256;  // keeps the look-up of a prefix short

struct Namespace {
  std::wstring_view uri;
  std::wstring_view prefix;
};
constexpr Namespace kNamespaces[] = {
    {L"http://www.onvif.org/ver10/schema", L"tt"},
    {L"http://www.onvif.org/ver10/device/wsdl", L"tds"},
    {L"http://www.onvif.org/ver10/media/wsdl", L"trt"},
    {L"http://www.onvif.org/ver20/imaging/wsdl", L"timg"},
    {L"http://www.onvif.org/ver10/imaging/wsdl", L"timg"},
    {L"http://www.onvif.org/ver10/events/wsdl", L"tev"},
    {L"http://www.onvif.org/ver20/ptz/wsdl", L"tptz"},
    {L"http://www.onvif.org/ver20/media/wsdl", L"tr2"},
    {L"http://docs.oasis-open.org/wsn/b-2", L"wsnt"},
    {L"http://www.w3.org/2005/08/addressing", L"wsa5"},
    {L"http://www.w3.org/2003/05/soap-envelope", L"SOAP-ENV"},
    {L"http://schemas.xmlsoap.org/soap/envelope/", L"SOAP-ENV"},
};

struct Attribute {
  std::wstring_view name;
  std::wstring_view value;
};

// "<name a="b" ...>" or "</name>" without its brackets and slashes.
struct Tag {
  std::wstring_view name;
  std::vector<Attribute> attributes;
  bool closing = false;
  bool empty = false;  // "<name/>"
};

void SkipSpace(std::wstring_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kXmlSpace), text.size()));
}

std::wstring_view TakeUntil(std::wstring_view& text, std::wstring_view stops) {
  const std::wstring_view taken = text.substr(0, text.find_first_of(stops));
  text.remove_prefix(taken.size());
  return taken;
}

// Reads the tag behind "<"; `text` goes on behind its ">". False, with `text` as it was, when no
// whole tag is there. No "<" may stand inside a tag (XML 1.0, section 3.1), so the search for its
// end never passes the next one.
bool TakeTag(std::wstring_view& text, Tag& tag) {
  tag.attributes.clear();
  std::wstring_view rest = text.substr(0, text.find(L'<'));
  tag.closing = rest.starts_with(L'/');
  if (tag.closing) {
    rest.remove_prefix(1);
  }
  tag.name = TakeUntil(rest, L" \t\r\n/>\"'=");
  for (SkipSpace(rest); !rest.starts_with(L'>'); SkipSpace(rest)) {
    if (rest.starts_with(L"/>")) {
      rest.remove_prefix(1);
      tag.empty = true;
      break;
    }
    const std::wstring_view name = TakeUntil(rest, L" \t\r\n/>\"'=");
    SkipSpace(rest);
    if (name.empty() || !rest.starts_with(L'=')) {
      return false;
    }
    rest.remove_prefix(1);
    SkipSpace(rest);
    const std::wstring_view quote = rest.substr(0, 1);
    if (quote != L"\"" && quote != L"'") {
      return false;
    }
    rest.remove_prefix(1);
    const std::wstring_view value = TakeUntil(rest, quote);
    if (rest.empty()) {
      return false;
    }
    rest.remove_prefix(1);
    tag.attributes.push_back({name, value});
  }
  if (tag.name.empty()) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(rest.data() + 1 - text.data()));
  return true;
}

class Normalizer {
 public:
  explicit Normalizer(std::wstring_view text) : rest_(text) { out_.reserve(text.size()); }

  std::wstring Run() {
    while (!rest_.empty()) {
      const std::size_t bracket = std::min(rest_.find(L'<'), rest_.size());
      out_ += rest_.substr(0, bracket);
      rest_.remove_prefix(bracket);
      if (!rest_.empty()) {
        TakeMarkup();
      }
    }
    return std::move(out_);
  }

 private:
  struct Declaration {
    std::size_t depth;
    std::wstring_view prefix;
    std::wstring_view replacement;  // empty: a namespace of others
  };

  // What begins with `opening` and ends with `closing`; false when the text does not.
  bool TakeSection(std::wstring_view opening, std::wstring_view closing,
                   std::wstring_view& inside) {
    if (!rest_.starts_with(opening)) {
      return false;
    }
    const std::size_t end = rest_.find(closing, opening.size());
    if (end == std::wstring_view::npos) {
      inside = {};  // cut off: there are no tags in the rest
      rest_ = {};
      return true;
    }
    inside = rest_.substr(opening.size(), end - opening.size());
    rest_.remove_prefix(end + closing.size());
    return true;
  }

  void TakeMarkup() {
    std::wstring_view inside;
    if (TakeSection(L"<!--", L"-->", inside) || TakeSection(L"<?", L"?>", inside)) {
      return;
    }
    if (TakeSection(L"<![CDATA[", L"]]>", inside)) {
      out_ += XmlEscaped(inside);
      return;
    }
    rest_.remove_prefix(1);
    if (Tag tag; TakeTag(rest_, tag)) {
      Write(tag);
    } else {
      out_ += L'<';
    }
  }

  void Write(const Tag& tag) {
    if (!tag.closing) {
      ++depth_;
      Declare(tag);
    }
    out_ += tag.closing ? L"</" : L"<";
    WriteName(tag.name);
    for (const bool tokens : {true, false}) {
      for (const Attribute& attribute : tag.attributes) {
        if ((attribute.name == L"token") == tokens) {
          WriteAttribute(attribute);
        }
      }
    }
    out_ += tag.empty ? L"/>" : L">";
    if ((tag.closing || tag.empty) && depth_ > 0) {
      while (!declarations_.empty() && declarations_.back().depth == depth_) {
        declarations_.pop_back();
      }
      --depth_;
    }
  }

  void Declare(const Tag& tag) {
    constexpr std::wstring_view kDeclaration = L"xmlns";
    for (const auto& [name, uri] : tag.attributes) {
      if (!name.starts_with(kDeclaration) || declarations_.size() == kMaxDeclarations) {
        continue;
      }
      std::wstring_view prefix = name.substr(kDeclaration.size());
      if (!prefix.empty() && prefix.front() != L':') {
        continue;
      }
      const auto* known = std::ranges::find(kNamespaces, uri, &Namespace::uri);
      declarations_.push_back({depth_, prefix.substr(prefix.empty() ? 0 : 1),
                               known != std::end(kNamespaces) ? known->prefix : L""});
    }
  }

  void WriteName(std::wstring_view name) {
    const std::size_t colon = name.find(L':');
    const std::wstring_view prefix =
        colon == std::wstring_view::npos ? std::wstring_view() : name.substr(0, colon);
    const auto declared =
        std::find_if(declarations_.rbegin(), declarations_.rend(),
                     [prefix](const Declaration& one) { return one.prefix == prefix; });
    if (declared != declarations_.rend() && !declared->replacement.empty()) {
      out_ += declared->replacement;
      out_ += L':';
      name.remove_prefix(colon == std::wstring_view::npos ? 0 : colon + 1);
    }
    out_ += name;
  }

  void WriteAttribute(const Attribute& attribute) {
    out_ += L' ';
    out_ += attribute.name;
    out_ += L"=\"";
    for (const wchar_t c : attribute.value) {
      if (c == L'"') {
        out_ += L"&quot;";
      } else if (c == L'>') {  // where a tag ends is looked for by this character
        out_ += L"&gt;";
      } else {
        out_ += c;
      }
    }
    out_ += L'"';
  }

  std::wstring_view rest_;
  std::wstring out_;
  std::size_t depth_ = 0;
  std::vector<Declaration> declarations_;
};

}  // namespace

std::wstring Normalized(std::wstring_view answer) {
  return Normalizer(answer).Run();
}

}  // namespace cms
