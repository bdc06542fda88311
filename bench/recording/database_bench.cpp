// The record list of a folder with 100,000 recordings, beside reading its file.
//
// ReadFile/* is the floor: the same 73.6 MB with read() into one buffer, which is thrown away.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cms/exports/database_exports.h"
#include "cms/recording/record_db_list_writer.h"

namespace {

constexpr std::int64_t kRecords = 100'000;
constexpr std::int64_t kBytes = kRecords * 736;

// A folder with the list, on the disk that temporary files are on; removed at the end.
class Folder {
 public:
  Folder() {
    std::filesystem::create_directories(path_ + "/rec");
    std::filesystem::current_path(path_);
    std::ofstream list(List(), std::ios::binary);
    for (std::int64_t i = 0; i < kRecords; ++i) {
      const std::wstring name =
          L"D:\\recordings\\20240229\\Rec_Site7_" + std::to_wstring(20240229000000 + i) + L".drv";
      FX_RecordDBInfo record(name.c_str(), L"192.168.0.20", L"Lobby", 554, 7, 0);
      record.SetRecordTime(1'700'000'000 + 60 * i);
      record.SetRecordTime(1'700'000'060 + 60 * i);
      list.write(reinterpret_cast<const char*>(&record), sizeof(record));
    }
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string List() const { return path_ + "/rec/RecordDB"; }

 private:
  const std::string path_ =
      std::filesystem::temp_directory_path() / ("database_bench." + std::to_string(getpid()));
};

Folder& TheFolder() {
  static Folder folder;
  return folder;
}

void ReadFile(benchmark::State& state) {
  const std::string path = TheFolder().List();
  std::vector<char> buffer(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (read(file, buffer.data(), buffer.size()) > 0) {
    }
    close(file);
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(ReadFile)->Arg(256 << 10)->Arg(kBytes);

void Span(benchmark::State& state) {
  TheFolder();
  for (auto _ : state) {
    std::int64_t start = 0;
    std::int64_t end = 0;
    if (!GetTimeFromSubFolderDB(L"rec", &start, &end) || start != 1'700'000'000 ||
        end != 1'700'000'000 + 60 * kRecords) {
      state.SkipWithError("wrong span");
    }
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(Span)->Name("GetTimeFromSubFolderDB");

void MakeSpan(benchmark::State& state) {
  TheFolder();
  for (auto _ : state) {
    if (MakeSubRecFolderDB(L"rec") != 1) {
      state.SkipWithError("no span");
    }
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(MakeSpan)->Name("MakeSubRecFolderDB");

// The last record's times: every name is compared.
void ChangeOne(benchmark::State& state) {
  TheFolder();
  for (auto _ : state) {
    if (ModifyDBInfoTime(L"rec", L"_20240229099999.", 0, 1'700'000'000 + 60 * kRecords) != 1) {
      state.SkipWithError("no such record");
    }
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(ChangeOne)->Name("ModifyDBInfoTime/last");

// What a recorder does when it closes a file, at the end of the long list.
void StoreOne(benchmark::State& state) {
  TheFolder();
  FX_RecordDBListWriter writer;
  writer.SetDBListPath(L"rec");
  for (auto _ : state) {
    writer.InitialRecordDBInfo(L"Rec_Site7_20240301000000.drv", L"192.168.0.20", L"Lobby", 554);
    writer.SetRecordTime(1'700'000'060);
    if (!writer.WriteDBInfoIntoList()) {
      state.SkipWithError("not stored");
    }
  }
  std::filesystem::resize_file(TheFolder().List(), kBytes);
}
BENCHMARK(StoreOne)->Name("WriteDBInfoIntoList");

}  // namespace

BENCHMARK_MAIN();
