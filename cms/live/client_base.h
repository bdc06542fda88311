// CMSClientBase: one live connection to one site, and what happens to every frame of it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/live/channel_data.h"
#include "cms/live/connection_status.h"
#include "cms/live/fps_report.h"
#include "cms/live/kept_stream.h"
#include "cms/live/media/audio_endpoint.h"
#include "cms/live/media/frame_moment.h"
#include "cms/live/reconnect_policy.h"
#include "cms/recording/gap_log.h"
#include "cms/recording/record_param.h"
#include "cms/recording/recording_kind.h"
#include "cms/recording/recording_status.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace cms {
class CancelGate;

// What GetFrameData copies: totals of the connection since the client was made, over all
// reconnections, and how it fares now.
struct CMSFrameData {
  std::uint64_t videoFrames = 0;
  std::uint64_t keyFrames = 0;
  std::uint64_t audioFrames = 0;
  std::uint64_t bytes = 0;  // payload bytes of video and audio frames
  std::uint64_t lostPackets = 0;
  std::uint64_t oversizeFrames = 0;  // dropped: larger than what is received

  // Of the last opening, a reconnection included: from its start to the answer to PLAY, to the
  // first frame handed on and to the first decoded picture of channel 0; 0: not yet.
  std::uint32_t openMs = 0;
  std::uint32_t firstFrameMs = 0;
  std::uint32_t firstPictureMs = 0;

  // Milliseconds since the last video frame, and since the last decoded picture of channel 0.
  static constexpr std::uint32_t kNever = 0xFFFFFFFF;  // there has been none
  std::uint32_t sinceVideoMs = kNever;
  std::uint32_t sincePictureMs = kNever;

  // What comes at this moment: video frames a second, kilobits of 1000 bits a second. 0 in the
  // first second of an opening, and when nothing has come for two seconds and two usual distances.
  double fps = 0;
  double kbps = 0;

  // Of the last video frame: when it was taken by our clock and by the camera's (the difference is
  // what the camera's clock is off), see cms::FrameMoment; 0: not known.
  std::int64_t timeUs = 0;
  std::int64_t cameraUs = 0;
};

}  // namespace cms

// The abstract base of the streaming clients. They negotiate and receive; this class counts every
// frame, hands it to recording and decoding, and answers the client application's questions.
//
// Life: construct, SetConfig, AllocChannelData, OpenStream, Play ... StopPlay, CloseStream,
// destroy. From a successful Play (or KeepOpen) until StopPlay or CloseStream the site keeps
// itself: it sends keep-alives, notices a dead stream and opens it again as its ReconnectPolicy
// says.
//
// Threads: frames arrive on the receiving thread of the stream (OnGet..., OnRecord...,
// OnDecode...); keeping runs on the library's site threads; everything else is called by the client
// application from any thread, except that a stream is not opened, closed or destroyed from inside
// a frame callback: closing waits for the callback to end.
//
// Per-channel members ignore channels beyond the channel count (result 0), and may be asked while
// another thread closes the stream or makes the channels anew. Results are 1 (or non-zero) for
// success and 0 for failure.
//
// What a channel shows is decided in three places. SetMustDecode(1) opens decoders, for the whole
// site; EnableDecode(channel, 0) makes the channel use its own; SetDecoder sets how its pictures
// are to look. Sound likewise: EnableAudio says that the channel's sound is wanted, SetAudioOn that
// it is to be heard now, and it goes to the player only while both hold.
class CMS_API CMSClientBase {
 public:
  // `stream` is what can be kept: the derived client's own; nullptr: nothing.
  explicit CMSClientBase(cms::KeptStream* stream = nullptr);
  virtual ~CMSClientBase();
  CMSClientBase(const CMSClientBase&) = delete;
  CMSClientBase& operator=(const CMSClientBase&) = delete;

  // --- Life -----------------------------------------------------------------------------------
  // The structure that the derived client names, which is copied.
  virtual int SetConfig(void* config) = 0;
  // Delivers and keeps what OpenStream opened; clients over HTTP open it themselves.
  virtual int Play() = 0;
  virtual int Pause() = 0;
  virtual int Resume() = 0;
  // Ends the delivery and the keeping. It returns when no frame callback runs any more.
  virtual int StopPlay() = 0;
  // From the next key frame on the site records into a new file; 0 when none is open nor could be
  // opened.
  virtual int ChangeRecordFile() = 0;
  // The same under another path, see stRecordParam::path; 0 without a text.
  virtual int ChangeRecordPath(const wchar_t* path) = 0;

  // --- Channels -------------------------------------------------------------------------------
  // Whether the site decodes at all, 0 at first. Frames are recorded either way. 0 also closes the
  // decoders.
  virtual void SetMustDecode(int decode);
  // The number of frames that a channel received while SetMustDecode was off.
  virtual void AddChannelSerialNum(unsigned channel);
  virtual unsigned GetChannelSerialNum(unsigned channel);
  // For clients that keep pictures of their own; nothing here. For decoded pictures see
  // lockDecodedImage.
  virtual void LockImage(unsigned channel);
  virtual int LockImageTest(unsigned channel);
  virtual void UnlockImage(unsigned channel);
  // How pictures are to look; the type of *value is the parameter's, see DECODER_PARAMETER_TYPE.
  virtual void SetDecoder(unsigned channel, DECODER_PARAMETER_TYPE type, const void* value);
  virtual int GetDewarpMode(unsigned channel);
  // For clients that decode elsewhere; nothing here.
  virtual void GetPicture(unsigned channel, void** picture, MEM_TYPE* type);
  // Pixels of the last decoded picture, 0 x 0 before.
  virtual int GetWidthAndHeight(unsigned channel, unsigned* width, unsigned* height);
  // When the last frame came, with the configured offset: seconds since 1970-01-01 UTC.
  virtual std::int64_t GetTime(unsigned channel);
  virtual int GetVideoType(unsigned channel);  // a CMSVideoType
  virtual int GetAudioType();                  // a CMSCodecID, or what the configuration says
  // Decoding starts with the next key frame, also on a channel that decodes already. The second
  // argument is not used.
  virtual void EnableDecode(unsigned channel, int unused);
  virtual void DisableDecode(unsigned channel);
  virtual int IsDecoingEnable(unsigned channel);
  virtual void SetAudioOn(unsigned channel);
  virtual void SetAudioOff(unsigned channel);
  virtual int IsPlayAudio(unsigned channel);  // what SetAudioOn set
  virtual void EnableAudio(unsigned channel);
  virtual void DisableAudio(unsigned channel);
  virtual int IsAudioEnable(unsigned channel);
  // A name for people, kept and nothing else; 0 when there is no such channel.
  virtual void SetCameraTitle(unsigned channel, std::string& title);
  virtual int GetCameraTitle(unsigned channel, std::string* title);
  // Sends a block of sound to the site, without waiting for it; the bytes that were taken, 0 here.
  virtual int SendAudioData(unsigned char* data, int length);
  virtual int GetJpegRawDataLen(unsigned channel);  // 0 here

  // --- Opening --------------------------------------------------------------------------------
  // Connects and negotiates; waits for the camera. On 0 GetConnectionStatus says why.
  virtual int OpenStream();
  // Ends everything, an opening in progress on another thread as well. A derived class calls it in
  // its own destructor: frames come until it returns.
  virtual int CloseStream();
  // Writes what came with a frame as metadata into the frame's header area; nothing here.
  virtual void ConvertMetadataToDRVHeader(void* metadata, unsigned length, void* header,
                                          unsigned headerLength);

  // Every frame goes through these, on the receiving thread. The buffers are the stream's and valid
  // during the call only; cms::kInputPadding bytes behind a video frame are readable.
  virtual void OnGetVideoFrame(void* header, int headerSize, void* data, int size, unsigned channel,
                               int frameType);
  virtual void OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                               unsigned channel);
  // Inside of these two: when the frame was taken. Zeros of a stream that does not tell.
  const cms::FrameMoment& GetFrameMoment() const;
  virtual void OnRecordVideoFrame(void* header, int headerSize, void* data, int size,
                                  unsigned channel);
  virtual void OnRecordAudioFrame(void* header, int headerSize, void* data, int size,
                                  unsigned channel);
  virtual void OnDecodeVideoFrame(void* data, int size, unsigned channel, int frameType);
  virtual void OnDecodeAudioFrame(void* data, int size, unsigned channel);
  // Makes so many channels, in place of those that there are; 0 of them: none. What is not the
  // site's is as at first: title, switches, decoders. No picture and no metadata is locked
  // meanwhile. 0 when memory is short.
  virtual int AllocChannelData(unsigned count);
  // For clients that make their sockets themselves; nothing here.
  virtual int CreateSocket();
  virtual int DestroySocket();

  // --- Keeping the stream ---------------------------------------------------------------------
  void SetReconnectPolicy(const cms::ReconnectPolicy& policy);
  // Opens and plays in the background and keeps trying as the policy says; returns at once. Watch
  // GetConnectionStatus. 0 when the stream is kept already, or is none that can be.
  int KeepOpen();
  // Never waits, whatever the camera does.
  cms::ConnectionStatus GetConnectionStatus() const;

  // --- Recording ------------------------------------------------------------------------------
  // SetRecordParam and SetRecordDevice first. Channels are those of the latest AllocChannelData
  // that made any: recording goes on while a closed stream has none. Kinds are a CMSRecordKind;
  // other numbers do nothing. What is recorded is written by the library's own threads at most five
  // seconds later, and every span in which the site should have recorded and did not stands in the
  // gap log (cms/recording/gap_log.h). See docs/recording.md. Starting, stopping and changing waits
  // for the disk; nobody calls in here who holds EventDBLock.

  // No frame is recorded and no event begins between the two.
  void DRVRecorderLockerLock();
  void DRVRecorderLockerUnlock();

  // Where this site's recordings and its events and gaps are kept (cms/recording/data_root.h);
  // without it, or with an empty folder, that of the process counts. Before the site records.
  void SetDataRoot(const std::string& folder);

  void SetRecordParam(const stRecordParam& param);
  // How the databases name the site. Null texts are empty ones.
  void SetRecordDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port);
  void SetRecordDevice(const std::string& address, const std::string& siteName, std::uint16_t port);
  // ChangeRecordPath of a native path in UTF-8.
  int ChangeRecordPath(const std::string& path);

  // How long an event recording goes on after the last frame with a mark; 0 from the start.
  void SetRecDuration(unsigned seconds);
  unsigned GetRecDuration() const;

  // Keeps the seconds (at most 255) before an event ready in memory, from a key frame on, and
  // records them when it begins. The memory is allocated here: `bytes`, or with 0 one that fits a
  // stream of 8 Mbit/s, 4 to 64 MB; of what does not fit the latest is kept. 0 when there is no
  // memory.
  int SetRecEventPreAlarm(unsigned channel, unsigned seconds, int enabled, std::size_t bytes = 0);

  // What the client application knows of a channel's events (CMSEventState), beside the marks in
  // the frames: holds until it is set again and counts with the next frame.
  void SetEventState(unsigned channel, unsigned state);
  unsigned GetEventState(unsigned channel) const;

  // Begins a recording by hand; it ends with StopRecord. One of an event has its pre-alarm. 0 when
  // no file could be opened: nothing is recorded then.
  int StartRecord(unsigned channel, int kind);
  std::string GetStartRecordError() const;      // why the last one returned 0, one line; else empty
  void StopRecord(unsigned channel, int kind);  // turns the state of a schedule off as well
  void StopRecordAll();                         // and turns all states off

  // Whether a file is open and, with a channel, any kind of recording runs for it.
  int IsRecording(unsigned channel) const;
  int IsRecording() const;
  int IsMotionRecording(unsigned channel) const;  // of a device event

  // States make recordings begin by themselves: that of an event with each mark, that of a schedule
  // at once, and again when the disk comes back. Turning one off ends its recording.
  void TurnOnRecordingState(unsigned channel, int kind);
  void TurnOffRecordingState(unsigned channel, int kind);
  void TurnOffRecordingStateAll();

  // From now on every finished recording goes to "<target>\<its folder's name>", in order, what
  // earlier runs left of the site first (SetRecordParam before); a target that is away makes them
  // wait. 0 when they go somewhere already.
  int StartMoveFileToNAS(const wchar_t* target);
  int StartMoveFileToNAS(const std::string& target);  // native, UTF-8
  // Writes and moves what is finished, the last file too. Each may take ten seconds, a move across
  // volumes that runs a minute more; what is left stays where it is.
  void StopMoveFileToNAS();
  int IsMovingFileToNAS() const;

  // Waits until everything recorded so far is in its files; 0 on time-out, and at once when what is
  // left waits for a disk that is full or read-only.
  int WaitRecorded(int milliseconds);
  // The .drv files finished since the last call, in the order in which they were begun: the latest
  // 1000. With a data root their paths are absolute.
  std::vector<std::wstring> TakeRecordedFiles();
  std::vector<std::string> TakeRecordedPaths();  // the same, native and in UTF-8
  cms::RecordingStatus GetRecordingStatus() const;
  // Why nothing is being recorded although it should be, as the gap log has it (also while that
  // cannot be written), about a second behind; nothing while all is well.
  std::optional<cms::OpenGap> GetRecordingGap() const;
  // How many gaps there were, and how long, as far behind.
  cms::GapTotals GetRecordingGapTotals() const;

  // --- Frames and pictures --------------------------------------------------------------------
  // Copies at most `size` bytes of a CMSFrameData; returns the bytes copied.
  int GetFrameData(void* buffer, int size) const;
  // What the frame-rate report said when it was last fed: the rate of the last second, a smoothed
  // one, kilobits of 1024 bits. They stand still while nothing comes; CMSFrameData has rates that
  // do not.
  double GetFps() const;
  double GetAvgFps() const;
  double GetKbps() const;
  // Frames decoded, skipped (decoding off, a key frame waited for, queue full or no decoder) and
  // failed; any may be null.
  int GetDecodeStatus(unsigned channel, unsigned* decoded, unsigned* notDecoded,
                      unsigned* errors) const;
  int IsClientPlaying() const;  // from Play to StopPlay, but for the time that the camera is away

  // The newest picture as BGRA rows without gaps at the display size, nullptr while there is none.
  // It stays valid, and decoding of the channel waits, until unlockDecodedImage, which is owed on
  // the same thread after nullptr too.
  std::uint8_t* lockDecodedImage(unsigned channel, tagSIZE* size);
  void unlockDecodedImage(unsigned channel);
  // The same as the codec left it, with DECODER_PARAMETER_PLANAR (see CMSDecoder);
  // unlockDecodedImage is owed after false too.
  bool LockDecodedPlanes(unsigned channel, cms::PlanarPicture* picture);

  // A decode thread for each channel, so that slow decoding never delays reception; off by default.
  // Set before decoding starts.
  void SetThreadedDecode(bool threaded);

  // --- Sound ----------------------------------------------------------------------------------
  // Where the audio of channels with audio enabled and on goes; nullptr: nowhere. The player is
  // the caller's, started and stopped by it, and outlives its use here: after SetAudioPlayer of
  // another one it is not called any more. It is told the stream's format whenever that changes.
  void SetAudioPlayer(cms::AudioPlayer* player);
  // The stream's audio, as far as it is known; 0 when there is none.
  int GetAudioFormat(tCMSAudioPlayerConfig* config) const;

  // Captures a microphone and gives each block to SendAudioData, on the capture's thread. 0 when
  // one is captured already, or the format or the device cannot be used.
  int OnStartAudioRecorder(const tCMSAudioPlayerConfig& config);
  // Not from inside SendAudioData.
  void OnStopAudioRecorder();
  int IsStartingAudioRecorder() const;

  // Writes the recording type tag of the site type and the video type of channel 0 into tag[0..3];
  // combinations without a tag leave the bytes as they are.
  void GetDRVTypeHeader(unsigned char* tag);

  void SetMetadata(unsigned channel, const void* data, unsigned length);
  unsigned GetMetadata(unsigned channel, void* destination, unsigned size);
  unsigned GetMetadataSerialNum(unsigned channel);
  void AddMetadataSerialNum(unsigned channel);
  void MetadataLockerLock(unsigned channel);
  void MetadataLockerUnlock(unsigned channel);
  // The lens and the view of all channels, also of those that are allocated later
  // (cms/live/media/fisheye.h); SetDecoder changes the view of one.
  void SetFisheyeInfo(const stFisheyeParameter* parameter);

 protected:
  // --- For the streaming clients --------------------------------------------------------------
  void StartKeeping();
  // After it no turn of the keeping runs or starts.
  void StopKeeping();
  // Asks for a turn of the keeping at once: an answer came, or the connection broke.
  void PokeKeeping();
  // What shuts it cancels an opening that runs, and any that would begin.
  cms::CancelGate& OpeningGate();

  void SetFault(cms::ConnectionFault fault, std::string detail);
  void SetState(cms::ConnectionState state);
  void MarkOpening();  // the start of open and first-frame times
  void MarkOpened();

  // When the frame was taken that OnGetVideoFrame or OnGetAudioFrame is given next. Receiving
  // thread.
  void NoteMoment(const cms::FrameMoment& moment);
  // What the log calls the camera: its URL without user and password.
  void SetCameraAddress(std::string address);
  // See ConnectionStatus::sound.
  void SetSoundProblem(std::string problem);

  // What the audio blocks are from now on; codec CMS_CODEC_NONE: there are none.
  void SetAudioFormat(const tCMSAudioPlayerConfig& config);

  // What ChangeRecordFile and ChangeRecordPath do: from the next key frame on.
  int ChangeRecorderFile();
  int ChangeRecorderPath(const wchar_t* path);

  // Stays valid for who holds it, whatever becomes of the stream; null when there is none.
  std::shared_ptr<CMSChannelDataBase> Channel(unsigned channel) const;
  unsigned ChannelCount() const;
  int MustDecode() const;
  void SetPlaying(bool playing);        // what IsClientPlaying says
  void SetSiteType(int siteType);       // decides GetDRVTypeHeader's tag; 0: none
  void ReportAudioType(int audioType);  // what GetAudioType says
  CMSFpsReport& FpsReport();

  mutable CMSCritical lock_;  // the client's lock: configuration and life cycle

 private:
  bool MayRecord(unsigned channel) const;

  struct CMS_HIDDEN State;
  const std::unique_ptr<State> state_;
};
