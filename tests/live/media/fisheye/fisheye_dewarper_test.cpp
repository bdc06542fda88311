#include "cms/live/media/fisheye/fisheye_dewarper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using cms::FisheyeMount;
using cms::FisheyePlane;
using cms::FisheyeProjection;
using cms::FisheyeVector;
using cms::FisheyeViewKind;
using Bytes = std::vector<std::uint8_t>;

constexpr double kDegree = std::numbers::pi / 180;
constexpr int kOutside = 7;  // a brightness that the room has nowhere

FisheyeVector Sum(const FisheyeVector& a, double factor, const FisheyeVector& b) {
  return {a.x + factor * b.x, a.y + factor * b.y, a.z + factor * b.z};
}

FisheyeVector Cross(const FisheyeVector& a, const FisheyeVector& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// How bright a room of 7 by 9 by 4 metres is where one looks from in it: soft patterns on each
// wall.
double RoomAt(const FisheyeVector& look) {
  const double walls[] = {look.x > 0 ? 4.0 / look.x : -3.0 / look.x,
                          look.y > 0 ? 5.0 / look.y : -4.0 / look.y,
                          look.z > 0 ? 2.1 / look.z : -1.9 / look.z};
  const double distance = *std::min_element(std::begin(walls), std::end(walls));
  const FisheyeVector at = Sum({}, distance, look);
  return 128 + 35 * std::sin(at.x * 4.1) + 35 * std::sin(at.y * 3.3 + 1) +
         35 * std::sin(at.z * 4.7 + 2);
}

// A camera that takes photographs of it, as lenses are described in books: the way the light goes.
struct Photograph {
  static constexpr int kWidth = 1920;
  static constexpr int kHeight = 1080;
  FisheyeProjection projection = FisheyeProjection::kEquidistant;
  FisheyeMount mount = FisheyeMount::kCeiling;
  double fieldOfView = 184;
  double x = 951.5, y = 544.25, radius = 533;

  cms::FisheyeLens Lens() const { return {projection, mount, fieldOfView, {x, y, radius}}; }

  FisheyeVector Axis() const {
    return mount == FisheyeMount::kWall
               ? FisheyeVector{0, 1, 0}
               : FisheyeVector{0, 0, mount == FisheyeMount::kFloor ? 1.0 : -1.0};
  }

  // What is at a pixel of the picture, or a darkness around it.
  double At(double column, double row) const {
    const double distance = std::hypot(column - x, row - y);
    if (distance > radius) {
      return 0;
    }
    const double half = fieldOfView / 2 * kDegree;
    const double angle = projection == FisheyeProjection::kEquidistant
                             ? half * distance / radius
                             : 2 * std::asin(distance / radius * std::sin(half / 2));
    // The top of the picture is towards y; of a camera on a wall it is up.
    const FisheyeVector up =
        mount == FisheyeMount::kWall ? FisheyeVector{0, 0, 1} : FisheyeVector{0, 1, 0};
    const FisheyeVector right = Cross(Axis(), up);
    const double aside = distance > 0 ? std::sin(angle) / distance : 0;
    FisheyeVector look = Sum({}, std::cos(angle), Axis());
    look = Sum(look, aside * (column - x), right);
    look = Sum(look, -aside * (row - y), up);
    return RoomAt(look);
  }

  // `share` pixels share a sample.
  Bytes Take(int share = 1) const {
    Bytes picture;
    for (int row = 0; row < kHeight / share; ++row) {
      for (int column = 0; column < kWidth / share; ++column) {
        const double middle = (share - 1) / 2.0;
        picture.push_back(static_cast<std::uint8_t>(
            std::lround(At(column * share + middle, row * share + middle))));
      }
    }
    return picture;
  }
};

// A pinhole camera's ray; x and y from -1 to 1 over its picture, `high` by its width.
FisheyeVector PinholeRay(const cms::FisheyeCamera& camera, double x, double y, double high) {
  const double pan = camera.pan * kDegree, tilt = camera.tilt * kDegree;
  const FisheyeVector forward{std::sin(pan) * std::cos(tilt), std::cos(pan) * std::cos(tilt),
                              std::sin(tilt)};
  FisheyeVector right = Cross(forward, {0, 0, 1});
  right = Sum({}, 1 / std::hypot(right.x, right.y), right);
  const FisheyeVector up = Cross(right, forward);
  return Sum(Sum(forward, x / camera.zoom, right), -y * high / camera.zoom, up);
}

struct Compared {
  double psnr = 0;
  double seen = 0;  // share of the view
};

// The view beside what `look` of each of its pixels sees of the room itself.
template <typename Look>
Compared Compare(const Bytes& view, int width, int height, Look look) {
  double squares = 0;
  double count = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto value = view[static_cast<std::size_t>(y * width + x)];
      if (value != kOutside) {
        const double off = value - RoomAt(look(x, y));
        squares += off * off;
        ++count;
      }
    }
  }
  return {10 * std::log10(255.0 * 255.0 / (squares / count)), count / (width * height)};
}

Bytes Dewarped(const Photograph& camera, const cms::FisheyeView& view, int width, int height) {
  cms::FisheyeDewarper dewarper;
  EXPECT_TRUE(dewarper.Prepare({.lens = camera.Lens(),
                                .view = view,
                                .source = {Photograph::kWidth, Photograph::kHeight},
                                .shown = {width, height}}));
  Bytes result(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
  // It takes a while to develop.
  static std::map<std::pair<FisheyeProjection, FisheyeMount>, Bytes> photographs;
  Bytes& photograph = photographs[{camera.projection, camera.mount}];
  if (photograph.empty()) {
    photograph = camera.Take();
  }
  EXPECT_TRUE(dewarper.Dewarp(FisheyePlane::kLuma, photograph, Photograph::kWidth, result,
                              static_cast<std::size_t>(width), kOutside));
  return result;
}

constexpr double kGoodPsnr = 41;  // dB; 43 was the least that was measured

using Mounted = std::tuple<FisheyeProjection, FisheyeMount>;
class FisheyeDewarper : public testing::TestWithParam<Mounted> {
 protected:
  Photograph Camera() const {
    Photograph camera;
    std::tie(camera.projection, camera.mount) = GetParam();
    return camera;
  }
  double Side() const {  // of the horizon on which the lens looks
    switch (Camera().mount) {
      case FisheyeMount::kCeiling:
        return -1;
      case FisheyeMount::kFloor:
        return 1;
      default:
        return 0;
    }
  }
};
INSTANTIATE_TEST_SUITE_P(Lenses, FisheyeDewarper,
                         testing::Combine(testing::Values(FisheyeProjection::kEquidistant,
                                                          FisheyeProjection::kEquisolid),
                                          testing::Values(FisheyeMount::kCeiling,
                                                          FisheyeMount::kWall,
                                                          FisheyeMount::kFloor)));

TEST_P(FisheyeDewarper, AVirtualCameraSeesTheRoomAsAPinholeCameraThereWould) {
  const Photograph camera = Camera();
  cms::FisheyeView view = cms::MakeFisheyeView(FisheyeViewKind::kOneCamera, camera.mount);
  for (const cms::FisheyeCamera& wanted :
       {cms::FisheyeCamera{20, 42 * Side(), 1}, cms::FisheyeCamera{-28, 60 * Side() + 5, 2.5}}) {
    view.cameras[0] = wanted;
    const Bytes shown = Dewarped(camera, view, 640, 360);
    const Compared compared = Compare(shown, 640, 360, [&](int x, int y) {
      return PinholeRay(wanted, (x - 319.5) / 320, (y - 179.5) / 180, 360.0 / 640);
    });
    EXPECT_GT(compared.psnr, kGoodPsnr);
    EXPECT_GT(compared.seen, 0.99);
  }
}

TEST_P(FisheyeDewarper, SeveralCamerasHaveAPartOfTheViewEach) {
  const Photograph camera = Camera();
  const cms::FisheyeView view = cms::MakeFisheyeView(FisheyeViewKind::kFourCameras, camera.mount);
  const Bytes shown = Dewarped(camera, view, 640, 480);
  const Compared compared = Compare(shown, 640, 480, [&](int x, int y) {
    const auto& own = view.cameras[static_cast<std::size_t>(x / 320 + y / 240 * 2)];
    return PinholeRay(own, (x % 320 - 159.5) / 160, (y % 240 - 119.5) / 120, 240.0 / 320);
  });
  EXPECT_GT(compared.psnr, kGoodPsnr);
  EXPECT_GT(compared.seen, camera.mount == FisheyeMount::kWall ? 0.75 : 0.99);
}

TEST_P(FisheyeDewarper, PanoramasShowEachDirectionInItsColumnAndRow) {
  const Photograph camera = Camera();
  cms::FisheyeView view = cms::MakeFisheyeView(FisheyeViewKind::kPanorama, camera.mount);
  view.cameras[0].pan = 30;
  const int width = 720, height = 180;
  const double half = camera.fieldOfView / 2;
  double left = -180, right = 180, top = half - 90, bottom = -70;
  if (camera.mount == FisheyeMount::kFloor) {
    std::tie(top, bottom) = std::tuple(70.0, 90 - half);
  } else if (camera.mount == FisheyeMount::kWall) {
    std::tie(left, right, top, bottom) =
        std::tuple(-half, half, camera.fieldOfView / 8, -camera.fieldOfView / 8);
  }
  const auto look = [&](double x, double y) {
    const double pan = 30 + left + (right - left) * (x + 0.5) / width;
    return cms::VectorOf(cms::FisheyeDirection{pan, top + (bottom - top) * (y + 0.5) / height});
  };
  const Compared whole = Compare(Dewarped(camera, view, width, height), width, height, look);
  EXPECT_GT(whole.psnr, kGoodPsnr);
  view.kind = FisheyeViewKind::kDoublePanorama;  // the same, twice as large, in two halves
  const Compared twice =
      Compare(Dewarped(camera, view, width, 4 * height), width, 4 * height, [&](int x, int y) {
        const int below = y / (2 * height);
        return look((x + 0.5 + below * width) / 2 - 0.5, (y - 2 * height * below + 0.5) / 2 - 0.5);
      });
  if (camera.mount != FisheyeMount::kWall) {  // there its height follows the width
    EXPECT_GT(twice.psnr, kGoodPsnr);
  }
  EXPECT_GT(whole.seen, camera.mount == FisheyeMount::kWall ? 0.8 : 0.99);
}

TEST_P(FisheyeDewarper, PointsMapBothWays) {
  const Photograph camera = Camera();
  for (int kind = 0; kind < cms::kFisheyeViewKinds; ++kind) {
    SCOPED_TRACE(kind);
    const cms::FisheyeMap map(
        camera.Lens(), cms::MakeFisheyeView(static_cast<FisheyeViewKind>(kind), camera.mount),
        {Photograph::kWidth, Photograph::kHeight}, {960, 540});
    int mapped = 0;
    for (double y = 3; y < 540; y += 41.3) {
      for (double x = 3; x < 960; x += 37.7) {
        const auto point = map.ToSource({x, y});
        const auto direction = map.DirectionAt({x, y});
        if (!point || !direction) {
          continue;
        }
        ++mapped;
        const auto same = camera.Lens().PointOf(*direction);
        ASSERT_TRUE(same);
        EXPECT_NEAR(same->x, point->x, 1e-6);
        EXPECT_NEAR(same->y, point->y, 1e-6);
        const auto back = map.ToView(*point);
        ASSERT_TRUE(back);
        const auto again = map.ToSource(*back);  // another camera of the view may see it first
        ASSERT_TRUE(again);
        EXPECT_NEAR(again->x, point->x, 1e-6);
        EXPECT_NEAR(again->y, point->y, 1e-6);
      }
    }
    EXPECT_GT(mapped, 100);
    EXPECT_FALSE(map.ToSource({-3, 20}));
    EXPECT_FALSE(map.ToSource({960, 20}));
  }
  const auto seen = camera.Lens().DirectionOf({camera.x, camera.y});
  ASSERT_TRUE(seen);
  EXPECT_NEAR(seen->tilt, 90 * Side(), 1e-6);
  EXPECT_FALSE(camera.Lens().DirectionOf({camera.x + camera.radius + 1, camera.y}));
}

TEST(FisheyeColours, AreTakenFromWhereTheBrightnessIsTakenFrom) {
  const Photograph camera;
  const auto view = cms::MakeFisheyeView(FisheyeViewKind::kTwoCameras, camera.mount);
  cms::FisheyeDewarper dewarper;
  ASSERT_TRUE(dewarper.Prepare({.lens = camera.Lens(),
                                .view = view,
                                .source = {Photograph::kWidth, Photograph::kHeight},
                                .shown = {642, 301}}));
  Bytes shown(321 * 151);
  ASSERT_TRUE(dewarper.Dewarp(FisheyePlane::kChroma, camera.Take(2), Photograph::kWidth / 2, shown,
                              321, kOutside));
  const Compared compared = Compare(shown, 321, 151, [&](int x, int y) {
    const int second = x >= 160 ? 1 : 0;  // parts begin at even pixels
    const double middle = second != 0 ? 320 + 160.5 : 159.5;
    return PinholeRay(view.cameras[static_cast<std::size_t>(second)],
                      (2 * x + 0.5 - middle) / (second != 0 ? 161 : 160),
                      (2 * y + 0.5 - 150) / (second != 0 ? 161 : 160), 1);
  });
  EXPECT_GT(compared.psnr, 40);
  EXPECT_GT(compared.seen, 0.99);
}

// The vectors of the processor do as the plain loop of pixels with four bytes does, of any size and
// within the picture's last byte.
TEST(FisheyeRows, AreTheSameOneByOneAndManyAtOnce) {
  std::uint32_t random = 5;
  for (const auto& [width, height, columns, rows] :
       {std::tuple(8, 4, 1, 1), std::tuple(33, 17, 19, 5), std::tuple(200, 160, 97, 63)}) {
    for (int kind = 0; kind < cms::kFisheyeViewKinds; ++kind) {
      SCOPED_TRACE(width * 100 + kind);
      const auto mount = static_cast<FisheyeMount>(kind % 3);
      cms::FisheyeJob job;
      job.lens = {
          FisheyeProjection::kEquidistant, mount, 200, {width * 0.6, height * 0.5, width * 0.7}};
      job.view = cms::MakeFisheyeView(static_cast<FisheyeViewKind>(kind), mount);
      job.source = {width, height};
      job.shown = {columns, rows};
      cms::FisheyeDewarper dewarper;
      ASSERT_TRUE(dewarper.Prepare(job));
      Bytes grey(static_cast<std::size_t>(width * height));
      Bytes pixels;
      for (std::uint8_t& value : grey) {
        random = random * 1664525U + 1013904223U;
        value = static_cast<std::uint8_t>(random >> 24);
        pixels.insert(pixels.end(), 4, value);
      }
      Bytes bytes(static_cast<std::size_t>(columns * rows));
      Bytes shown(bytes.size() * 4);
      ASSERT_TRUE(dewarper.Dewarp(FisheyePlane::kLuma, grey, static_cast<std::size_t>(width), bytes,
                                  static_cast<std::size_t>(columns), 0));
      ASSERT_TRUE(dewarper.DewarpBgra(pixels, static_cast<std::size_t>(width) * 4, shown,
                                      static_cast<std::size_t>(columns) * 4));
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(bytes[i], shown[4 * i + 1]) << i;
      }
      EXPECT_FALSE(dewarper.Dewarp(FisheyePlane::kLuma, std::span(grey).first(grey.size() - 1),
                                   static_cast<std::size_t>(width), bytes,
                                   static_cast<std::size_t>(columns), 0));
    }
  }
}

TEST(FisheyeJob, WithoutSenseIsRefused) {
  const Photograph camera;
  cms::FisheyeJob good;
  good.lens = camera.Lens();
  good.source = {1920, 1080};
  good.shown = {960, 540};
  const auto refused = [&good](auto change) {
    cms::FisheyeJob job = good;
    change(job);
    cms::FisheyeDewarper dewarper;
    Bytes bytes(10000);
    return !dewarper.Prepare(job) && dewarper.Map() == nullptr &&
           !dewarper.Dewarp(FisheyePlane::kLuma, bytes, 100, bytes, 100, 0);
  };
  EXPECT_FALSE(refused([](auto&) {}));
  EXPECT_TRUE(refused([](auto& job) { job.source.width = 7; }));
  EXPECT_TRUE(refused([](auto& job) { job.shown.height = 0; }));
  EXPECT_TRUE(refused([](auto& job) { job.shown.width = 20000; }));
  EXPECT_TRUE(refused([](auto& job) { job.lens.circle.radius = 0; }));
  EXPECT_TRUE(refused([](auto& job) { job.lens.circle.x = std::nan(""); }));
  EXPECT_TRUE(refused([](auto& job) { job.lens.fieldOfView = 0; }));
}

}  // namespace
