#include "cms/streaming/internal/sender_filter.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>

namespace cms {

bool TakeDatagramsOnlyFrom(int socket, std::span<const std::uint32_t> addresses) {
  constexpr std::size_t kMostAddresses = 8;
  constexpr std::uint32_t kSourceAddress = 12;  // in the IPv4 header
  constexpr std::uint32_t kWhole = 0xFFFFFFFF;
  if (addresses.empty() || addresses.size() > kMostAddresses) {
    return false;
  }
  std::array<sock_filter, kMostAddresses + 3> program{};
  std::size_t size = 0;
  program[size++] =
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(SKF_NET_OFF) + kSourceAddress);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const auto to_accept = static_cast<std::uint8_t>(addresses.size() - i);
    program[size++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, addresses[i], to_accept, 0);
  }
  program[size++] = BPF_STMT(BPF_RET | BPF_K, 0);
  program[size++] = BPF_STMT(BPF_RET | BPF_K, kWhole);
  const sock_fprog filter{static_cast<unsigned short>(size), program.data()};
  return setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

}  // namespace cms
