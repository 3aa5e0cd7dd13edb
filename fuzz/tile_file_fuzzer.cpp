// Opens arbitrary bytes as a tile file and looks MACs up in it.
//
// Input: one selector byte, then the file. Selector bit 0 picks the realm (plain
// or hashed); bit 1 appends the realm's digest to the file, so that most inputs
// get past the digest check and exercise the tile parser and the lookups.
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/test_platform.h"
#include "tiles/in_place_search.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"
#include "tiles/tile_format.h"

using namespace ZEL;
using namespace ZEL::Tiles;

namespace {

void lookUp(Tiles::LocalCompressedFileReader& reader, const Core::MacAddress& mac) {
    std::optional<Tiles::StoredApData> found = reader.lookup(mac);
    if (found && (found->quality < Tiles::TileFormat::kQualityOffset ||
                  !(found->signalExponent >= Tiles::TileFormat::kExponentFloor))) {
        abort();  // every decoded value lies in the range the format can express
    }
}

// The in-place search, which reads the mapping directly where it can, must answer
// exactly as the tile's own search, which checks every read.
void compareSearches(const Tile& tile, const std::vector<uint8_t>& file, uint64_t key) {
    const auto byteCount = static_cast<uint32_t>(file.size());
    Tiles::StoredApData fast, checked;
    bool foundFast = decodeInPlace(tile, file.data(), byteCount,
                                   locateInPlace(tile, file.data(), byteCount, key), key, fast);
    bool foundChecked = tile.decode(tile.locate(key), key, checked);
    if (foundFast != foundChecked ||
        (foundFast &&
         (fast.latitude != checked.latitude || fast.longitude != checked.longitude ||
          fast.quality != checked.quality || fast.signalExponent != checked.signalExponent))) {
        abort();
    }
}

// The inspection path of `zel tiles info`: decode every record of every tile, and
// search each tile for its keys, their neighbours and its range's ends.
void decodeAll(const std::vector<uint8_t>& file, const std::string& realm) {
    auto spans = Tiles::readTileDirectory(file.data(), file.size(), realm);
    if (!spans) {
        return;
    }
    Tiles::BitReader bits(file.data(), static_cast<uint32_t>(file.size()));
    for (uint32_t i = 0; i < spans->size(); ++i) {
        Tile tile;
        if (tile.parse((*spans)[i].start, &bits, i)) {
            std::vector<uint64_t> keys{0, tile.firstKey(), tile.lastKey(), tile.lastKey() + 1};
            tile.forEachRecord([&](uint64_t key, const Tiles::StoredApData&) {
                if (keys.size() < 64) {
                    keys.insert(keys.end(), {key - 1, key, key + 1});
                }
            });
            for (uint64_t key : keys) {
                compareSearches(tile, file, key);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Lookups in the hashed form cost one digest per distinct tile origin, and a
    // large hostile file can hold thousands: keep inputs small enough to stay fast.
    if (size < 1 || size > 16384) {
        return 0;
    }
    std::string realm = (data[0] & 1) ? "city" : "";
    std::vector<uint8_t> file(data + 1, data + size);
    if (data[0] & 2) {
        Tiles::TileFormat::Digest digest = Tiles::TileFormat::realmDigest(realm);
        file.insert(file.end(), digest.begin(), digest.end());
    }
    static Testing::TestPlatform platform;
    static auto reader = Tiles::LocalCompressedFileReader::create();
    platform.addFile("fuzz.zel", file);
    if (file.empty() || !reader->open("fuzz.zel", realm)) {
        return 0;
    }
    // MACs from the file itself (index keys are plain MACs in the plain form),
    // and fixed ones at the edges of the key space.
    for (size_t offset = 4; offset + 6 <= file.size() && offset < 200; offset += 7) {
        Core::MacAddress mac;
        std::memcpy(mac.data(), file.data() + offset, 6);
        lookUp(*reader, mac);
    }
    lookUp(*reader, Core::MacAddress{});
    lookUp(*reader, Core::MacAddress{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    decodeAll(file, realm);
    return 0;
}
