// Parses arbitrary text as an access-point CSV; whatever comes out is written
// as a tile file and every access point must be found in it again.
#include <cstdint>
#include <string_view>

#include "memory_file.h"
#include "tiles/ap_csv.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_writer.h"

using namespace ZEL;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 16384) {
        return 0;
    }
    Tiles::ApCsvResult csv =
        Tiles::parseAccessPointCsv(std::string_view(reinterpret_cast<const char*>(data), size));
    Tiles::TileWriterOptions options;
    options.blockRecords = 2;
    options.tileRecords = 5;
    Tiles::TileWriteResult written = Tiles::TileWriter::build(csv.accessPoints, "", options);
    if (!written.ok) {
        return 0;
    }
    static MemoryFile memory;
    static auto reader = Tiles::LocalCompressedFileReader::create();
    if (!reader->open(memory.set(written.bytes.data(), written.bytes.size()), "")) {
        abort();  // the writer made a file the reader refuses
    }
    for (const Tiles::AccessPointPosition& ap : csv.accessPoints) {
        if (reader->lookup(ap.mac).mac != ap.mac) {
            abort();  // an access point written is not found
        }
    }
    return 0;
}
