#ifndef KIV_TOOLS_CLI_NDJSON_H
#define KIV_TOOLS_CLI_NDJSON_H

#include <string>

namespace kiv {
namespace cli {

// The value of a string field of one flat NDJSON event line such as the recognition server's
// {"type":"partial","text":"..."}, with backslash escapes undone; empty when the field is absent.
// Not a JSON parser: enough for the server's own flat, single-line events.
inline std::string json_string(const std::string& line, const std::string& field) {
    const std::string key = "\"" + field + "\":\"";
    size_t at = line.find(key);
    if (at == std::string::npos) {
        return std::string();
    }
    std::string value;
    for (at += key.size(); at < line.size() && line[at] != '"'; ++at) {
        if (line[at] == '\\' && at + 1 < line.size()) {
            ++at;
        }
        value += line[at];
    }
    return value;
}

}  // namespace cli
}  // namespace kiv

#endif
