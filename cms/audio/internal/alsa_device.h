// AlsaDevice, one sound device opened for playing or capturing.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cms/audio/internal/playout_buffer.h"

struct _snd_pcm;

namespace cms {

// 16-bit little-endian interleaved samples, never blocking. Reaches what the system's ALSA
// configuration knows: cards, and through its plugins PulseAudio, PipeWire and files. For one
// thread. Results below 0 are negated errno values.
class AlsaDevice {
 public:
  enum class Direction { kPlay, kCapture };

  AlsaDevice() = default;
  AlsaDevice(const AlsaDevice&) = delete;
  AlsaDevice& operator=(const AlsaDevice&) = delete;
  ~AlsaDevice() { Close(); }

  // 0, or what went wrong, of which ErrorText tells more. `name` is an ALSA PCM name.
  int Open(const std::string& name, Direction direction, const PcmFormat& format,
           std::uint32_t bufferMs);
  bool IsOpen() const { return pcm_ != nullptr; }
  const std::string& ErrorText() const { return error_; }

  long Room();   // frames that can be written or read now; -EPIPE: ran dry or over
  long Delay();  // frames written and not yet heard; 0 where the device does not tell
  long Write(std::span<const std::int16_t> samples);  // frames
  long Read(std::span<std::int16_t> samples);         // frames
  int Recover(long error);                            // 0 when the device goes on

  // For poll; the device is ready when one of them is.
  void Descriptors(std::vector<pollfd>* out);

  // Lets what was written be heard, for at most as long as the device's buffer, and closes.
  void Drain();
  void Close();

 private:
  _snd_pcm* pcm_ = nullptr;
  std::size_t channels_ = 1;
  std::uint32_t bufferMs_ = 0;
  std::string error_;
};

struct AlsaDeviceName {
  std::string name;         // for Open
  std::string description;  // for people, one line
};

// What the system offers, the default device first.
std::vector<AlsaDeviceName> ListAlsaDevices(AlsaDevice::Direction direction);

// The name of the device that ListAlsaDevices counts so, from 0; "default" for a number below 0,
// and a name that no device has for one too high.
std::string AlsaDeviceOf(int number, AlsaDevice::Direction direction);

}  // namespace cms
