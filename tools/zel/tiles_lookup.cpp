// zel tiles lookup FILE --realm R MAC...
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles_commands.h"

namespace ZEL::Cli {
namespace {

struct LookupArguments {
    std::string file;
    std::string realm;
    std::vector<std::string> macs;
    bool json = false;
};

void print(const std::string& asked, const ZEL::Core::MacAddress& mac,
           const std::optional<Tiles::StoredApData>& found, bool json) {
    nlohmann::json line = {{"mac", ZEL::Core::macText(mac)}, {"found", found.has_value()}};
    if (found) {
        line["latitude"] = found->latitude;
        line["longitude"] = found->longitude;
        line["quality"] = found->quality;
        line["signal_exponent"] = found->signalExponent;
    }
    if (json) {
        std::printf("%s\n", line.dump().c_str());
    } else if (found) {
        std::printf("%s %.17g %.17g quality %u exponent %.17g\n", asked.c_str(), found->latitude,
                    found->longitude, found->quality, found->signalExponent);
    } else {
        std::printf("%s not found\n", asked.c_str());
    }
}

int lookup(const LookupArguments& arguments) {
    auto reader = Tiles::LocalCompressedFileReader::create();
    if (!reader || !reader->open(arguments.file, arguments.realm)) {
        std::fprintf(stderr, "zel tiles lookup: %s is not a valid tile file for realm '%s'\n",
                     arguments.file.c_str(), arguments.realm.c_str());
        return 1;
    }
    int status = 0;
    for (const std::string& text : arguments.macs) {
        auto mac = ZEL::Core::parseMacText(text);
        if (!mac) {
            std::fprintf(stderr, "zel tiles lookup: '%s' is not a MAC address\n", text.c_str());
            status = 1;
            continue;
        }
        print(text, *mac, reader->lookup(*mac), arguments.json);
    }
    return status;
}

}  // namespace

void addLookup(CLI::App& tiles) {
    auto arguments = std::make_shared<LookupArguments>();
    CLI::App* command = tiles.add_subcommand("lookup", "Look access points up in a tile file");
    command->add_option("file", arguments->file, "tile file")->required();
    command->add_option("macs", arguments->macs, "MACs: 12 hex digits, ':' or '-' allowed")
        ->required();
    command->add_option("--realm", arguments->realm, "realm name (empty: plain MAC keys)");
    command->add_flag("--json", arguments->json, "print one JSON object per MAC");
    command->callback([arguments] { setExitStatus(lookup(*arguments)); });
}

}  // namespace ZEL::Cli
