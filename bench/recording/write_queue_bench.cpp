// The write queue fed from memory beside `dd bs=512k` on the same disk, in turns; the middle of the
// rounds, and the processor time of each for a GiB, which a busy machine disturbs less. Usage:
// write_queue_bench [FOLDER [MIB [ROUNDS]]]. Aim: at least 80 % of dd.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cms/recording/control_write_file.h"
#include "cms/runtime/file_io.h"

namespace {

constexpr std::uint32_t kBuffer = ControlWriteFile::kSlotSize;

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

template <typename Work>
double Seconds(Work work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// With `synced` the time includes that the bytes are on the disk, not in the page cache alone.
double WithDd(const std::string& path, unsigned buffers, bool synced) {
  const std::string command = "dd if=/dev/zero of='" + path +
                              "' bs=512k count=" + std::to_string(buffers) +
                              (synced ? " conv=fdatasync" : "") + " 2>/dev/null";
  return Seconds([&] {
    if (std::system(command.c_str()) != 0) {
      Fail("dd");
    }
  });
}

double WithQueue(ControlWriteFile& queue, const std::string& path, unsigned buffers, bool synced) {
  cms::FileIo& io = cms::SystemFileIo();
  static const std::vector<std::uint8_t> data(kBuffer, 0x5A);
  return Seconds([&] {
    const int handle = io.Open(path, cms::kFileReadWrite | cms::kFileCreateNew);
    if (handle < 0) {
      Fail(path.c_str());
    }
    const auto status = std::make_shared<cms::WriteStatus>();
    for (unsigned i = 0; i < buffers; ++i) {
      queue.AddToQueue(handle, data.data(), kBuffer, false, status);
    }
    queue.WaitWritten(-1);
    if (synced && io.Sync(handle) != 0) {
      Fail("sync");
    }
    queue.AddToQueue(handle, nullptr, 0, true, status);
    queue.WaitWritten(-1);
    if (status->error != 0) {
      Fail("write");
    }
  });
}

// Whose: RUSAGE_SELF or RUSAGE_CHILDREN.
double ProcessorMilliseconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto milliseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) * 1e-3;
  };
  return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

double Middle(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const int mib = argc > 2 ? std::atoi(argv[2]) : 1024;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
  if (mib < 1 || rounds < 1) {
    std::fprintf(stderr, "usage: %s [FOLDER [MIB [ROUNDS]]]\n", argv[0]);
    return 2;
  }
  const std::string path = folder + "/write_queue_bench." + std::to_string(getpid());
  const auto buffers = static_cast<unsigned>(mib) * 2;
  ControlWriteFile queue;
  const double gib = mib / 1024.0 * rounds;
  std::printf("%d MiB, middle of %d rounds, MiB/s (processor ms a GiB)\n%-18s %14s %14s %7s\n", mib,
              rounds, "", "ours", "dd", "ratio");
  for (const bool synced : {false, true}) {
    std::vector<double> ours;
    std::vector<double> dd;
    double oursTime = 0;
    const double ddBefore = ProcessorMilliseconds(RUSAGE_CHILDREN);
    for (int i = 0; i < rounds; ++i) {
      dd.push_back(mib / WithDd(path, buffers, synced));
      unlink(path.c_str());
      const double oursBefore = ProcessorMilliseconds(RUSAGE_SELF);
      ours.push_back(mib / WithQueue(queue, path, buffers, synced));
      oursTime += ProcessorMilliseconds(RUSAGE_SELF) - oursBefore;
      unlink(path.c_str());
    }
    const double ddTime = ProcessorMilliseconds(RUSAGE_CHILDREN) - ddBefore;
    std::printf("%-18s %7.0f (%4.0f) %7.0f (%4.0f) %6.0f%%\n",
                synced ? "until on the disk" : "until written", Middle(ours), oursTime / gib,
                Middle(dd), ddTime / gib, 100 * Middle(ours) / Middle(dd));
  }
  return 0;
}
