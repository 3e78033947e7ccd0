// The console's page (gateway/console/web), built into the binary: no folder
// to install, and nothing a browser asks for is read from the disk by path.
#ifndef GATEWAY_CONSOLE_FILES_H
#define GATEWAY_CONSOLE_FILES_H

#include <cstddef>
#include <string>

struct ConsoleFile {
    const char* path;  // "/app.js"
    const char* contentType;
    const unsigned char* data;
    size_t size;
};

// Null for a path the page does not have.
const ConsoleFile* findConsoleFile(const std::string& path);

#endif  // GATEWAY_CONSOLE_FILES_H
