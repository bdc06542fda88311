#include "cms/live/media/fisheye/fisheye_circle.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

struct Lit {
  int width;
  int height;
  cms::FisheyeCircle circle;
  bool darkCorner = false;  // a part of the circle in which nothing is lit
};

// Noise in the circle, and a little in the black around it.
std::vector<std::uint8_t> Draw(const Lit& lit) {
  std::vector<std::uint8_t> luma;
  std::uint32_t random = 3;
  for (int y = 0; y < lit.height; ++y) {
    for (int x = 0; x < lit.width; ++x) {
      random = random * 1664525U + 1013904223U;
      const bool inside = std::hypot(x - lit.circle.x, y - lit.circle.y) <= lit.circle.radius &&
                          !(lit.darkCorner && x < lit.circle.x && y < lit.circle.y);
      luma.push_back(
          static_cast<std::uint8_t>(inside ? 60 + (random >> 24) / 2 : 16 + (random >> 28)));
    }
  }
  return luma;
}

TEST(FisheyeCircle, IsFoundWhereItIsCutOffAndWhereAPartIsDark) {
  for (const Lit& lit : {Lit{1920, 1080, {951.5, 544.2, 530}}, Lit{1280, 720, {660, 350, 560}},
                         Lit{2048, 2048, {1020, 1031, 1010}},
                         Lit{1920, 1080, {960, 540, 500}, true}, Lit{640, 480, {200, 240, 190}}}) {
    SCOPED_TRACE(lit.circle.radius);
    const auto found = cms::FindFisheyeCircle(Draw(lit), static_cast<std::size_t>(lit.width),
                                              lit.width, lit.height);
    ASSERT_TRUE(found);
    EXPECT_NEAR(found->x, lit.circle.x, 2);
    EXPECT_NEAR(found->y, lit.circle.y, 2);
    EXPECT_NEAR(found->radius, lit.circle.radius, 2);
  }
}

TEST(FisheyeCircle, IsNotFoundInOtherPictures) {
  const auto none = [](const Lit& lit) {
    return !cms::FindFisheyeCircle(Draw(lit), static_cast<std::size_t>(lit.width), lit.width,
                                   lit.height);
  };
  EXPECT_TRUE(none({640, 480, {320, 240, 1000}}));  // bright up to its corners
  EXPECT_TRUE(none({640, 480, {320, 240, 0}}));     // at night
  EXPECT_TRUE(none({20, 20, {10, 10, 9}}));
  // A letterbox is no circle.
  std::vector<std::uint8_t> box(640 * 480, 16);
  std::fill(box.begin() + 640 * 60, box.begin() + 640 * 420, std::uint8_t{120});
  EXPECT_FALSE(cms::FindFisheyeCircle(box, 640, 640, 480));
}

}  // namespace
