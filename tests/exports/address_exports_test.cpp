#include "cms/exports/address_exports.h"

#include <gtest/gtest.h>

TEST(AddressExports, ThereAndBack) {
  std::string text;
  std::wstring wide;
  std::uint32_t address = 0;
  EXPECT_EQ(CMSIPToStringA(0xC0000201, text), 1);
  EXPECT_EQ(text, "192.0.2.1");
  EXPECT_EQ(CMSStringAToIP(text.c_str(), &address), 1);
  EXPECT_EQ(address, 0xC0000201);
  EXPECT_EQ(CMSIPToStringW(0xFFFFFFFF, wide), 1);
  EXPECT_EQ(CMSStringWToIP(wide.c_str(), &address), 1);
  EXPECT_EQ(address, 0xFFFFFFFF);
  EXPECT_EQ(CMSStringAToIP("0.0.0.0", nullptr), 1);
  for (const char* wrong : {"", "1.2.3", "1.2.3.256", "1.2.3.4 ", "0x1.2.3.4", "cam", "::1"}) {
    address = 1;
    EXPECT_EQ(CMSStringAToIP(wrong, &address), 0) << wrong;
    EXPECT_EQ(address, 0U);
  }
  EXPECT_EQ(CMSStringWToIP(nullptr, &address), 0);
}

TEST(AddressExports, SubnetMasks) {
  std::string mask;
  std::wstring wide;
  EXPECT_EQ(TransferPrefixToIPSubnetMaskA(0, mask), 1);
  EXPECT_EQ(mask, "0.0.0.0");
  EXPECT_EQ(TransferPrefixToIPSubnetMaskA(23, mask), 1);
  EXPECT_EQ(mask, "255.255.254.0");
  EXPECT_EQ(TransferPrefixToIPSubnetMaskW(32, wide), 1);
  EXPECT_EQ(wide, L"255.255.255.255");
  EXPECT_EQ(TransferPrefixToIPSubnetMaskW(33, wide), 0);
  EXPECT_EQ(TransferPrefixToIPSubnetMaskA(-1, mask), 0);
  EXPECT_EQ(mask, "");
}
