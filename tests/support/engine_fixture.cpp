#include "support/engine_fixture.h"

#include <algorithm>

#include "local/location_history.h"
#include "tiles/tile_writer.h"

namespace ZEL::Testing {

void EngineTest::SetUp() {
    Local::resetLocationHistoriesForTesting();
    API::locationCache().clear();
    std::vector<Tiles::AccessPointPosition> positions;
    for (size_t i = 0; i < std::size(kKnown); ++i) {
        Tiles::AccessPointPosition position;
        position.mac = ap(kKnown[i], 0).mac;
        position.latitude = 48.137 + 0.0002 * static_cast<double>(i);
        position.longitude = 11.575 + 0.0003 * static_cast<double>(i % 2);
        position.quality = 40;
        positions.push_back(position);
    }
    auto built = Tiles::TileWriter::build(positions, kRealm);
    ASSERT_TRUE(built.ok) << built.error;
    platform_.addFile("/db/city.zel", std::move(built.bytes));
    API::localDetermination().setLocalFilesPath({"/db/city.zel"});
    API::remoteDetermination().setServerUrl(kServer);
    API::remoteDetermination().setProxy("", 0, "", "");
}

void EngineTest::TearDown() {
    API::localDetermination().setLocalFilesPath({});
    API::localDetermination().release();
}

Core::ApList EngineTest::knownScan(size_t count, int16_t rss) {
    Core::ApList scan;
    for (size_t i = 0; i < count; ++i) {
        scan.push_back(ap(kKnown[i], rss));
    }
    return scan;
}

void EngineTest::repeatScan(const Core::ApList& scan, size_t count) {
    platform_.wifi().scans.insert(platform_.wifi().scans.end(), count, scan);
}

size_t EngineTest::scansRead() {
    const auto& calls = platform_.wifi().calls;
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), "get"));
}

std::string EngineTest::locationAnswer(int nap, const std::string& city) {
    std::string address =
        city.empty() ? "" : "<street-address><city>" + city + "</city></street-address>";
    return serverAnswer("LocationRS", "<location nap='" + std::to_string(nap) +
                                          "'><latitude>52.52</latitude><longitude>13.405"
                                          "</longitude><hpe>42</hpe>" +
                                          address + "</location>");
}

}  // namespace ZEL::Testing
