#include "cms/streaming/internal/sender_filter.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cms {
namespace {

constexpr std::size_t kMostAddresses = 8;
// Where the source stands in the header of each version, and in how many words.
constexpr std::uint32_t kSourceV4 = 12;
constexpr std::uint32_t kSourceV6 = 8;
constexpr std::size_t kWordsV6 = 4;

}  // namespace

// Compares word by word; a word that differs leads to the next address, the end to a refusal.
bool TakeDatagramsOnlyFrom(int socket, std::span<const IpAddress> addresses) {
  constexpr std::uint32_t kWhole = 0xFFFFFFFF;
  if (addresses.empty() || addresses.size() > kMostAddresses) {
    return false;
  }
  std::vector<sock_filter> program;
  for (const IpAddress& address : addresses) {
    const std::size_t words = address.IsV6() ? kWordsV6 : 1;
    const std::size_t first = address.IsV6() ? 0 : 3;  // of the mapped address
    for (std::size_t word = 0; word < words; ++word) {
      const std::uint8_t* const bytes = address.V6().data() + 4 * (first + word);
      const std::uint32_t value = static_cast<std::uint32_t>(bytes[0]) << 24 |
                                  static_cast<std::uint32_t>(bytes[1]) << 16 |
                                  static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
      const std::uint32_t offset =
          (address.IsV6() ? kSourceV6 : kSourceV4) + static_cast<std::uint32_t>(4 * word);
      // Behind this word: two instructions for each of the others, and the one that accepts.
      const auto next = static_cast<std::uint8_t>(2 * (words - word - 1) + 1);
      program.push_back(
          BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(SKF_NET_OFF) + offset));
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, next));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, kWhole));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

}  // namespace cms
