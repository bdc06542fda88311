// Pictures of encoded frames, for a clip's size and for a still.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tools/data/clip_writer.h"

namespace tools {

// One thread at a time. Frames have ClipPadding() readable bytes behind them.
class PictureDecoder {
 public:
  explicit PictureDecoder(ClipVideo video);
  ~PictureDecoder();
  PictureDecoder(const PictureDecoder&) = delete;
  PictureDecoder& operator=(const PictureDecoder&) = delete;

  void Decode(std::span<const std::uint8_t> frame);  // what cannot be decoded leaves no picture
  void End();  // nothing follows: what was held back comes out

  bool HasPicture() const;  // of the last frame that gave one
  int Width() const;
  int Height() const;
  int ChromaFormat() const;  // H.264's number: 1 is 4:2:0
  int BitDepth() const;
  int Reordering() const;  // how many pictures the stream says come before one shown earlier

  std::string Jpeg() const;  // of that picture; throws std::runtime_error

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Writes "<path>.part" and renames it; throws std::runtime_error with the path.
void WriteBeside(const std::string& path, std::string_view bytes);

}  // namespace tools
