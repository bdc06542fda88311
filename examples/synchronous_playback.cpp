// Plays recordings of several sites in step: a line for each second of the recordings, then the
// last picture of the first site backward, one by one.
//
//   synchronous_playback SECONDS FILE.drv FILE.drv ...     one site for each file
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "cms/playback/multi_site_playback_ctrl.h"
#include "cms/runtime/native_path.h"

namespace {

// A checksum in place of drawing: the picture is BGRA rows of size.cx * 4 bytes.
unsigned Brightness(CCMSMultiSitePlaybackCtrl& player, unsigned site) {
  tagSIZE size;
  const unsigned char* const pixels = player.LockDecodedImage(site, 0, &size);
  if (pixels == nullptr) {
    return 0;
  }
  unsigned long sum = 0;
  const long count = size.cx * size.cy * 4;
  for (long i = 1; i < count; i += 4) {
    sum += pixels[i];
  }
  player.UnlockDecodedImage(site, 0);
  return static_cast<unsigned>(sum / static_cast<unsigned long>(std::max(count / 4, 1L)));
}

void PrintLine(CCMSMultiSitePlaybackCtrl& player) {
  std::printf("clock %+9lld ms:",
              static_cast<long long>(player.GetPlaybackTime() - player.GetPlaybackDataStartTime()));
  for (unsigned site = 0; site < static_cast<unsigned>(player.GetTotalPlaySite()); ++site) {
    const std::int64_t time = player.CurTimeGet(site, 0);
    if (time == 0) {
      std::printf("  site %d no picture", player.GetSiteNum(site));
    } else {
      std::printf("  site %d %+5lld ms, brightness %3u", player.GetSiteNum(site),
                  static_cast<long long>(time - player.GetPlaybackTime()),
                  Brightness(player, site));
    }
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: synchronous_playback SECONDS FILE.drv FILE.drv ...\n", stderr);
    return 2;
  }
  _MULTI_SITE_PLAYBACK_CONFIG config;
  for (int i = 2; i < argc; ++i) {
    cms::_MULTI_PB_SITE_CONFIG site;
    site.siteNumber = static_cast<std::uint32_t>(i - 1);
    site.files = {cms::SystemPath(argv[i])};
    config.sites.push_back(site);
  }
  CCMSMultiSitePlaybackCtrl player;
  if (!player.SetConfig(config) || !player.StartPlayback()) {
    std::fprintf(stderr, "%s\n", player.GetLastErrorText().c_str());
    return 1;
  }
  player.WaitUntilShown(10'000);
  for (int left = std::atoi(argv[1]); left > 0 && !player.IsAllEndOfFile(); --left) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    PrintLine(player);
  }
  std::printf("largest distance from the clock: %lld ms\n",
              static_cast<long long>(player.GetMaximumSkew()));
  for (int i = 0; i < 3; ++i) {
    player.PlaybackStepBackward();
    player.WaitUntilShown(10'000);
    PrintLine(player);
  }
  return 0;
}
