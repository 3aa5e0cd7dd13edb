// Text helpers: narrow/wide conversion and where the library's own file lives.
#pragma once

#include <string>

namespace ZEL::SPI {

// Narrow text is UTF-8 throughout the library; wide text is the platform's
// wchar_t (UTF-32 on Linux). Both return the empty text when the input cannot be
// converted (an invalid UTF-8 sequence, an unpaired code point).
std::wstring toWide(const std::string& narrow);
std::string toNarrow(const std::wstring& wide);

// Directory of the loaded module that holds this code (libzelapi.so, or the
// program the static libraries were linked into), with its trailing '/'.
// "./" when the module's path has no separator or cannot be found.
std::string moduleDirectory();

}  // namespace ZEL::SPI
