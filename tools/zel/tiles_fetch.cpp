// zel tiles fetch URL -o FILE: downloads the tile file a location server serves at
// URL (…/v1/tiles/REALM?key=KEY) when it differs from FILE. The download goes to a
// new file beside FILE, is checked as a tile file of the URL's realm, made durable,
// then renamed over FILE, so a program that maps FILE sees the old file or the new
// one, never half of either. Exit status 0 when FILE is current, 1 otherwise.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "command.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_file_tag.h"
#include "tiles_commands.h"

namespace ZEL::Cli {
namespace {

struct FetchArguments {
    std::string url;
    std::string output;
    std::string caFile;
};

// The realm the URL's last path segment names ("_": the plain realm).
std::string realmOf(const std::string& url) {
    const std::string path = url.substr(0, url.find('?'));
    const std::string last = path.substr(path.rfind('/') + 1);
    return last == "_" ? "" : last;
}

size_t collect(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// A new file beside `path` holding `bytes`, synced; empty when it cannot be made.
std::string writeBeside(const std::string& path, const std::string& bytes) {
    std::string temporary = path + ".partXXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) {
        return "";
    }
    bool ok = fchmod(fd, 0644) == 0;
    for (size_t done = 0; ok && done < bytes.size();) {
        const ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
        ok = wrote > 0;
        done += ok ? static_cast<size_t>(wrote) : 0;
    }
    ok = fsync(fd) == 0 && ok;
    ok = close(fd) == 0 && ok;
    if (!ok) {
        unlink(temporary.c_str());
        return "";
    }
    return temporary;
}

// Renames `temporary` over `path` and syncs the folder, so the rename survives a crash.
bool replace(const std::string& temporary, const std::string& path) {
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        return false;
    }
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (directory >= 0) {
        fsync(directory);
        close(directory);
    }
    return true;
}

int fetch(const FetchArguments& arguments) {
    std::ifstream current(arguments.output, std::ios::binary);
    const std::string held{std::istreambuf_iterator<char>(current), {}};
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    if (current) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(held.data());
        headers = curl_slist_append(
            headers, ("If-None-Match: \"" + Tiles::tileFileTag(bytes, held.size()) + "\"").c_str());
    }
    std::string body;
    char curlError[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_URL, arguments.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, curlError);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);  // a stalled download ends
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 30L);
    if (!arguments.caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, arguments.caFile.c_str());
    }
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (result != CURLE_OK) {
        std::fprintf(stderr, "zel tiles fetch: %s: %s\n", arguments.url.c_str(), curlError);
        return 1;
    }
    if (status == 304) {
        std::printf("%s is up to date\n", arguments.output.c_str());
        return 0;
    }
    if (status != 200) {
        std::fprintf(stderr, "zel tiles fetch: the server answered %ld: %.200s\n", status,
                     body.c_str());
        return 1;
    }
    // Checked before it replaces anything: a tile file of the URL's realm.
    const std::string temporary = writeBeside(arguments.output, body);
    if (temporary.empty()) {
        std::fprintf(stderr, "zel tiles fetch: cannot write beside %s\n", arguments.output.c_str());
        return 1;
    }
    auto reader = Tiles::LocalCompressedFileReader::create();
    const bool valid = reader->open(temporary, realmOf(arguments.url));
    reader->close();
    if (!valid || !replace(temporary, arguments.output)) {
        unlink(temporary.c_str());
        std::fprintf(stderr, "zel tiles fetch: %s\n",
                     valid ? "cannot replace the file"
                           : "the download is not a tile file of the URL's realm");
        return 1;
    }
    std::printf("%s updated (%zu bytes)\n", arguments.output.c_str(), body.size());
    return 0;
}

}  // namespace

void addFetch(CLI::App& tiles) {
    auto arguments = std::make_shared<FetchArguments>();
    CLI::App* command =
        tiles.add_subcommand("fetch", "Download a server's tile file when it changed");
    command->add_option("url", arguments->url, "URL: http(s)://HOST/v1/tiles/REALM?key=KEY")
        ->required();
    command->add_option("-o,--output", arguments->output, "The tile file to keep up to date")
        ->required();
    command->add_option("--cacert", arguments->caFile, "CA certificates (PEM) for HTTPS");
    command->callback([arguments] { setExitStatus(fetch(*arguments)); });
}

}  // namespace ZEL::Cli
