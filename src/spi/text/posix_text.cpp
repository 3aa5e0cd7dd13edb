#include "spi/text.h"

#include <dlfcn.h>
#include <iconv.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

namespace ZEL::SPI {
namespace {

// One conversion with iconv; the output buffer is sized for the worst case
// (4 bytes of UTF-8 or one wchar_t per input byte), so it never needs to grow.
template <typename Out, typename In>
std::basic_string<Out> convert(const char* to, const char* from, const std::basic_string<In>& in) {
    if (in.empty()) {
        return {};
    }
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return {};
    }
    size_t inBytes = in.size() * sizeof(In);
    std::vector<char> output(in.size() * 4 + sizeof(Out));
    char* inPtr = const_cast<char*>(reinterpret_cast<const char*>(in.data()));
    char* outPtr = output.data();
    size_t outLeft = output.size();
    size_t result = iconv(cd, &inPtr, &inBytes, &outPtr, &outLeft);
    iconv_close(cd);
    if (result == static_cast<size_t>(-1) || inBytes != 0) {
        return {};
    }
    size_t produced = output.size() - outLeft;
    return std::basic_string<Out>(reinterpret_cast<const Out*>(output.data()),
                                  produced / sizeof(Out));
}

}  // namespace

std::wstring toWide(const std::string& narrow) {
    return convert<wchar_t>("WCHAR_T", "UTF-8", narrow);
}

std::string toNarrow(const std::wstring& wide) {
    return convert<char>("UTF-8", "WCHAR_T", wide);
}

std::string moduleDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&moduleDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return "./";
    }
    // The loader may know the module by a relative path; resolve it so the result
    // stays right after the process changes directory.
    char resolved[PATH_MAX];
    std::string path = realpath(info.dli_fname, resolved) != nullptr ? resolved : info.dli_fname;
    auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return "./";
    }
    return path.substr(0, slash + 1);
}

}  // namespace ZEL::SPI
