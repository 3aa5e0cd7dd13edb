#include "support/test_platform.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "spi/xml/libxml2_parser.h"

namespace ZEL::Testing {
namespace {

using FileTable = std::map<std::string, std::vector<uint8_t>>;

// A copy of the mapped range in pages of its own, followed by a page that cannot
// be read: the copy ends exactly where the unreadable page begins.
class GuardedMapping final : public SPI::FileMapping {
  public:
    GuardedMapping(const uint8_t* bytes, size_t length) : length_(length) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t dataPages = (length + page - 1) / page;
        total_ = (dataPages + 1) * page;
        void* area = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED) {
            throw std::runtime_error("test mapping: mmap failed");
        }
        area_ = static_cast<uint8_t*>(area);
        data_ = area_ + dataPages * page - length;
        std::memcpy(data_, bytes, length);
        mprotect(area_ + dataPages * page, page, PROT_NONE);
        mprotect(area_, dataPages * page, PROT_READ);
    }
    ~GuardedMapping() override { munmap(area_, total_); }
    const uint8_t* data() const override { return data_; }
    size_t length() const override { return length_; }

  private:
    uint8_t* area_ = nullptr;
    uint8_t* data_ = nullptr;
    size_t total_ = 0;
    size_t length_;
};

class MemoryFile final : public SPI::File {
  public:
    explicit MemoryFile(std::shared_ptr<FileTable> files) : files_(std::move(files)) {}

    int open(const std::string& path, uint32_t mode) override {
        close();
        if ((mode & (kRead | kWrite)) == 0) {
            return -1;
        }
        auto found = files_->find(path);
        if (mode & kCreate) {
            found = files_->insert_or_assign(path, std::vector<uint8_t>{}).first;
        } else if (found == files_->end()) {
            return -1;
        } else if (mode & kTruncate) {
            found->second.clear();
        }
        path_ = path;
        position_ = (mode & kAppend) ? found->second.size() : 0;
        return 0;
    }
    int close() override {
        path_.clear();
        return 0;
    }
    uint64_t size() override { return path_.empty() ? kSizeFailure : bytes().size(); }
    size_t read(void* buffer, size_t count) override {
        if (path_.empty() || position_ >= bytes().size()) {
            return 0;
        }
        size_t done = std::min(count, bytes().size() - position_);
        std::memcpy(buffer, bytes().data() + position_, done);
        position_ += done;
        return done;
    }
    size_t write(const void* buffer, size_t count) override {
        if (path_.empty()) {
            return 0;
        }
        std::vector<uint8_t>& content = bytes();
        const auto* in = static_cast<const uint8_t*>(buffer);
        if (content.size() < position_ + count) {
            content.resize(position_ + count);
        }
        std::copy(in, in + count, content.begin() + static_cast<ptrdiff_t>(position_));
        position_ += count;
        return count;
    }
    std::unique_ptr<SPI::FileMapping> map(uint64_t offset, size_t length) override {
        if (path_.empty() || length == 0 || offset > bytes().size() ||
            length > bytes().size() - offset) {
            return nullptr;
        }
        return std::make_unique<GuardedMapping>(bytes().data() + offset, length);
    }

  private:
    std::vector<uint8_t>& bytes() { return (*files_)[path_]; }
    std::shared_ptr<FileTable> files_;
    std::string path_;
    size_t position_ = 0;
};

class ScriptedHttpRequest final : public SPI::XmlHttpRequest {
  public:
    explicit ScriptedHttpRequest(std::shared_ptr<HttpScript> script) : script_(std::move(script)) {}

    void setCompletionCallback(CompletionCallback callback, void* context) override {
        callback_ = callback;
        context_ = context;
    }
    int open(int method, const std::string& url, const std::string& proxy, int proxyPort,
             const std::string& proxyUser, const std::string& proxyPassword, bool async) override {
        int result = open(method, url, async);
        call_.proxy = proxy;
        call_.proxyPort = proxyPort;
        call_.proxyUser = proxyUser;
        call_.proxyPassword = proxyPassword;
        return result;
    }
    int open(int method, const std::string& url, bool async) override {
        abort();
        call_ = HttpCall{};
        call_.method = method;
        call_.url = url;
        async_ = async;
        opened_ = method >= kGet && method <= kHead && url.find("://") != std::string::npos;
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
            status_ = reply.status;
            statusText_ = reply.statusText;
            body_ = reply.body;
        }
        if (async_) {
            if (callback_ != nullptr) {
                callback_(reply.sendError, context_);
            }
            return 0;
        }
        return reply.sendError;
    }
    void abort() override {
        status_ = -1;
        statusText_.clear();
        body_.clear();
        opened_ = false;
    }
    std::string getAllResponseHeaders() const override { return ""; }
    std::string getResponseHeader(const std::string&) const override { return ""; }
    int responseBody(std::string_view& body) const override {
        body = body_;
        return 0;
    }
    int status() const override { return status_; }
    std::string statusText() const override { return statusText_; }

  private:
    std::shared_ptr<HttpScript> script_;
    HttpCall call_;
    bool opened_ = false;
    bool async_ = false;
    int status_ = -1;
    std::string statusText_;
    std::string body_;
    CompletionCallback callback_ = nullptr;
    void* context_ = nullptr;
};

bool nextFails(std::deque<bool>& script) {
    if (script.empty()) {
        return false;
    }
    bool fails = script.front();
    script.pop_front();
    return fails;
}

class ScriptedWifiAdapter final : public SPI::WifiAdapter {
  public:
    explicit ScriptedWifiAdapter(std::shared_ptr<AdapterScript> script)
        : script_(std::move(script)) {}
    ~ScriptedWifiAdapter() override { script_->calls.push_back("destroy"); }
    std::string name() const override { return "scripted0"; }
    int open() override {
        script_->calls.push_back("open");
        return nextFails(script_->failOpen) ? 5 : 0;
    }
    void close() override { script_->calls.push_back("close"); }
    int startScan() override {
        script_->calls.push_back("start");
        return nextFails(script_->failStart) ? 21 : 0;
    }
    int getScanResults(Core::ApList& list) override {
        script_->calls.push_back("get");
        list.clear();
        if (nextFails(script_->failGet)) {
            return 31;
        }
        if (!script_->scans.empty()) {
            list = std::move(script_->scans.front());
            script_->scans.pop_front();
        }
        return 0;
    }

  private:
    std::shared_ptr<AdapterScript> script_;
};

}  // namespace

TestPlatform::TestPlatform()
    : files_(std::make_shared<FileTable>()), previous_(SPI::setPlatform(this)) {}

TestPlatform::~TestPlatform() {
    SPI::setPlatform(previous_);
}

void TestPlatform::addFile(const std::string& path, std::vector<uint8_t> bytes) {
    (*files_)[path] = std::move(bytes);
}

const std::vector<uint8_t>* TestPlatform::file(const std::string& path) const {
    auto found = files_->find(path);
    return found == files_->end() ? nullptr : &found->second;
}

std::unique_ptr<SPI::File> TestPlatform::newFile() {
    return std::make_unique<MemoryFile>(files_);
}

std::unique_ptr<SPI::XmlHttpRequest> TestPlatform::newHttpRequest() {
    return std::make_unique<ScriptedHttpRequest>(http_);
}

std::unique_ptr<SPI::XmlParser> TestPlatform::newXmlParser() {
    return SPI::newLibXml2Parser();
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
    if (service_ != service) {
        return false;
    }
    ++calls_;
    return calls_ == n_ || (forGood_ && calls_ > n_);
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

Core::ScannedAP ap(const char* text, int16_t rss) {
    auto mac = Core::parseMacText(text);
    if (!mac) {
        throw std::invalid_argument(std::string("bad MAC in test: ") + text);
    }
    Core::ScannedAP record;
    record.mac = *mac;
    record.rss = rss;
    return record;
}

}  // namespace ZEL::Testing
