#include "cms/recording/drv_recorder.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "cms/live/media/event_marks.h"
#include "cms/live/media/frame_header.h"
#include "cms/runtime/native_path.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/drv_generator.h"

namespace {

using FX::FX_DRVRecorder;
using test::FrameSource;

struct KindOfRecording {
  bool (FX_DRVRecorder::*start)(unsigned);
  void (FX_DRVRecorder::*stop)(unsigned);
  bool (FX_DRVRecorder::*runs)(unsigned) const;
  bool (FX_DRVRecorder::*anyRuns)() const;
  void (FX_DRVRecorder::*enable)(unsigned);
  void (FX_DRVRecorder::*disable)(unsigned);
  bool (FX_DRVRecorder::*enabled)(unsigned) const;
  bool (FX_DRVRecorder::*anyEnabled)() const;
  unsigned eventType;  // 0: none
};

#define KIND(name, type)                                                                   \
  KindOfRecording {                                                                        \
    &FX_DRVRecorder::Start##name##Record, &FX_DRVRecorder::Stop##name##Record,             \
        &FX_DRVRecorder::Is##name##Recording, &FX_DRVRecorder::Is##name##Recording,        \
        &FX_DRVRecorder::TurnOn##name##RecState, &FX_DRVRecorder::TurnOff##name##RecState, \
        &FX_DRVRecorder::Is##name##RecStateOn, &FX_DRVRecorder::Is##name##RecStateOn, type \
  }

const KindOfRecording kKinds[] = {KIND(DeviceEvent, 1), KIND(DeviceAlarm, 3),
                                  KIND(DeviceVideoLoss, 4), KIND(InstNormal, 0),
                                  KIND(ScheNormal, 0)};

class DrvRecorder : public testing::Test {
 protected:
  DrvRecorder() { test::Prepare(recorder_, test::ParamFor(12)); }

  struct EventFields {
    unsigned channel, type, preAlarm;
    std::int64_t start, end;
    bool operator==(const EventFields&) const = default;
  };
  std::vector<EventFields> Events() const {
    const std::string bytes = site_.Events();
    EXPECT_EQ(bytes.size() % test::kEventBytes, 0u);
    std::vector<EventFields> events;
    for (std::size_t at = 0; at < bytes.size(); at += test::kEventBytes) {
      const auto number = [&](std::size_t offset, int width) {
        return static_cast<unsigned>(test::NumberAt(bytes, at + offset, width));
      };
      EXPECT_EQ(test::TextAt(std::string_view(bytes).substr(at), 0, 32), u"Hof");
      EXPECT_EQ(test::TextAt(std::string_view(bytes).substr(at), 64, 64), u"10.0.0.1");
      EXPECT_EQ(number(192, 2), 554u);
      EXPECT_EQ(number(208, 4), 12u);
      events.push_back({number(196, 2), number(198, 1), number(202, 1),
                        test::TimeAt(bytes, at + 216), test::TimeAt(bytes, at + 224)});
    }
    return events;
  }

  const std::int64_t begin_ = 1'700'000'000;
  test::RecordingFolder site_;
  FX_DRVRecorder recorder_;
  FrameSource source_{{}, 3};
};

TEST_F(DrvRecorder, EachKindRunsStopsAndIsEnabledByItself) {
  for (const auto& kind : kKinds) {
    EXPECT_FALSE((recorder_.*kind.anyRuns)());
    ASSERT_TRUE((recorder_.*kind.start)(3));
    EXPECT_TRUE((recorder_.*kind.start)(3));
    EXPECT_TRUE((recorder_.*kind.runs)(3) && (recorder_.*kind.anyRuns)());
    EXPECT_FALSE((recorder_.*kind.runs)(4));
    EXPECT_TRUE(recorder_.IsRecording(3, true));
    EXPECT_FALSE(recorder_.IsRecording(4, false));
    EXPECT_EQ(recorder_.GetDeviceEventRecStatus(3), kind.eventType == 1);
    EXPECT_EQ(recorder_.GetDeviceEventStatus(3), kind.eventType == 1);
    EXPECT_TRUE(source_.RecordGop(recorder_));
    (recorder_.*kind.stop)(4);
    EXPECT_TRUE(recorder_.IsRecording());
    (recorder_.*kind.stop)(3);
    EXPECT_FALSE(recorder_.IsRecording() || (recorder_.*kind.anyRuns)());

    (recorder_.*kind.enable)(31);
    EXPECT_TRUE((recorder_.*kind.enabled)(31) && (recorder_.*kind.anyEnabled)());
    EXPECT_FALSE((recorder_.*kind.enabled)(3));
    (recorder_.*kind.disable)(31);
    EXPECT_FALSE((recorder_.*kind.anyEnabled)());
    (recorder_.*kind.enable)(5);
  }
  recorder_.TurnOffAllRecordState();
  for (const auto& kind : kKinds) {
    EXPECT_FALSE((recorder_.*kind.anyEnabled)());
    for (const auto change : {kind.stop, kind.enable, kind.disable}) {
      EXPECT_THROW((recorder_.*change)(32), std::out_of_range);
    }
    try {
      (recorder_.*kind.start)(32);
      FAIL();
    } catch (const std::out_of_range& error) {
      EXPECT_STREQ(error.what(), "invalid bitset<N> position");
    }
  }
  EXPECT_FALSE(recorder_.IsRecording());
  ASSERT_EQ(Events().size(), 3u);
  EXPECT_EQ(Events()[0].type, 1u);
  EXPECT_EQ(Events()[1].type, 3u);
  EXPECT_EQ(Events()[2].type, 4u);
}

TEST_F(DrvRecorder, FilesAreOpenWhileAnyKindRuns) {
  ASSERT_TRUE(recorder_.StartInstNormalRecord(3));
  ASSERT_TRUE(recorder_.StartScheNormalRecord(3));
  source_.RecordGop(recorder_);
  recorder_.StopInstNormalRecord(3);
  EXPECT_TRUE(recorder_.IsRecording());
  ASSERT_TRUE(recorder_.StartDeviceEventRecord(0));
  recorder_.StopScheNormalRecord(3);
  EXPECT_TRUE(recorder_.IsRecording());
  EXPECT_FALSE(source_.RecordGop(recorder_));  // nothing runs for channel 3
  recorder_.StopRecordAll();
  EXPECT_FALSE(recorder_.IsRecording() || recorder_.IsRecording(0, false));
  EXPECT_EQ(site_.Files().size(), 1u);
  EXPECT_TRUE(Events().empty());  // no frame: no times
}

TEST_F(DrvRecorder, AnEventIsOneRecordFromItsFirstFrameToItsLast) {
  ASSERT_TRUE(recorder_.StartScheNormalRecord(3));
  source_.RecordGop(recorder_);
  recorder_.SetPreAlarm(7, false);
  ASSERT_TRUE(recorder_.StartDeviceAlarmRecord(3));
  recorder_.SetPreAlarm(9, true);
  site_.clock.Advance(2);
  source_.RecordGop(recorder_);
  ASSERT_TRUE(recorder_.StartDeviceAlarmRecord(3));  // still the same one
  ASSERT_TRUE(recorder_.StartDeviceVideoLossRecord(3));
  recorder_.SetForceChangeFile();
  site_.clock.Advance(3);
  source_.RecordGop(recorder_);  // in another file
  recorder_.StopDeviceAlarmRecord(3);
  site_.clock.Advance(4);
  source_.RecordGop(recorder_);
  recorder_.StopRecordAll();
  const std::vector<EventFields> expected{{3, 3, 0, begin_ + 2, begin_ + 5},
                                          {3, 4, 9, begin_ + 5, begin_ + 9}};
  EXPECT_EQ(Events(), expected);
  // The record list has both files, with the times of their own frames.
  const std::string records = site_.Records();
  ASSERT_EQ(records.size(), 2 * test::kRecordBytes);
  EXPECT_EQ(test::TimeAt(records, 720), begin_);
  EXPECT_EQ(test::TimeAt(records, 728), begin_ + 2);
  EXPECT_EQ(test::TimeAt(records, 736 + 720), begin_ + 5);
  EXPECT_EQ(test::TimeAt(records, 736 + 728), begin_ + 9);
  EXPECT_EQ(test::NumberAt(records, 716, 4), 12u);
  EXPECT_EQ(test::TextAt(records, 648, 32), u"Hof");
  const auto files = site_.Files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(test::TextAt(records, 0, 260),
            u"..\\rec\\" + std::u16string(files[0].name.begin(), files[0].name.end()));
  EXPECT_EQ(files[1].index[0].state, 0b10110u);  // the kinds that ran for the frame
  EXPECT_EQ(files[1].index[0].channel, 3u);
}

TEST_F(DrvRecorder, MarksAreSetInTheCopyOnDiskAlone) {
  ASSERT_TRUE(recorder_.StartScheNormalRecord(3));
  source_.Record(recorder_, false);
  source_.Record(recorder_, true);
  recorder_.StopRecordAll();
  const auto files = site_.Files();
  EXPECT_EQ(files.at(0).frames.at(0).eventMask, 0u);
  EXPECT_EQ(files[0].frames.at(1).eventMask, 1u << 3);
  EXPECT_EQ(files[0].index[1].secondState, 1u);

  for (const char kind : {'2', '6', '8', 'v'}) {
    for (const unsigned channel : {0u, 9u, 15u, 16u, 31u}) {
      for (const bool inFlags : {false, true}) {
        std::string frame = test::MakeDrvFrame({.kind = kind});
        frame[12] = static_cast<char>(frame[12] | (inFlags ? 2 : 0));
        std::array<std::uint8_t, 32> header;
        std::memcpy(header.data(), frame.data(), header.size());
        cms::SetDeviceEventMark(header, channel);
        const bool has = inFlags || channel < 16;
        EXPECT_EQ(cms::ReadEventMarks(cms::DrvHeader(header), channel),
                  (cms::EventMarks{has, false, false}));
        EXPECT_EQ(header[12] & 0x80, inFlags ? 0x80 : 0);
        const std::size_t place = (channel < 8) == (kind != '6') ? 28 : 29;
        EXPECT_EQ(header[place], !inFlags && channel < 16 ? 1u << channel % 8 : 0u)
            << kind << channel;
      }
    }
  }
  std::string frame = test::MakeDrvFrame({});
  frame[24] = 4;  // alarm of channel 2
  frame[27] = 1;  // video loss of channel 8
  std::array<std::uint8_t, 32> header;
  std::memcpy(header.data(), frame.data(), header.size());
  EXPECT_TRUE(cms::ReadEventMarks(cms::DrvHeader(header), 2).alarm);
  EXPECT_TRUE(cms::ReadEventMarks(cms::DrvHeader(header), 8).videoLoss);
}

TEST_F(DrvRecorder, KeyFramesAloneAreIndexedWhenAskedFor) {
  auto param = test::ParamFor(12);
  param.indexKeyFramesOnly = true;
  recorder_.SetRecParam(param);
  EXPECT_TRUE(recorder_.GetRecParam().indexKeyFramesOnly);
  ASSERT_TRUE(recorder_.StartScheNormalRecord(3));
  for (int i = 0; i < 3; ++i) {
    source_.RecordGop(recorder_);
  }
  const std::string path = cms::NativePath(recorder_.GetDrvPath());
  recorder_.StopRecordAll();
  test::WaitForDisk();
  const auto index = test::ReadIdx(path.substr(0, path.size() - 3) + "idx");
  const auto frames = test::ReadDrv(path);
  ASSERT_EQ(index.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(index[i].offset, frames[10 * i].offset);
    EXPECT_EQ(index[i].type, 1u);
  }
}

TEST_F(DrvRecorder, FramesWhoseHeaderContradictsTheirSizeAreRefused) {
  ASSERT_TRUE(recorder_.StartScheNormalRecord(0));
  std::string frame = test::MakeDrvFrame({.payload = "payload"});
  const auto record = [&](int header, int size) {
    return recorder_.RecordVideoFrame(frame.data(), header, frame.data() + header, size, 0);
  };
  EXPECT_FALSE(record(116, 6));
  EXPECT_FALSE(record(115, 8));
  EXPECT_FALSE(record(31, 7));
  EXPECT_FALSE(record(-1, -1));
  frame[1] = 'x';
  EXPECT_FALSE(record(116, 7));
  frame[1] = '2';
  frame[31] = 'x';  // the check bytes are the recorder's to make
  EXPECT_TRUE(record(116, 7));
  EXPECT_EQ(recorder_.GetRecordingStatus().refusedFrames, 5u);
  EXPECT_THROW(recorder_.RecordVideoFrame(frame.data(), 116, frame.data(), 7, 32),
               std::out_of_range);
  recorder_.StopRecordAll();
  EXPECT_EQ(site_.Files().at(0).frames.size(), 1u);
}

TEST_F(DrvRecorder, WhatTheParametersChangeHoldsFromTheNextFileOn) {
  ASSERT_TRUE(recorder_.StartScheNormalRecord(3));
  source_.RecordGop(recorder_);
  recorder_.SetRecParam(test::ParamFor(12));  // the same: no new file
  site_.clock.Advance(1);
  source_.RecordGop(recorder_);
  EXPECT_EQ(recorder_.GetRecordingStatus().files, 1u);
  recorder_.SetRecParam(test::ParamFor(13));
  source_.RecordGop(recorder_);
  EXPECT_NE(recorder_.GetDrvPath().find(L"Rec_Site13_"), std::wstring::npos);
  recorder_.StopRecordAll();
  recorder_.ChangeRecordPath(test::ParamFor(14).path);  // while idle: at once
  ASSERT_TRUE(recorder_.StartInstNormalRecord(3));
  EXPECT_NE(recorder_.GetDrvPath().find(L"Rec_Site14_"), std::wstring::npos);
  recorder_.SetRecParam(test::ParamFor(14, 0));
  recorder_.StopRecordAll();
  EXPECT_FALSE(recorder_.StartInstNormalRecord(3));
  EXPECT_FALSE(recorder_.IsInstNormalRecording(3));
}

}  // namespace
