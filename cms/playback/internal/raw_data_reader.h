// CPlaybackRAWDataReader, a file of bare video as a timeline.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cms/playback/internal/playback_data_reader.h"
#include "cms/runtime/file_io.h"

// H.264 (Annex B), MPEG-4 or JPEGs behind each other, cut into pictures by the codec library's
// parser when it is opened; the pictures are as far apart as the given rate says.
class CPlaybackRAWDataReader final : public cms::PlaybackDataReader {
 public:
  CPlaybackRAWDataReader(cms::FileIo& io, const std::wstring& path, double rate,
                         std::int64_t startTime);

  bool Open(std::string& error) override;
  std::int64_t StartTime() const override { return frames_.front().time; }
  std::int64_t EndTime() const override { return frames_.back().time; }
  std::optional<cms::GopPlace> At(std::int64_t time) override;
  std::optional<cms::GopPlace> First() override { return cms::GopPlace{}; }
  std::optional<cms::GopPlace> After(const cms::GopPlace& place) override;
  std::optional<cms::GopPlace> Before(const cms::GopPlace& place) override;
  bool Load(const cms::GopPlace& place, cms::PlaybackGop& gop) override;
  std::size_t Read(const cms::GopPlace& place, const cms::PlaybackFrame& frame,
                   std::span<std::uint8_t> out) override;
  bool Refresh() override { return false; }
  int LookAgainAfter() override { return kNever; }
  cms::PlaybackReaderStatus Status() const override { return {}; }

 private:
  bool Parse();
  void Add(std::uint64_t offset, std::size_t size, bool key);

  cms::FileIo& io_;
  const std::string path_;
  const double interval_;  // milliseconds
  const std::int64_t startTime_;
  cms::ScopedFile file_;
  std::vector<cms::PlaybackFrame> frames_;  // the first is a key frame
  std::vector<std::size_t> keys_;
};
