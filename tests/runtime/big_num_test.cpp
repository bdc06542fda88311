#include "cms/runtime/big_num.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

CCMSBigNum Number(const std::string& decimal) {
  CCMSBigNum number;
  EXPECT_EQ(number.FromDecimal(decimal), 1) << decimal;
  return number;
}

}  // namespace

TEST(BigNum, TextsAndBytes) {
  EXPECT_EQ(CCMSBigNum(INT64_MIN).ToDecimal(), "-9223372036854775808");
  EXPECT_EQ(CCMSBigNum().ToHex(), "0");
  CCMSBigNum number(7);
  for (const char* wrong : {"", "-", "12x", " 1", "+1", "0x10", "--1"}) {
    EXPECT_EQ(number.FromDecimal(wrong), 0) << wrong;
    EXPECT_EQ(number.FromHex(wrong), 0) << wrong;
  }
  EXPECT_EQ(number.ToDecimal(), "7") << "failed operations change nothing";
  EXPECT_EQ(number.FromHex("-fedcba98765432100123456789ABCDEF"), 1);
  EXPECT_EQ(number.ToHex(), "-FEDCBA98765432100123456789ABCDEF");
  EXPECT_EQ(number.ToDecimal(), "-338770000845734292516042252062085074415");
  EXPECT_EQ(number.Bits(), 128);
  std::vector<unsigned char> bytes(18, 'x');
  EXPECT_EQ(number.ToBytes(bytes.data(), 15), 0);
  EXPECT_EQ(number.ToBytes(bytes.data(), 18), 1);
  EXPECT_EQ(bytes[0] | bytes[1], 0);
  CCMSBigNum back;
  EXPECT_EQ(back.FromBytes(bytes.data(), bytes.size()), 1);
  EXPECT_EQ(back.ToHex(), "FEDCBA98765432100123456789ABCDEF");
  EXPECT_EQ(back.FromBytes(nullptr, 0), 1);
  EXPECT_TRUE(back.IsZero());
}

TEST(BigNum, Arithmetic) {
  const CCMSBigNum a = Number("-100000000000000000000000000000000000007");
  const CCMSBigNum b(13);
  CCMSBigNum result;
  CCMSBigNum remainder;
  EXPECT_EQ(result.Add(a, b), 1);
  EXPECT_EQ(result.ToDecimal(), "-99999999999999999999999999999999999994");
  EXPECT_EQ(result.Subtract(result, result), 1);
  EXPECT_TRUE(result.IsZero());
  EXPECT_EQ(result.Divide(a, b, &remainder), 1);
  EXPECT_EQ(result.ToDecimal(), "-7692307692307692307692307692307692308");
  EXPECT_EQ(remainder.ToDecimal(), "-3");
  EXPECT_EQ(result.Multiply(result, b), 1);
  EXPECT_EQ(result.Add(result, remainder), 1);
  EXPECT_EQ(result.Compare(a), 0) << "quotient x divisor + remainder";
  EXPECT_EQ(result.Modulo(a, b), 1);
  EXPECT_EQ(result.ToDecimal(), "10");
  EXPECT_EQ(result.Divide(a, CCMSBigNum(0)), 0);
  EXPECT_EQ(result.Modulo(a, CCMSBigNum(0)), 0);
  EXPECT_EQ(result.InverseModulo(CCMSBigNum(6), CCMSBigNum(9)), 0);
  EXPECT_EQ(result.PowerModulo(b, CCMSBigNum(-1), CCMSBigNum(5)), 0);
  EXPECT_EQ(result.ShiftLeft(b, -1), 0);
  EXPECT_EQ(result.ToDecimal(), "10");
  EXPECT_EQ(result.ShiftLeft(b, 200), 1);
  EXPECT_EQ(result.ShiftRight(result, 199), 1);
  EXPECT_EQ(result.ToDecimal(), "26");
  EXPECT_EQ(result.GreatestCommonDivisor(result, CCMSBigNum(39)), 1);
  EXPECT_EQ(result.Compare(b), 0);
  EXPECT_LT(a.Compare(b), 0);
  EXPECT_TRUE(a.IsNegative() && a.IsOdd());
}

TEST(BigNum, AKeyExchange) {
  CCMSBigNum p;
  ASSERT_EQ(p.RandomPrime(128), 1);
  EXPECT_TRUE(p.IsPrime());
  EXPECT_EQ(p.Bits(), 128);
  CCMSBigNum x;
  CCMSBigNum y;
  ASSERT_EQ(x.Random(120), 1);
  ASSERT_EQ(y.Random(120), 1);
  EXPECT_NE(x.Compare(y), 0);
  CCMSBigNum ours;
  CCMSBigNum theirs;
  ASSERT_EQ(ours.PowerModulo(CCMSBigNum(3), x, p), 1);
  ASSERT_EQ(theirs.PowerModulo(CCMSBigNum(3), y, p), 1);
  ASSERT_EQ(ours.PowerModulo(ours, y, p), 1);
  ASSERT_EQ(theirs.PowerModulo(theirs, x, p), 1);
  EXPECT_EQ(ours.Compare(theirs), 0);
  CCMSBigNum inverse;
  ASSERT_EQ(inverse.InverseModulo(x, p), 1);
  ASSERT_EQ(inverse.Multiply(inverse, x), 1);
  ASSERT_EQ(inverse.Modulo(inverse, p), 1);
  EXPECT_EQ(inverse.ToDecimal(), "1");

  CCMSBigNum copy = inverse;
  const CCMSBigNum moved = std::move(copy);
  copy = moved;
  copy = *&copy;
  EXPECT_EQ(copy.ToDecimal(), "1");
}
