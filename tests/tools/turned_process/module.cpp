// Loaded into a program of ours (LD_PRELOAD), it turns what the library sees: its clock is
// TURNED_AHEAD seconds ahead, and while the file TURNED_FOLDER/now is there, what lies below
// TURNED_FOLDER/target hangs; TURNED_FOLDER/hanging is there once an operation does. Where
// TURNED_FOLDER/ask-heap was, TURNED_FOLDER/heap says how many bytes are allocated.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "cms/runtime/clock.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/process_state.h"

namespace {

class ShiftedClock final : public cms::Clock {
 public:
  explicit ShiftedClock(std::int64_t seconds) : ahead_(seconds) {}
  std::uint64_t TickMilliseconds() const override { return system_.TickMilliseconds(); }
  std::uint64_t TickMicroseconds() const override { return system_.TickMicroseconds(); }
  std::int64_t WallSeconds() const override { return system_.WallSeconds() + ahead_; }
  std::int64_t WallMicroseconds() const override {
    return system_.WallMicroseconds() + ahead_ * 1'000'000;
  }

 private:
  const cms::Clock& system_ = cms::CurrentClock();
  const std::int64_t ahead_;
};

// Lives as long as the process.
class TurnedProcess {
 public:
  TurnedProcess(const std::string& folder, std::int64_t ahead)
      : folder_(folder), clock_(*new ShiftedClock(ahead)), io_(*new test::FaultyFileIo) {
    unsetenv("LD_PRELOAD");  // of this process alone
    cms::ReplaceClock(&clock_);
    cms::ReplaceFileIo(&io_);
    Turn();
    std::thread([this] {
      for (;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        Turn();
      }
    }).detach();
  }

 private:
  void Turn() {
    const bool wanted = std::filesystem::exists(folder_ + "/now");
    if (wanted != std::exchange(hangs_, wanted)) {
      io_.HangAt(wanted ? folder_ + "/target" : "");
    }
    if (io_.Hanging() > 0) {
      test::WriteWholeFile(folder_ + "/hanging", "");
    }
    if (std::filesystem::exists(folder_ + "/ask-heap")) {
      test::WriteWholeFile(folder_ + "/heap", std::to_string(test::HeapBytes()));
      std::filesystem::remove(folder_ + "/ask-heap");
    }
  }

  const std::string folder_;
  ShiftedClock& clock_;
  test::FaultyFileIo& io_;
  bool hangs_ = false;
};

const auto* const turned =
    new TurnedProcess(std::getenv("TURNED_FOLDER"), std::atoll(std::getenv("TURNED_AHEAD")));

}  // namespace
