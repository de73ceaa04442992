#include "common/Json.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace qel::programs {

std::string jsonText(std::string_view text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void JsonObject::addRaw(std::string_view name, std::string_view json) {
    if (!members_.empty())
        members_ += ',';
    members_ += jsonText(name);
    members_ += ':';
    members_ += json;
}

void JsonObject::add(std::string_view name, std::string_view value) {
    addRaw(name, jsonText(value));
}

void JsonObject::add(std::string_view name, std::int64_t value) {
    addRaw(name, std::to_string(value));
}

void JsonObject::add(std::string_view name, bool value) {
    addRaw(name, value ? "true" : "false");
}

void JsonObject::add(std::string_view name, const JsonObject& value) {
    addRaw(name, value.text());
}

void JsonObject::add(std::string_view name, const std::vector<JsonObject>& values) {
    std::string array = "[";
    for (const JsonObject& value : values)
        array += (array.size() > 1 ? "," : "") + value.text();
    addRaw(name, array + ']');
}

void JsonObject::addReal(std::string_view name, double value) {
    // to_chars never writes a decimal comma, whatever the locale says.
    char digits[64];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits,
                                            std::isfinite(value) ? value : 0.0, std::chars_format::fixed, 3);
    addRaw(name, error == std::errc() ? std::string_view(digits, end) : std::string_view("0"));
}

}  // namespace qel::programs
