#include "cms/net/internal/datagram_batch.h"

#include <algorithm>

namespace cms {

DatagramBatch& DatagramBatch::OfThisThread() {
  static thread_local DatagramBatch batch;
  return batch;
}

DatagramBatch::DatagramBatch() : storage_(new char[kDatagrams * kStride]) {
  for (std::size_t i = 0; i < kDatagrams; ++i) {
    vectors_[i] = {Data(static_cast<int>(i)), kBytes};
    headers_[i].msg_hdr.msg_iov = &vectors_[i];
    headers_[i].msg_hdr.msg_iovlen = 1;
  }
}

int DatagramBatch::Receive(int descriptor, int limit) {
  return recvmmsg(descriptor, headers_.data(),
                  static_cast<unsigned>(std::clamp(limit, 0, kDatagrams)), MSG_DONTWAIT, nullptr);
}

}  // namespace cms
