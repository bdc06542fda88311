// IPv4 addresses and their texts as plain functions. Addresses are numbers in host byte order:
// 192.0.2.1 is 0xC0000201. 1 and the result, or 0 with an empty (or zero) one. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

extern "C" {

CMS_API int CMSIPToStringA(std::uint32_t address, std::string& text);
CMS_API int CMSIPToStringW(std::uint32_t address, std::wstring& text);

// Four decimal numbers with dots between, and nothing else.
CMS_API int CMSStringAToIP(const char* text, std::uint32_t* address);
CMS_API int CMSStringWToIP(const wchar_t* text, std::uint32_t* address);

// The subnet mask of a prefix length (0 to 32): 24 gives "255.255.255.0".
CMS_API int TransferPrefixToIPSubnetMaskA(int prefix, std::string& mask);
CMS_API int TransferPrefixToIPSubnetMaskW(int prefix, std::wstring& mask);

}  // extern "C"
