// zel tiles info FILE --realm R
#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "spi/platform.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"
#include "tiles_commands.h"

namespace ZEL::Cli {
namespace {

struct InfoArguments {
    std::string file;
    std::string realm;
    bool json = false;
};

// What the records of one tile hold, decoded one after the other.
nlohmann::json describeTile(const ZEL::Tiles::Tile& tile, const Tiles::TileSpan& span) {
    double south = std::numeric_limits<double>::infinity(), north = -south;
    double west = south, east = -south;
    uint32_t decoded = tile.forEachRecord([&](uint64_t, const Tiles::StoredApData& data) {
        south = std::min(south, data.latitude);
        north = std::max(north, data.latitude);
        west = std::min(west, data.longitude);
        east = std::max(east, data.longitude);
    });
    nlohmann::json line = {{"tile", tile.tileIndex()},
                           {"offset", span.start},
                           {"bytes", span.bytes},
                           {"records", tile.recordCount()},
                           {"decoded_records", decoded},
                           {"blocks", tile.indexCount()},
                           {"precision", tile.precision()},
                           {"lat_bits", tile.latBits()},
                           {"lon_bits", tile.lonBits()},
                           {"quality_bits", tile.qualityBits()},
                           {"exponent_bits", tile.exponentBits()}};
    if (decoded > 0) {
        line["south"] = south;
        line["west"] = west;
        line["north"] = north;
        line["east"] = east;
    }
    return line;
}

void printLine(const nlohmann::json& line, bool json) {
    if (json) {
        std::printf("%s\n", line.dump().c_str());
        return;
    }
    if (line.contains("tile")) {
        std::printf("  tile %u: %u records, %u bytes, precision %u", line["tile"].get<unsigned>(),
                    line["records"].get<unsigned>(), line["bytes"].get<unsigned>(),
                    line["precision"].get<unsigned>());
        if (line.contains("south")) {
            std::printf(", %.6f..%.6f N, %.6f..%.6f E", line["south"].get<double>(),
                        line["north"].get<double>(), line["west"].get<double>(),
                        line["east"].get<double>());
        }
        std::printf("\n");
        return;
    }
    if (!line["valid"].get<bool>() || line.contains("error")) {
        std::printf("%s: %s\n", line["file"].get<std::string>().c_str(),
                    line["error"].get<std::string>().c_str());
        return;
    }
    std::printf("%s: valid, %zu tiles, %llu records, %llu bytes",
                line["file"].get<std::string>().c_str(), line["tiles"].get<size_t>(),
                line["records"].get<unsigned long long>(), line["bytes"].get<unsigned long long>());
    if (line.contains("bytes_per_ap")) {
        std::printf(" (%.2f bytes per AP)", line["bytes_per_ap"].get<double>());
    }
    std::printf("\n");
}

int info(const InfoArguments& arguments) {
    nlohmann::json summary = {{"file", arguments.file}, {"realm", arguments.realm}};
    auto reader = Tiles::LocalCompressedFileReader::create();
    bool valid = reader && reader->open(arguments.file, arguments.realm);
    summary["valid"] = valid;
    auto file = ZEL::SPI::platform().newFile();
    std::unique_ptr<ZEL::SPI::FileMapping> mapping;
    if (valid && file && file->open(arguments.file, ZEL::SPI::File::kRead) == 0) {
        mapping = file->map(0, file->size());
    }
    if (!mapping) {
        summary["error"] = valid ? "couldn't map the file" : "not a valid tile file for this realm";
        printLine(summary, arguments.json);
        return 1;
    }
    auto spans = Tiles::readTileDirectory(mapping->data(), mapping->length(), arguments.realm);
    Tiles::BitReader bits(mapping->data(), static_cast<uint32_t>(mapping->length()));
    std::vector<nlohmann::json> tiles;
    uint64_t records = 0;
    for (uint32_t i = 0; spans && i < spans->size(); ++i) {
        ZEL::Tiles::Tile tile;
        tile.parse((*spans)[i].start, &bits, i);
        records += tile.recordCount();
        tiles.push_back(describeTile(tile, (*spans)[i]));
    }
    summary["bytes"] = mapping->length();
    summary["tiles"] = tiles.size();
    summary["records"] = records;
    if (records > 0) {
        summary["bytes_per_ap"] = static_cast<double>(mapping->length()) / records;
    }
    printLine(summary, arguments.json);
    for (const nlohmann::json& tile : tiles) {
        printLine(tile, arguments.json);
    }
    return 0;
}

}  // namespace

void addInfo(CLI::App& tiles) {
    auto arguments = std::make_shared<InfoArguments>();
    CLI::App* command = tiles.add_subcommand("info", "Check a tile file and describe its tiles");
    command->add_option("file", arguments->file, "tile file")->required();
    command->add_option("--realm", arguments->realm, "realm name (empty: plain MAC keys)");
    command->add_flag("--json", arguments->json, "one JSON object for the file, then one per tile");
    command->callback([arguments] { setExitStatus(info(*arguments)); });
}

}  // namespace ZEL::Cli
