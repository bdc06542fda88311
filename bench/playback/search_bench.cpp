// A month's calendar and a day's recordings of all sites out of 1,000,000 recordings: 32 sites, a
// folder for each of 1,000 days. The files are there, empty, and ours looks for each that counts.
// And all of them at once, with 100,000 events: time, and memory at its highest.
//
// Cat is the floor of a first search: the record lists once through the page cache. SQLite answers
// the same questions from a table with an index on (site, start), without looking for any file.
// ORVANTA_BENCH_DIR keeps the folder for the next run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/event_db_info.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/runtime/native_path.h"

extern char** environ;

namespace {

constexpr std::int64_t kDays = 1000;
constexpr std::int64_t kRecordsOfDay = 1000;
constexpr std::int64_t kSites = 32;
constexpr std::int64_t kBegin = 1'609'459'200;  // 2021-01-01T00:00:00Z
constexpr std::int64_t kDay = 86'400;
constexpr std::int64_t kMonth = kBegin + 699 * kDay;             // 2022-12-01
constexpr std::int64_t kOneDay = kMonth + 28 * kDay;             // 2022-12-29
constexpr std::int64_t kLength = kDay * kSites / kRecordsOfDay;  // of a recording
constexpr std::int64_t kRecordsOfEvent = 10;                     // one of so many has an event

void Check(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(what);
  }
}

// The recordings on disk and in SQLite, on the disk that temporary files are on.
class Archive {
 public:
  Archive() {
    const bool made = std::filesystem::exists(path_ + "/ready");
    if (!made) {
      std::filesystem::remove_all(path_);
      std::filesystem::create_directories(path_ + "/recordings");
    }
    std::filesystem::current_path(path_ + "/recordings");
    Check(sqlite3_open((path_ + "/sqlite").c_str(), &database_) == SQLITE_OK, "sqlite3_open");
    if (!made) {
      Make();
      std::ofstream(path_ + "/ready");
      std::this_thread::sleep_for(std::chrono::seconds(4));  // files that changed just now are not
    }                                                        // what searches are about
    for (std::int64_t day = 0; day < kDays; ++day) {
      lists_.push_back(path_ + "/recordings/" + DayName(day) + "/RecordDB");
    }
    Run("PRAGMA cache_size=-1000000");
  }
  ~Archive() {
    sqlite3_close(database_);
    if (std::getenv("ORVANTA_BENCH_DIR") == nullptr) {
      std::filesystem::remove_all(path_);
    }
  }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  const std::vector<std::string>& Lists() const { return lists_; }
  sqlite3* Database() const { return database_; }

 private:
  static std::string Place() {
    const char* kept = std::getenv("ORVANTA_BENCH_DIR");
    return kept != nullptr ? kept
                           : std::filesystem::temp_directory_path() /
                                 ("search_bench." + std::to_string(getpid()));
  }
  static std::string DayName(std::int64_t day) { return std::to_string(20210000 + day); }

  void Run(const char* text) {
    Check(sqlite3_exec(database_, text, nullptr, nullptr, nullptr) == SQLITE_OK, text);
  }

  void Make() {
    events_.open(path_ + "/EventList0", std::ios::binary);
    CRecFolderDBWriter().WriterRecFolderDB(0, cms::SystemPath(path_ + "/recordings").c_str());
    Run("PRAGMA journal_mode=OFF; BEGIN;"
        "CREATE TABLE records (site INTEGER, start INTEGER, end INTEGER, file TEXT)");
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(database_, "INSERT INTO records VALUES (?, ?, ?, ?)", -1, &insert, nullptr);
    for (std::int64_t day = 0; day < kDays; ++day) {
      MakeDay(day, insert);
    }
    events_.close();
    sqlite3_finalize(insert);
    Run("CREATE INDEX bySite ON records (site, start); COMMIT; ANALYZE");
  }

  void MakeDay(std::int64_t day, sqlite3_stmt* insert) {
    const std::string folder = path_ + "/recordings/" + DayName(day) + "/";
    std::filesystem::create_directory(folder);
    std::ofstream list(folder + "RecordDB", std::ios::binary);
    for (std::int64_t i = 0; i < kRecordsOfDay; ++i) {
      const auto site = static_cast<std::uint32_t>(1 + i % kSites);
      const std::int64_t start = kBegin + day * kDay + i / kSites * kLength + 3;
      const std::string file =
          folder + "Rec_Site" + std::to_string(site) + "_" + std::to_string(start) + ".drv";
      FX_RecordDBInfo record(cms::SystemPath(file).c_str(), L"192.168.0.20", L"Lobby", 554, site,
                             0);
      record.SetStartTime(start);
      record.SetEndTime(start + kLength - 1);
      list.write(reinterpret_cast<const char*>(&record), sizeof(record));
      close(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
      if (i % kRecordsOfEvent == 0) {
        FX_EventDBInfo event(0, 0, site, 0, 3, 5, 554, L"Lobby", L"192.168.0.20");
        event.SetStartTime(start + 10);
        event.SetEndTime(start + 20);
        events_.write(reinterpret_cast<const char*>(&event), sizeof(event));
      }
      sqlite3_bind_int64(insert, 1, site);
      sqlite3_bind_int64(insert, 2, start);
      sqlite3_bind_int64(insert, 3, start + kLength - 1);
      sqlite3_bind_text(insert, 4, file.c_str(), -1, SQLITE_TRANSIENT);
      Check(sqlite3_step(insert) == SQLITE_DONE, "sqlite3_step");
      sqlite3_reset(insert);
    }
  }

  const std::string path_ = Place();
  sqlite3* database_ = nullptr;
  std::ofstream events_;
  std::vector<std::string> lists_;
};

Archive& TheArchive() {
  static Archive archive;
  return archive;
}

void Cat(benchmark::State& state) {
  std::vector<char*> arguments;
  std::string program = "cat";
  arguments.push_back(program.data());
  for (const std::string& list : TheArchive().Lists()) {
    arguments.push_back(const_cast<char*>(list.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  for (auto _ : state) {
    pid_t child = 0;
    int status = -1;
    Check(posix_spawnp(&child, "cat", &actions, nullptr, arguments.data(), environ) == 0, "cat");
    waitpid(child, &status, 0);
    Check(status == 0, "cat");
  }
  posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(Cat)->Unit(benchmark::kMillisecond)->UseRealTime();

// The sum of the days that have recordings.
int Calendar(LocalPBSearchEngine& engine) {
  engine.setSearchYearAndMonth(2022, 12);
  engine.searchPlaybackInfoForMonth(false);
  int sum = 0;
  for (int day = 1; day <= 31; ++day) {
    sum += engine.getMonthInfo()[static_cast<std::size_t>(day)] * day;
  }
  return sum;
}

std::size_t FilesOf(const LocalPBSearchEngine& engine) {
  std::size_t files = 0;
  for (const auto& span : engine.getNormalPBInfo()) {
    files += span.records.size();
  }
  return files;
}

// The files of 2022-12-29.
std::size_t Day(LocalPBSearchEngine& engine) {
  engine.searchByInterval(kOneDay, kOneDay + kDay - 1);
  return FilesOf(engine);
}

constexpr int kAllDays = 31 * 32 / 2;
constexpr std::size_t kFilesOfDay = kRecordsOfDay + 8;  // with those that began the day before

template <typename Ask, typename Answer>
void First(benchmark::State& state, Ask ask, Answer answer) {
  TheArchive();
  for (auto _ : state) {
    LocalPBSearchEngine engine;
    Check(ask(engine) == answer, "wrong answer");
  }
}
BENCHMARK_CAPTURE(First, month, Calendar, kAllDays)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(First, day, Day, kFilesOfDay)->Unit(benchmark::kMillisecond)->UseRealTime();

// MB of memory, from /proc/self/status.
double Memory(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word && word != field) {
  }
  double kibibytes = 0;
  status >> kibibytes;
  return kibibytes * 1024 / 1e6;
}

void Everything(benchmark::State& state) {
  TheArchive();
  double peak = 0;
  double kept = 0;
  for (auto _ : state) {
    const double before = Memory("VmRSS:");
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
    LocalPBSearchEngine engine;
    engine.searchByInterval(LocalPBSearchEngine::kFullRangeStart,
                            LocalPBSearchEngine::kFullRangeEnd);
    engine.loadEventList();
    peak = Memory("VmHWM:") - before;
    kept = Memory("VmRSS:") - before;
    Check(FilesOf(engine) == kDays * kRecordsOfDay, "wrong answer");
    Check(engine.getEventTimes().size() == kDays * kRecordsOfDay / kRecordsOfEvent, "wrong answer");
  }
  state.counters["peak_MB"] = peak;
  state.counters["kept_MB"] = kept;
}
BENCHMARK(Everything)->Unit(benchmark::kMillisecond)->UseRealTime();

template <typename Ask, typename Answer>
void Again(benchmark::State& state, Ask ask, Answer answer) {
  TheArchive();
  LocalPBSearchEngine engine;
  ask(engine);
  for (auto _ : state) {
    Check(ask(engine) == answer, "wrong answer");
  }
}
BENCHMARK_CAPTURE(Again, month, Calendar, kAllDays)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(Again, day, Day, kFilesOfDay)->Unit(benchmark::kMillisecond)->UseRealTime();

void SqliteMonth(benchmark::State& state) {
  sqlite3_stmt* query = nullptr;
  Check(sqlite3_prepare_v2(TheArchive().Database(),
                           "SELECT DISTINCT (start - ?2) / 86400 FROM records "
                           "WHERE site = ?1 AND start BETWEEN ?2 AND ?3",
                           -1, &query, nullptr) == SQLITE_OK,
        "sqlite3_prepare");
  for (auto _ : state) {
    std::set<int> days;
    for (int site = 1; site <= kSites; ++site) {
      sqlite3_bind_int(query, 1, site);
      sqlite3_bind_int64(query, 2, kMonth);
      sqlite3_bind_int64(query, 3, kMonth + 31 * kDay - 1);
      while (sqlite3_step(query) == SQLITE_ROW) {
        days.insert(sqlite3_column_int(query, 0));
      }
      sqlite3_reset(query);
    }
    Check(days.size() == 31, "wrong answer");
  }
  sqlite3_finalize(query);
}
BENCHMARK(SqliteMonth)->Unit(benchmark::kMillisecond)->UseRealTime();

// Whatever overlaps the day; or, where a recording is known never to be longer than a day, a query
// whose index bounds the search at both ends.
constexpr const char* kOverlapping =
    "SELECT site, start, end, file FROM records WHERE site = ?1 AND start <= ?3 AND end >= ?2 "
    "ORDER BY start";
constexpr const char* kBounded =
    "SELECT site, start, end, file FROM records WHERE site = ?1 AND "
    "start BETWEEN ?2 - 86400 AND ?3 AND end >= ?2 ORDER BY start";

void SqliteDay(benchmark::State& state, const char* text) {
  sqlite3_stmt* query = nullptr;
  Check(sqlite3_prepare_v2(TheArchive().Database(), text, -1, &query, nullptr) == SQLITE_OK,
        "sqlite3_prepare");
  struct Row {
    std::int64_t site, start, end;
    std::string file;
  };
  for (auto _ : state) {
    std::vector<Row> rows;
    for (int site = 1; site <= kSites; ++site) {
      sqlite3_bind_int(query, 1, site);
      sqlite3_bind_int64(query, 2, kOneDay);
      sqlite3_bind_int64(query, 3, kOneDay + kDay - 1);
      while (sqlite3_step(query) == SQLITE_ROW) {
        rows.push_back({sqlite3_column_int64(query, 0), sqlite3_column_int64(query, 1),
                        sqlite3_column_int64(query, 2),
                        reinterpret_cast<const char*>(sqlite3_column_text(query, 3))});
      }
      sqlite3_reset(query);
    }
    Check(rows.size() == kFilesOfDay, "wrong answer");
  }
  sqlite3_finalize(query);
}
BENCHMARK_CAPTURE(SqliteDay, overlapping, kOverlapping)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(SqliteDay, bounded, kBounded)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
