#include "JsonFile.h"

#include <fstream>

bool readJsonFile(const std::string& path, Json::Value& root, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        error = path + ": cannot be read";
        return false;
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::string parseErrors;
    if (!Json::parseFromStream(builder, file, &root, &parseErrors)) {
        error = path + ": not valid JSON: " + parseErrors;
        while (!error.empty() && error.back() == '\n') {
            error.pop_back();
        }
        return false;
    }
    return true;
}
