// stRecordParam, what the client application decides about a site's recordings.
#pragma once

struct stRecordParam {
  // The front of every file's path: a folder that exists and the beginning of the names in it, for
  // example "..\recordings\20240229\Rec_Site1_". "/" separates as well as "\", and a drive such as
  // "C:" is left out. A relative path counts from the working folder. With the time and the
  // extension at most 259 characters.
  wchar_t path[260] = {};
  int fileSizeMiB = 256;  // a file ends with the first key frame behind it; at least 1
  int secondLimit = 1;    // at least 1; with 1, files have no stream header blocks
  bool indexKeyFramesOnly = false;
};
