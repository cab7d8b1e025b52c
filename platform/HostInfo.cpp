// SPDX-License-Identifier: GPL-3.0-or-later
#include "HostInfo.h"

#if defined(_WIN32)
 #include <windows.h>
#else
 #include <unistd.h>
 #include <climits>
#endif

namespace platform
{

std::string hostExecutablePath()
{
#if defined(_WIN32)
    wchar_t path[MAX_PATH] {};
    const auto length = GetModuleFileNameW (nullptr, path, MAX_PATH);

    if (length == 0)
        return {};

    const auto bytes = WideCharToMultiByte (CP_UTF8, 0, path, (int) length, nullptr, 0, nullptr, nullptr);
    std::string utf8 ((size_t) bytes, '\0');
    WideCharToMultiByte (CP_UTF8, 0, path, (int) length, utf8.data(), bytes, nullptr, nullptr);
    return utf8;
#else
    char path[PATH_MAX + 1] {};
    const auto length = readlink ("/proc/self/exe", path, PATH_MAX);
    return length > 0 ? std::string (path, (size_t) length) : std::string();
#endif
}

}
