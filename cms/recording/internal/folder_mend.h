// Makes the databases of a recording folder agree with each other.
#pragma once

#include <string>

namespace cms {

enum class FolderMend { kSound, kMended, kFailed };

// Cuts the torn tail of the folder's record list, and makes the folder's span that of the records
// whose times are set. Nothing is done without a list. kMended when the span was wrong. Takes the
// record databases' lock.
FolderMend MendFolderDatabases(const std::wstring& folder);

}  // namespace cms
