// Time from ZEL_location to its return, on the bundled sample city: once with the
// on-device determination, once asking a location server on loopback (a street
// address is wanted, so only the server can answer). The scans come from the
// sample walk through the scan-source extension; the clock is the real one, so the
// scan loop's 50 ms settle time after the first scan trigger is part of each call.
//
//   build/bin/locate_bench
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <fstream>
#include <thread>

#include "local/scan_recording.h"
#include "remote/request_messages.h"
#include "zelapi.h"
#include "zelapi_ext.h"

namespace {

using namespace ZEL;

const std::string kSource = ZEL_SOURCE_DIR;

std::vector<ZEL::Core::ApList> loadWalk() {
    std::ifstream file(kSource + "/examples/sample-walk.jsonl");
    Local::ScanRecordingReader reader(file);
    std::vector<ZEL::Core::ApList> scans;
    while (auto item = reader.next()) {
        if (item->scan)
            scans.push_back(item->scan->aps);
    }
    return scans;
}

struct Walk {
    std::vector<ZEL::Core::ApList> scans = loadWalk();
    size_t next = 0;
};

int replay(void* argument, ZEL_APEntry* aps, unsigned int capacity, unsigned int* count) {
    auto* walk = static_cast<Walk*>(argument);
    const ZEL::Core::ApList& scan = walk->scans[walk->next++ % walk->scans.size()];
    *count = 0;
    for (const ZEL::Core::ScannedAP& ap : scan) {
        if (*count == capacity)
            break;
        std::copy(ap.mac.begin(), ap.mac.end(), aps[*count].mac);
        aps[*count].rss = ap.rss;
        ++*count;
    }
    return 0;
}

void runLocate(benchmark::State& state, ZEL_StreetAddressLookup lookup) {
    Walk walk;
    ZEL_set_scan_source(replay, &walk);
    std::string db = kSource + "/examples/sample-city.zel";
    const char* paths[] = {db.c_str(), nullptr};
    ZEL_set_local_files_path(paths);
    ZEL_Authentication auth{"bench", ""};
    int failures = 0;
    for (auto _ : state) {
        ZEL_Location* location = nullptr;
        if (ZEL_location(&auth, lookup, &location) != ZEL_OK)
            ++failures;
        benchmark::DoNotOptimize(location);
        ZEL_free_location(location);
    }
    state.counters["failures"] = failures;
    ZEL_set_scan_source(nullptr, nullptr);
}

void BM_LocateOnDevice(benchmark::State& state) {
    runLocate(state, ZEL_NO_STREET_ADDRESS_LOOKUP);
}

void BM_LocateLoopbackServer(benchmark::State& state) {
    httplib::Server server;
    const std::string answer =
        "<?xml version='1.0'?><LocationRS xmlns='" + std::string(Remote::kRequestNamespaceUri) +
        "'><location nap='12'><latitude>46.0043</latitude><longitude>8.9934</longitude>"
        "<hpe>25</hpe><street-address><city>Sample City</city></street-address></location>"
        "</LocationRS>";
    server.Post("/zel2/location", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(answer, "text/xml");
    });
    int port = server.bind_to_any_port("127.0.0.1");
    std::thread thread([&] { server.listen_after_bind(); });
    ZEL_set_server_url(("http://127.0.0.1:" + std::to_string(port) + "/zel2").c_str());
    runLocate(state, ZEL_FULL_STREET_ADDRESS_LOOKUP);
    server.stop();
    thread.join();
}

// The anchor: the fixed settle time the scan loop waits after triggering a scan.
void BM_SettleTimeAnchor(benchmark::State& state) {
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

}  // namespace

BENCHMARK(BM_SettleTimeAnchor)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_LocateOnDevice)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_LocateLoopbackServer)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK_MAIN();
