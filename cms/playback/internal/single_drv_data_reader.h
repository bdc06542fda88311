// CPlaybackSingleDRVDataReader, one recording file as a timeline.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/playback/internal/drv_frame_index.h"
#include "cms/playback/internal/playback_data_reader.h"
#include "cms/runtime/file_io.h"

// The index is read when the first question needs it; until then StartTime and EndTime are told by
// the records of the first seconds and of the last ones, by the rule for all of them. What
// StartTime was then it stays, whatever the index turns out to say.
class CPlaybackSingleDRVDataReader final : public cms::PlaybackDataReader {
 public:
  CPlaybackSingleDRVDataReader(cms::FileIo& io, std::wstring path, unsigned channel);

  bool Open(std::string& error) override;
  std::int64_t StartTime() const override { return start_; }
  std::int64_t EndTime() const override { return end_; }
  std::optional<cms::GopPlace> At(std::int64_t time) override;
  std::optional<cms::GopPlace> First() override;
  std::optional<cms::GopPlace> After(const cms::GopPlace& place) override;
  std::optional<cms::GopPlace> Before(const cms::GopPlace& place) override;
  bool Load(const cms::GopPlace& place, cms::PlaybackGop& gop) override;
  std::size_t Read(const cms::GopPlace& place, const cms::PlaybackFrame& frame,
                   std::span<std::uint8_t> out) override;
  bool Refresh() override;
  int LookAgainAfter() override;
  cms::PlaybackReaderStatus Status() const override;

  const std::wstring& Path() const { return path_; }
  // What the headers of the first key frame and of the last frame say, in seconds.
  std::uint64_t FirstSecond() const { return firstSecond_; }
  std::uint64_t LastSecond() const { return lastSecond_; }

  // Its place between other recordings of the channel: see TimeBounds. After Open.
  void BeginAt(std::int64_t time);
  void EndBefore(std::int64_t time);

  // Frees the index and closes the file until the next question; not of one that is in use and
  // gone.
  void Rest();

 private:
  bool Ready();
  bool ReadEnds();
  bool ReadRecords(int idx, std::uint64_t first, std::size_t count,
                   std::vector<cms::IndexedFrame>& frames) const;
  bool ReadSeconds(int idx, std::uint64_t count, std::size_t most,
                   std::vector<cms::IndexedFrame>& head,
                   std::vector<cms::IndexedFrame>& tail) const;
  bool IsSound(std::uint64_t from, std::uint64_t to) const;
  std::optional<cms::DrvHeader> HeaderAt(std::uint64_t offset) const;
  void TakeEnds();
  void Fit();
  bool OpenFile();
  void SeekGroup(std::size_t first);
  void SpreadTimes(std::int64_t end, cms::PlaybackGop& gop) const;
  std::uint64_t SkippedByWalker() const;

  cms::FileIo& io_;
  const std::wstring path_;
  const std::string drvPath_;
  const std::string idxPath_;
  const unsigned channel_;
  std::optional<cms::ScopedFile> file_;
  std::unique_ptr<cms::DrvFrameIndex> index_;
  std::unique_ptr<cms::DrvWalker> walker_;  // over the frames of a group
  bool failed_ = false;                     // it was ready once and is not any more
  cms::TimeBounds bounds_;
  std::uint64_t firstSecond_ = 0;
  std::uint64_t lastSecond_ = 0;
  std::int64_t start_ = 0;
  std::int64_t end_ = 0;
  std::uint64_t skipped_ = 0;                     // found when the index was made
  std::map<std::size_t, std::uint64_t> damaged_;  // bytes skipped in the group of a key frame
  bool rebuilt_ = false;
};
