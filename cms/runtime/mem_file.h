// Two readers with an interface like that of <cstdio>: a small file held in memory, and a large one
// read in spans.
#pragma once

#include <cstddef>
// Both name the platform's fclose in attributes, which a second function of that name makes
// ambiguous.
#include <cstdio>
#include <cwchar>

#include "cms/runtime/api.h"

// An object serves one thread at a time; fload and pfload create it, fclose destroys it. Paths as
// in cms/runtime/nativePath.h. Failures are told by the results; nothing throws.

struct _MEMFILE;
struct _MEMPARTIALFILE;

// Opens a file in a <cstdio> mode; nullptr when that fails. A file of 1 byte to 2 MiB is read whole
// and closed again (memory mode); any other stays open, and every call is the stream's (streaming
// mode).
CMS_API _MEMFILE* fload(const wchar_t* path, const wchar_t* mode);

// Memory mode: copies at most size * count bytes and returns how many *bytes*, not items; 0 at the
// end, behind it, and in front of the beginning. Streaming mode: items, as the stream counts them.
CMS_API std::size_t fread(void* buf, std::size_t size, std::size_t count, _MEMFILE* file);
// Memory mode: goes anywhere and never fails.
CMS_API int fseek(_MEMFILE* file, long offset, int origin);
CMS_API long ftell(_MEMFILE* file);
CMS_API int feof(_MEMFILE* file);  // memory mode: non-zero at the end and behind it
CMS_API int fclose(_MEMFILE* file);

// Opens a file in a <cstdio> mode for reading through a buffer of 2 MiB; nullptr when that fails.
CMS_API _MEMPARTIALFILE* pfload(const wchar_t* path, const wchar_t* mode);

// Returns the *bytes* copied, less than asked for only at the end of the file. Nothing is read when
// size * count is more than 2 MiB. Under bypass: items, straight from the stream.
CMS_API std::size_t fread(void* buf, std::size_t size, std::size_t count, _MEMPARTIALFILE* file);
// 0, or -1 with the position kept when it would lie in front of the beginning.
CMS_API int fseek(_MEMPARTIALFILE* file, long offset, int origin);
CMS_API long ftell(_MEMPARTIALFILE* file);
CMS_API int feof(_MEMPARTIALFILE* file);  // non-zero at the end and behind it
CMS_API int fclose(_MEMPARTIALFILE* file);

// On: reading goes on at the same place, but straight from the stream. Off: it goes on where the
// stream stands, through a buffer filled afresh.
CMS_API void fbypass(_MEMPARTIALFILE* file, int on);
// Only remembers the flag.
CMS_API void fdebug(_MEMPARTIALFILE* file, int on);
