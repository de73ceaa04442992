#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::programs {

/// `text` as a JSON string with its quotes. Bytes that are not UTF-8 become U+FFFD, so that the result is
/// always valid JSON.
std::string jsonText(std::string_view text);

/// A JSON object that grows by one member after the other and keeps their order. Used by one thread.
class JsonObject {
  public:
    void add(std::string_view name, std::string_view value);
    void add(std::string_view name, const char* value) { add(name, std::string_view(value)); }
    void add(std::string_view name, std::int64_t value);
    void add(std::string_view name, bool value);
    void add(std::string_view name, const JsonObject& value);
    void add(std::string_view name, const std::vector<JsonObject>& values);
    /// A number with three decimals.
    void addReal(std::string_view name, double value);

    /// The object on one line.
    std::string text() const { return '{' + members_ + '}'; }

  private:
    void addRaw(std::string_view name, std::string_view json);

    std::string members_;
};

}  // namespace qel::programs
