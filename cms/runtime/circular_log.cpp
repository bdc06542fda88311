#include "cms/runtime/circular_log.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <optional>
#include <utility>

#include "cms/runtime/critical.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/internal/line_text.h"

namespace cms {
namespace {

constexpr std::string_view kMagic = "orvanta circular log 1, bytes: ";
constexpr std::size_t kHeadSize = 64;
constexpr std::size_t kNumberLength = 16;
constexpr std::size_t kCheckLength = 8;
// "NUMBER CHECK TIME " in front of the text.
constexpr std::size_t kTimeAt = kNumberLength + 1 + kCheckLength + 1;
constexpr std::size_t kTextAt = kTimeAt + kTimeTextLength + 1;
constexpr std::size_t kLongestLine = kTextAt + CCircularLogWriter::kLongestText + 1;
static_assert(kHeadSize + 2 * kLongestLine < CCircularLogWriter::kMinimumSize);

std::string Head(std::uint64_t size) {
  std::string head(kMagic);
  head += std::to_string(size);
  head.resize(kHeadSize - 1, ' ');
  return head + '\n';
}

// The size that a head tells; nothing when it is no head.
std::optional<std::uint64_t> SizeOf(std::string_view head) {
  std::uint64_t size = 0;
  if (head.size() != kHeadSize || !head.starts_with(kMagic)) {
    return std::nullopt;
  }
  std::from_chars(head.data() + kMagic.size(), head.data() + head.size(), size);
  if (size < CCircularLogWriter::kMinimumSize || size > CCircularLogWriter::kMaximumSize ||
      head != Head(size)) {
    return std::nullopt;
  }
  return size;
}

// Of the number, and what stands behind the check.
std::uint32_t CheckOf(std::string_view number, std::string_view rest) {
  const AVCRC* const table = av_crc_get_table(AV_CRC_32_IEEE_LE);
  const auto add = [table](std::uint32_t check, std::string_view bytes) {
    return av_crc(table, check, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  };
  return add(add(UINT32_MAX, number), rest);
}

std::string Line(std::uint64_t number, std::string_view text) {
  std::array<char, kTimeAt + 1> front{};
  std::snprintf(front.data(), front.size(), "%016llx ", static_cast<unsigned long long>(number));
  const std::string rest = TimeTextOfNow() + " " + std::string(text);
  std::snprintf(front.data() + kNumberLength, front.size() - kNumberLength, " %08x ",
                CheckOf({front.data(), kNumberLength}, rest));
  return front.data() + rest + '\n';
}

bool ReadHex(std::string_view digits, std::uint64_t& value) {
  const char* const end = digits.data() + digits.size();
  return std::from_chars(digits.data(), end, value, 16).ptr == end;
}

// The entry of a line without its end.
std::optional<CircularLogEntry> EntryOf(std::string_view line) {
  CircularLogEntry entry;
  std::uint64_t check = 0;
  if (line.size() < kTextAt || line.size() >= kLongestLine || line[kNumberLength] != ' ' ||
      line[kTimeAt - 1] != ' ' || line[kTextAt - 1] != ' ' ||
      !ReadHex(line.substr(0, kNumberLength), entry.number) ||
      !ReadHex(line.substr(kNumberLength + 1, kCheckLength), check) ||
      check != CheckOf(line.substr(0, kNumberLength), line.substr(kTimeAt)) ||
      entry.number > INT64_MAX) {
    return std::nullopt;
  }
  entry.time = line.substr(kTimeAt, kTimeTextLength);
  entry.text = line.substr(kTextAt);
  return entry;
}

// Calls `use` with each entry of a file's bytes and the offset behind its line.
template <typename Use>
void ForEachEntry(std::string_view bytes, Use use) {
  for (std::size_t at = kHeadSize; at < bytes.size();) {
    const std::size_t end = bytes.find('\n', at);
    if (end == std::string_view::npos) {
      return;
    }
    if (auto entry = EntryOf(bytes.substr(at, end - at))) {
      use(std::move(*entry), end + 1);
    }
    at = end + 1;
  }
}

// All of a log, or what there is of a foreign file: at most a byte more than a log can have.
std::optional<std::string> ReadLog(FileIo& io, int handle) {
  const std::int64_t size = io.Size(handle);
  if (size < 0) {
    return std::nullopt;
  }
  std::string bytes(
      std::min<std::size_t>(static_cast<std::size_t>(size), CCircularLogWriter::kMaximumSize),
      '\0');
  const std::size_t read = io.ReadAllAt(handle, bytes.data(), bytes.size(), 0);
  if (read < bytes.size() && errno != 0) {
    return std::nullopt;
  }
  bytes.resize(read);
  return bytes;
}

}  // namespace

bool ReadCircularLog(const std::string& path, std::vector<CircularLogEntry>& entries) {
  entries.clear();
  FileIo& io = CurrentFileIo();
  const ScopedFile file(io, path, kFileRead);
  const auto bytes = file ? ReadLog(io, file.Handle()) : std::nullopt;
  const auto size = bytes ? SizeOf(bytes->substr(0, kHeadSize)) : std::nullopt;
  if (!size) {
    return false;
  }
  ForEachEntry(std::string_view(*bytes).substr(0, *size),
               [&](CircularLogEntry entry, std::size_t) { entries.push_back(std::move(entry)); });
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  return true;
}

class CCircularLogWriter::Impl {
 public:
  explicit Impl(const std::string& path)
      : io_(CurrentFileIo()), file_(io_, path, kFileReadWrite | kFileCreate | kFileExclusive) {}

  bool IsOpen() const { return static_cast<bool>(file_); }
  int Continue(std::uint32_t size);
  bool Write(std::string_view text);

 private:
  bool Put(std::uint64_t position, std::string_view bytes) CMS_REQUIRES(lock_);

  FileIo& io_;
  const ScopedFile file_;
  CMSCritical lock_;
  std::uint64_t size_ CMS_GUARDED_BY(lock_) = 0;      // of the whole file when it is full
  std::uint64_t position_ CMS_GUARDED_BY(lock_) = 0;  // where the next entry goes
  std::uint64_t number_ CMS_GUARDED_BY(lock_) = 0;    // of the next entry
};

// Finds the place behind the newest entry, or begins a log: 0, or an error number.
int CCircularLogWriter::Impl::Continue(std::uint32_t size) {
  ScopeLock lock(lock_);
  const auto bytes = ReadLog(io_, file_.Handle());
  if (!bytes) {
    return errno;
  }
  position_ = kHeadSize;
  const auto oldSize = SizeOf(bytes->substr(0, kHeadSize));
  if (!oldSize) {
    size_ = std::clamp(size, kMinimumSize, kMaximumSize);
    // What a crash left of a first line is begun anew; anything else is somebody's file.
    if (!Head(size_).starts_with(*bytes) &&
        (bytes->size() >= kHeadSize || !bytes->starts_with(kMagic))) {
      return EEXIST;
    }
    return Put(0, Head(size_)) ? 0 : errno;
  }
  size_ = *oldSize;
  std::uint64_t next = 0;
  std::uint64_t behind = position_;
  ForEachEntry(std::string_view(*bytes).substr(0, size_),
               [&](const CircularLogEntry& entry, std::size_t end) {
                 if (entry.number >= next) {
                   next = entry.number + 1;
                   behind = end;
                 }
               });
  number_ = next;
  position_ = behind;
  return 0;
}

bool CCircularLogWriter::Impl::Put(std::uint64_t position, std::string_view bytes) {
  return io_.Seek(file_.Handle(), static_cast<std::int64_t>(position), SEEK_SET) >= 0 &&
         io_.WriteAll(file_.Handle(), bytes.data(), bytes.size()) == bytes.size();
}

bool CCircularLogWriter::Impl::Write(std::string_view text) {
  const std::string safe = OneLine(text, kLongestText);
  ScopeLock lock(lock_);
  std::string line = Line(number_, safe);
  const std::size_t length = line.size();
  if (length > size_ - position_) {
    // The old lines at the end go, so that no rest of one is taken for an entry.
    if (!Put(position_, std::string(size_ - position_, '\n'))) {
      return false;
    }
    position_ = kHeadSize;
  }
  // In front of the rest of the old line below: it may hold anything that somebody logged.
  if (position_ + length < size_) {
    line += '#';
  }
  if (!Put(position_, line)) {
    return false;
  }
  position_ += length;
  ++number_;
  return true;
}

CCircularLogWriter::CCircularLogWriter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

CCircularLogWriter::~CCircularLogWriter() = default;

std::unique_ptr<CCircularLogWriter> CCircularLogWriter::Open(const std::string& path,
                                                             std::uint32_t size, int& error) {
  auto impl = std::make_unique<Impl>(path);
  error = impl->IsOpen() ? impl->Continue(size) : errno;
  return error == 0 ? std::unique_ptr<CCircularLogWriter>(new CCircularLogWriter(std::move(impl)))
                    : nullptr;
}

bool CCircularLogWriter::Write(std::string_view text) {
  return impl_->Write(text);
}

}  // namespace cms
