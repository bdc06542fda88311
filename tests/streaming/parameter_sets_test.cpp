#include "cms/streaming/internal/parameter_sets.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kSps = {0x67, 0x42, 0x00, 0x1e, 0xa6, 0x80, 0xa0, 0x3d, 0x90};
const Bytes kPps = {0x68, 0xce, 0x31, 0x52};

void Expect(const std::string& list, const Bytes& sps, const Bytes& pps) {
  SCOPED_TRACE(list.substr(0, 80));
  const cms::ParameterSets sets = cms::DecodeParameterSets(list);
  EXPECT_EQ(sets.sps, sps);
  EXPECT_EQ(sets.pps, pps);
}

TEST(ParameterSets, AreToldByTheirTypesInAnyOrder) {
  Expect("Z0IAHqaAoD2Q,aM4xUg==", kSps, kPps);
  Expect("aM4xUg==,Z0IAHqaAoD2Q", kSps, kPps);
  Expect(" Z0IAHqaAoD2Q , aM4xUg== ", kSps, kPps);
  Expect("Z0IAHqaAoD2Q,aM4xUg", kSps, kPps);
  Expect("Z0IAHqaAoD2Q,Z00AKp2oHgCJ,aM4xUg==,aO48gA==", kSps, kPps);
}

TEST(ParameterSets, WhatIsNoParameterSetIsLeftOut) {
  Expect("", {}, {});
  Expect(",,,", {}, {});
  Expect("Z0IAHqaAoD2Q", kSps, {});
  Expect("Z0IAHqaAoD2Q,aM4xU", kSps, {});     // cut inside a group
  Expect("Z0IA*qaAoD2Q,aM4xUg==", {}, kPps);  // no Base64
  Expect("Z0IA=qaAoD2Q,aM4xUg==", {}, kPps);  // padding inside
  Expect("Z0IAHqaAoD2Q,aA==", kSps, {});      // a type byte alone
  Expect("Z0IAHqaAoD2Q,ZWZnaA==", kSps, {});  // another NAL unit
  Expect(std::string(5000, 'Z') + ",aM4xUg==", {}, kPps);
}

}  // namespace
