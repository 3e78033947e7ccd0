#include "base/JsonFile.h"

#include <algorithm>
#include <memory>

#include "base/RegularFile.h"

bool parseJsonText(const std::string& text, size_t maxOpenings, Json::Value& root, std::string& error)
{
    const size_t openings = static_cast<size_t>(std::count(text.begin(), text.end(), '[')) +
                            static_cast<size_t>(std::count(text.begin(), text.end(), '{'));
    if (openings > maxOpenings) {
        error = "more than " + std::to_string(maxOpenings) + " '[' and '{' in all";
        return false;
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["stackLimit"] = kMaxJsonDepth;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string parseErrors;
    bool parsed = false;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), &root, &parseErrors);
    } catch (const std::exception& failure) {
        // The reader reports its depth limit by throwing.
        parseErrors = std::string(failure.what()) + " (deeper than " + std::to_string(kMaxJsonDepth) + " levels)";
    }
    if (!parsed) {
        error = parseErrors;
        while (!error.empty() && error.back() == '\n') {
            error.pop_back();
        }
        return false;
    }
    return true;
}

bool readJsonFile(const std::string& path, size_t maxOpenings, Json::Value& root, std::string& error)
{
    std::string text;
    if (!readRegularFile(path, kMaxJsonFileBytes, text, error)) {
        return false;
    }
    if (!parseJsonText(text, maxOpenings, root, error)) {
        error = path + ": not valid JSON: " + error;
        return false;
    }
    return true;
}
