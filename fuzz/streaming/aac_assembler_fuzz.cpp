// AAC in RFC 3640: see AssembleAac.
#include "cms/streaming/internal/aac_assembler.h"
#include "fuzz/streaming/aac_blocks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzz::AssembleAac<cms::AacAssembler>({data, size}, cms::ReadAacPayload);
}
