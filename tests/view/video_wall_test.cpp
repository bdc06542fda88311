#include "cms/view/video_wall.h"

#include <SDL.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process_state.h"
#include "tests/support/wait.h"
#include "tests/view/foreign_window.h"

namespace {

using cms::VideoWall;
using test::ForeignWindow;
using test::Screen;

constexpr int kWidth = 320, kHeight = 240;
constexpr std::uint32_t kRed = 0xFF0000, kColour = 0xFFFFFF;

// One colour all over.
std::vector<std::uint8_t> Plain(std::uint32_t colour, int width, int height) {
  std::vector<std::uint8_t> bgra;
  for (int i = 0; i < width * height; ++i) {
    for (const int shift : {0, 8, 16, 24}) {
      bgra.push_back(static_cast<std::uint8_t>(colour >> shift));
    }
  }
  return bgra;
}

// An application that draws by itself, into its memory.
struct Application {
  Application()
      : surface(SDL_CreateRGBSurfaceWithFormat(0, kWidth, kHeight, 32, SDL_PIXELFORMAT_RGB888)),
        renderer(SDL_CreateSoftwareRenderer(surface)) {}
  ~Application() {
    SDL_DestroyRenderer(renderer);
    SDL_FreeSurface(surface);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  std::unique_ptr<VideoWall> Wall() const {
    cms::VideoWallOptions options;
    options.renderer = renderer;
    std::string error;
    auto wall = VideoWall::Open(options, &error);
    EXPECT_NE(wall, nullptr) << error;
    return wall;
  }

  std::uint32_t At(int x, int y) const {
    const SDL_Rect place{x, y, 1, 1};
    std::uint32_t pixel = 0;
    SDL_RenderReadPixels(renderer, &place, SDL_PIXELFORMAT_RGB888, &pixel, sizeof pixel);
    return pixel & kColour;
  }

  SDL_Surface* surface;
  SDL_Renderer* renderer;
};

void DrawTwoTiles(VideoWall& wall) {
  wall.SetTiles(4);
  const auto red = Plain(kRed, 64, 48);
  EXPECT_TRUE(wall.UploadBgra(2, red.data(), {64, 48}));
  const std::vector<std::uint8_t> bright(64 * 48, 235), grey(32 * 24, 128);
  cms::PlanarPicture white{.width = 64, .height = 48};
  for (int plane = 0; plane < 3; ++plane) {
    white.planes[plane] = plane == 0 ? bright.data() : grey.data();
    white.strides[plane] = plane == 0 ? 64 : 32;
  }
  EXPECT_TRUE(wall.Upload(1, white));
  wall.SetCaption(2, "gate");
  wall.SetStatus(2, "25 fps", cms::ViewTone::kGood);
  wall.Draw();
}

TEST(VideoWall, DrawsIntoARendererOfTheApplicationsAndLeavesItThat) {
  const Application application;
  {
    const auto wall = application.Wall();
    ASSERT_NE(wall, nullptr);
    DrawTwoTiles(*wall);
    EXPECT_EQ(application.At(kWidth / 4, kHeight * 3 / 4), kRed);
    EXPECT_GT(application.At(kWidth * 3 / 4, kHeight / 4) & 0xFF, 0xF0U);
    EXPECT_EQ(wall->NextInput(0), std::nullopt);  // events are the application's
    EXPECT_EQ(wall->TileAt(kWidth / 4, kHeight * 3 / 4), 2U);
  }
  SDL_SetRenderDrawColor(application.renderer, 1, 2, 3, 255);
  SDL_RenderClear(application.renderer);
  EXPECT_EQ(application.At(5, 5), 0x010203U);
}

TEST(VideoWall, TwoHundredOfThemLeaveNothingBehind) {
  const Application application;
  const auto some = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const auto wall = application.Wall();
      DrawTwoTiles(*wall);
      wall->Clear(2);
    }
  };
  some(10);  // what libraries keep once
  const std::size_t bytes = test::HeapBytes(), descriptors = test::OpenDescriptors();
  some(200);
  EXPECT_LT(test::HeapBytes(), bytes + 200 * 100);
  EXPECT_EQ(test::OpenDescriptors(), descriptors);
}

TEST(VideoWall, DrawsIntoAWindowOfTheApplicationsAndFollowsItsSize) {
  const Screen screen;
  if (!screen.IsThere()) {
    GTEST_SKIP() << "there is no Xvfb";
  }
  setenv("DISPLAY", screen.Name().c_str(), 1);
  setenv("SDL_VIDEODRIVER", "x11", 1);
  const ForeignWindow window(screen.Name(), kWidth, kHeight);
  {
    cms::VideoWallOptions options;
    options.nativeWindow = window.Number();
    std::string error;
    const auto wall = VideoWall::Open(options, &error);
    ASSERT_NE(wall, nullptr) << error;
    DrawTwoTiles(*wall);
    EXPECT_TRUE(test::WaitFor([&] { return window.At(kWidth / 4, kHeight * 3 / 4) == kRed; }));
    EXPECT_EQ(wall->SizeOf(0).cx, kWidth / 2);
    window.Resize(400, 300);
    EXPECT_EQ(wall->NextInput(0), std::nullopt);
    wall->Resize(400, 300);
    wall->Draw();
    EXPECT_TRUE(test::WaitFor([&] { return window.At(100, 225) == kRed; }));
    EXPECT_EQ(wall->SizeOf(0).cx, 200);
  }
  EXPECT_EQ(window.Width(), 400);  // it is still there
}

}  // namespace

// The window system's libraries keep some bytes and are unloaded at the end; what walls hold is
// counted above.
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier)
  return 1;
}
