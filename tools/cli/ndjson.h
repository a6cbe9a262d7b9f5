#ifndef KIV_TOOLS_CLI_NDJSON_H
#define KIV_TOOLS_CLI_NDJSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace kiv {
namespace cli {

// One event line of the recognition server's results stream, such as
// {"type":"partial","text":"..."} or {"type":"error","status":503,"message":"..."}.
struct ResultEvent {
    std::string type;  // empty when the line is not a JSON object
    std::string text;
    std::string message;
    int status = 0;
};

// Parses one line (without its newline). Fields that are missing or of another type stay
// empty; a line that is not JSON gives an empty type. Never throws.
inline ResultEvent parse_result_event(const std::string& line) {
    ResultEvent event;
    const nlohmann::json value = nlohmann::json::parse(line, nullptr, false);
    if (!value.is_object()) {
        return event;
    }
    auto text_of = [&value](const char* name) {
        auto it = value.find(name);
        return it != value.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    event.type = text_of("type");
    event.text = text_of("text");
    event.message = text_of("message");
    auto status = value.find("status");
    if (status != value.end() && status->is_number_integer()) {
        event.status = status->get<int>();
    }
    return event;
}

// The value of a string field of one JSON object line; empty when the line is not JSON or the
// field is absent or not a string.
inline std::string json_string(const std::string& line, const std::string& field) {
    const nlohmann::json value = nlohmann::json::parse(line, nullptr, false);
    if (!value.is_object()) {
        return std::string();
    }
    auto it = value.find(field);
    return it != value.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace cli
}  // namespace kiv

#endif
