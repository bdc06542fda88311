// CCMSBigNum, whole numbers of any length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

struct bignum_st;

// A whole number with a sign. Operations write their result into the object they are called on,
// which may be one of their operands, and return 1; 0 means that the operands have no such result
// or that memory is short, and leaves the object as it was. Memory is wiped before it is freed, as
// numbers may be keys. An object belongs to one thread at a time.
class CMS_API CCMSBigNum {
 public:
  CCMSBigNum() : CCMSBigNum(0) {}
  explicit CCMSBigNum(std::int64_t value);
  CCMSBigNum(const CCMSBigNum& other);
  CCMSBigNum(CCMSBigNum&& other) noexcept;
  CCMSBigNum& operator=(const CCMSBigNum& other);
  CCMSBigNum& operator=(CCMSBigNum&& other) noexcept;
  ~CCMSBigNum();

  // Digits with a "-" in front, if any, and nothing else. The time that decimal digits take grows
  // with the square of their count: limit texts that come from the network.
  int FromDecimal(const std::string& text);
  int FromHex(const std::string& text);
  // Of the bytes of a number that is not negative, the most significant first; none are 0.
  int FromBytes(const unsigned char* bytes, std::size_t size);

  std::string ToDecimal() const;  // empty when memory is short
  std::string ToHex() const;      // upper case, an even number of digits; 0 is "0"
  // The absolute value, with zeroes in front to fill `size` bytes: 0 when it needs more.
  int ToBytes(unsigned char* bytes, std::size_t size) const;

  int Bits() const;  // of the absolute value, without zeroes in front: 0 for 0
  int Bytes() const { return (Bits() + 7) / 8; }
  bool IsZero() const;
  bool IsNegative() const;
  bool IsOdd() const;
  // Below, equal to or above 0 as this is below, equal to or above the other.
  int Compare(const CCMSBigNum& other) const;

  int Add(const CCMSBigNum& a, const CCMSBigNum& b);
  int Subtract(const CCMSBigNum& a, const CCMSBigNum& b);
  int Multiply(const CCMSBigNum& a, const CCMSBigNum& b);
  // The quotient, cut towards 0, and a / b's remainder, whose sign is that of a, unless it is null.
  int Divide(const CCMSBigNum& a, const CCMSBigNum& b, CCMSBigNum* remainder = nullptr);
  int Modulo(const CCMSBigNum& a, const CCMSBigNum& m);  // 0 to |m| - 1
  int ShiftLeft(const CCMSBigNum& a, int bits);
  int ShiftRight(const CCMSBigNum& a, int bits);  // of the absolute value

  // a to the power of p, modulo m. An odd m takes the same time whatever the bits of p are.
  int PowerModulo(const CCMSBigNum& a, const CCMSBigNum& p, const CCMSBigNum& m);
  int InverseModulo(const CCMSBigNum& a, const CCMSBigNum& m);
  int GreatestCommonDivisor(const CCMSBigNum& a, const CCMSBigNum& b);

  int Random(int bits);  // unpredictable, below 2 to the power of `bits`
  int RandomPrime(int bits);
  // False positives have a chance of less than 2 to the power of -64.
  bool IsPrime() const;

 private:
  int Take(bignum_st* result, int done);

  bignum_st* number_;  // nullptr only when memory was short
};
