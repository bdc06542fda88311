#include "cms/runtime/big_num.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>

namespace {

struct FreeContext {
  void operator()(BN_CTX* context) const { BN_CTX_free(context); }
};
using Context = std::unique_ptr<BN_CTX, FreeContext>;

Context NewContext() {
  return Context(BN_CTX_secure_new());
}

// Takes what an OpenSSL function allocated.
std::string Taken(char* text) {
  std::string taken = text != nullptr ? text : "";
  if (text != nullptr) {
    OPENSSL_clear_free(text, taken.size() + 1);
  }
  return taken;
}

using Parse = int (*)(BIGNUM**, const char*);

// The result, or nullptr when not all of the text was digits.
BIGNUM* Parsed(const std::string& text, Parse parse) {
  BIGNUM* result = nullptr;
  if (text.empty() || text.size() > INT_MAX || text == "-" ||
      parse(&result, text.c_str()) != static_cast<int>(text.size())) {
    BN_clear_free(result);
    return nullptr;
  }
  return result;
}

}  // namespace

CCMSBigNum::CCMSBigNum(std::int64_t value) : number_(BN_new()) {
  const std::uint64_t size =
      value < 0 ? -static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  static_assert(sizeof(BN_ULONG) == sizeof size);
  if (number_ != nullptr && BN_set_word(number_, size) == 1) {
    BN_set_negative(number_, value < 0 ? 1 : 0);
  }
}

CCMSBigNum::CCMSBigNum(const CCMSBigNum& other)
    : number_(other.number_ != nullptr ? BN_dup(other.number_) : nullptr) {}

CCMSBigNum::CCMSBigNum(CCMSBigNum&& other) noexcept
    : number_(std::exchange(other.number_, nullptr)) {}

CCMSBigNum& CCMSBigNum::operator=(const CCMSBigNum& other) {
  if (this != &other) {
    CCMSBigNum copy(other);
    std::swap(number_, copy.number_);
  }
  return *this;
}

CCMSBigNum& CCMSBigNum::operator=(CCMSBigNum&& other) noexcept {
  std::swap(number_, other.number_);
  return *this;
}

CCMSBigNum::~CCMSBigNum() {
  BN_clear_free(number_);
}

// Every operation works on a number of its own, so that a failed one leaves this as it was.
int CCMSBigNum::Take(bignum_st* result, int done) {
  if (result == nullptr || done != 1) {
    BN_clear_free(result);
    return 0;
  }
  BN_clear_free(std::exchange(number_, result));
  return 1;
}

int CCMSBigNum::FromDecimal(const std::string& text) {
  return Take(Parsed(text, BN_dec2bn), 1);
}

int CCMSBigNum::FromHex(const std::string& text) {
  return Take(Parsed(text, BN_hex2bn), 1);
}

int CCMSBigNum::FromBytes(const unsigned char* bytes, std::size_t size) {
  if (size > INT_MAX || (bytes == nullptr && size > 0)) {
    return 0;
  }
  return Take(BN_bin2bn(bytes, static_cast<int>(size), nullptr), 1);
}

std::string CCMSBigNum::ToDecimal() const {
  return number_ != nullptr ? Taken(BN_bn2dec(number_)) : std::string();
}

std::string CCMSBigNum::ToHex() const {
  return number_ != nullptr ? Taken(BN_bn2hex(number_)) : std::string();
}

int CCMSBigNum::ToBytes(unsigned char* bytes, std::size_t size) const {
  return number_ != nullptr && bytes != nullptr && size <= INT_MAX &&
                 BN_bn2binpad(number_, bytes, static_cast<int>(size)) >= 0
             ? 1
             : 0;
}

int CCMSBigNum::Bits() const {
  return number_ != nullptr ? BN_num_bits(number_) : 0;
}

bool CCMSBigNum::IsZero() const {
  return number_ == nullptr || BN_is_zero(number_) == 1;
}

bool CCMSBigNum::IsNegative() const {
  return number_ != nullptr && BN_is_negative(number_) == 1;
}

bool CCMSBigNum::IsOdd() const {
  return number_ != nullptr && BN_is_odd(number_) == 1;
}

int CCMSBigNum::Compare(const CCMSBigNum& other) const {
  return BN_cmp(number_, other.number_);  // takes null pointers for the largest
}

int CCMSBigNum::Add(const CCMSBigNum& a, const CCMSBigNum& b) {
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && b.number_ && result && BN_add(result, a.number_, b.number_));
}

int CCMSBigNum::Subtract(const CCMSBigNum& a, const CCMSBigNum& b) {
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && b.number_ && result && BN_sub(result, a.number_, b.number_));
}

int CCMSBigNum::Multiply(const CCMSBigNum& a, const CCMSBigNum& b) {
  const Context context = NewContext();
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && b.number_ && result && context &&
                          BN_mul(result, a.number_, b.number_, context.get()));
}

int CCMSBigNum::Divide(const CCMSBigNum& a, const CCMSBigNum& b, CCMSBigNum* remainder) {
  const Context context = NewContext();
  BIGNUM* const quotient = BN_new();
  BIGNUM* const rest = BN_new();
  const bool done = a.number_ && b.number_ && quotient && rest && context &&
                    BN_div(quotient, rest, a.number_, b.number_, context.get());
  if (done && remainder != nullptr) {
    remainder->Take(rest, 1);
  } else {
    BN_clear_free(rest);
  }
  return Take(quotient, done);
}

int CCMSBigNum::Modulo(const CCMSBigNum& a, const CCMSBigNum& m) {
  const Context context = NewContext();
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && m.number_ && result && context &&
                          BN_nnmod(result, a.number_, m.number_, context.get()));
}

int CCMSBigNum::ShiftLeft(const CCMSBigNum& a, int bits) {
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && result && bits >= 0 && BN_lshift(result, a.number_, bits));
}

int CCMSBigNum::ShiftRight(const CCMSBigNum& a, int bits) {
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && result && bits >= 0 && BN_rshift(result, a.number_, bits));
}

int CCMSBigNum::PowerModulo(const CCMSBigNum& a, const CCMSBigNum& p, const CCMSBigNum& m) {
  if (p.IsNegative() || m.IsZero()) {
    return 0;
  }
  const Context context = NewContext();
  BIGNUM* const result = BN_new();
  CCMSBigNum secret(p);
  if (secret.number_ != nullptr && m.IsOdd()) {
    BN_set_flags(secret.number_, BN_FLG_CONSTTIME);
  }
  return Take(result, a.number_ && secret.number_ && result && context &&
                          BN_mod_exp(result, a.number_, secret.number_, m.number_, context.get()));
}

int CCMSBigNum::InverseModulo(const CCMSBigNum& a, const CCMSBigNum& m) {
  const Context context = NewContext();
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && m.number_ && result && context && !m.IsZero() &&
                          BN_mod_inverse(result, a.number_, m.number_, context.get()) != nullptr);
}

int CCMSBigNum::GreatestCommonDivisor(const CCMSBigNum& a, const CCMSBigNum& b) {
  const Context context = NewContext();
  BIGNUM* const result = BN_new();
  return Take(result, a.number_ && b.number_ && result && context &&
                          BN_gcd(result, a.number_, b.number_, context.get()));
}

int CCMSBigNum::Random(int bits) {
  BIGNUM* const result = BN_new();
  return Take(result, result && bits >= 0 &&
                          BN_priv_rand(result, bits, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY));
}

int CCMSBigNum::RandomPrime(int bits) {
  BIGNUM* const result = BN_new();
  return Take(result, result && bits >= 2 &&
                          BN_generate_prime_ex(result, bits, 0, nullptr, nullptr, nullptr));
}

bool CCMSBigNum::IsPrime() const {
  const Context context = NewContext();
  return number_ != nullptr && context && !IsNegative() &&
         BN_check_prime(number_, context.get(), nullptr) == 1;
}
