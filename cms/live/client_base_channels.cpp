// The per-channel members of CMSClientBase: each one passes on to the channel, if there is one.
#include "cms/live/internal/client_state.h"

namespace {

template <typename Action>
auto IfPresent(const std::shared_ptr<CMSChannelDataBase>& channel, Action action) {
  using Result = decltype(action(*channel));
  if constexpr (std::is_void_v<Result>) {
    if (channel != nullptr) {
      action(*channel);
    }
  } else {
    return channel != nullptr ? action(*channel) : Result{};
  }
}

}  // namespace

void CMSClientBase::SetMustDecode(int decode) {
  state_->mustDecode.store(decode, std::memory_order_relaxed);
}

int CMSClientBase::MustDecode() const {
  return state_->mustDecode.load(std::memory_order_relaxed);
}

unsigned CMSClientBase::ChannelCount() const {
  return state_->channelCount.load(std::memory_order_relaxed);
}

void CMSClientBase::AddChannelSerialNum(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.AddSerialNum(); });
}

unsigned CMSClientBase::GetChannelSerialNum(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.GetSerialNum(); });
}

void CMSClientBase::LockImage(unsigned) {}
int CMSClientBase::LockImageTest(unsigned) {
  return 0;
}
void CMSClientBase::UnlockImage(unsigned) {}

void CMSClientBase::SetDecoder(unsigned channel, DECODER_PARAMETER_TYPE type, const void* value) {
  IfPresent(Channel(channel), [&](auto& c) { c.SetDecoder(type, value); });
}

int CMSClientBase::GetDewarpMode(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.GetDewarpMode(); });
}

void CMSClientBase::GetPicture(unsigned, void**, MEM_TYPE*) {}

int CMSClientBase::GetWidthAndHeight(unsigned channel, unsigned* width, unsigned* height) {
  return IfPresent(Channel(channel), [&](auto& c) {
    c.GetVideoWidthAndHeight(width, height);
    return 1;
  });
}

std::int64_t CMSClientBase::GetTime(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.GetTime(); });
}

int CMSClientBase::GetVideoType(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.GetVideoType(); });
}

int CMSClientBase::GetAudioType() {
  return state_->audioType.load(std::memory_order_relaxed);
}

void CMSClientBase::ReportAudioType(int audioType) {
  state_->audioType.store(audioType, std::memory_order_relaxed);
}

void CMSClientBase::EnableDecode(unsigned channel, int) {
  IfPresent(Channel(channel), [](auto& c) { c.EnableDecode(); });
}

void CMSClientBase::DisableDecode(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.DisableDecode(); });
}

int CMSClientBase::IsDecoingEnable(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.IsDecodeEnabled(); });
}

void CMSClientBase::SetAudioOn(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.SetAudioOn(); });
}

void CMSClientBase::SetAudioOff(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.SetAudioOff(); });
}

int CMSClientBase::IsPlayAudio(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.IsPlayAudio(); });
}

void CMSClientBase::EnableAudio(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.EnableAudio(); });
}

void CMSClientBase::DisableAudio(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.DisableAudio(); });
}

int CMSClientBase::IsAudioEnable(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.IsAudioEnable(); });
}

void CMSClientBase::SetCameraTitle(unsigned channel, std::string& title) {
  IfPresent(Channel(channel), [&](auto& c) { c.SetCameraTitle(title); });
}

int CMSClientBase::GetCameraTitle(unsigned channel, std::string* title) {
  return IfPresent(Channel(channel), [&](auto& c) {
    c.GetCameraTitle(title);
    return 1;
  });
}

int CMSClientBase::GetJpegRawDataLen(unsigned) {
  return 0;
}

void CMSClientBase::SetMetadata(unsigned channel, const void* data, unsigned length) {
  IfPresent(Channel(channel), [&](auto& c) { c.SetMetadata(data, length); });
}

unsigned CMSClientBase::GetMetadata(unsigned channel, void* destination, unsigned size) {
  return IfPresent(Channel(channel), [&](auto& c) { return c.GetMetadata(destination, size); });
}

unsigned CMSClientBase::GetMetadataSerialNum(unsigned channel) {
  return IfPresent(Channel(channel), [](auto& c) { return c.GetMetadataSerialNum(); });
}

void CMSClientBase::AddMetadataSerialNum(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.AddMetadataSerialNum(); });
}

void CMSClientBase::MetadataLockerLock(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.MetadataLockerLock(); });
}

void CMSClientBase::MetadataLockerUnlock(unsigned channel) {
  IfPresent(Channel(channel), [](auto& c) { c.MetadataLockerUnlock(); });
}

void CMSClientBase::SetFisheyeInfo(const stFisheyeParameter* parameter) {
  if (parameter == nullptr) {
    return;
  }
  State::Channels channels;
  {
    ScopeLock lock(state_->channelsLock);
    state_->fisheye = *parameter;
    channels = state_->channels;
  }
  for (const auto& channel : channels) {
    channel->CreateFishEyeManager(*parameter);
  }
}
