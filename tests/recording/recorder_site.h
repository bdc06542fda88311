// A site that records into a folder of its own, for tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "cms/recording/drv_recorder.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_slots.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/recording_reader.h"

namespace test {

// "..\rec\Rec_Site<number>_" of a WorkFolder.
inline stRecordParam ParamFor(int site, int sizeMiB = 64, const wchar_t* folder = L"..\\rec") {
  stRecordParam param;
  const std::wstring path = std::wstring(folder) + L"\\Rec_Site" + std::to_wstring(site) + L"_";
  path.copy(param.path, 259);
  param.fileSizeMiB = sizeMiB;
  return param;
}

inline void Prepare(FX::FX_DRVRecorder& recorder, const stRecordParam& param = ParamFor(1)) {
  recorder.SetDevice(L"10.0.0.1", L"Hof", 554);
  recorder.SetRecParam(param);
}

inline void WaitForDisk() {
  cms::RecordingDisk::WaitAll(-1);
}

// An empty folder "rec" beside the working folder, and a clock that stands still.
struct RecordingFolder {
  RecordingFolder() {
    std::filesystem::create_directories(folder.Beside("rec"));
    cms::RecordingSlots::Instance() = {};  // those of a process that has recorded nothing
  }
  std::string Rec() const { return folder.Beside("rec"); }
  std::vector<RecordedFile> Files() const {
    WaitForDisk();
    return ReadRecordings(Rec());
  }
  std::string Records() const { return Database("rec/RecordDB"); }
  std::string Events() const { return Database("EventList0"); }
  std::string Database(const std::string& name) const {
    WaitForDisk();
    return ReadWholeFile(folder.Beside(name));
  }

  WorkFolder folder;
  TestClock clock;
};

// A recorder of everything that comes, in a folder of its own.
class RecorderTest : public testing::Test {
 protected:
  void Begin(const stRecordParam& param = ParamFor(1)) {
    Prepare(recorder_, param);
    ASSERT_TRUE(recorder_.StartScheNormalRecord(0));
  }

  RecordingFolder site_;
  FrameSource source_;
  FX::FX_DRVRecorder recorder_;
};

}  // namespace test
