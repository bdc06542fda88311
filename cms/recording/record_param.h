// stRecordParam, what the client application decides about a site's recordings.
#pragma once

#include <string>

#include "cms/runtime/api.h"

struct stRecordParam {
  // The front of every file's path: a folder that exists and the beginning of the names in it, for
  // example "..\recordings\20240229\Rec_Site1_". "/" separates as well as "\", and a drive such as
  // "C:" is left out. A relative path counts from the data root's recordings, without a root from
  // the working folder (cms/recording/data_root.h). With the time and the extension at most 259
  // characters.
  wchar_t path[260] = {};
  int fileSizeMiB = 256;  // a file ends with the first key frame behind it; at least 1
  int secondLimit = 1;    // at least 1; with 1, files have no stream header blocks
  bool indexKeyFramesOnly = false;

  // The same path, native and in UTF-8. False, and no path, when it has more than 259 characters.
  CMS_API bool SetPath(const std::string& nativePath);
};
