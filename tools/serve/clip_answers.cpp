#include "tools/serve/clip_answers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cms/playback/clip/recording_export.h"
#include "cms/recording/data_root.h"
#include "cms/runtime/digest.h"
#include "tools/serve/random_id.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTellProgress{500};

// A file's bytes, without a copy of them.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat about {};
    if (file >= 0 && fstat(file, &about) == 0 && about.st_size > 0) {
      size_ = static_cast<std::size_t>(about.st_size);
      bytes_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
    }
    const int error = errno;
    if (file >= 0) {
      close(file);
    }
    if (bytes_ == MAP_FAILED) {
      throw std::runtime_error("cannot read " + path + ": " + std::strerror(error));
    }
  }
  ~MappedFile() { munmap(bytes_, size_); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::string_view Text() const { return {static_cast<const char*>(bytes_), size_}; }

 private:
  void* bytes_ = MAP_FAILED;
  std::size_t size_ = 0;
};

std::string ClipName(std::uint32_t site, std::int64_t from) {
  const std::time_t time = from;
  std::tm fields{};
  gmtime_r(&time, &fields);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &fields);
  return "site" + std::to_string(site) + "_" + text + ".mp4";
}

}  // namespace

ClipAnswers::ClipAnswers(const std::string& dataRoot, const std::string& name, DataRoots roots)
    : folder_(dataRoot + "/page-clips/" + name), roots_(std::move(roots)) {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

ClipAnswers::~ClipAnswers() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void ClipAnswers::Keep(Clip clip) {
  ScopeLock lock(lock_);
  clips_.push_back(std::move(clip));
  const auto add = [](std::uint64_t sum, const Clip& each) { return sum + each.size; };
  while (clips_.size() > kMostClips ||
         (clips_.size() > 1 &&
          std::accumulate(clips_.begin(), clips_.end(), std::uint64_t{0}, add) > kMostBytes)) {
    std::error_code ignored;  // who is being given it has it open
    fs::remove(clips_.front().path, ignored);
    clips_.pop_front();
  }
}

std::uint64_t ClipAnswers::MostBytesNow() const {
  return std::min<std::uint64_t>(kMostClipBytes, fs::space(folder_).available / 4);
}

void ClipAnswers::Make(WebRequest& request) {
  request.RequirePut();
  const auto site = static_cast<std::uint32_t>(request.Number("site", 1, INT32_MAX));
  const std::int64_t from = request.Number("from", 1, kLatestTime);
  const std::int64_t to = request.Number("to", from, kLatestTime);
  struct Making {
    explicit Making(ClipAnswers& of) : owner(of) {
      ScopeLock lock(owner.lock_);
      if (owner.making_ == kMostAtOnce) {
        throw std::runtime_error("other clips are being made: try again when they are done");
      }
      ++owner.making_;
    }
    ~Making() {
      ScopeLock lock(owner.lock_);
      --owner.making_;
    }
    Making(const Making&) = delete;
    Making& operator=(const Making&) = delete;
    ClipAnswers& owner;
  } const making(*this);

  cms::ExportOptions options;
  options.source.parts = PartsOf(roots_(), site, from, to);
  if (options.source.parts.empty()) {
    throw BadRequest("site " + std::to_string(site) + " has no recording then");
  }
  fs::create_directories(folder_);
  Clip clip{RandomId(), "", ClipName(site, from)};
  const std::uint64_t most = MostBytesNow();
  bool tooMuch = false;
  clip.path = folder_ + "/" + clip.id + ".mp4";
  options.path = clip.path;
  steady_clock::time_point told{};
  const cms::ExportResult result =
      cms::ExportRecording(options, [&](std::uint64_t done, std::uint64_t total) {
        tooMuch = total > most;
        if (tooMuch) {
          return false;
        }
        const auto now = steady_clock::now();
        if (now - told < kTellProgress) {
          return true;
        }
        told = now;
        return !StopRequested() && request.SendLine({{"done", done}, {"total", total}});
      });
  if (!result.error.empty()) {
    request.SendLine({{"error", tooMuch ? "the recordings of this span are more than the " +
                                              std::to_string(most >> 20) +
                                              " MiB that may be exported here at once: mark a "
                                              "shorter one, or use orvanta export"
                                        : result.error}});
    request.EndStream();
    return;
  }
  clip.size = fs::file_size(clip.path);
  nlohmann::ordered_json made{{"clip", clip.id},
                              {"name", clip.name},
                              {"size", clip.size},
                              {"sha256", cms::Sha256Hex(MappedFile(clip.path).Text())},
                              {"seconds", result.duration},
                              {"pictures", result.frames},
                              {"sound", result.audio},
                              {"notes", result.notes}};
  Keep(std::move(clip));
  request.SendLine(made);
  request.EndStream();
}

void ClipAnswers::Give(WebRequest& request) {
  Clip clip;
  {
    ScopeLock lock(lock_);
    const auto found = std::find_if(clips_.begin(), clips_.end(), [&](const Clip& each) {
      return each.id == request.Value("id").value_or("");
    });
    if (found == clips_.end()) {
      throw BadRequest("there is no such clip any more");
    }
    clip = *found;
  }
  request.SendFile(clip.path, clip.name, "video/mp4");
}

}  // namespace tools
