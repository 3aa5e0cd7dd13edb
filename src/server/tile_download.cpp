// GET /v1/tiles/REALM: the tile file for devices that locate offline. It is served
// from the copy the server answers from, so a download always matches what the
// server uses and is never a file half rewritten.
#include <ctime>

#include "server/geolocate_protocol.h"
#include "server/location_service.h"

namespace ZEL::Server {
namespace {

// An HTTP date (RFC 9110 IMF-fixdate) of `seconds` since 1970.
std::string httpDate(int64_t seconds) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[40];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
    return text;
}

// Whether an If-None-Match value (a list of tags, or "*") names `tag`.
bool matches(std::string_view ifNoneMatch, const std::string& tag) {
    if (ifNoneMatch.find('*') != std::string_view::npos) {
        return true;
    }
    const std::string quoted = '"' + tag + '"';
    return ifNoneMatch.find(quoted) != std::string_view::npos;
}

}  // namespace

Reply LocationService::tileDownload(std::string_view realm, std::string_view key,
                                    std::string_view ifNoneMatch) {
    if (std::optional<Reply> refusal = refuseKey(key, "tile download")) {
        return *refusal;
    }
    const std::shared_ptr<ReaderPool> readers = currentReaders();
    const std::string_view served = options_.realm.empty() ? "_" : std::string_view(options_.realm);
    if (realm != served || readers->fileCount() == 0) {
        return {404, geolocateError(404, "global", "notFound", "no tile file for this realm")};
    }
    const ReaderPool::Image& image = readers->image(0);
    Reply reply{200, {}, {{"ETag", '"' + image.tag + '"'}}};
    if (matches(ifNoneMatch, image.tag)) {
        reply.status = 304;
        return reply;
    }
    reply.headers.emplace_back("Last-Modified", httpDate(image.modified));
    reply.body.assign(reinterpret_cast<const char*>(image.bytes->data()), image.bytes->length());
    return reply;
}

}  // namespace ZEL::Server
