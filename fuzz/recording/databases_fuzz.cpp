// Any bytes as any of the databases: readers give the whole records, maintenance keeps every record
// that it is not about, and what the library writes it reads back.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "cms/exports/database_exports.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "fuzz/support/check.h"
#include "fuzz/support/work_folder.h"

using fuzz::Get;
using fuzz::Put;

namespace {

constexpr std::size_t kRecord = 736;

std::int64_t TimeAt(const std::string& bytes, std::size_t offset) {
  std::int64_t time = 0;
  std::memcpy(&time, bytes.data() + offset, sizeof(time));
  return time;
}

// The record without its times.
std::string Rest(const std::string& list, std::size_t at) {
  return list.substr(at, 720);
}

void RecordList(const std::string& bytes, const std::wstring& name) {
  const std::string whole = bytes.substr(0, bytes.size() / kRecord * kRecord);
  const std::size_t count = whole.size() / kRecord;
  Put("rec/RecordDB", bytes);
  const auto content = cms::ReadRecordList(L"rec");
  CHECK(content.rows.size() == count && content.tornBytes == bytes.size() - whole.size());

  std::int64_t start = -1;
  std::int64_t end = -1;
  CHECK(GetTimeFromSubFolderDB(L"rec", &start, &end));
  for (std::size_t at = 0; at < whole.size(); at += kRecord) {
    CHECK(start <= TimeAt(whole, at + 720) && end >= TimeAt(whole, at + 728));
  }
  CHECK(count != 0 || (start == 0 && end == 0));
  CHECK(Get("rec/RecordDB") == bytes);

  CHECK(AddDBInfoFromList(L"rec", name.c_str(), L"new.drv", 5, 6) == 1);
  std::string list = Get("rec/RecordDB");
  CHECK(list.size() == whole.size() + kRecord && list.starts_with(whole));
  const auto added = cms::ReadRecordList(L"rec").rows.back();
  CHECK(added.file == "rec\\new.drv" && added.start == 5 && added.end == 6);

  ModifyDBInfoTime(L"rec", name.c_str(), 7, 0);
  const std::string modified = Get("rec/RecordDB");
  CHECK(modified.size() == list.size());
  for (std::size_t at = 0; at < list.size(); at += kRecord) {
    CHECK(Rest(modified, at) == Rest(list, at) &&
          TimeAt(modified, at + 728) == TimeAt(list, at + 728));
  }

  const bool removed = RemoveDBInfoFromList(L"rec", name.c_str()) == 1;
  const std::string left = Get("rec/RecordDB");
  CHECK(left.size() == modified.size() - (removed ? kRecord : 0));
  const auto at = static_cast<std::size_t>(
      std::mismatch(left.begin(), left.end(), modified.begin()).first - left.begin());
  CHECK(!removed || left.substr(at) == modified.substr(at + kRecord) ||
        left.substr(at / kRecord * kRecord) == modified.substr(at / kRecord * kRecord + kRecord));
}

void FolderList(const std::string& bytes, const std::wstring& name) {
  Put("../RecFolderDB0", bytes);
  const auto before = cms::ReadFolderList(0).rows.size();
  CHECK(before == bytes.size() / 520);
  CRecFolderDBWriter writer;
  const auto added = static_cast<std::size_t>(writer.WriterRecFolderDB(0, name.c_str()));
  CHECK(cms::ReadFolderList(0).rows.size() == before + added);
  CHECK(writer.WriterRecFolderDB(0, name.c_str()) == 0);
  writer.DeleteRecFolderDB(0, name.c_str());
  CHECK(cms::ReadFolderList(0).rows.size() == before + added - 1);
}

void Spans(const std::string& bytes) {
  Put("rec.DB", bytes);
  CHECK(cms::ReadFolderSpan(L"rec").rows.size() == bytes.size() / 16);
  CHECK(ModifyRecSubFolderDBInfo(L"rec", 10, 20) == 1);
  const auto narrowed = cms::ReadFolderSpan(L"rec");
  CHECK(narrowed.rows.size() == 1 && narrowed.tornBytes == 0);
  CHECK(narrowed.rows[0].start >= 10 && narrowed.rows[0].end <= 20);

  Put("rec.DB", bytes);
  FX_RecordDBListWriter recorder;
  recorder.SetDBListPath(L"rec");
  recorder.InitialRecordDBInfo(L"a", nullptr, nullptr, 0);
  recorder.SetRecordTime(15);
  CHECK(recorder.WriteDBInfoIntoList());
  const auto widened = cms::ReadFolderSpan(L"rec").rows.at(0);
  CHECK(widened.start <= 15 && widened.end >= 15);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) {
    return 0;
  }
  const fuzz::WorkFolder work;
  // A name of a few of the input's own characters, so that it is found now and then.
  const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  std::wstring name;
  for (std::size_t i = 0; i < data[1] % 4u + 1; ++i) {
    const std::size_t at = (data[0] + 2 * i) % bytes.size();
    name += bytes[at] > 0 ? static_cast<wchar_t>(bytes[at]) : L'x';
  }
  RecordList(bytes, name);
  FolderList(bytes, name);
  Spans(bytes);
  Put("../EventList0", bytes);
  const auto events = cms::ReadEventList(0);
  CHECK(events.rows.size() == bytes.size() / 232 && events.tornBytes == bytes.size() % 232);
  for (const auto& event : events.rows) {
    CHECK(event.type < 16 && event.cmsNumber < 16 && event.groupNumber < 16);
    cms::TextOfRecordTime(event.start);
  }
  return 0;
}
