// Once recording runs nothing is allocated for a frame.
#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "tests/allocation/allocation_count.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/recording_client.h"

namespace {

TEST(RecordAllocation, NothingIsAllocatedPerFrame) {
  const test::RecordingFolder site;
  FX::FX_DRVRecorder recorder;
  test::Prepare(recorder);
  test::ClipSpec spec;
  spec.noise = true;  // large frames: the buffer is handed over now and then
  test::FrameSource source(spec);
  ASSERT_TRUE(recorder.StartScheNormalRecord(0));
  ASSERT_TRUE(recorder.StartDeviceAlarmRecord(0));
  bool counts = false;
  long allocated = 0;
  std::thread receiving([&] {
    pthread_setname_np(pthread_self(), "cms-recv test");
    const auto record = [&](int frames) {
      const long before = test::Allocations();
      for (int i = 0; i < frames; ++i) {
        source.Record(recorder, i % 2 == 0);
        source.RecordAudio(recorder);
      }
      return test::Allocations() - before;
    };
    record(10);
    delete new int;
    counts = test::Allocations() > 0;
    for (int i = 0; i < 50; ++i) {
      allocated += record(10);
      test::WaitForDisk();  // one that falls behind is given more memory
    }
  });
  receiving.join();
  EXPECT_TRUE(counts);
  EXPECT_EQ(allocated, 0);
  EXPECT_GT(recorder.GetRecordingStatus().bytes, 3u << 20);
  recorder.StopRecordAll();
  EXPECT_EQ(test::CheckSeams(site.Files()), 511u);
}

// Through the site client: scheduled beside an event, whose pre-alarm is kept in between.
TEST(RecordAllocation, NothingIsAllocatedForAKeptFrame) {
  const test::RecordingFolder site;
  test::RecordingClient client(test::ParamFor(1));
  test::FrameSource source;
  ASSERT_EQ(client.SetRecEventPreAlarm(0, 2, 1, 200'000), 1);
  client.TurnOnRecordingState(0, cms::kRecordDeviceEvent);
  long kept = 0;
  long recorded = 0;
  std::thread receiving([&] {
    pthread_setname_np(pthread_self(), "cms-recv test");
    const auto give = [&](int frames, cms::EventMarks marks) {
      long allocated = 0;
      for (int i = 0; i < frames; ++i) {
        const long before = test::Allocations();
        client.Give(source, marks);
        client.GiveAudio();
        allocated += test::Allocations() - before;
        if (i % 10 == 0) {
          test::WaitForDisk();
        }
      }
      return allocated;
    };
    give(10, {});
    kept = give(500, {});
    give(10, {true, false, false});  // the beginning of an event opens files
    recorded = give(500, {true, false, false});
  });
  receiving.join();
  EXPECT_EQ(kept, 0);
  EXPECT_EQ(recorded, 0);
  EXPECT_GT(client.GetRecordingStatus().frames, 1'000u);
}

}  // namespace
