// Keeps the codec library's messages away from the client application's standard error.
#pragma once

namespace cms {

// While one exists, what the codec library reports on this thread goes nowhere: a damaged or
// hostile stream is a result of the decoder, and some of the library's messages heed no level of
// the codec that they come from. Messages of other threads, and of the client application's own use
// of the codec library, reach the library's usual output; a client application with an output of
// its own (av_log_set_callback) sets it once its first decoder is open, or again.
class LibrarySilence {
 public:
  LibrarySilence();
  ~LibrarySilence();
  LibrarySilence(const LibrarySilence&) = delete;
  LibrarySilence& operator=(const LibrarySilence&) = delete;
};

}  // namespace cms
