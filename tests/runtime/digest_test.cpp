#include "cms/runtime/digest.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

// The answers of RFC 1321, appendix A.5, and RFC 4648, section 10.
TEST(Digest, Md5AnswersOfTheStandard) {
  EXPECT_EQ(cms::Md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(cms::Md5Hex("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(cms::Md5Hex("1234567890123456789012345678901234567890123456789012345678901234567890"
                        "1234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Digest, Base64AnswersOfTheStandard) {
  const std::array<std::array<const char*, 2>, 7> cases = {{{"", ""},
                                                            {"f", "Zg=="},
                                                            {"fo", "Zm8="},
                                                            {"foo", "Zm9v"},
                                                            {"foob", "Zm9vYg=="},
                                                            {"fooba", "Zm9vYmE="},
                                                            {"foobar", "Zm9vYmFy"}}};
  for (const auto& [input, encoded] : cases) {
    EXPECT_EQ(cms::Base64(std::string_view(input)), encoded);
  }
  const std::vector<std::uint8_t> bytes = {0xFB, 0xFF, 0xBF, 0x00};
  EXPECT_EQ(cms::Base64(bytes), "+/+/AA==");
  // More than the encoder is given at once.
  const std::string zeros(4'000'000, '\0');
  const std::string text = cms::Base64(zeros);
  EXPECT_EQ(text.size(), 5'333'336u);
  EXPECT_EQ(text.find_first_not_of('A'), 5'333'334u);
  EXPECT_EQ(text.substr(5'333'334), "==");
}
