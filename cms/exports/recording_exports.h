// Exported helpers for recording files.
#pragma once

#include <cstdint>
#include <string>

#include "cms/runtime/api.h"

// Paths as in cms/runtime/nativePath.h; a null pointer is an empty text. Any thread may call them.
extern "C" {

// The byte offset of the first frame header in the head of a .drv file (the first 4080 places; its
// first check byte is tested). 0, the start of the file, when there is none, when the file is
// shorter than 4096 bytes, and when it cannot be read.
CMS_API std::uint32_t GetFirstDrvBaiscPos(const wchar_t* path);

// The name of the next file of the same recording: the number between the last "_" and the last "."
// plus one. 1, or 0 with an empty result when the name has no such place.
CMS_API int CMSGetNewDrvFilename(const wchar_t* name, std::wstring& out);

// Makes the index beside a .drv file fit it again after the file was cut, moved or left by a crash:
// records that still fit are kept, missing ones are added, others go. The index is replaced in one
// step; the .drv file is only read. 1, or 0 with the index as it was (the file is being recorded,
// cannot be read, or the disk is full).
CMS_API int ModifyDrvIdxFile(const wchar_t* drvPath);

// Deletes the index beside a .drv file. 1, or 0 when there is none or it cannot be deleted.
CMS_API int RemoveDrvIdxFile(const wchar_t* drvPath);

}  // extern "C"
