// Moving a finished file, also to another volume.
#pragma once

#include <string>

#include "cms/runtime/file_io.h"

namespace cms {

// Moves a file to a native path, replacing what has that name; 0, or the errno of what failed with
// the source where it was and the target as it was, or whole where it has replaced another. To
// another volume the file is copied to "<target>.moving", synced, renamed and only then removed:
// neither a crash nor a failure leaves half a file under the target's name, or no file at all. A
// source whose removal is refused is not left in two places: the copy goes again. EWOULDBLOCK while
// a file that has to be copied is being written.
int MoveFile(FileIo& io, const std::string& from, const std::string& to);

// What a move to another volume that was killed leaves in the target's folder, by its name.
bool IsMovingFile(const std::string& path);

// Removes a file that nobody holds: whoever still works on it does.
void RemoveLeftover(FileIo& io, const std::string& path);

// Removes those of killed moves from a folder.
void RemoveMovingFiles(FileIo& io, const std::string& folder);

}  // namespace cms
