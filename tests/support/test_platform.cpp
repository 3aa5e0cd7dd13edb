#include "support/test_platform.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "remote/request_messages.h"

namespace ZEL::Testing {
namespace {

using FileTable = std::map<std::string, std::vector<uint8_t>>;

// A copy of the mapped range in pages of its own that ends exactly where a page
// that cannot be read begins.
class GuardedMapping final : public SPI::FileMapping {
  public:
    GuardedMapping(const uint8_t* bytes, size_t length) : length_(length) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t dataBytes = (length + page - 1) / page * page;
        total_ = dataBytes + page;
        void* area =
            mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) {
            throw std::runtime_error("test mapping: mmap failed");
        }
        area_ = static_cast<uint8_t*>(area);
        std::memcpy(area_ + dataBytes - length, bytes, length);
        mprotect(area_ + dataBytes, page, PROT_NONE);
        mprotect(area_, dataBytes, PROT_READ);
        data_ = area_ + dataBytes - length;
    }
    ~GuardedMapping() override { munmap(area_, total_); }
    const uint8_t* data() const override { return data_; }
    size_t length() const override { return length_; }

  private:
    uint8_t* area_;
    uint8_t* data_;
    size_t total_;
    size_t length_;
};

// Read-only: the code under test only reads and maps tile files.
class MemoryFile final : public SPI::File {
  public:
    explicit MemoryFile(std::shared_ptr<FileTable> files) : files_(std::move(files)) {}

    int open(const std::string& path, uint32_t mode) override {
        found_ = (mode & kRead) != 0 && (mode & (kWrite | kCreate | kTruncate)) == 0
                     ? files_->find(path)
                     : files_->end();
        position_ = 0;
        return found_ == files_->end() ? -1 : 0;
    }
    int close() override {
        found_ = files_->end();
        return 0;
    }
    uint64_t size() override { return found_ == files_->end() ? kSizeFailure : bytes().size(); }
    size_t read(void* buffer, size_t count) override {
        if (found_ == files_->end() || position_ >= bytes().size()) {
            return 0;
        }
        size_t done = std::min(count, bytes().size() - position_);
        std::memcpy(buffer, bytes().data() + position_, done);
        position_ += done;
        return done;
    }
    size_t write(const void*, size_t) override { return 0; }
    std::unique_ptr<SPI::FileMapping> map(uint64_t offset, size_t length) override {
        if (found_ == files_->end() || length == 0 || offset > bytes().size() ||
            length > bytes().size() - offset) {
            return nullptr;
        }
        return std::make_unique<GuardedMapping>(bytes().data() + offset, length);
    }

  private:
    const std::vector<uint8_t>& bytes() const { return found_->second; }
    std::shared_ptr<FileTable> files_;
    FileTable::iterator found_ = files_->end();
    size_t position_ = 0;
};

class ScriptedHttpRequest final : public SPI::XmlHttpRequest {
  public:
    explicit ScriptedHttpRequest(std::shared_ptr<HttpScript> script) : script_(std::move(script)) {}

    // Synchronous only: the engine never sends asynchronously.
    void setCompletionCallback(CompletionCallback, void*) override {}
    int open(int method, const std::string& url, const std::string& proxy, int proxyPort,
             const std::string& proxyUser, const std::string& proxyPassword, bool async) override {
        int result = open(method, url, async);
        std::tie(call_.proxy, call_.proxyPort, call_.proxyUser, call_.proxyPassword) =
            std::tie(proxy, proxyPort, proxyUser, proxyPassword);
        return result;
    }
    int open(int method, const std::string& url, bool async) override {
        abort();
        call_ = HttpCall{};
        call_.method = method;
        call_.url = url;
        opened_ =
            !async && method >= kGet && method <= kHead && url.find("://") != std::string::npos;
        return opened_ ? 0 : 22;
    }
    void setRequestHeader(const std::string& name, const std::string& value) override {
        call_.headers[name] = value;
    }
    int send(const void* data, size_t length) override {
        call_.body.assign(static_cast<const char*>(data), length);
        script_->calls.push_back(call_);
        if (!opened_) {
            return -1;
        }
        HttpReply reply{0, "", 10061, ""};
        if (!script_->replies.empty()) {
            reply = script_->replies.front();
            script_->replies.pop_front();
        }
        if (reply.sendError == 0) {
            answer_ = reply;
        }
        return reply.sendError;
    }
    void abort() override {
        answer_ = {-1, "", 0, ""};
        opened_ = false;
    }
    std::string getAllResponseHeaders() const override { return ""; }
    std::string getResponseHeader(const std::string&) const override { return ""; }
    int responseBody(std::string_view& body) const override {
        body = answer_.body;
        return 0;
    }
    int status() const override { return answer_.status; }
    std::string statusText() const override { return answer_.statusText; }

  private:
    std::shared_ptr<HttpScript> script_;
    HttpCall call_;
    bool opened_ = false;
    HttpReply answer_{-1, "", 0, ""};
};

// Records `call`; the error `code` when the script's next entry says fail, else 0.
int scripted(AdapterScript& script, const char* call, std::deque<bool>* fails, int code) {
    script.calls.push_back(call);
    bool fail = fails && !fails->empty() && fails->front();
    if (fails && !fails->empty()) {
        fails->pop_front();
    }
    return fail ? code : 0;
}

class ScriptedWifiAdapter final : public SPI::WifiAdapter {
  public:
    explicit ScriptedWifiAdapter(std::shared_ptr<AdapterScript> script) : s_(std::move(script)) {}
    ~ScriptedWifiAdapter() override { s_->calls.push_back("destroy"); }
    std::string name() const override { return "scripted0"; }
    int open() override { return scripted(*s_, "open", &s_->failOpen, 5); }
    void close() override { scripted(*s_, "close", nullptr, 0); }
    int startScan() override { return scripted(*s_, "start", &s_->failStart, 21); }
    int getScanResults(Core::ApList& list) override {
        list.clear();
        if (int error = scripted(*s_, "get", &s_->failGet, 31)) {
            return error;
        }
        if (!s_->scans.empty()) {
            list = std::move(s_->scans.front());
            s_->scans.pop_front();
        }
        return 0;
    }

  private:
    std::shared_ptr<AdapterScript> s_;
};

}  // namespace

TestPlatform::TestPlatform() : previous_(SPI::setPlatform(this)) {}

TestPlatform::~TestPlatform() {
    SPI::setPlatform(previous_);
}

std::unique_ptr<SPI::File> TestPlatform::newFile() {
    return std::make_unique<MemoryFile>(files_);
}

std::unique_ptr<SPI::XmlHttpRequest> TestPlatform::newHttpRequest() {
    return std::make_unique<ScriptedHttpRequest>(http_);
}

std::unique_ptr<SPI::XmlParser> TestPlatform::newXmlParser() {
    return SPI::systemPlatform().newXmlParser();  // the real parser of the system
}

SPI::AdapterList TestPlatform::wifiAdapters() {
    SPI::AdapterList adapters;
    if (wifiPresent_) {
        adapters.push_back(std::make_unique<ScriptedWifiAdapter>(wifi_));
    }
    return adapters;
}

FailingPlatform::FailingPlatform(std::string service, int n, bool forGood)
    : PlatformWrapper(SPI::platform()),
      service_(std::move(service)),
      n_(n),
      forGood_(forGood),
      previous_(SPI::setPlatform(this)) {}

FailingPlatform::~FailingPlatform() {
    SPI::setPlatform(previous_);
}

bool FailingPlatform::fails(const char* service) {
    return service_ == service && (++calls_ == n_ || (forGood_ && calls_ > n_));
}

std::unique_ptr<SPI::File> FailingPlatform::newFile() {
    return fails("file") ? nullptr : PlatformWrapper::newFile();
}

std::unique_ptr<SPI::XmlHttpRequest> FailingPlatform::newHttpRequest() {
    return fails("http") ? nullptr : PlatformWrapper::newHttpRequest();
}

std::unique_ptr<SPI::XmlParser> FailingPlatform::newXmlParser() {
    return fails("xml") ? nullptr : PlatformWrapper::newXmlParser();
}

SPI::AdapterList FailingPlatform::wifiAdapters() {
    return fails("wifi") ? SPI::AdapterList{} : PlatformWrapper::wifiAdapters();
}

std::string serverAnswer(const std::string& root, const std::string& body) {
    return "<?xml version='1.0'?><" + root + " xmlns='" + Remote::kRequestNamespaceUri + "'>" +
           body + "</" + root + ">";
}

Core::ScannedAP ap(const char* text, int16_t rss) {
    Core::ScannedAP record;
    record.mac = Core::parseMacText(text).value();  // throws on a bad MAC
    record.rss = rss;
    return record;
}

}  // namespace ZEL::Testing
