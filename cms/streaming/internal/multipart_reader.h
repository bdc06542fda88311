// MultipartReader cuts an endless HTTP answer of the type multipart/x-mixed-replace (RFC 2046) into
// its parts.
#pragma once

#include <string>
#include <string_view>

#include "cms/live/media/raw_buffer.h"

namespace cms {

// Works on the front of the buffer that collects what the camera sends, and takes away what it has
// read but for the parts themselves. Parts end as their Content-Length says, or at the next
// boundary. Not for two threads at once.
class MultipartReader {
 public:
  enum class Step {
    kWait,   // more bytes have to come
    kHead,   // the answer's head was read: Status and Head tell of it
    kOther,  // something was taken away or passed over, what follows may be there
    kPart,   // PartLength bytes at the front are a part; the caller takes them away
  };

  // `largestPart`: bytes; longer parts are passed over.
  explicit MultipartReader(long largestPart) : largestPart_(largestPart) {}

  void Begin() { expect_ = Expect::kHead; }  // another answer follows
  Step Next(CRawBuffer& buffer);

  // Of the answer; 502 for what is no HTTP, or of status 200 and yet no multipart stream. Nothing
  // is read behind the head of an answer that is not 200.
  int Status() const { return status_; }
  const std::string& Head() const { return head_; }  // with the last line's end, as it came
  int PartLength() const { return partLength_; }

 private:
  enum class Expect { kHead, kPartHead, kBody, kNothing };

  Step ReadHead(CRawBuffer& buffer);
  Step ReadPartHead(CRawBuffer& buffer);
  Step FindPart(std::string_view text);

  const long largestPart_;
  Expect expect_ = Expect::kHead;
  int status_ = 0;
  std::string head_;
  std::string boundary_;
  long bodyLength_ = -1;  // of the part, -1: up to the next boundary
  long searched_ = 0;     // bytes of the part known to hold no boundary
  int partLength_ = 0;
};

}  // namespace cms
