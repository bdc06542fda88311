#include "fleet/planner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>

namespace {

using namespace cms::fleet;

using Random = std::mt19937;

unsigned Below(Random& random, unsigned limit) {
  return static_cast<unsigned>(random() % limit);
}

// A fleet of some groups, some of whose recorders are dead and some claims are of nobody.
FleetView RandomFleet(Random& random) {
  FleetView view;
  const unsigned recorders = 1 + Below(random, 12);
  for (unsigned i = 0; i < recorders; ++i) {
    const std::string name = "rec" + std::to_string(i);
    view.recorders[name] = {"g" + std::to_string(Below(random, 3)), 1 + Below(random, 60),
                            Below(random, 8) == 0};
    if (Below(random, 5) != 0) {
      view.members[name] = {"id", 1};
    }
  }
  const unsigned cameras = Below(random, 300);
  for (unsigned i = 0; i < cameras; ++i) {
    const std::string name = "cam" + std::to_string(i);
    FleetCamera camera;
    camera.site = i + 1;
    camera.group = Below(random, 3) == 0 ? "" : "g" + std::to_string(Below(random, 3));
    camera.spill = Below(random, 3) != 0;
    camera.weight = 1 + Below(random, 3);
    camera.copies = 1 + Below(random, 2);
    camera.on = Below(random, 10) != 0;
    view.cameras[name] = camera;
  }
  // Half of it as a plan has it.
  for (const auto& [copy, names] : PlanClaims(view)) {
    if (!names.empty() && Below(random, 2) == 0) {
      view.claims[copy] = {names.front(), "", "new", 0, 1};
    }
  }
  if (!view.members.empty() && Below(random, 2) == 0) {
    view.members.erase(view.members.begin());
  }
  return view;
}

// Whatever the plan says, done.
FleetView Done(FleetView view) {
  for (const auto& [copy, names] : PlanClaims(view)) {
    if (!names.empty()) {
      view.claims[copy] = {names.front(), "", "dead", 0, 2};
    }
  }
  return view;
}

TEST(Planner, ClaimsKeepWithinCapacityAndGroups) {
  Random random(1);
  for (int round = 0; round < 100; ++round) {
    const FleetView view = RandomFleet(random);
    const auto plan = PlanClaims(view);
    const FleetView done = Done(view);
    for (const auto& [name, recorder] : view.recorders) {
      const auto own = PlanClaimsOf(view, name);
      ASSERT_EQ(own.size(), plan.size());
      for (const auto& [copy, names] : plan) {
        const auto place = std::find(names.begin(), names.end(), name);
        EXPECT_EQ(own.at(copy).first, names.empty() ? "" : names.front());
        EXPECT_EQ(own.at(copy).rank, place == names.end()
                                         ? std::nullopt
                                         : std::optional<std::size_t>(place - names.begin()));
      }
    }
    for (const auto& [name, load] : LoadsOf(done)) {
      EXPECT_LE(load, view.recorders.at(name).capacity) << name << " in round " << round;
    }
    for (const auto& [copy, names] : plan) {
      const FleetCamera& camera = view.cameras.at(copy.camera);
      EXPECT_TRUE(camera.on);
      for (const std::string& name : names) {
        EXPECT_TRUE(view.Lives(name));
        EXPECT_FALSE(view.recorders.at(name).drain);
        EXPECT_TRUE(camera.spill || camera.group.empty() ||
                    camera.group == view.recorders.at(name).group);
      }
    }
    for (const CameraCopy& copy : done.Copies()) {
      const FleetClaim* first = done.ClaimOf({copy.camera, 0});
      const FleetClaim* second = done.ClaimOf({copy.camera, 1});
      const bool bothLive = first != nullptr && second != nullptr && done.Lives(first->recorder) &&
                            done.Lives(second->recorder);
      EXPECT_FALSE(bothLive && first->recorder == second->recorder) << copy.camera;
    }
  }
}

TEST(Planner, DeathMovesTheDeadOnesCamerasAloneAndSpreadsThem) {
  FleetView view;
  for (int i = 0; i < 5; ++i) {
    view.recorders["rec" + std::to_string(i)] = {"", 100, false};
    view.members["rec" + std::to_string(i)] = {"id", 1};
  }
  for (unsigned i = 0; i < 200; ++i) {
    view.cameras["cam" + std::to_string(i)].site = i + 1;
  }
  view = Done(view);
  const auto before = LoadsOf(view);
  for (const auto& [name, load] : before) {
    EXPECT_LE(load, 44u) << name << " has more than a tenth above its share";
  }
  view.members.erase("rec2");
  const auto plan = PlanClaims(view);
  EXPECT_EQ(plan.size(), before.at("rec2"));
  std::set<std::string> takers;
  for (const auto& [copy, names] : plan) {
    EXPECT_EQ(view.ClaimOf(copy)->recorder, "rec2");
    ASSERT_FALSE(names.empty());
    takers.insert(names.front());
  }
  EXPECT_EQ(takers.size(), 4u);
  EXPECT_EQ(MissingWithoutOne(Done(view)), 0u);
  for (auto& [name, recorder] : view.recorders) {
    recorder.capacity = 55;  // four times that is enough, three times is not
  }
  EXPECT_GT(MissingWithoutOne(Done(view)), 0u);
}

TEST(Planner, WhoseSettingsARestoredEngineLacksIsNotTakenForFullOrOfAnotherGroup) {
  FleetView view;
  for (const std::string name : {"me", "you"}) {
    view.members[name] = {name, 1};
    view.recorders[name] = {"north", 10, false};
  }
  for (const std::string name : {"a", "b", "c"}) {
    view.cameras[name].group = "north";
    view.claims[{name, 0}] = {"me", "", "new", 0, 1};
  }
  EXPECT_FALSE(PlanMoves(view, {"me", "you"}, 8, true).empty()) << "three and none are not even";
  view.recorders.erase("me");  // it has not written them again yet
  EXPECT_TRUE(PlanMoves(view, {"me", "you"}, 8, true).empty());
}

TEST(Planner, DrainEmptiesAndRebalancingEnds) {
  Random random(2);
  for (int round = 0; round < 30; ++round) {
    FleetView view = Done(RandomFleet(random));
    std::vector<std::string> living;
    for (const auto& [name, member] : view.members) {
      living.push_back(name);
    }
    int turns = 0;
    for (auto moves = PlanMoves(view, living, 8, true); !moves.empty();
         moves = PlanMoves(view, living, 8, true)) {
      ASSERT_LT(++turns, 400) << "cameras wander in round " << round;
      EXPECT_LE(moves.size(), 8u);
      for (const PlannedMove& move : moves) {
        EXPECT_EQ(view.ClaimOf(move.copy)->recorder, move.from);
        EXPECT_FALSE(view.recorders.at(move.to).drain);
        view.claims[move.copy].recorder = move.to;
      }
      for (const auto& [name, load] : LoadsOf(view)) {
        EXPECT_LE(load, view.recorders.at(name).capacity);
      }
    }
    // Who is drained keeps only what has no other place.
    for (const auto& [copy, claim] : view.claims) {
      if (view.Lives(claim.recorder) && view.recorders.at(claim.recorder).drain &&
          view.cameras.at(copy.camera).on) {
        FleetView without = view;
        without.claims.erase(copy);
        EXPECT_TRUE(PlanClaims(without)[copy].empty()) << copy.camera << " in round " << round;
      }
    }
  }
}

}  // namespace
