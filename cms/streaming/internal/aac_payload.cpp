#include "cms/streaming/internal/aac_payload.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>
#include <vector>

#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

constexpr unsigned kMostFieldBits = 32;
constexpr std::uint32_t kMostUnitTicks = 1'000'000;
constexpr std::size_t kLongestConfigQuote = 40;

std::optional<std::uint32_t> NumberOf(std::string_view text) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  return whole ? std::optional(number) : std::nullopt;
}

std::vector<std::uint8_t> BytesOfHex(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    std::uint8_t byte = 0;
    const char* const end = text.data() + i + 2;
    if (std::from_chars(text.data() + i, end, byte, 16).ptr != end) {
      return {};
    }
    bytes.push_back(byte);
  }
  return bytes;
}

// The value of a parameter (RFC 3640, 4.1), whose name is of any case; empty when there is none.
std::string_view ValueOf(std::string_view parameters, std::string_view name) {
  while (!parameters.empty()) {
    const std::size_t end = parameters.find(';');
    const std::string_view item = parameters.substr(0, end);
    parameters.remove_prefix(end == std::string_view::npos ? parameters.size() : end + 1);
    const std::size_t equal = item.find('=');
    if (equal != std::string_view::npos && EqualAnyCase(Trim(item.substr(0, equal)), name)) {
      return Trim(item.substr(equal + 1));
    }
  }
  return {};
}

// Of a description without config: AAC-LC of the rtpmap's rate.
std::optional<AdtsFormat> PlainFormat(std::uint32_t clockRate, std::uint32_t channels) {
  constexpr unsigned kMostAdtsChannels = 7;
  AdtsFormat format;
  format.channels = channels;
  while (format.SampleRate() != clockRate && format.SampleRate() != 0) {
    ++format.rateIndex;
  }
  const bool known = format.SampleRate() != 0 && channels >= 1 && channels <= kMostAdtsChannels;
  return known ? std::optional(format) : std::nullopt;
}

std::uint32_t UnitTicks(const AdtsFormat& format, std::uint32_t clockRate) {
  const std::uint64_t ticks = std::uint64_t{kAacUnitSamples} * clockRate / format.SampleRate();
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(ticks, kMostUnitTicks));
}

std::string OtherKind(std::string_view config) {
  return "config " + std::string(config.substr(0, kLongestConfigQuote)) +
         " is an AAC of another kind than LC";
}

constexpr char kNoFormat[] = "the description does not tell its format";

}  // namespace

std::optional<AacPayload> ReadAacPayload(std::string_view parameters, std::uint32_t clockRate,
                                         std::uint32_t channels, std::string* problem) {
  const auto refuse = [problem](std::string why) {
    *problem = std::move(why);
    return std::nullopt;
  };
  bool wrong = false;
  const auto number = [&](std::string_view name, std::uint32_t untold) {
    const std::string_view value = ValueOf(parameters, name);
    const auto told = NumberOf(value);
    wrong = wrong || (!value.empty() && !told);
    return told.value_or(untold);
  };
  const auto bits = [&](std::string_view name, unsigned untold) {
    const std::uint32_t count = number(name, untold);
    wrong = wrong || count > kMostFieldBits;
    return count;
  };
  const std::string_view mode = ValueOf(parameters, "mode");
  const bool low = EqualAnyCase(mode, "AAC-lbr");
  if (!low && !mode.empty() && !EqualAnyCase(mode, "AAC-hbr") && !EqualAnyCase(mode, "generic")) {
    return refuse("mode " + std::string(mode) + " is not understood (AAC-hbr and AAC-lbr are)");
  }
  AacPayload payload;
  payload.constantSize = number("constantSize", 0);
  payload.sizeLength = bits("sizeLength", payload.constantSize != 0 ? 0 : low ? 6 : 13);
  payload.indexLength = bits("indexLength", payload.constantSize != 0 ? 0 : low ? 2 : 3);
  payload.indexDeltaLength = bits("indexDeltaLength", payload.indexLength);
  payload.ctsDeltaLength = bits("CTSDeltaLength", 0);
  payload.dtsDeltaLength = bits("DTSDeltaLength", 0);
  payload.streamStateLength = bits("streamStateIndication", 0);
  payload.auxiliarySizeLength = bits("auxiliaryDataSizeLength", 0);
  payload.randomAccess = number("randomAccessIndication", 0) != 0;
  const std::uint32_t duration = number("constantDuration", 0);
  if (number("maxDisplacement", 0) != 0) {
    return refuse("interleaved access units are not understood");
  }
  if (wrong || (payload.sizeLength == 0 && payload.constantSize == 0)) {
    return refuse("its fmtp line does not tell the sizes of the access units");
  }
  const std::string_view config = ValueOf(parameters, "config");
  const auto format = config.empty() ? PlainFormat(clockRate, channels)
                                     : ReadAudioSpecificConfig(BytesOfHex(config));
  if (!format) {
    return refuse(config.empty() ? kNoFormat : OtherKind(config));
  }
  payload.format = *format;
  payload.unitTicks = duration != 0 ? duration : UnitTicks(*format, clockRate);
  return payload;
}

std::optional<AacPayload> ReadLatmPayload(std::string_view parameters, std::uint32_t clockRate,
                                          std::uint32_t channels, std::string* problem) {
  AacPayload payload;
  LatmPayload& latm = payload.latm.emplace();
  latm.inBand = ValueOf(parameters, "cpresent") != "0";
  const std::string_view config = ValueOf(parameters, "config");
  const std::vector<std::uint8_t> bytes = BytesOfHex(config);
  if (!config.empty()) {
    BitReader bits(bytes);
    latm.mux = ReadStreamMuxConfig(bits, true);
  }
  const auto format = latm.mux                        ? std::optional(latm.mux->format)
                      : config.empty() && latm.inBand ? PlainFormat(clockRate, channels)
                                                      : std::nullopt;
  if (!format) {
    *problem = config.empty() ? kNoFormat : OtherKind(config);
    return std::nullopt;
  }
  payload.format = *format;
  payload.unitTicks = UnitTicks(*format, clockRate);
  return payload;
}

}  // namespace cms
