#include "common/EventLine.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/Json.h"
#include "common/Times.h"
#include "qelCore/String.h"

namespace qel::programs {
namespace {

using Json = nlohmann::json;

/// Takes the parser's findings and puts them straight into the event; what an event cannot hold ends the line.
class EventSink : public nlohmann::json_sax<Json> {
  public:
    EventSink(Item& event, bool replay) : event_(event), replay_(replay) { event_.clear(); }

    bool null() override { return refuse("null"); }
    bool boolean(bool value) override {
        expectParameter("a boolean");
        event_.addBool(value);
        return true;
    }
    bool number_integer(number_integer_t value) override {
        expectParameter("a number");
        event_.addInteger(value);
        return true;
    }
    bool number_unsigned(number_unsigned_t value) override {
        if (value > static_cast<number_unsigned_t>(std::numeric_limits<long long>::max()))
            return refuse("a number beyond 64 bits");
        return number_integer(static_cast<number_integer_t>(value));
    }
    bool number_float(number_float_t, const string_t& text) override {
        const bool whole = text.find_first_of(".eE") == std::string::npos;
        return refuse(whole ? "a number beyond 64 bits" : "a fraction");
    }
    bool string(string_t& text) override {
        if (place_ == Place::time)
            return takeTime(text);
        if (place_ != Place::parameters)
            return refuse("a string");
        event_.addString(std::string_view(text));
        named_ = true;
        return true;
    }
    bool binary(binary_t&) override { return refuse("binary data"); }

    bool start_object(std::size_t) override {
        if (!replay_ || place_ != Place::outside || done_)
            return refuse("an object");
        place_ = Place::members;
        return true;
    }
    bool key(string_t& name) override {
        if (name == "time" && !timeSeen_)
            place_ = Place::time;
        else if (name == "event" && !eventSeen_)
            place_ = Place::event;
        else
            throw BadEventLine('"' + name + "\" stands where \"time\" or \"event\", once each, is expected");
        return true;
    }
    bool end_object() override {
        if (!timeSeen_ || !eventSeen_)
            throw BadEventLine(std::string("no \"") + (timeSeen_ ? "event" : "time") + "\" in the object");
        place_ = Place::outside;
        done_ = true;
        return true;
    }
    bool start_array(std::size_t) override {
        const Place expected = replay_ ? Place::event : Place::outside;
        if (place_ != expected || done_)
            return refuse("an array");
        place_ = Place::parameters;
        return true;
    }
    bool end_array() override {
        if (!named_)
            throw BadEventLine("an event without a name, expected a string first");
        eventSeen_ = true;
        place_ = replay_ ? Place::members : Place::outside;
        done_ = !replay_;
        return true;
    }
    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& error) override {
        std::string sentence = error.what();
        // The library begins with its own number and place; ours is the byte of the line.
        const std::size_t colon = sentence.rfind(": ");
        if (colon != std::string::npos)
            sentence.erase(0, colon + 2);
        throw BadEventLine("not JSON at byte " + std::to_string(position) + " (" + sentence + ')');
    }

    std::int64_t time() const { return time_; }

  private:
    enum class Place { outside, members, time, event, parameters };

    void expectParameter(const char* what) {
        if (place_ != Place::parameters)
            refuse(what);
        if (!named_)
            throw BadEventLine(std::string(what) + " stands where the event's name, a string, is expected");
    }

    bool refuse(const char* what) const {
        switch (place_) {
            case Place::parameters:
                throw BadEventLine(
                    std::string(what) +
                    " among the parameters, expected strings, 64-bit integers and booleans only");
            case Place::time:
                throw BadEventLine(std::string(what) +
                                   " as time, expected a string like 2026-03-01T08:00:00+01:00");
            case Place::event:
                throw BadEventLine(std::string(what) + " as event, expected an array");
            default:
                break;
        }
        throw BadEventLine(
            std::string(what) + ", expected " +
            (replay_ ? "{\"time\":\"…\",\"event\":[…]}" : "an array like [\"SeriesOpened\",\"1.2.3\",7]"));
    }

    bool takeTime(const std::string& text) {
        TimeSpan span;
        std::string error;
        if (!parseTime(text, span, error) || span.first != span.last)
            throw BadEventLine("the time \"" + text + "\" is not one like 2026-03-01T08:00:00.000001+01:00");
        time_ = span.first;
        timeSeen_ = true;
        place_ = Place::members;
        return true;
    }

    Item& event_;
    bool replay_;
    Place place_ = Place::outside;
    bool named_ = false;
    bool timeSeen_ = false;
    bool eventSeen_ = false;
    bool done_ = false;
    std::int64_t time_ = 0;
};

std::int64_t read(std::string_view line, Item& event, bool replay) {
    EventSink sink(event, replay);
    Json::sax_parse(line.data(), line.data() + line.size(), &sink);
    return sink.time();
}

}  // namespace

void readEventLine(std::string_view line, Item& event) {
    read(line, event, false);
}

std::int64_t readReplayLine(std::string_view line, Item& event) {
    return read(line, event, true);
}

std::string writeEventLine(const Item& event) {
    std::string line = "[";
    Item::Iterator elements(event);
    while (!elements.atEnd()) {
        if (line.size() > 1)
            line += ',';
        bool flag = false;
        long long number = 0;
        String text;
        if (elements.decodeElementAsBool(flag))
            line += flag ? "true" : "false";
        else if (elements.decodeElementAsInteger(number))
            line += std::to_string(number);
        else if (elements.convertAsString(text))
            line += jsonText(text.view());
        else
            break;  // what does not decode ends the line
    }
    return line + ']';
}

}  // namespace qel::programs
