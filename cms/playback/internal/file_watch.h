// FileWatch: the kernel tells which files have changed, so that nobody has to ask for each of them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace cms {

// Watches end with the first change: writing, truncation, other attributes, another name, removal,
// the end of the file system. What is written through a mapping of a file is not seen. Takes one
// descriptor from the first watch on; what waits in it while nobody asks is at most two messages
// for each watch. A process that was forked off starts without watches. One thread at a time.
class FileWatch {
 public:
  static constexpr int kNone = -1;

  FileWatch() = default;
  ~FileWatch() { Close(); }
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // Whether nobody can change the files of a folder without this system's kernel taking part.
  static bool SeesAll(const std::string& folder);

  // The number of a new watch on a regular file, never given again; kNone when there can be none:
  // the limits of the system are reached, the file is watched under another name, it is a link.
  // Whoever adds a watch looks at the file afterwards: what happened before is not told.
  int Add(const std::string& path);
  void Remove(int watch);

  // The watches that ended. False when all have, because it is not known which.
  bool Collect(std::vector<int>& ended);

 private:
  bool Open();
  void Close();

  int handle_ = -1;
  pid_t owner_ = 0;
  bool exhausted_ = false;  // a limit was met since the last Collect
};

}  // namespace cms
