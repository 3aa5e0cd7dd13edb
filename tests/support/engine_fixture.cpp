#include "support/engine_fixture.h"

#include <cstdio>

#include "local/location_history.h"
#include "remote/request_messages.h"
#include "tiles/tile_writer.h"

namespace ZEL::Testing {

void EngineTest::SetUp() {
    scopedClock_ = std::make_unique<SPI::ScopedClock>(clock_);
    Local::resetLocationHistoriesForTesting();
    API::locationCache().clear();
    SPI::setAdapterEnumerator(scriptedEnumerator(script_));

    std::vector<Tiles::AccessPointPosition> positions;
    for (size_t i = 0; i < std::size(kKnown); ++i) {
        Tiles::AccessPointPosition position;
        position.mac = ap(kKnown[i], 0).mac;
        position.latitude = 48.137 + 0.0002 * static_cast<double>(i);
        position.longitude = 11.575 + 0.0003 * static_cast<double>(i % 2);
        position.quality = 40;
        position.signalExponent = 0.25;
        positions.push_back(position);
    }
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    tilePath_ =
        ::testing::TempDir() + "engine_" + test->test_suite_name() + "_" + test->name() + ".zel";
    auto written = Tiles::TileWriter::writeFile(tilePath_, positions, kRealm);
    ASSERT_TRUE(written.ok) << written.error;
    const char* paths[] = {tilePath_.c_str(), nullptr};
    API::localDetermination().setLocalFilesPath(paths);

    server_ = TestHttpServer::start();
    ASSERT_NE(server_, nullptr);
    API::remoteDetermination().setServerUrl(server_->url() + "/zel2");
    API::remoteDetermination().setProxy("", 0, "", "");
}

void EngineTest::TearDown() {
    SPI::setAdapterEnumerator({});
    API::localDetermination().setLocalFilesPath(nullptr);
    API::remoteDetermination().setServerUrl("");
    std::remove(tilePath_.c_str());
}

Core::ApList EngineTest::knownScan(size_t count, int16_t rss) {
    Core::ApList scan;
    for (size_t i = 0; i < count; ++i) {
        scan.push_back(ap(kKnown[i], rss));
    }
    return scan;
}

void EngineTest::repeatScan(const Core::ApList& scan, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        script_->scans.push_back(scan);
    }
}

std::string EngineTest::locationAnswer(int nap, const std::string& city) {
    std::string address =
        city.empty() ? "" : "<street-address><city>" + city + "</city></street-address>";
    return "<?xml version='1.0'?><LocationRS xmlns='" + std::string(Remote::kRequestNamespaceUri) +
           "'><location nap='" + std::to_string(nap) +
           "'><latitude>52.52</latitude><longitude>13.405</longitude><hpe>42</hpe>" + address +
           "</location></LocationRS>";
}

std::string EngineTest::errorAnswer() {
    return "<?xml version='1.0'?><LocationRS xmlns='" + std::string(Remote::kRequestNamespaceUri) +
           "'><error/></LocationRS>";
}

}  // namespace ZEL::Testing
