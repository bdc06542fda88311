#include "cms/streaming/rtsp_sub_session.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/input_padding.h"
#include "cms/streaming/h264_rtp_processer.h"
#include "cms/streaming/internal/aac_assembler.h"
#include "cms/streaming/internal/access_unit_assembler.h"
#include "cms/streaming/internal/held_packets.h"
#include "cms/streaming/internal/jpeg_assembler.h"
#include "cms/streaming/internal/latm_assembler.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/rtp_packet.h"
#include "cms/streaming/internal/sender_report.h"
#include "cms/streaming/internal/sound_format.h"
#include "cms/streaming/mjpeg_rtp_processer.h"
#include "cms/streaming/mp4ves_rtp_processer.h"
#include "cms/streaming/simple_rtp_processer.h"

namespace {

constexpr int kLargestPacket = 65536;

}  // namespace

class RTSPSubSession::State {
 public:
  bool MakeAssembler();
  bool MakeSoundProcesser();
  void TakePacket(std::span<const std::uint8_t> packet);
  void NoteSource(std::uint32_t sender, std::uint16_t sequence);
  template <class Assembler>
  void DeliverUnits(Assembler& assembler, const cms::MediaPacket& packet);
  void DeliverAudio(std::span<const std::uint8_t> payload, std::uint32_t timestamp);

  _RTSPSUBSESSION_CONFIG config{};
  cms::RTSPSubSessionOptions options;
  std::unique_ptr<RTPProcesserBase> processer;
  // Of pictures that go to options.units, one of them.
  std::unique_ptr<cms::AccessUnitAssembler> units;
  std::unique_ptr<cms::JpegAssembler> jpegs;
  // Of sound that is AAC, one of them.
  std::unique_ptr<cms::AacAssembler> aac;
  std::unique_ptr<cms::LatmAssembler> latm;
  // The receiving thread's: what the next packet of the same sender has.
  std::uint32_t source = 0;
  std::uint16_t nextSequence = 0;
  bool anyPacket = false;
  std::unique_ptr<std::uint8_t[]> sound;  // front room, then one packet's payload
  std::atomic<bool> playing{false};
  std::atomic<std::uint64_t> packets{0};
  cms::HeldPackets held;
  bool leftOut = false;  // packets came while not playing; the receiving thread's
};

RTSPSubSession::RTSPSubSession() : state_(std::make_unique<State>()) {}
RTSPSubSession::~RTSPSubSession() = default;

int RTSPSubSession::SetConfig(const _RTSPSUBSESSION_CONFIG& config,
                              const cms::RTSPSubSessionOptions& options) {
  state_->config = config;
  state_->options = options;
  return CreateRTPProcesser();
}

// False for an encoding that has none.
bool RTSPSubSession::State::MakeAssembler() {
  const cms::CMSCodecID codec = cms::CodecOfEncodingName(config.encodingName);
  if (codec == cms::CMS_CODEC_MJPEG) {
    jpegs = std::make_unique<cms::JpegAssembler>(
        *options.units, cms::PictureSize{config.width, config.height}, options.mostUnitBytes);
    return true;
  }
  const bool h264 = codec == cms::CMS_CODEC_H264;
  if (!h264 && codec != cms::CMS_CODEC_H265) {
    return false;
  }
  units = std::make_unique<cms::AccessUnitAssembler>(
      *options.units,
      cms::NalFormat{h264 ? cms::NalCodec::kH264 : cms::NalCodec::kH265, config.orderNumbers},
      options.mostUnitBytes);
  for (const auto& set : cms::DecodeNalUnits(config.nalSets)) {
    units->KeepParameterSet(set);
  }
  return true;
}

// Of the sound that only today's cameras send.
bool RTSPSubSession::State::MakeSoundProcesser() {
  const cms::SoundFormat format = cms::SoundFormatOf(config, false);
  if (format.descriptor.codecId == cms::CMS_CODEC_NONE) {
    return false;
  }
  if (format.aac && format.aac->latm) {
    latm = std::make_unique<cms::LatmAssembler>(*format.aac);
  } else if (format.aac) {
    aac = std::make_unique<cms::AacAssembler>(*format.aac);
  }
  processer = std::make_unique<SimpleRTPProcesser>();
  return true;
}

int RTSPSubSession::CreateRTPProcesser() {
  state_->units.reset();
  state_->jpegs.reset();
  state_->aac.reset();
  state_->latm.reset();
  if (state_->options.video && state_->options.units != nullptr && state_->MakeAssembler()) {
    state_->processer = std::make_unique<SimpleRTPProcesser>();
    state_->processer->SetSiteNum(state_->options.siteNumber);
    return 1;
  }
  switch (cms::CodecOfEncodingName(state_->config.encodingName)) {
    case cms::CMS_CODEC_H264: {
      auto h264 = std::make_unique<H264RTPProcesser>();
      h264->SetIgnoreDelimiters(state_->options.ignoreDelimiters);
      cms::ParameterSets sets = cms::DecodeParameterSets(state_->config.parameterSets);
      if (!sets.sps.empty() && !sets.pps.empty()) {
        h264->SetSPSSet(sets.sps.data(), static_cast<unsigned int>(sets.sps.size()));
        h264->SetPPSSet(sets.pps.data(), static_cast<unsigned int>(sets.pps.size()));
      }
      state_->processer = std::move(h264);
      break;
    }
    case cms::CMS_CODEC_MJPEG:
      state_->processer = std::make_unique<MJPEGRTPProcesser>();
      break;
    case cms::CMS_CODEC_MPEG4:
      state_->processer = std::make_unique<MP4VESRTPProcesser>();
      break;
    case cms::CMS_CODEC_PCM_MULAW:
    case cms::CMS_CODEC_PCM_ALAW:
    case cms::CMS_CODEC_PCM_S16BE:
      state_->processer = std::make_unique<SimpleRTPProcesser>();
      break;
    default:
      if (state_->options.video || state_->options.units == nullptr ||
          !state_->MakeSoundProcesser()) {
        return 0;
      }
  }
  state_->processer->SetSiteNum(state_->options.siteNumber);
  state_->processer->SetIsBPSCounting(!state_->options.video);
  if (state_->options.video) {
    state_->processer->SetSink(state_->options.sink);
  } else {
    state_->sound.reset(
        new (std::nothrow)
            std::uint8_t[RTPProcesserBase::kFrontRoom + kLargestPacket + cms::kInputPadding]);
    if (!state_->sound) {
      return 0;
    }
  }
  return 1;
}

void RTSPSubSession::DestroyRTPProcesser() {
  state_->processer.reset();
}

int RTSPSubSession::Play() {
  state_->playing.store(true, std::memory_order_release);
  return 1;
}

int RTSPSubSession::StopPlay() {
  state_->playing.store(false, std::memory_order_release);
  return 1;
}

int RTSPSubSession::RTPOverRTSPAddPacket(const void* data, int length) {
  State& state = *state_;
  const std::span packet(static_cast<const std::uint8_t*>(data),
                         static_cast<std::size_t>(std::max(length, 0)));
  // One thread counts. An instruction that locks would wait for the packet before to reach memory.
  state.packets.store(state.packets.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  if (!state.playing.load(std::memory_order_acquire) || !state.processer) {
    state.leftOut = true;
    if (state.options.units != nullptr) {
      state.held.Hold(packet, state.options.mostUnitBytes);
    }
    return 0;
  }
  if (state.leftOut) [[unlikely]] {
    state.leftOut = false;
    state.processer->NoteBreak();
    state.held.Release([&](std::span<const std::uint8_t> each) { state.TakePacket(each); });
  }
  if (state.options.video && !state.units && !state.jpegs) {
    return state.processer->ProcessData(const_cast<void*>(data), length);
  }
  state.TakePacket(packet);
  return 0;
}

void RTSPSubSession::State::TakePacket(std::span<const std::uint8_t> packet) {
  if (packet.size() < cms::RtpPacket::kFixedHeader) {
    return;
  }
  const cms::RtpPacket header(packet);
  if (options.units != nullptr) {
    NoteSource(header.Source(), header.Sequence());
  }
  const auto payload = processer->NotePacket(packet);
  if (!options.video && !aac && !latm) {
    DeliverAudio(payload, header.Timestamp());
  } else if (header.HeaderSize() < packet.size()) {
    const bool gap = !std::exchange(anyPacket, true) || header.Sequence() != nextSequence;
    nextSequence = static_cast<std::uint16_t>(header.Sequence() + 1);
    const cms::MediaPacket media{payload, header.Timestamp(), header.Marker(), gap};
    if (aac) {
      DeliverUnits(*aac, media);
    } else if (latm) {
      DeliverUnits(*latm, media);
    } else {
      units ? units->Take(media) : jpegs->Take(media);
    }
  }
}

void RTSPSubSession::TakeControlPacket(std::span<const std::uint8_t> packet) {
  const auto report = cms::ReadSenderReport(packet);
  if (report && state_->options.sink != nullptr) {
    state_->options.sink->OnReport(state_->options.video, *report);
  }
}

// Another sender numbers its packets anew: nothing is missing in between. One that goes on with the
// numbers is the same under another name, as servers give themselves when names collide.
void RTSPSubSession::State::NoteSource(std::uint32_t sender, std::uint16_t sequence) {
  if (sender == source) [[likely]] {
    return;
  }
  source = sender;
  if (sequence != nextSequence) {
    processer->NoteBreak();
  }
}

template <class Assembler>
void RTSPSubSession::State::DeliverUnits(Assembler& assembler, const cms::MediaPacket& packet) {
  assembler.Take(packet);
  for (auto unit = assembler.Next(); unit && options.sink != nullptr; unit = assembler.Next()) {
    options.sink->OnSound(unit->block, unit->timestamp);
  }
}

void RTSPSubSession::State::DeliverAudio(std::span<const std::uint8_t> payload,
                                         std::uint32_t timestamp) {
  if (payload.empty() || payload.size() > kLargestPacket || options.sink == nullptr) {
    return;
  }
  std::uint8_t* const block = sound.get() + RTPProcesserBase::kFrontRoom;
  std::memcpy(block, payload.data(), payload.size());
  options.sink->OnSound({block, payload.size()}, timestamp);
}

void RTSPSubSession::ResetLostCount() {
  if (state_->processer) {
    state_->processer->ResetLostCount();
  }
}

unsigned int RTSPSubSession::GetLostCount() const {
  return state_->processer ? state_->processer->GetLostCount() : 0;
}

unsigned int RTSPSubSession::GetTotalLostCount() const {
  return state_->processer ? state_->processer->GetTotalLostCount() : 0;
}

unsigned short RTSPSubSession::GetLastSeqNum() const {
  return state_->processer ? state_->processer->GetLastSeqNum() : static_cast<unsigned short>(0);
}

std::uint64_t RTSPSubSession::PacketCount() const {
  return state_->packets.load(std::memory_order_relaxed);
}

RTPProcesserBase* RTSPSubSession::Processer() {
  return state_->processer.get();
}

unsigned int RTSPSubSession::MissingPacketCount() const {
  return state_->processer ? state_->processer->GetMissingPacketCount() : 0;
}

unsigned int RTSPSubSession::OversizeFrameCount() const {
  return state_->units       ? state_->units->OversizeUnits()
         : state_->jpegs     ? state_->jpegs->OversizeUnits()
         : state_->processer ? state_->processer->GetOversizeFrameCount()
                             : 0;
}

double RTSPSubSession::LossRate() const {
  return state_->processer ? state_->processer->GetStreamLossRate() : 0;
}

std::uint8_t RTSPSubSession::FractionLost() const {
  return state_->processer ? state_->processer->GetLostFraction() : static_cast<std::uint8_t>(0);
}
