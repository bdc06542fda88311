#include "cms/audio/internal/alsa_device.h"

extern "C" {  // its error header forgets to say so
#include <alsa/asoundlib.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <memory>

namespace cms {
namespace {

// The sound library explains itself on standard error, which belongs to the host program.
class Quiet {
 public:
  Quiet() : before_(snd_lib_error_set_local(&Quiet::Drop)) {}
  ~Quiet() { snd_lib_error_set_local(before_); }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  static void Drop(const char*, int, const char*, int, const char*, va_list) {}
  snd_local_error_handler_t before_;
};

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

int AlsaDevice::Open(const std::string& name, Direction direction, const PcmFormat& format,
                     std::uint32_t bufferMs) {
  Close();
  const Quiet quiet;
  const bool play = direction == Direction::kPlay;
  int result =
      snd_pcm_open(&pcm_, name.c_str(), play ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE,
                   SND_PCM_NONBLOCK);
  const char* what = "cannot be opened";
  if (result == 0) {
    result = snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED,
                                format.channels, format.sampleRate, 1, bufferMs * 1000);
    what = "does not take the format";
  } else {
    pcm_ = nullptr;
  }
  if (result == 0 && play) {
    // Sound starts with the first samples: they are only written once enough is there.
    snd_pcm_sw_params_t* parameters = nullptr;
    snd_pcm_sw_params_alloca(&parameters);
    result = snd_pcm_sw_params_current(pcm_, parameters);
    if (result == 0) {
      snd_pcm_sw_params_set_start_threshold(pcm_, parameters, 1);
      result = snd_pcm_sw_params(pcm_, parameters);
    }
  } else if (result == 0) {
    result = snd_pcm_start(pcm_);
  }
  if (result < 0) {
    error_ = "audio device \"" + name + "\" " + what + ": " + snd_strerror(result);
    Close();
    return result;
  }
  channels_ = format.channels;
  bufferMs_ = bufferMs;
  error_.clear();
  return 0;
}

long AlsaDevice::Room() {
  const Quiet quiet;
  return snd_pcm_avail_update(pcm_);
}

long AlsaDevice::Delay() {
  const Quiet quiet;
  snd_pcm_sframes_t delay = 0;
  return snd_pcm_delay(pcm_, &delay) == 0 ? std::max<long>(delay, 0) : 0;
}

long AlsaDevice::Write(std::span<const std::int16_t> samples) {
  const Quiet quiet;
  return snd_pcm_writei(pcm_, samples.data(), samples.size() / channels_);
}

long AlsaDevice::Read(std::span<std::int16_t> samples) {
  const Quiet quiet;
  return snd_pcm_readi(pcm_, samples.data(), samples.size() / channels_);
}

int AlsaDevice::Recover(long error) {
  const Quiet quiet;
  const int result = snd_pcm_recover(pcm_, static_cast<int>(error), 1);
  if (result == 0 && snd_pcm_stream(pcm_) == SND_PCM_STREAM_CAPTURE) {
    return snd_pcm_start(pcm_);
  }
  return result;
}

void AlsaDevice::Descriptors(std::vector<pollfd>* out) {
  const int count = snd_pcm_poll_descriptors_count(pcm_);
  if (count > 0) {
    const std::size_t before = out->size();
    out->resize(before + static_cast<std::size_t>(count));
    snd_pcm_poll_descriptors(pcm_, out->data() + before, static_cast<unsigned>(count));
  }
}

void AlsaDevice::Drain() {
  if (pcm_ == nullptr) {
    return;
  }
  {
    const Quiet quiet;
    // A device that is gone says so, or never becomes ready: the wait has the buffer's length.
    if (snd_pcm_drain(pcm_) == -EAGAIN) {
      snd_pcm_wait(pcm_, static_cast<int>(bufferMs_));
    }
  }
  Close();
}

void AlsaDevice::Close() {
  if (pcm_ != nullptr) {
    const Quiet quiet;
    snd_pcm_close(pcm_);
    pcm_ = nullptr;
  }
}

std::vector<AlsaDeviceName> ListAlsaDevices(AlsaDevice::Direction direction) {
  std::vector<AlsaDeviceName> devices;
  const Quiet quiet;
  void** hints = nullptr;
  if (snd_device_name_hint(-1, "pcm", &hints) != 0) {
    return devices;
  }
  const std::string wanted = direction == AlsaDevice::Direction::kPlay ? "Output" : "Input";
  for (void** hint = hints; *hint != nullptr; ++hint) {
    const auto get = [hint](const char* field) {
      const std::unique_ptr<char, FreeText> text(snd_device_name_get_hint(*hint, field));
      return std::string(text ? text.get() : "");
    };
    const std::string way = get("IOID");  // empty: both ways
    AlsaDeviceName device{get("NAME"), get("DESC")};
    if (device.name.empty() || (!way.empty() && way != wanted)) {
      continue;
    }
    std::replace(device.description.begin(), device.description.end(), '\n', ' ');
    const bool standard = device.name == "default";
    devices.insert(standard ? devices.begin() : devices.end(), std::move(device));
  }
  snd_device_name_free_hint(hints);
  return devices;
}

std::string AlsaDeviceOf(int number, AlsaDevice::Direction direction) {
  if (number < 0) {
    return "default";
  }
  const auto devices = ListAlsaDevices(direction);
  const auto index = static_cast<std::size_t>(number);
  return index < devices.size() ? devices[index].name : "device number " + std::to_string(number);
}

}  // namespace cms
