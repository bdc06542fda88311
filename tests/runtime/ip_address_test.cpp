#include "cms/runtime/ip_address.h"

#include <gtest/gtest.h>

namespace {

using cms::IpAddress;

TEST(IpAddress, IsReadAndWritten) {
  for (const char* text : {"192.0.2.1", "0.0.0.0", "2001:db8::1", "::", "::1", "ff05::2"}) {
    const auto address = IpAddress::Parse(text);
    ASSERT_TRUE(address) << text;
    EXPECT_EQ(address->Text(), text);
  }
  for (const char* text : {"", "192.0.2", "192.0.2.256", "camera", "[::1]", "fe80::1%",
                           "1.2.3.4%lo", "fe80::1%no-such-interface", "::1::"}) {
    EXPECT_FALSE(IpAddress::Parse(text)) << text;
  }
  EXPECT_EQ(IpAddress::Parse("fe80::1%lo")->Text(), "fe80::1%lo");
  EXPECT_NE(IpAddress::Parse("fe80::1%lo"), IpAddress::Parse("fe80::1"));
  EXPECT_EQ(IpAddress::Parse("::ffff:192.0.2.1"), IpAddress(0xC0000201));
  EXPECT_EQ(IpAddress::Parse("192.0.2.1")->V4(), 0xC0000201u);
  EXPECT_EQ(IpAddress::Parse("::1")->UrlText(), "[::1]");
  EXPECT_FALSE(IpAddress());
  EXPECT_TRUE(IpAddress(0)) << "any address is one";
}

TEST(IpAddress, KnowsMulticastGroups) {
  for (const char* text : {"224.0.0.1", "239.255.255.255", "ff02::1"}) {
    EXPECT_TRUE(IpAddress::Parse(text)->IsMulticast()) << text;
  }
  for (const char* text : {"223.255.255.255", "240.0.0.1", "0.0.0.0", "fe80::1"}) {
    EXPECT_FALSE(IpAddress::Parse(text)->IsMulticast()) << text;
  }
  EXPECT_FALSE(IpAddress().IsMulticast());
}

}  // namespace
