// The search inside one tile, read straight from the mapped bytes: the lookup's hot
// path. Tile::locate and Tile::decode read every field through the bounds-checked
// BitReader; on the lookups a device makes per scan that costs far more than the
// checks are worth, so where a whole run lies inside the mapping these functions
// read it with plain loads, and near the end of the mapping they hand the rest of
// the search to the tile. They answer exactly as the tile's own search does (the
// tile file fuzzer compares the two on every key it tries).
#pragma once

#include <cstdint>

#include "tiles/tile.h"

namespace ZEL::Tiles {

// The block of `tile` where `key` can lie, as Tile::locate.
Tile::Block locateInPlace(const Tile& tile, const uint8_t* bytes, uint32_t byteCount, uint64_t key);

// Decodes from `block` on looking for `key`, as Tile::decode.
bool decodeInPlace(const Tile& tile, const uint8_t* bytes, uint32_t byteCount,
                   const Tile::Block& block, uint64_t key, StoredApData& data);

}  // namespace ZEL::Tiles
