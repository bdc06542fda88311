#include "cms/streaming/rtsp_sub_session.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/input_padding.h"
#include "cms/streaming/h264_rtp_processer.h"
#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/mjpeg_rtp_processer.h"
#include "cms/streaming/mp4ves_rtp_processer.h"
#include "cms/streaming/simple_rtp_processer.h"

namespace {

constexpr int kLargestPacket = 65536;

}  // namespace

RTSPSubSession::RTSPSubSession() = default;
RTSPSubSession::~RTSPSubSession() = default;

int RTSPSubSession::SetConfig(const _RTSPSUBSESSION_CONFIG& config,
                              const RTSPSubSessionOptions& options) {
  config_ = config;
  options_ = options;
  return CreateRTPProcesser();
}

int RTSPSubSession::CreateRTPProcesser() {
  switch (cms::CodecOfEncodingName(config_.encodingName)) {
    case CMS_CODEC_H264: {
      auto h264 = std::make_unique<H264RTPProcesser>();
      h264->SetIgnoreDelimiters(options_.ignoreDelimiters);
      cms::ParameterSets sets = cms::DecodeParameterSets(config_.parameterSets);
      if (!sets.sps.empty() && !sets.pps.empty()) {
        h264->SetSPSSet(sets.sps.data(), static_cast<unsigned int>(sets.sps.size()));
        h264->SetPPSSet(sets.pps.data(), static_cast<unsigned int>(sets.pps.size()));
      }
      processer_ = std::move(h264);
      break;
    }
    case CMS_CODEC_MJPEG:
      processer_ = std::make_unique<MJPEGRTPProcesser>();
      break;
    case CMS_CODEC_MPEG4:
      processer_ = std::make_unique<MP4VESRTPProcesser>();
      break;
    case CMS_CODEC_PCM_MULAW:
    case CMS_CODEC_PCM_ALAW:
    case CMS_CODEC_PCM_S16BE:
      processer_ = std::make_unique<SimpleRTPProcesser>();
      break;
    default:
      return 0;
  }
  processer_->SetSiteNum(options_.siteNumber);
  processer_->SetIsBPSCounting(!options_.video);
  if (options_.video) {
    processer_->SetSink(options_.sink);
  } else {
    sound_.reset(
        new (std::nothrow)
            std::uint8_t[RTPProcesserBase::kFrontRoom + kLargestPacket + cms::kInputPadding]);
    if (!sound_) {
      return 0;
    }
  }
  return 1;
}

void RTSPSubSession::DestroyRTPProcesser() {
  processer_.reset();
}

int RTSPSubSession::Play() {
  playing_.store(true, std::memory_order_release);
  return 1;
}

int RTSPSubSession::StopPlay() {
  playing_.store(false, std::memory_order_release);
  return 1;
}

int RTSPSubSession::RTPOverRTSPAddPacket(const void* data, int length) {
  packets_.fetch_add(1, std::memory_order_relaxed);
  if (!playing_.load(std::memory_order_acquire) || !processer_) {
    leftOut_ = true;
    return 0;
  }
  if (leftOut_) [[unlikely]] {
    leftOut_ = false;
    processer_->NoteBreak();
  }
  if (options_.video) {
    return processer_->ProcessData(const_cast<void*>(data), length);
  }
  DeliverAudio(processer_->NotePacket(
      {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(std::max(length, 0))}));
  return 0;
}

void RTSPSubSession::DeliverAudio(std::span<const std::uint8_t> payload) {
  if (payload.empty() || payload.size() > kLargestPacket || options_.sink == nullptr) {
    return;
  }
  std::uint8_t* const block = sound_.get() + RTPProcesserBase::kFrontRoom;
  std::memcpy(block, payload.data(), payload.size());
  options_.sink->OnSound({block, payload.size()});
}

void RTSPSubSession::ResetLostCount() {
  if (processer_) {
    processer_->ResetLostCount();
  }
}

unsigned int RTSPSubSession::GetLostCount() const {
  return processer_ ? processer_->GetLostCount() : 0;
}

unsigned int RTSPSubSession::GetTotalLostCount() const {
  return processer_ ? processer_->GetTotalLostCount() : 0;
}

unsigned short RTSPSubSession::GetLastSeqNum() const {
  return processer_ ? processer_->GetLastSeqNum() : static_cast<unsigned short>(0);
}

unsigned int RTSPSubSession::MissingPacketCount() const {
  return processer_ ? processer_->GetMissingPacketCount() : 0;
}

unsigned int RTSPSubSession::OversizeFrameCount() const {
  return processer_ ? processer_->GetOversizeFrameCount() : 0;
}

double RTSPSubSession::LossRate() const {
  return processer_ ? processer_->GetStreamLossRate() : 0;
}

std::uint8_t RTSPSubSession::FractionLost() const {
  return processer_ ? processer_->GetLostFraction() : static_cast<std::uint8_t>(0);
}
