// A data folder with recordings as a recorder leaves them, made byte by byte.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "cms/recording/database_reader.h"
#include "cms/recording/event_db_info.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/drv_generator.h"

namespace test {

class RecordingsMaker {
 public:
  explicit RecordingsMaker(const std::string& where = {}) : folder_(where) {
    std::filesystem::create_directories(Root() + "/recordings");
    WriteWholeFile(Root() + "/RecFolderDB0", FolderBytes(u"..\\recordings"));
  }

  std::string Root() const { return folder_.File("data"); }
  std::string Day(const std::string& day) const { return Root() + "/recordings/" + day; }

  // Of some ten seconds, with its index, record and span, in the folder of its local day or in
  // `folder`; returns the path of the .drv file.
  std::string Add(std::uint32_t site, std::int64_t start, std::string folder = {},
                  bool listed = true) {
    DrvRecording recording;
    for (std::uint32_t i = 0; i < 11; ++i) {
      recording.Add({.frameType = i % 5 == 0 ? 1u : 2u,
                     .seconds = static_cast<std::uint32_t>(start) + i,
                     .sequence = i + 1,
                     .payload = std::string(400, 'x')});
    }
    const std::string stamp = cms::Utf8FromWide(cms::RecordingStamp(start));
    folder = folder.empty() ? Day(stamp.substr(0, 8)) : folder;
    std::filesystem::create_directories(folder);
    const std::string stem = "Rec_Site" + std::to_string(site) + "_" + stamp;
    WriteWholeFile(folder + "/" + stem + ".drv", recording.bytes);
    WriteWholeFile(folder + "/" + stem + ".idx", recording.Idx());
    if (listed) {
      const std::string stored = "..\\recordings\\" +
                                 std::filesystem::path(folder).filename().string() + "\\" + stem +
                                 ".drv";
      Append(folder + "/RecordDB",
             RecordBytes({std::u16string(stored.begin(), stored.end()), start, start + 10,
                          u"10.0.0.1", u"Yard", 554, 0, 0, site}));
      const std::string old = ReadWholeFile(folder + ".DB");
      WriteWholeFile(folder + ".DB",
                     SpanBytes(old.empty() ? start : std::min(start, TimeAt(old, 0)),
                               old.empty() ? start + 10 : std::max(start + 10, TimeAt(old, 8))));
    }
    return folder + "/" + stem + ".drv";
  }

  void AddEvent(std::uint32_t site, std::int64_t start, std::int64_t end) {
    FX_EventDBInfo event(0, 0, site, 0, 3, 0, 554, L"Yard", L"10.0.0.1");
    event.SetStartTime(start);
    event.SetEndTime(end);
    Append(Root() + "/EventList0", {reinterpret_cast<const char*>(&event), sizeof event});
  }

  std::size_t Events() const { return ReadWholeFile(Root() + "/EventList0").size() / kEventBytes; }

  // What the record lists name, and what lies there: native paths of .drv files, one for each
  // record and file.
  std::multiset<std::string> Listed() const {
    std::multiset<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(Root() + "/recordings")) {
      for (const auto& row : cms::ReadRecordList(cms::SystemPath(entry.path().string())).rows) {
        files.insert(entry.path().string() + "/" + row.file.substr(row.file.rfind('\\') + 1));
      }
    }
    return files;
  }
  std::multiset<std::string> Present() const {
    std::multiset<std::string> files;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(Root() + "/recordings")) {
      if (entry.path().extension() == ".drv") {
        files.insert(entry.path().string());
      }
    }
    return files;
  }

  static void Append(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
  }

 private:
  TemporaryFolder folder_;
};

}  // namespace test
