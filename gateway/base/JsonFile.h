// Reads a whole JSON document, strictly (no comments, one root), as the
// gateway's configuration and its recordings indexes are written. The file must
// be a regular file (RegularFile.h). The JSON reader recurses per level, so a
// document is refused before it is parsed when it holds more than maxOpenings
// '[' and '{' (counted over every byte, strings included: no document can nest
// deeper than that), and the reader's own depth limit is set far below what
// a stack holds; either refusal is an error, never an exception or a crash.
#ifndef GATEWAY_JSON_FILE_H
#define GATEWAY_JSON_FILE_H

#include <json/json.h>

#include <cstddef>
#include <string>

// The deepest a configuration or an index may nest (each nests 5 levels at most).
constexpr int kMaxJsonDepth = 16;
// The largest file read: far above an index of a million recordings.
constexpr size_t kMaxJsonFileBytes = 256 * 1024 * 1024;

// Parses text; false with what the parser found.
bool parseJsonText(const std::string& text, size_t maxOpenings, Json::Value& root, std::string& error);

// False with a message that names the file (and what the parser found) when the
// file cannot be read, is not a regular file, or is not valid JSON within the bounds.
bool readJsonFile(const std::string& path, size_t maxOpenings, Json::Value& root, std::string& error);

#endif  // GATEWAY_JSON_FILE_H
