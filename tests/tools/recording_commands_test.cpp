// What was recorded, seen by a user: db and inspect, and a payload in ffprobe.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/recording_reader.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

json Orvanta(const std::string& arguments) {
  const auto result = test::RunOrvanta(arguments + " --json");
  EXPECT_EQ(result.status, 0) << result.errors;
  return json::parse(result.output, nullptr, false);
}

class RecordingCommands : public testing::Test {
 protected:
  RecordingCommands() : before_(fs::current_path()) {
    fs::create_directories(data_ + "/recordings");
    fs::current_path(data_ + "/recordings");
  }
  ~RecordingCommands() override { fs::current_path(before_); }

  // Thirty frames; false when no file could be opened.
  bool Record(const std::wstring& folder, std::wstring* path) {
    FX::FX_DRVRecorder recorder;
    recorder.SetDevice(L"камера-7.локально", L"中庭カメラ 🎥 ساحة", 554);
    stRecordParam param;
    (folder + L"\\Rec_Site7_").copy(param.path, 259);
    recorder.SetRecParam(param);
    if (!recorder.StartScheNormalRecord(0)) {
      return false;
    }
    *path = recorder.GetDrvPath();
    test::FrameSource source;
    for (int i = 0; i < 30; ++i) {
      EXPECT_TRUE(source.Record(recorder));
    }
    recorder.StopRecordAll();
    return recorder.WaitRecorded(60'000);
  }

  const fs::path before_;
  const test::TemporaryFolder folder_;
  const std::string data_ = folder_.File("Überwachung/監視 🎥");
};

// A path of the longest length that a record holds, of characters that take one and two 16-bit
// units; one more is refused.
TEST_F(RecordingCommands, NamesInAnyScriptAndPathsOf259CharactersComeBack) {
  const std::wstring front = L"..\\recordings\\склад 倉庫 🎥";
  const std::size_t rest = std::wstring(L"\\Rec_Site7_20260101000000.drv").size();
  const std::wstring folder = front + std::wstring(259 - rest - cms::Utf16Length(front), L'x');
  std::wstring path;
  EXPECT_FALSE(Record(folder + L"x", &path));
  ASSERT_TRUE(Record(folder, &path));
  EXPECT_EQ(cms::Utf16Length(path), 259u);

  const json databases = Orvanta("db --data '" + data_ + "'");
  const json record = databases["records"].at(0);
  EXPECT_EQ(record["file"], cms::Utf8FromWide(path));
  EXPECT_EQ(record["site_name"], "中庭カメラ 🎥 ساحة");
  EXPECT_EQ(record["address"], "камера-7.локально");
  EXPECT_EQ(record["site"], 7);
  EXPECT_EQ(databases["spans"].at(0)["start"], record["start"]);

  const json inspect = Orvanta("inspect '" + cms::NativePath(path) + "'");
  EXPECT_EQ(inspect["video"], 30);
  EXPECT_EQ(inspect["key_frames"], 3);
  EXPECT_EQ(inspect["idx_mismatches"], 0);
  EXPECT_EQ(inspect["first"], record["start"]);
  EXPECT_EQ(std::max(inspect["last"].get<std::int64_t>(), inspect["first"].get<std::int64_t>() + 1),
            record["end"]);
  EXPECT_EQ(Orvanta("repair --data '" + data_ + "'")["repaired"], 0);
}

TEST_F(RecordingCommands, PayloadsCutOutOfARecordingPlay) {
  std::wstring path;
  ASSERT_TRUE(Record(L"..\\recordings\\20260101", &path));
  std::ofstream clip("clip.h264", std::ios::binary);
  const std::string drv = test::ReadWholeFile(cms::NativePath(path));
  const json inspect = Orvanta("inspect --frames " + cms::NativePath(path));
  for (const auto& frame : inspect["frame_list"]) {
    const auto offset = frame["offset"].get<std::size_t>();
    clip << drv.substr(offset + 116, frame["bytes"].get<std::size_t>() - 116);
  }
  clip.close();
  const auto probe = test::RunShell(
      "ffprobe -v error -count_frames -show_entries stream=codec_name,width,nb_read_frames "
      "-of csv=p=0 clip.h264");
  EXPECT_EQ(probe.output, "h264,320,30\n") << probe.errors;
}

TEST_F(RecordingCommands, WhatCannotBeDoneIsToldInOneLine) {
  struct Case {
    std::string arguments;
    int status;
    std::string text;
  };
  const std::string file = folder_.File("file");
  test::WriteWholeFile(file, "x");
  for (const auto& [arguments, status, text] :
       std::vector<Case>{{"inspect " + file + ".missing.drv", 1, "No such file"},
                         {"inspect " + folder_.Path(), 1, "is not a file"},
                         {"inspect " + file + ".idx", 1, "No such file"},
                         {"inspect", 2, "FILE"},
                         {"repair", 2, "--data"},
                         {"repair --data " + file, 1, "is not a folder"},
                         {"db --data " + folder_.File("missing"), 1, "there is no such folder"},
                         {"db --data " + folder_.Path(), 1, "nothing was recorded there"}}) {
    const auto result = test::RunOrvanta(arguments);
    EXPECT_EQ(result.status, status) << arguments;
    EXPECT_NE(result.errors.find(text), std::string::npos) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  }
}

}  // namespace
