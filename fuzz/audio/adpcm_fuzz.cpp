// Audio blocks from the network with lengths that lie: a decoder reads no byte but those that its
// header names, writes none outside its output, and reports an output that lies in its capacity.
// What plain G.711 and ADPCM calls write ends where they say. IMA code by code equals the block.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/audio/ms_adpcm_decoder.h"
#include "cms/audio/pcm_decoder.h"
#include "cms/exports/audio_exports.h"
#include "cms/live/media/codec_id.h"
#include "fuzz/support/check.h"

namespace {

// A copy of exactly this size on the heap, so that AddressSanitizer sees a step too far.
using Heap = std::unique_ptr<std::uint8_t[]>;
Heap Exactly(const std::uint8_t* data, std::size_t size) {
  Heap copy(new std::uint8_t[size]);
  std::copy_n(data, size, copy.get());
  return copy;
}

struct Case {
  std::unique_ptr<CAudioDecoderBase> decoder;
  int codecId = 0;
  std::size_t header = 0;      // bytes in front that the length does not count
  std::size_t readBehind = 0;  // bytes owed behind the block
  std::size_t group = 1;       // bytes of a group that is owed whole
  std::uint32_t factor = 1;
};

Case Choose(std::uint8_t choice, std::uint32_t channels) {
  switch (choice % 7) {
    case 0:
      return {.decoder = std::make_unique<PCMDecoder>(), .codecId = cms::CMS_CODEC_PCM_S16BE};
    case 1:
      return {.decoder = std::make_unique<PCMDecoder>(), .codecId = cms::CMS_CODEC_PCM_U8};
    case 2:
      return {.decoder = std::make_unique<PCMDecoder>(), .codecId = cms::CMS_CODEC_PCM_S16LE};
    case 3:
      return {.decoder = std::make_unique<ALawDecoder>(), .factor = 2};
    case 4:
      return {.decoder = std::make_unique<MULawDecoder>(), .factor = 2};
    case 5:
      return {.decoder = std::make_unique<MSADPCMDecoder>(),
              .readBehind = MSADPCMDecoder::kBytesReadBehind,
              .factor = 4};
    default:
      return {.decoder = std::make_unique<IMAADPCMDecoder>(),
              .header = IMAADPCMDecoder::kHeaderSize,
              .group = channels == 2 ? std::size_t{IMAADPCMDecoder::kGroupSize} : 1,
              .factor = 4};
  }
}

void CheckOutput(CAudioDecoderBase& decoder, std::uint64_t capacity) {
  unsigned char* data = nullptr;
  unsigned int length = 0;
  CHECK(decoder.GetDecodedData(&data, &length) == 1 && length <= capacity);
  volatile unsigned char sum = 0;
  for (unsigned int i = 0; i < length; ++i) {  // every byte of it is readable
    sum = static_cast<unsigned char>(sum + data[i]);
  }
}

void FuzzDecoder(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kSetting = 4;
  const std::uint32_t channels = data[1] % 4;
  const std::uint32_t maximum = data[2];
  const unsigned mode = data[3] % 5;
  Case subject = Choose(data[0], channels);
  const cms::CAudioDecoderConfig config{subject.codecId, maximum, channels, 0, nullptr};
  CHECK(subject.decoder->Initialize(&config) == 1);
  const std::uint64_t capacity = std::uint64_t{maximum} * channels * subject.factor;

  data += kSetting;
  size -= kSetting;
  // The longest block whose owed bytes are all there, and two lies that must be refused.
  if (size > subject.header + subject.readBehind) {
    const std::size_t length =
        (size - subject.header - subject.readBehind) / subject.group * subject.group;
    for (std::size_t shorter = 0; shorter < std::min(subject.group, length); ++shorter) {
      const Heap block = Exactly(data, subject.header + length + subject.readBehind);
      const int decoded =
          subject.decoder->Decode(block.get(), static_cast<int>(length - shorter), mode);
      CHECK(decoded == ((length - shorter) * subject.factor <= capacity ? 1 : 0));
      CheckOutput(*subject.decoder, capacity);
    }
    const Heap block = Exactly(data, size);
    for (const std::int64_t lie : {std::int64_t{INT_MAX}, std::int64_t{INT_MIN}, std::int64_t{0},
                                   static_cast<std::int64_t>(capacity / subject.factor + 1)}) {
      CHECK(subject.decoder->Decode(block.get(), static_cast<int>(lie), mode) == 0);
      CheckOutput(*subject.decoder, capacity);
    }
  }
}

void FuzzFunctions(const std::uint8_t* data, std::size_t size) {
  const int room = data[1] | data[2] << 8;
  const int count = static_cast<int>(std::min<std::size_t>(size / 2, 0xFFFF));
  std::vector<short> samples(size / 2);
  std::memcpy(samples.data(), data, samples.size() * 2);
  for (const auto encode : {g711_aEncoder, g711_uEncoder}) {
    const Heap out(new std::uint8_t[static_cast<std::size_t>(room)]);
    const int result = encode(samples.data(), count, out.get(), room);
    CHECK(result == (room >= 1 && count <= room * 2 ? count / 2 : -1));
  }
  for (const auto decode : {g711_aDecoder, g711_uDecoder}) {
    const std::unique_ptr<short[]> out(new short[static_cast<std::size_t>(room / 2)]);
    const int result = decode(data, count, out.get(), room & ~1);
    CHECK(result == (count * 2 <= (room & ~1) ? count * 2 : -1));
  }

  auto index = static_cast<signed char>(data[1]);
  auto predictor = static_cast<short>(room);
  const Heap out(new std::uint8_t[size * 4]);
  adpcm_decoder(data, out.get(), static_cast<int>(size), &index, &predictor);
  CHECK(index >= 0 && index <= 22 && predictor >= -128 && predictor <= 127);

  // A block decodes as its codes do one by one.
  std::vector<std::uint8_t> block(IMAADPCMDecoder::kHeaderSize);
  block[60] = data[1];
  block[61] = data[2];
  block[62] = data[3];
  block.insert(block.end(), data, data + size);
  IMAADPCMDecoder decoder;
  const cms::CAudioDecoderConfig config{0, static_cast<std::uint32_t>(size), 1, 0, nullptr};
  CHECK(decoder.Initialize(&config) == 1);
  CHECK(decoder.Decode(block.data(), static_cast<int>(size), 0) == 1);
  const auto* decoded = reinterpret_cast<const std::int16_t*>(decoder.GetOutputBuffer());
  ADPCMState state{.stepIndex = data[3],
                   .predictedSample = static_cast<std::int16_t>(data[1] | data[2] << 8)};
  for (std::size_t i = 0; i < size * 2; ++i) {
    const int code = i % 2 == 0 ? data[i / 2] & 0xF : data[i / 2] >> 4;
    CHECK(DecodeADPCMC(code, &state) == decoded[i]);
    CHECK(state.stepIndex >= 0 && state.stepIndex <= 88);
  }
}

}  // namespace

// Four bytes of settings, then the block.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 5) {
    return 0;
  }
  FuzzDecoder(data, size);
  FuzzFunctions(data, size);
  return 0;
}
