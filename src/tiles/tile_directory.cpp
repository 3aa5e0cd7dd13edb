#include "tiles/tile_directory.h"

#include <algorithm>

#include "tiles/tile_format.h"

namespace ZEL::Tiles {
namespace {

uint32_t littleEndian(const uint8_t* bytes, int count) {
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

}  // namespace

std::optional<std::vector<TileSpan>> readTileDirectory(const uint8_t* data, uint64_t size,
                                                       std::string_view realm) {
    using namespace TileFormat;
    if (size <= kMagic.size() || !std::equal(kMagic.begin(), kMagic.end(), data) ||
        size < kDigestBytes || size > kMaxFileBytes) {
        return std::nullopt;
    }
    Digest digest = realmDigest(realm);
    if (!std::equal(digest.begin(), digest.end(), data + size - kDigestBytes)) {
        return std::nullopt;
    }
    if (size < kTrailerBytes) {
        return std::nullopt;
    }
    uint32_t count = littleEndian(data + size - kTrailerBytes, 2);
    uint64_t directoryBytes = uint64_t{4} * count;
    if (kMagic.size() + directoryBytes + kTrailerBytes > size) {
        return std::nullopt;
    }
    uint64_t directoryStart = size - kTrailerBytes - directoryBytes;
    std::vector<TileSpan> tiles;
    tiles.reserve(count);
    uint64_t start = kMagic.size();
    for (uint32_t i = 0; i < count; ++i) {
        if (start >= directoryStart) {
            return std::nullopt;
        }
        uint32_t bytes = littleEndian(data + directoryStart + 4 * i, 4);
        tiles.push_back({static_cast<uint32_t>(start), bytes});
        start += bytes;
    }
    return tiles;
}

}  // namespace ZEL::Tiles
