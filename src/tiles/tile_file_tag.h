// The tag that names one tile file's content, for downloads: a server sends it as
// the file's ETag and a client computes it over the copy it holds to ask whether
// it changed. The first 128 bits of the SHA-256 of the bytes, in lower-case hex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ZEL::Tiles {

std::string tileFileTag(const uint8_t* bytes, size_t size);

}  // namespace ZEL::Tiles
