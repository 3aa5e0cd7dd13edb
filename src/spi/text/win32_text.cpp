// Text helpers on Windows: conversions in the system's default code page (the
// narrow text of the C API and of main's arguments), the module path from the loader.
#include <windows.h>

#include <vector>

#include "spi/text.h"

namespace ZEL::SPI {

// Both conversions pass the terminating zero (length + 1), size the buffer first,
// and give the empty text when a call fails.
std::wstring toWide(const std::string& narrow) {
    int length = static_cast<int>(narrow.size()) + 1;
    int needed = MultiByteToWideChar(CP_ACP, 0, narrow.c_str(), length, nullptr, 0);
    if (needed <= 0) {
        return {};
    }
    std::vector<wchar_t> buffer(static_cast<size_t>(needed));
    if (MultiByteToWideChar(CP_ACP, 0, narrow.c_str(), length, buffer.data(), needed) <= 0) {
        return {};
    }
    return std::wstring(buffer.data());
}

std::string toNarrow(const std::wstring& wide) {
    int length = static_cast<int>(wide.size()) + 1;
    int needed = WideCharToMultiByte(CP_ACP, 0, wide.c_str(), length, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) {
        return {};
    }
    std::vector<char> buffer(static_cast<size_t>(needed));
    if (WideCharToMultiByte(CP_ACP, 0, wide.c_str(), length, buffer.data(), needed, nullptr,
                            nullptr) <= 0) {
        return {};
    }
    return std::string(buffer.data());
}

std::string moduleDirectory() {
    // The module that holds this function: zelapi.dll, or the program it was linked into.
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&moduleDirectory), &module)) {
        return ".\\";
    }
    wchar_t path[MAX_PATH + 1] = {};
    DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return ".\\";
    }
    std::wstring full(path, length);
    auto slash = full.rfind(L'\\');
    if (slash == std::wstring::npos) {
        return ".\\";
    }
    return toNarrow(full.substr(0, slash + 1));
}

}  // namespace ZEL::SPI
