// The data root: the folder in which recordings and their databases live, whatever folder the
// process works in.
#pragma once

#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// Below a root DIR lie DIR/EventList0, DIR/RecFolderDB0, DIR/GapLog0 and the recordings,
// DIR/recordings/YYYYMMDD/... Relative paths, in records as in calls, count from DIR/recordings:
// "..\EventList0" is DIR/EventList0, "..\recordings\20261121\x.drv" and "20261121\x.drv" are in
// DIR/recordings/20261121. Records of files below DIR are written relative, so DIR can be moved.
// Searches look into DIR/recordings also when no folder list leads there.
//
// A site, a search and whatever else takes a root of its own uses that one; the others use that of
// the process. Without either, relative paths count from the working folder and databases lie
// beside it.
//
// Roots are native paths in UTF-8 without a "\"; a relative one counts from where the process works
// when it is given. They need not exist: recording makes them.

// For the process; an empty folder takes it away. Before anything is recorded, searched or played.
CMS_API void SetDataRoot(const std::string& folder);
CMS_API std::string GetDataRoot();  // absolute; empty: there is none

// The native path of what a record or a call names, with the root given, or else that of the
// process; without either it stays relative.
CMS_API std::string PathInData(std::wstring_view systemPath, const std::string& root = {});

}  // namespace cms
