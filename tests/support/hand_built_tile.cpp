#include "support/hand_built_tile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tiles/bit_writer.h"
#include "tiles/tile_format.h"

namespace ZEL::Testing {

std::vector<uint8_t> encodeHandTile(const HandTile& tile) {
    Tiles::BitWriter records;
    std::vector<uint64_t> blockBits;
    size_t recordCount = 0;
    for (const HandBlock& block : tile.blocks) {
        uint64_t start = records.bitCount();
        for (const HandRecord& record : block.records) {
            records.writeVarint(record.keyDelta);
            records.write(record.latOffset, tile.latBits);
            records.write(record.lonOffset, tile.lonBits);
            records.write(record.qualityCode, tile.qualityBits);
            records.write(record.exponentCode, tile.exponentBits);
            ++recordCount;
        }
        blockBits.push_back(records.bitCount() - start);
    }
    Tiles::BitWriter out;
    out.write(tile.precision, 3);
    out.writeSigned(tile.latBase, tile.precision + 19);
    out.writeSigned(tile.lonBase, tile.precision + 20);
    out.write(tile.latBits, 5);
    out.write(tile.lonBits, 5);
    out.write(tile.qualityBits, 3);
    out.write(tile.exponentBits, 3);
    out.align();
    out.writeVarint(tile.recordCount >= 0 ? static_cast<uint64_t>(tile.recordCount) : recordCount);
    out.writeVarint(tile.indexCount >= 0 ? static_cast<uint64_t>(tile.indexCount)
                                         : tile.blocks.size());
    for (size_t i = 0; i < tile.blocks.size(); ++i) {
        out.write(tile.blocks[i].key, 48);
        if (i > 0) {
            out.write(blockBits[i - 1], 16);
        }
    }
    out.writeBytes(records.bytes());
    return out.take();
}

std::vector<uint8_t> handFile(const std::vector<std::vector<uint8_t>>& tiles,
                              const std::string& realm) {
    Tiles::BitWriter out;
    out.writeBytes({'Z', 'E', 'L', '2'});
    for (const auto& tile : tiles) {
        out.writeBytes(tile);
    }
    for (const auto& tile : tiles) {
        out.write(tile.size(), 32);
    }
    out.write(tiles.size(), 16);
    const auto digest = Tiles::TileFormat::realmDigest(realm);
    out.writeBytes({digest.begin(), digest.end()});
    return out.take();
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-test-XXXXXX").string();
    path_ = mkdtemp(pattern.data()) ? pattern : std::string();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return file;
}

}  // namespace ZEL::Testing
