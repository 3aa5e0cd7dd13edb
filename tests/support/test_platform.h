// The platform the tests run the engine on: files in memory, a scripted HTTP
// exchange, a scripted Wi-Fi adapter, a clock that moves only when told, and a
// wrapper that makes the Nth call of a service fail.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "spi/manual_clock.h"
#include "spi/platform.h"

namespace ZEL::Testing {

// What the Wi-Fi adapter plays, shared with the adapters handed out.
struct AdapterScript {
    std::deque<Core::ApList> scans;  // successive scan results; then no AP
    std::deque<bool> failOpen;       // successive open() results: true = fail
    std::deque<bool> failStart;      // successive startScan() results
    std::deque<bool> failGet;        // successive getScanResults() results
    std::vector<std::string> calls;  // "open", "close", "start", "get", "destroy"
};

// One exchange as the code under test made it.
struct HttpCall {
    int method = -1;
    std::string url;
    std::string proxy;  // as handed to open(), "" when direct
    int proxyPort = 0;
    std::string proxyUser;
    std::string proxyPassword;
    std::map<std::string, std::string> headers;
    std::string body;
};

// What one send() does: fail with a non-zero sendError, or answer.
struct HttpReply {
    int status = 200;
    std::string body;
    int sendError = 0;
    std::string statusText = "OK";
};

struct HttpScript {
    std::deque<HttpReply> replies;  // to successive sends; then sends fail with 10061
    std::vector<HttpCall> calls;
    void respond(HttpReply reply) { replies.push_back(std::move(reply)); }
};

// Installs itself as the platform in force while it lives.
class TestPlatform final : public SPI::Platform {
  public:
    TestPlatform();
    ~TestPlatform() override;
    TestPlatform(const TestPlatform&) = delete;
    TestPlatform& operator=(const TestPlatform&) = delete;

    // A file that newFile() objects open by `path`; its mappings end right before
    // an unreadable page, so a read past the end faults at once.
    void addFile(const std::string& path, std::vector<uint8_t> bytes) {
        (*files_)[path] = std::move(bytes);
    }

    HttpScript& http() { return *http_; }
    AdapterScript& wifi() { return *wifi_; }
    SPI::ManualClock& manualClock() { return clock_; }
    void setWifiPresent(bool present) { wifiPresent_ = present; }  // no adapter when false

    std::unique_ptr<SPI::File> newFile() override;
    std::unique_ptr<SPI::XmlHttpRequest> newHttpRequest() override;
    std::unique_ptr<SPI::XmlParser> newXmlParser() override;
    SPI::AdapterList wifiAdapters() override;
    SPI::Clock& clock() override { return clock_; }

  private:
    std::shared_ptr<std::map<std::string, std::vector<uint8_t>>> files_ =
        std::make_shared<std::map<std::string, std::vector<uint8_t>>>();
    std::shared_ptr<HttpScript> http_ = std::make_shared<HttpScript>();
    std::shared_ptr<AdapterScript> wifi_ = std::make_shared<AdapterScript>();
    SPI::ManualClock clock_;
    bool wifiPresent_ = true;
    SPI::Platform* previous_;
};

// Wraps the platform in force: the `n`th call (counting from 1) of the named
// service fails (null, or an empty adapter list), and with `forGood` every later
// one too. Services: "file", "http", "xml", "wifi". Installed while it lives.
class FailingPlatform final : public SPI::PlatformWrapper {
  public:
    FailingPlatform(std::string service, int n, bool forGood = false);
    ~FailingPlatform() override;
    std::unique_ptr<SPI::File> newFile() override;
    std::unique_ptr<SPI::XmlHttpRequest> newHttpRequest() override;
    std::unique_ptr<SPI::XmlParser> newXmlParser() override;
    SPI::AdapterList wifiAdapters() override;

  private:
    bool fails(const char* service);
    std::string service_;
    int n_;
    bool forGood_;
    int calls_ = 0;
    SPI::Platform* previous_;
};

// A location server's answer: `body` inside the element `root`, in the protocol's namespace.
std::string serverAnswer(const std::string& root, const std::string& body);

// A scan record for tests: MAC given as printed text, RSS in dBm.
Core::ScannedAP ap(const char* macText, int16_t rss);

}  // namespace ZEL::Testing
