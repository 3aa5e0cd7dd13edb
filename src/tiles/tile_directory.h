// The frame of a tile file: magic, realm digest, tile count and directory
// (tile_format.h), checked before any tile is parsed.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ZEL::Tiles {

struct TileSpan {
    uint32_t start = 0;  // byte offset of the tile
    uint32_t bytes = 0;  // its size as the directory gives it
};

// The tiles of the `size` bytes at `data` for `realm`, in file order, or nothing
// when the magic, the digest (a file of another realm) or the directory is wrong.
// Every tile starts inside the tile area (after the magic, before the directory);
// the directory's last size is not checked, since nothing is located by it.
std::optional<std::vector<TileSpan>> readTileDirectory(const uint8_t* data, uint64_t size,
                                                       std::string_view realm);

}  // namespace ZEL::Tiles
