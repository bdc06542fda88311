// CPlaybackDRVDataReader, all recordings of a site as one timeline.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/playback/internal/single_drv_data_reader.h"

// Files in the order of their beginnings; each is played up to where the next one begins. Only the
// file in use and its neighbours are open, with their indexes in memory.
class CPlaybackDRVDataReader final : public cms::PlaybackDataReader {
 public:
  // followNewFiles: Refresh also looks for newer recordings of the site in the last file's folder.
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
  bool MayGrow() override { return files_.back()->MayGrow(); }
  cms::PlaybackReaderStatus Status() const override;

 private:
  using FileReader = CPlaybackSingleDRVDataReader;

  FileReader& Use(std::size_t file);
  std::int64_t Limit(std::size_t file) const;  // where the next file begins
  std::optional<cms::GopPlace> LastOf(std::size_t file);
  std::optional<cms::GopPlace> FirstFrom(std::size_t file);
  bool AddNewFiles();

  cms::FileIo& io_;
  const unsigned channel_;
  const bool followNewFiles_;
  std::vector<std::unique_ptr<FileReader>> files_;
  std::size_t used_ = 0;
};
