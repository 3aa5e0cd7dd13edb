// The few POSIX calls the shared test support makes (a guarded memory area, a
// temporary folder), over Win32, so that support compiles unchanged for Windows.
// Test-only: the library never sees this header.
#pragma once

#include <direct.h>
#include <stdlib.h>
#include <winsock2.h>  // before windows.h, for the tests that use sockets
#include <windows.h>

#define _SC_PAGESIZE 30
#define PROT_NONE 0
#define PROT_READ 1
#define PROT_WRITE 2
#define MAP_PRIVATE 2
#define MAP_ANONYMOUS 0x20
#define MAP_FAILED ((void*)-1)

inline long sysconf(int) {
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    return static_cast<long>(system.dwPageSize);
}

// Anonymous memory only, which is all the support asks for.
inline void* mmap(void*, size_t length, int, int, int, long) {
    void* area = VirtualAlloc(nullptr, length, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    return area != nullptr ? area : MAP_FAILED;
}

inline int mprotect(void* address, size_t length, int protection) {
    DWORD old = 0;
    DWORD value = protection == PROT_NONE   ? PAGE_NOACCESS
                  : protection == PROT_READ ? PAGE_READONLY
                                            : PAGE_READWRITE;
    return VirtualProtect(address, length, value, &old) ? 0 : -1;
}

inline int munmap(void* address, size_t) {
    return VirtualFree(address, 0, MEM_RELEASE) ? 0 : -1;
}

inline char* mkdtemp(char* pattern) {
    if (_mktemp_s(pattern, strlen(pattern) + 1) != 0 || _mkdir(pattern) != 0) {
        return nullptr;
    }
    return pattern;
}
