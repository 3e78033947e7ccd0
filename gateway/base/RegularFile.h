// Opening the files the gateway reads (its configuration, the recordings
// indexes, the recordings, a talk's sound): an open never waits (O_NONBLOCK:
// a FIFO or a device in place of a file would otherwise hold the process in
// open(), deaf to signals), and what was opened must be a regular file, which
// is checked on the descriptor itself, so that nothing can be swapped in
// between the check and the use.
#ifndef GATEWAY_REGULAR_FILE_H
#define GATEWAY_REGULAR_FILE_H

#include <cstddef>
#include <string>

enum class FileLinks {
    kFollow,   // a symbolic link to a regular file is fine (configuration, indexes)
    kRefused,  // the name itself must be the file (recordings: nothing outside their folder)
};

// A descriptor (close-on-exec) of the regular file at path, opened for
// reading; -1 with an error that names the path.
int openRegularFile(const std::string& path, FileLinks links, std::string& error);

// The whole content of the regular file at path, at most maxBytes; false with
// an error that names the path.
bool readRegularFile(const std::string& path, size_t maxBytes, std::string& text, std::string& error);

#endif  // GATEWAY_REGULAR_FILE_H
