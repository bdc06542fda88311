// Answers of pull points as several firmwares write them.
#include "cms/ipcam/internal/event_messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cms/ipcam/internal/event_states.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"
#include "tests/support/data_file.h"

namespace {

using cms::CameraEventKind;
using cms::CameraEventState;
using cms::PropertyOperation;
using testing::ElementsAre;
using testing::HasSubstr;
using Item = cms::CameraEventItem;

std::wstring Answer(const std::string& name) {
  return cms::Normalized(cms::WideFromUtf8(test::ReadDataFile("onvif/events/" + name)));
}

TEST(EventMessages, EventsAreReadAsTheyCome) {
  const auto events = cms::ParsePulledEvents(Answer("pulled.xml"), 77);
  ASSERT_TRUE(events && events->size() == 4);
  const cms::CameraEvent& motion = events->at(0).event;
  EXPECT_EQ(events->at(0).operation, PropertyOperation::kInitialized);
  EXPECT_EQ(motion.topic, "tns1:RuleEngine/CellMotionDetector/Motion");
  EXPECT_EQ(motion.kind, CameraEventKind::kMotion);
  EXPECT_EQ(motion.state, CameraEventState::kOn);
  EXPECT_THAT(motion.source, ElementsAre(Item{"VideoSourceConfigurationToken", "vsc0"},
                                         Item{"Rule", "<My rule>"}));
  EXPECT_EQ(motion.cameraMs, 1'795'341'604'250);
  EXPECT_EQ(motion.receivedMs, 77);
  const cms::CameraEvent& input = events->at(1).event;
  EXPECT_EQ(input.kind, CameraEventKind::kInput);
  EXPECT_EQ(input.state, CameraEventState::kOff);
  EXPECT_THAT(input.source, ElementsAre(Item{"InputToken", "in 1"}));
  EXPECT_THAT(input.key, ElementsAre(Item{"k", "2"}));
  EXPECT_EQ(input.cameraMs, 1'795'341'605'000);  // in a zone of its own
  const cms::CameraEvent& rain = events->at(2).event;
  EXPECT_EQ(rain.kind, CameraEventKind::kOther);
  EXPECT_EQ(rain.state, CameraEventState::kNone);  // a count
  EXPECT_THAT(rain.data, ElementsAre(Item{"Drops", "1"}));
  EXPECT_EQ(rain.cameraMs, 0);
  EXPECT_EQ(events->at(3).event.kind, CameraEventKind::kLineCrossing);
  EXPECT_EQ(cms::LifetimeOf(Answer("pulled.xml")), 60);
  EXPECT_FALSE(cms::ParsePulledEvents(Answer("limits.xml"), 0));
}

TEST(EventMessages, APullPointsParametersGoWithEveryRequest) {
  const auto point = cms::ParsePullPoint(Answer("created_by_parameters.xml"));
  ASSERT_TRUE(point);
  EXPECT_EQ(point->address, L"http://192.0.2.9:8080/onvif/services?a=1&b=2");
  EXPECT_EQ(point->lifetimeSeconds, 30);
  EXPECT_EQ(point->reference,
            L"<own:Id wsa5:IsReferenceParameter=\"true\""
            L" xmlns:own=\"http://camera.example/subscription\" kind=\"pull\">17</own:Id>"
            L"<Idx wsa5:IsReferenceParameter=\"true\" xmlns=\"urn:x\">a&amp;b</Idx>");
  const std::wstring headers = cms::AddressingHeaders(L"act", point->address, point->reference);
  EXPECT_THAT(cms::Utf8FromWide(headers), HasSubstr("services?a=1&amp;b=2</wsa5:To><own:Id"));
}

TEST(EventMessages, LimitsOfAPullAreTaken) {
  const auto limits = cms::ParsePullLimits(Answer("limits.xml"));
  ASSERT_TRUE(limits);
  EXPECT_EQ(limits->waitSeconds, 5);
  EXPECT_EQ(limits->mostMessages, 8);
}

TEST(EventMessages, KindsAreKnownByTheNamesOfTopics) {
  const std::vector<std::pair<const char*, CameraEventKind>> cases = {
      {"tns1:VideoSource/MotionAlarm", CameraEventKind::kMotion},
      {"tns1:RuleEngine/MotionRegionDetector/Motion", CameraEventKind::kMotion},
      {"ns7:VideoAnalytics/own:MotionDetection", CameraEventKind::kMotion},
      {"tns1:Device/Trigger/DigitalInput", CameraEventKind::kInput},
      {"tns1:RuleEngine/LineDetector/Crossed", CameraEventKind::kLineCrossing},
      {"tns1:VideoSource/SignalLoss", CameraEventKind::kVideoLoss},
      {"tns1:VideoSource/GlobalSceneChange/AnalyticsService", CameraEventKind::kTampering},
      {"tns1:VideoSource/ImageTooDark/ImagingService", CameraEventKind::kTampering},
      {"tns1:RuleEngine/TamperDetector/Tamper", CameraEventKind::kTampering},
      {"motion:Device/HardwareFailure/FanFailure", CameraEventKind::kOther},
      {"", CameraEventKind::kOther},
  };
  for (const auto& [topic, kind] : cases) {
    EXPECT_EQ(cms::KindOfTopic(topic), kind) << topic;
  }
}

// A camera behind a router tells the address that it has there.
TEST(EventMessages, AddressesOfAnotherNetworkAreReplaced) {
  cms::OnvifAccess access;
  access.host = "198.51.100.7";
  access.port = 8000;
  const cms::OnvifDevice plain(access);
  EXPECT_EQ(plain.UrlOf(L"/onvif/x?y=1"), "http://198.51.100.7:8000/onvif/x?y=1");
  EXPECT_EQ(plain.UrlOf(L"http://192.168.1.9/a/b?c=d"), "http://198.51.100.7:8000/a/b?c=d");
  EXPECT_EQ(plain.UrlOf(L"http://198.51.100.7:81/a"), "http://198.51.100.7:81/a");
  access.tls = true;
  EXPECT_EQ(cms::OnvifDevice(access).UrlOf(L"http://198.51.100.7:81/a"),
            "https://198.51.100.7:8000/a");  // never back to what is not encrypted
}

TEST(EventStates, WhatACameraForgotIsOffAfterAWhile) {
  auto events = *cms::ParsePulledEvents(Answer("pulled.xml"), 0);
  cms::EventStates states;
  states.Ask(1'000);
  EXPECT_TRUE(states.Note(events[0]));
  EXPECT_TRUE(events[0].event.initial);
  EXPECT_FALSE(states.Note(events[0]));
  EXPECT_TRUE(states.Note(events[3]) && states.Note(events[3]));  // each moment is one
  EXPECT_TRUE(states.TakeDoubtful(40'000, 5).empty());            // it was told since
  states.Ask(50'000);
  EXPECT_TRUE(states.TakeDoubtful(79'999, 5).empty());
  const std::vector<cms::CameraEvent> ended = states.TakeDoubtful(80'000, 5);
  ASSERT_EQ(ended.size(), 1U);
  EXPECT_EQ(ended[0].topic, events[0].event.topic);
  EXPECT_EQ(ended[0].state, CameraEventState::kOff);
  EXPECT_TRUE(states.Note(events[0]));  // and on again when it is seen
}

}  // namespace
