// CPlaybackDRVDataReader, all recordings of a site as one timeline.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/playback/internal/file_stamp.h"
#include "cms/playback/internal/single_drv_data_reader.h"

// Files in the order of their beginnings. Where the seconds of two overlap, the first is played up
// to where the second begins. Where one ends not later than in the second in which the next begins,
// both are played whole: headers tell seconds only, so the times of that second make room. Only the
// file in use and its neighbours are open, with their indexes in memory.
class CPlaybackDRVDataReader final : public cms::PlaybackDataReader {
 public:
  // followNewFiles: Refresh also looks for newer recordings of the site in the last file's folder,
  // and when that is a day's, in those of later days beside it.
  CPlaybackDRVDataReader(cms::FileIo& io, const std::vector<std::wstring>& paths, unsigned channel,
                         bool followNewFiles);

  bool Open(std::string& error) override;
  std::int64_t StartTime() const override { return files_.front()->StartTime(); }
  std::int64_t EndTime() const override { return files_.back()->EndTime(); }
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

 private:
  using FileReader = CPlaybackSingleDRVDataReader;

  FileReader& Use(std::size_t file);
  std::int64_t Limit(std::size_t file) const;  // where the next file begins
  std::optional<cms::GopPlace> LastOf(std::size_t file);
  std::optional<cms::GopPlace> FirstFrom(std::size_t file);
  void Sort();
  void Join(std::size_t next);
  bool AddNewFiles();
  bool AddNewFilesOf(const std::string& folder, const std::string& behind, int site);

  cms::FileIo& io_;
  const unsigned channel_;
  const bool followNewFiles_;
  std::vector<std::unique_ptr<FileReader>> files_;
  std::size_t used_ = 0;
  std::map<std::string, cms::FileStamp> looked_;  // folders in which there was nothing new
};
