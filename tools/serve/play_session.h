// Recordings played for one viewer.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/playback/search_results.h"
#include "tools/serve/jpeg_encoder.h"
#include "tools/serve/web_request.h"

namespace tools {

class PlaySession {
 public:
  static constexpr int kFastest = 6;

  // Plays these stretches, the sites in step, from that moment on (milliseconds since 1970-01-01
  // UTC). `speed`: the transport's number, 0 pauses, below it is backward. Throws
  // std::runtime_error when nothing of it can be played.
  PlaySession(const std::vector<stPBTimeInfo>& spans, std::int64_t moment, int speed);

  const std::string& Id() const { return id_; }  // nobody guesses it

  // What is played, then pictures and what the transport does, until the viewer has gone or a stop
  // is asked for. On the viewer's thread.
  void Stream(WebRequest& request);

  // "pause", "resume", "forward" and "backward" by one picture, "faster", "slower"; false for any
  // other word. Any thread.
  bool Transport(std::string_view what);
  nlohmann::ordered_json State() const;  // what the transport does
  // False for a turn that was there already. One thread at a time.
  bool TakeTurn(std::int64_t turn);
  void Seek(std::int64_t moment) { control_.SetPlaybackTargetTime(moment); }

 private:
  struct View {
    unsigned site;  // indexes of the controller
    unsigned channel;
    unsigned shown = 0;  // the picture's number
  };
  nlohmann::ordered_json Describe() const;
  PictureRecord NextPicture(View& view);

  const std::string id_;
  CCMSMultiSitePlaybackCtrl control_;
  std::vector<std::string> names_;  // by the index of the site
  std::vector<View> views_;
  JpegEncoder encoder_;
  std::int64_t turn_ = 0;
};

}  // namespace tools
