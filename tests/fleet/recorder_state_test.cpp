#include "fleet/recorder_state.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using namespace cms::fleet;

constexpr Tick kTtl{4'000};

// A recorder "me" with "you" and "she" beside it; each has one camera.
class StateTest : public testing::Test {
 protected:
  StateTest() : state_("me", kTtl, now_) {
    Write(FleetKey(), ValueOf(FleetSettings{1, false}));
    unsigned site = 0;
    for (const std::string name : {"me", "you", "she"}) {
      Write(RecorderKey(name), ValueOf(FleetRecorder{"", 10, false}));
      Write(MemberKey(name), ValueOf(FleetMember{name, 0}));
      FleetCamera camera;
      camera.site = ++site;
      camera.url = "rtsp://192.0.2.1/";
      Write(CameraKey("of_" + name), ValueOf(camera));
      Write(ClaimKey({"of_" + name, 0}), Claim(name));
    }
    Confirm();
    state_.Joined(now_, 1);
    Confirm();
    Load();
    Pass(Tick{5'000});
  }

  static std::string Claim(const std::string& recorder, const char* why = "new") {
    return ValueOf(FleetClaim{recorder, "", why, 0, 0});
  }

  void Write(const std::string& key, const std::string& value) {
    EngineKey& written = keys_[key];
    written = {key, value, written.createRevision == 0 ? ++revision_ : written.createRevision,
               revision_ + 1, 0};
    ++revision_;
    if (loaded_) {
      state_.Changed(now_, {false, written});
    }
  }
  void Erase(const std::string& key) {
    keys_.erase(key);
    EngineKey deleted;
    deleted.key = key;
    deleted.modRevision = ++revision_;
    state_.Changed(now_, {true, deleted});
  }
  void Load() {
    FleetView view;
    for (const auto& [name, key] : keys_) {
      view.Put(key);
    }
    state_.Loaded(now_, view, revision_);
    loaded_ = true;
  }
  void Confirm() { state_.Renewed(now_, now_, kTtl); }
  // Time in which the lease is renewed, a tenth of a second each turn; what was decided last.
  Decisions Pass(Tick time, bool renewed = true) {
    Decisions last;
    for (Tick passed{0}; passed < time; passed += Tick{100}) {
      now_ += Tick{100};
      if (renewed) {
        Confirm();
      }
      last = state_.Decide(now_);
      claims_.insert(claims_.end(), last.claims.begin(), last.claims.end());
    }
    return last;
  }
  bool Records(const std::string& camera) {
    return state_.Decide(now_).record.contains({camera, 0});
  }

  Tick now_{1'000'000};
  std::int64_t revision_ = 0;
  bool loaded_ = false;
  std::map<std::string, EngineKey> keys_;
  std::vector<ClaimStep> claims_;  // that were asked for
  RecorderState state_;
};

TEST_F(StateTest, DeadOnesCameraIsTakenWithinSecondsAndOnCondition) {
  Erase(MemberKey("you"));
  Pass(Tick{400});
  EXPECT_TRUE(claims_.empty()) << "a lease that was revoked wrongly is back within the grace";
  Pass(Tick{2'500});  // second in rank at worst
  ASSERT_FALSE(claims_.empty());
  EXPECT_EQ(claims_[0].copy.camera, "of_you");
  EXPECT_EQ(claims_[0].deadHolder, "you");
  EXPECT_EQ(claims_[0].claimRevision, keys_[ClaimKey({"of_you", 0})].modRevision);
  EXPECT_FALSE(Records("of_you")) << "not before the engine has said so";
  Write(ClaimKey({"of_you", 0}), Claim("me", "dead"));
  EXPECT_TRUE(Records("of_you"));
}

TEST_F(StateTest, PlanFollowsClaimsOfOthersAndCamerasThatChange) {
  const auto add = [&](unsigned site) {
    FleetCamera camera;
    camera.site = site;
    camera.url = "rtsp://192.0.2.1/";
    Write(CameraKey("new" + std::to_string(site)), ValueOf(camera));
  };
  for (unsigned site = 10; site < 16; ++site) {
    add(site);
  }
  Erase(CameraKey("new10"));  // before anybody had it
  Pass(Tick{100});
  Write(ClaimKey({"new11", 0}), Claim("you"));
  Write(ClaimKey({"new12", 0}), Claim("she"));
  claims_.clear();
  Pass(Tick{4'000});  // third in rank at worst
  std::set<std::string> asked;
  for (const ClaimStep& step : claims_) {
    asked.insert(step.copy.camera);
  }
  EXPECT_EQ(asked, (std::set<std::string>{"new13", "new14", "new15"}));
  for (const std::string& camera : asked) {
    Write(ClaimKey({camera, 0}), Claim("me"));
    EXPECT_TRUE(Records(camera));
  }
  claims_.clear();
  Erase(MemberKey("you"));  // and with it what was taken outside of the plan
  Pass(Tick{4'000});
  asked.clear();
  for (const ClaimStep& step : claims_) {
    asked.insert(step.copy.camera);
  }
  EXPECT_EQ(asked, (std::set<std::string>{"new11", "of_you"}));
}

TEST_F(StateTest, HolderThatComesBackKeepsItsCameras) {
  Erase(MemberKey("you"));
  Pass(Tick{300});
  Write(MemberKey("you"), ValueOf(FleetMember{"you", 0}));
  Pass(Tick{8'000});
  EXPECT_TRUE(claims_.empty());
}

TEST_F(StateTest, WhenMostAreGoneAtOnceItIsTheEngineAndEverybodyWaits) {
  Erase(MemberKey("you"));
  Erase(MemberKey("she"));
  Pass(2 * kTtl - Tick{500});
  EXPECT_TRUE(claims_.empty());
  Pass(Tick{4'000});
  EXPECT_GE(claims_.size(), 2u);
}

TEST_F(StateTest, WithoutTheEngineItRecordsOnAndTakesNothing) {
  Erase(MemberKey("you"));
  const Decisions decisions = Pass(Tick{60'000}, false);
  EXPECT_EQ(decisions.standing, Standing::kUnconfirmed);
  claims_.clear();
  Pass(Tick{30'000}, false);
  EXPECT_TRUE(claims_.empty());
  EXPECT_TRUE(Records("of_me"));
  Pass(Tick{3'500});
  EXPECT_TRUE(claims_.empty()) << "who was away takes nothing for the time of a lease";
  Pass(Tick{4'000});
  EXPECT_FALSE(claims_.empty());
}

TEST_F(StateTest, LosingTheLeaseOrAClaimsKeyStopsNothing) {
  state_.LeaseLost(now_);
  EXPECT_TRUE(Records("of_me"));
  state_.Joined(now_, 99);
  Confirm();
  Erase(ClaimKey({"of_me", 0}));
  const Decisions decisions = state_.Decide(now_);
  EXPECT_TRUE(decisions.record.contains({"of_me", 0}));
  ASSERT_FALSE(decisions.claims.empty()) << "the claim is to be written again";
  EXPECT_EQ(decisions.claims[0].claimRevision, 0);
}

TEST_F(StateTest, EmptyEngineStopsNothingAndGetsTheCamerasBack) {
  state_.Loaded(now_, FleetView{}, 1);
  state_.Joined(now_, 2);
  const Decisions decisions = Pass(Tick{100});
  EXPECT_TRUE(decisions.record.contains({"of_me", 0}));
  ASSERT_EQ(decisions.republished.size(), 1u);
  EXPECT_EQ(decisions.republished[0].copy.camera, "of_me");
  EXPECT_EQ(decisions.republished[0].claim.recorder, "me") << "no camera comes without its claim";
  Write(CameraKey("of_me"), keys_[CameraKey("of_me")].value);
  EXPECT_TRUE(state_.Decide(now_).republished.empty());
  Erase(CameraKey("of_me"));
  EXPECT_FALSE(Records("of_me")) << "that camera was deleted, and seen to be";
}

TEST_F(StateTest, EmptyEngineLeavesACameraThatWasMovingToWhoHadIt) {
  const CameraCopy copy{"of_you", 0};
  Write(MoveKey(copy), ValueOf(FleetMove{"you", "me", keys_[ClaimKey(copy)].modRevision, 0}));
  EXPECT_TRUE(Records("of_you"));
  state_.Loaded(now_, FleetView{}, 1);
  state_.Joined(now_, 2);
  state_.Recording(now_, copy, true);
  Decisions decisions = Pass(Tick{20'000});  // longer than a recorder yields
  EXPECT_TRUE(Records("of_you"));
  EXPECT_EQ(decisions.republished.size(), 1u) << "of_me alone";
  Write(CameraKey("of_you"), keys_[CameraKey("of_you")].value);
  Write(ClaimKey(copy), Claim("you"));
  Pass(Tick{3'000});
  EXPECT_TRUE(Records("of_you")) << "until that one says that it records";
  Write(ProofKey(copy), ValueOf(FleetProof{"you", keys_[ClaimKey(copy)].modRevision, true}));
  Pass(Tick{1'500});
  EXPECT_FALSE(Records("of_you"));
  EXPECT_TRUE(claims_.empty());
}

TEST_F(StateTest, CameraThatARestoredEngineForgotIsItsOwnWhenNobodyComesForIt) {
  const CameraCopy copy{"of_me", 0};
  Write(ClaimKey(copy), Claim("you", "dead"));
  Pass(Tick{1'000});
  state_.Loaded(now_, FleetView{}, 1);
  state_.Joined(now_, 2);
  EXPECT_TRUE(Pass(Tick{29'000}).republished.empty());
  EXPECT_EQ(Pass(Tick{2'000}).republished.size(), 1u);
}

TEST_F(StateTest, RestoredEnginesCameraWaitsForARecorderThatIsLateToClaimIt) {
  state_.Loaded(now_, FleetView{}, 1);
  state_.Joined(now_, 2);
  Write(RecorderKey("me"), ValueOf(FleetRecorder{"", 10, false}));
  Pass(Tick{9'000});
  Write(CameraKey("of_she"), keys_[CameraKey("of_she")].value);
  Pass(kTtl - Tick{500});
  EXPECT_TRUE(claims_.empty());
  Pass(Tick{1'500});
  ASSERT_FALSE(claims_.empty());
  EXPECT_EQ(claims_[0].copy.camera, "of_she");
}

TEST_F(StateTest, YieldsWhenTheOtherRecordsOrAfterEightSeconds) {
  const CameraCopy copy{"of_me", 0};
  Write(ClaimKey(copy), Claim("you", "dead"));
  Pass(Tick{3'000});
  EXPECT_TRUE(Records("of_me"));
  Write(ProofKey(copy), ValueOf(FleetProof{"you", keys_[ClaimKey(copy)].modRevision, true}));
  Pass(Tick{1'500});
  EXPECT_FALSE(Records("of_me"));

  Write(ClaimKey(copy), Claim("me", "moved"));
  EXPECT_TRUE(Records("of_me"));
  Write(ClaimKey(copy), Claim("you", "dead"));
  Pass(Tick{7'500});
  EXPECT_TRUE(Records("of_me"));
  Pass(Tick{1'000});
  EXPECT_FALSE(Records("of_me"));
}

TEST_F(StateTest, CutOffFromTheEngineItYieldsToAPeerThatRecordsByALaterClaim) {
  const CameraCopy copy{"of_me", 0};
  const std::int64_t own = keys_[ClaimKey(copy)].modRevision;
  state_.PeerRecords(now_, copy, "you", own + 1);
  Pass(Tick{3'000});
  EXPECT_TRUE(Records("of_me")) << "the engine answers, and says that it is its own";
  Pass(kTtl + Tick{100}, false);
  state_.PeerRecords(now_, copy, "you", own);  // not later than its own
  Pass(Tick{3'000}, false);
  EXPECT_TRUE(Records("of_me"));
  state_.PeerRecords(now_, copy, "you", own + 1);
  EXPECT_TRUE(Records("of_me"));
  Pass(Tick{1'500}, false);
  EXPECT_FALSE(Records("of_me"));
}

TEST_F(StateTest, MovedHereIsClaimedWithTheFirstFrameAndNotBefore) {
  const CameraCopy copy{"of_you", 0};
  Write(MoveKey(copy), ValueOf(FleetMove{"you", "me", keys_[ClaimKey(copy)].modRevision, 0}));
  Pass(Tick{2'000});
  EXPECT_TRUE(Records("of_you"));
  EXPECT_TRUE(claims_.empty());
  state_.Recording(now_, copy, true);
  Pass(Tick{100});
  ASSERT_EQ(claims_.size(), 1u);
  EXPECT_TRUE(claims_[0].isMove);
  Erase(MoveKey(copy));  // taken back before it was done
  Pass(Tick{9'000});
  EXPECT_FALSE(Records("of_you"));
}

TEST_F(StateTest, StuckDiskLeavesOnceAndTakesNothing) {
  state_.DiskStuck(true);
  EXPECT_TRUE(state_.Decide(now_).leave);
  EXPECT_FALSE(state_.Decide(now_).leave);
  Erase(MemberKey("you"));
  EXPECT_EQ(Pass(Tick{10'000}).standing, Standing::kStuck);
  EXPECT_TRUE(claims_.empty());
}

TEST(RecorderState, SilentEngineAtTheStartHasWhatIsRememberedRecorded) {
  Tick now{5'000};
  RecorderState state("me", kTtl, now);
  FleetCamera camera;
  camera.site = 1;
  state.Remember({{{"door", 0}, camera}});
  EXPECT_TRUE(state.Decide(now + Tick{10'000}).record.empty());
  const Decisions decisions = state.Decide(now + Tick{16'000});
  EXPECT_EQ(decisions.standing, Standing::kCold);
  EXPECT_EQ(decisions.record.size(), 1u);
}

}  // namespace
