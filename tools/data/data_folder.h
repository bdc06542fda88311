// The folder that --data names: where recordings and their databases live.
#pragma once

#include <string>

#include "tools/support/options.h"

namespace tools {

// DIR/EventList0, DIR/RecFolderDB0 and DIR/recordings/YYYYMMDD/Rec_Site<N>_<stamp>.drv.
struct DataFolder {
  std::string path;        // DIR, absolute
  std::string recordings;  // DIR/recordings, absolute
};

enum class DataFolderUse {
  kRead,    // something was recorded into it
  kChange,  // and its files and databases may be changed
  kCreate,  // made when it is missing, to record into
};

// Adds the required option --data DIR. What it says reaches EnterDataFolder.
Option AddDataOption(Command app, std::string& dir);

// Where a path of the command line lies. An empty path stays empty.
std::string AbsolutePath(const std::string& path);

// Makes DIR the data root of the process; once, before anything is recorded, searched or played.
// Throws std::runtime_error, which names DIR and says what to do, when it is missing, no folder,
// may not be changed though `use` wants that, or cannot be kept in records (a "\" in it, or too
// long).
DataFolder EnterDataFolder(const std::string& dir, DataFolderUse use);

}  // namespace tools
