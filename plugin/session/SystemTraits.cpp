#include "session/SystemTraits.h"

#include <string.h>
#include <unistd.h>

#include <vector>

#include <zrt/zrt.h>

namespace HttpWrapper {

std::string SystemTraits::GetExeFile()
{
    char buffer[260];
    memset(buffer, 0, sizeof buffer);
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length < 0) {
        return std::string();
    }
    buffer[length] = '\0';
    return GetNormalPath(buffer);
}

std::string SystemTraits::GetExeDir()
{
    std::string file = GetExeFile();
    size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string() : file.substr(0, slash);
}

std::string SystemTraits::GetNormalPath(const std::string& path)
{
    if (path.empty()) {
        return path;
    }
    bool absolute = path[0] == '/';
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        size_t end = slash == std::string::npos ? path.size() : slash;
        std::string part = path.substr(start, end - start);
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    std::string normal = absolute ? "/" : "";
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            normal += '/';
        }
        normal += parts[i];
    }
    if (normal.empty()) {
        normal = absolute ? "/" : ".";
    }
    return normal;
}

std::string getCurDir()
{
    char buffer[512];
    memset(buffer, 0, sizeof buffer);
    if (ZRT_GetCurExePath(buffer, sizeof buffer) < 0) {
        return std::string();
    }
    std::string path = buffer;
    for (char& c : path) {
        if (c == '\\') {
            c = '/';
        }
    }
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(0, slash + 1);
}

}  // namespace HttpWrapper
