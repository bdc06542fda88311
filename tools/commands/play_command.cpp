// orvanta play: recordings of several sites in step.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/playback/multi_site_playback_ctrl.h"
#include "tools/commands/command.h"
#include "tools/commands/data_places.h"
#include "tools/data/data_folder.h"
#include "tools/data/playback_sites.h"
#include "tools/support/contact_sheet.h"
#include "tools/support/playback_speaker.h"
#include "tools/support/stop_signal.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr int kPatienceMs = 60'000;   // for the pictures of a new time
constexpr std::size_t kMostRows = 6;  // of the contact sheet

struct PlayArguments {
  DataPlaces places;
  std::vector<std::string> files;
  std::vector<std::uint32_t> sites;
  std::string from;
  int speed = 1;
  bool slow = false;
  std::optional<int> step;
  double seconds = 0;
  std::string sheet;
  bool listen = false;
  std::string device;
  bool json = false;
};

class Play {
 public:
  Play(const PlayArguments& arguments, const FoundPlaces& found, std::int64_t from)
      : arguments_(arguments),
        config_(PlaybackConfigOf({arguments.places.data + arguments.places.config, found.roots,
                                  arguments.files, arguments.sites, from})) {
    if (arguments.listen) {
      speaker_ = std::make_unique<PlaybackSpeaker>(arguments.device);
      speaker_->Start();
      speaker_->Join(config_);
    }
    if (control_.SetConfig(config_) == 0 || control_.StartPlayback() == 0) {
      throw std::runtime_error(control_.GetLastErrorText());
    }
    if (arguments.listen) {
      control_.SetChAudioState(0, 0, 1);
    }
    const bool backward = arguments.step ? *arguments.step < 0 : arguments.speed < 0;
    if (backward && from == cms::kPlaybackNoTargetTime) {
      control_.SetPlaybackTargetTime(control_.GetPlaybackDataEndTime());
    }
    for (int site = 0; site < control_.GetTotalPlaySite(); ++site) {
      for (int channel = 0; channel < control_.GetTotalChannel(static_cast<unsigned>(site));
           ++channel) {
        places_.push_back({static_cast<unsigned>(site), static_cast<unsigned>(channel), false});
      }
    }
    sheet_ = std::make_unique<ContactSheet>(places_.size());
  }

  int Run() {
    WaitForPictures();
    if (ShrinkPictures()) {
      WaitForPictures();
    }
    AddRow();
    if (arguments_.step) {
      StepThrough();
    } else {
      PlayOn();
    }
    return Finish();
  }

 private:
  struct Place {
    unsigned site;
    unsigned channel;
    bool shrunk = false;
  };

  void WaitForPictures() {
    const auto end = Clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (control_.WaitUntilShown(50) == 0 && !StopRequested()) {
      if (Clock::now() > end) {
        throw std::runtime_error("no picture within a minute; the disk does not answer");
      }
    }
  }

  // Decoding to the size on the sheet costs less than decoding to the recorded one. A channel whose
  // recording begins later tells its size later. True when any was told anew.
  bool ShrinkPictures() {
    bool any = false;
    for (Place& place : places_) {
      const tagSIZE recorded = control_.GetWidHei(place.site, place.channel);
      if (arguments_.sheet.empty() || place.shrunk || recorded.cx == 0) {
        continue;
      }
      const tagSIZE size{ContactSheet::kColumnWidth,
                         std::max(1L, ContactSheet::kColumnWidth * recorded.cy / recorded.cx)};
      control_.SetDecoderRenderCallback(place.site, place.channel, &size, nullptr);
      place.shrunk = any = true;
    }
    return any;
  }

  void AddRow() {
    if (arguments_.sheet.empty() || rows_ == kMostRows) {
      return;
    }
    ++rows_;
    for (const Place& place : places_) {
      tagSIZE size;
      const unsigned char* const pixels =
          control_.LockDecodedImage(place.site, place.channel, &size);
      sheet_->Add(pixels, size.cx, size.cy);
      control_.UnlockDecodedImage(place.site, place.channel);
    }
  }

  void StepThrough() {
    for (int left = std::abs(*arguments_.step); left > 0 && !StopRequested(); --left) {
      if (*arguments_.step > 0) {
        control_.PlaybackStepForward();
      } else {
        control_.PlaybackStepBackward();
      }
      WaitForPictures();
      AddRow();
    }
  }

  void PlayOn() {
    control_.PlaybackSetSlowMode(arguments_.slow ? 1 : 0);
    while (control_.GetPlaySpeed() != arguments_.speed) {
      if (arguments_.speed > 0) {
        control_.PlaybackSetSpeedUp();
      } else {
        control_.PlaybackSetSlowDown();
      }
    }
    const auto start = Clock::now();
    auto nextRow = start + std::chrono::seconds(1);
    constexpr std::chrono::milliseconds kLook{50};
    while (!WaitForStop(kLook)) {
      ShrinkPictures();
      const auto now = Clock::now();
      if (now >= nextRow) {
        nextRow += std::chrono::seconds(1);
        AddRow();
        ShowProgress();
      }
      const bool over = arguments_.seconds > 0 &&
                        now - start >= std::chrono::duration<double>(arguments_.seconds);
      // A recording that goes on is waited for while there is time left.
      if (over || (arguments_.seconds == 0 && control_.IsAllEndOfFile() != 0)) {
        break;
      }
    }
    speed_ = control_.GetPlaySpeed();
    skew_ = control_.GetMaximumSkew();
  }

  void ShowProgress() {
    if (isatty(STDERR_FILENO) != 0) {
      std::fprintf(stderr, "\r%s ", PlaybackTimeText(control_.GetPlaybackTime()).c_str());
      wiped_ = false;
    }
  }

  int Finish() {
    if (!wiped_) {
      std::fprintf(stderr, "\r%40s\r", "");
    }
    Json sites = Json::array();
    for (const Place& place : places_) {
      cms::stPlaybackChannelStatus status;
      control_.GetChannelStatus(place.site, place.channel, &status);
      sites.push_back({{"site", control_.GetSiteNum(place.site)},
                       {"channel", place.channel},
                       {"shown", status.shown},
                       {"first", status.shown == 0 ? Json() : Json(PlaybackTimeText(status.first))},
                       {"last", status.shown == 0 ? Json() : Json(PlaybackTimeText(status.last))},
                       {"end_of_file", status.endOfFile != 0},
                       {"lost", status.lost},
                       {"skipped_bytes", status.skippedBytes}});
    }
    control_.StopPlayback();
    if (!arguments_.sheet.empty()) {
      sheet_->Write(arguments_.sheet);
    }
    if (arguments_.json) {
      std::printf(
          "%s\n",
          Json{{"sites", sites}, {"max_skew_ms", skew_}, {"speed", speed_}}.dump(2).c_str());
      return 0;
    }
    std::printf("%5s %7s %8s %6s  %-24s  %-24s\n", "site", "channel", "pictures", "lost", "first",
                "last");
    for (const Json& site : sites) {
      std::printf("%5d %7u %8llu %6llu  %-24s  %-24s%s\n", site["site"].get<int>(),
                  site["channel"].get<unsigned>(), site["shown"].get<unsigned long long>(),
                  site["lost"].get<unsigned long long>(),
                  site["first"].is_null() ? "-" : site["first"].get<std::string>().c_str(),
                  site["last"].is_null() ? "-" : site["last"].get<std::string>().c_str(),
                  site["end_of_file"].get<bool>() ? "  end" : "");
    }
    if (speed_ != 0) {
      std::printf("no picture further than %lld ms from the common clock\n",
                  static_cast<long long>(skew_));
    }
    return 0;
  }

  const PlayArguments& arguments_;
  _MULTI_SITE_PLAYBACK_CONFIG config_;
  std::unique_ptr<PlaybackSpeaker> speaker_;  // outlives the controller, which calls it
  CCMSMultiSitePlaybackCtrl control_;
  std::vector<Place> places_;
  std::unique_ptr<ContactSheet> sheet_;
  std::size_t rows_ = 0;
  int speed_ = 0;
  std::int64_t skew_ = 0;
  bool wiped_ = true;
};

int RunPlay(PlayArguments& arguments) {
  if (arguments.places.Any() != arguments.files.empty()) {
    throw UsageError("say --data DIR or --config FILE, or the .drv files to play");
  }
  const std::int64_t from = arguments.from.empty() ? cms::kPlaybackNoTargetTime
                                                   : ReadTime("--from", arguments.from) * 1000;
  arguments.sheet = AbsolutePath(arguments.sheet);
  for (std::string& file : arguments.files) {
    file = AbsolutePath(file);
  }
  FoundPlaces found;
  if (arguments.places.Any()) {
    found = EnterDataPlaces(arguments.places);
  }
  const int status = Play(arguments, found, from).Run();
  return TellPlacesAway(found, "play") ? status : 1;
}

}  // namespace

void AddPlayCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<PlayArguments>();
  const Command play = app.Add("play", "Play recordings of several sites in step");
  play.AddOption("files", arguments->files, "recordings to play instead").TypeName("FILE.drv");
  AddDataPlaceOptions(play, arguments->places);
  play.AddOption("--site", arguments->sites, "number of a site to play (default: all)")
      .TypeName("N")
      .Repeatable();
  play.AddOption("--from", arguments->from,
                 "where to begin: 2026-11-21T10:30:00 (local), ...Z (UTC) or ...+01:00")
      .TypeName("TIME");
  const Option speed = play.AddOption("--speed", arguments->speed,
                                      "1 is real time and each step doubles it; negative: backward")
                           .InRange(-6, 6)
                           .ShowDefault();
  play.AddFlag("--slow", arguments->slow, "half the speed");
  play.AddOption("--step", arguments->step,
                 "show so many pictures one by one instead (negative: backward)")
      .TypeName("N")
      .Excludes(speed);
  play.AddOption("--seconds", arguments->seconds, "end after so many seconds (default: at the end)")
      .Positive();
  play.AddOption("--contact-sheet", arguments->sheet,
                 "pictures of all sites: a row at the start and for each second or step")
      .TypeName("FILE.png");
  const Option listen =
      play.AddFlag("--listen", arguments->listen, "play the sound of the first site, at speed 1");
  play.AddOption("--device", arguments->device, "sound device, see orvanta audio devices")
      .Needs(listen);
  play.AddFlag("--json", arguments->json, "print one JSON object at the end");
  play.Run([arguments, &result] {
    if (arguments->speed == 0) {
      throw UsageError("--speed", "0 is no speed; say -6 to -1 or 1 to 6");
    }
    result.status = RunPlay(*arguments);
  });
}

}  // namespace tools
