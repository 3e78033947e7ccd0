// Reads a whole JSON document from a file, strictly (no comments, one root), as
// the gateway's configuration and its recording indexes are written.
#ifndef GATEWAY_JSON_FILE_H
#define GATEWAY_JSON_FILE_H

#include <json/json.h>

#include <string>

// False with a message that names the file (and what the parser found) when the
// file cannot be read or is not valid JSON.
bool readJsonFile(const std::string& path, Json::Value& root, std::string& error);

#endif  // GATEWAY_JSON_FILE_H
