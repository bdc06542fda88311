#include "cms/exports/address_exports.h"

#include "cms/runtime/address_text.h"
#include "cms/runtime/wide_text.h"

namespace {

int Widened(const std::string& text, std::wstring& wide) {
  wide.assign(text.begin(), text.end());
  return wide.empty() ? 0 : 1;
}

}  // namespace

int CMSIPToStringA(std::uint32_t address, std::string& text) {
  text = cms::AddressText(address);
  return 1;
}

int CMSIPToStringW(std::uint32_t address, std::wstring& text) {
  return Widened(cms::AddressText(address), text);
}

int CMSStringAToIP(const char* text, std::uint32_t* address) {
  const auto found = text != nullptr ? cms::AddressOf(text) : std::nullopt;
  if (address != nullptr) {
    *address = found.value_or(0);
  }
  return found ? 1 : 0;
}

int CMSStringWToIP(const wchar_t* text, std::uint32_t* address) {
  return CMSStringAToIP(text != nullptr ? cms::Utf8FromWide(text).c_str() : nullptr, address);
}

int TransferPrefixToIPSubnetMaskA(int prefix, std::string& mask) {
  const auto found = cms::SubnetMaskOf(prefix);
  mask = found ? cms::AddressText(*found) : std::string();
  return found ? 1 : 0;
}

int TransferPrefixToIPSubnetMaskW(int prefix, std::wstring& mask) {
  std::string narrow;
  TransferPrefixToIPSubnetMaskA(prefix, narrow);
  return Widened(narrow, mask);
}
