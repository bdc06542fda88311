// CMSHTTPClient: the base of clients that receive an endless stream over HTTP.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cms/live/client_base.h"
#include "cms/live/kept_stream.h"
#include "cms/live/media/codec_id.h"
#include "cms/live/media/raw_buffer.h"
#include "cms/runtime/api.h"
#include "cms/runtime/ip_address.h"
#include "cms/streaming/io_group.h"

namespace cms {

// Given to CMSHTTPClient::SetConfig, which copies it with the request bytes.
struct stHTTPClientConfig {
  std::uint32_t address = 0;  // IPv4, host order
  std::uint16_t port = 80;
  CMSCodecID codec = CMS_CODEC_MJPEG;                            // of every channel
  tCMSAudioPlayerConfig audioPlayer{.codecId = CMS_CODEC_NONE};  // the default makes no player
  const char* request = nullptr;  // sent once after connecting, as it is
  int requestLength = 0;          // bytes, at most 40,959
  unsigned channelCount = 1;
  int videoType = 0;
  int audioType = 0;
  int connectOption = kAutomaticGroup;  // key of the I/O thread pair
  IpAddress ip;                         // set, in place of the address: of either version
};

}  // namespace cms

// Connects, sends one prepared request and cuts the endless reply into frames. A subclass for each
// kind of stream supplies Pause and Resume, ParseStreamFrame and the two hand-overs; it calls
// StopPlay in its own destructor, because the process thread calls these.
//
// Play and StopPlay may come from any thread. Between them the stream is kept as CMSClientBase
// describes: a connection that the camera ends, or that falls silent, is opened again. The process
// thread is the only one that reads the socket and changes the raw buffer; it sleeps while nothing
// arrives. Play makes the audio player that is configured, if any, in place of one that was set; a
// client whose player cannot start runs without sound.
class CMS_API CMSHTTPClient : public CMSClientBase, protected cms::KeptStream {
 public:
  // Bytes that wait for the rest of their frame, with the headers around it. A stream in which no
  // frame ends within so many is cleared out, counted as an oversize frame, and parsed on.
  static constexpr long kMaxRawBytes = 1048576;

  CMSHTTPClient();
  ~CMSHTTPClient() override;

  // `config` is an stHTTPClientConfig. Makes the channels anew. 0 while playing.
  int SetConfig(void* config) override;

  // 0 when it plays already (nothing changes then), when the connection or a channel's codec cannot
  // be opened, or when the request does not fit: StopPlay then releases what was made. Connecting
  // takes at most 10 s; StopPlay from another thread ends it at once.
  int Play() override;

  // Ends the process thread and releases all that Play made, the channels included: no picture may
  // be locked, and decoding is to be enabled again after the next Play. Not from a hand-over.
  int StopPlay() override;

  int ChangeRecordFile() override;
  int ChangeRecordPath(const wchar_t* path) override;
  using CMSClientBase::ChangeRecordPath;

  // `data` is the front of the raw buffer, valid during the call; cms::kInputPadding bytes
  // behind it are readable. `channel` and `reserved` are always 0.
  virtual void OnStreamVideoFrame(unsigned channel, int reserved, unsigned char* data, int length,
                                  int extra, int videoFlag) = 0;
  virtual void OnStreamAudioFrame(unsigned channel, int reserved, unsigned char* data, int length,
                                  int extra) = 0;

  virtual void SetAudioType();  // a configured video type of 5 makes the audio type 13

  // Looks for a whole frame at the front of the raw buffer. Non-zero when there is one, of
  // *frameLength bytes, which are handed over and removed; the parser itself may remove bytes that
  // belong to no frame. It is called until it sets *more (1 on entry) to something else, which it
  // does as soon as no further whole frame is there. *videoFlag and *extra go to the hand-over.
  virtual int ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength, int* videoFlag,
                               int* extra, int* more) = 0;

 protected:
  bool OpenForKeeping() override;
  void CloseForKeeping() override;
  cms::ConnectionFault KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) override;
  cms::StreamCounts Counts() const override;

  // Replaces the request that the next opening sends: a subclass that was challenged logs in so.
  // Not while playing.
  void SetRequest(std::string request);

 private:
  class CMS_HIDDEN Connection;

  bool OpenLocked() CMS_REQUIRES(lock_);
  void CloseLocked() CMS_REQUIRES(lock_);
  bool Connect() CMS_REQUIRES(lock_);
  bool InitialCodecs() CMS_REQUIRES(lock_);
  bool StartProcessThread() CMS_REQUIRES(lock_);
  bool SendRequest() CMS_REQUIRES(lock_);
  void StartAudioPlayer() CMS_REQUIRES(lock_);
  bool FailConnect(int error) CMS_REQUIRES(lock_);
  bool Fail(cms::ConnectionFault fault, const std::string& what) CMS_REQUIRES(lock_);
  std::string AddressText() const CMS_REQUIRES(lock_);
  void Process(Connection& connection, CRawBuffer& raw);
  void Keep(CRawBuffer& raw, const char* data, int length);
  bool ParseFrames(CRawBuffer& raw);
  void OnConnectionClosed();

  struct CMS_HIDDEN Life;
  const std::unique_ptr<Life> life_ CMS_PT_GUARDED_BY(lock_);
  struct CMS_HIDDEN ProcessState;
  const std::unique_ptr<ProcessState> process_;
};
