// AAC in LATM, RFC 6416: see AssembleAac.
#include "cms/streaming/internal/latm_assembler.h"
#include "fuzz/streaming/aac_blocks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return fuzz::AssembleAac<cms::LatmAssembler>({data, size}, cms::ReadLatmPayload);
}
