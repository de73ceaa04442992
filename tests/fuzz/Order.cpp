// Two items made of values that the input chooses: their encodings compare as their values do, element by element, and
// give the values back.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/Check.h"
#include "fuzz/Recipe.h"
#include "qelCore/Item.h"
#include "qelCore/String.h"

using namespace qel;

namespace {

/// In the order in which values of different kinds sort.
enum class Kind { boolean, integer, text, bytes, nested };

struct Value {
    Kind kind = Kind::boolean;
    long long number = 0;
    std::string text;
    std::vector<Value> nested;
};
using Values = std::vector<Value>;

constexpr int deepest = 4;

Values read(fuzz::Recipe& recipe, int depth) {
    Values values;
    for (int count = recipe.byte() % 6; count > 0 && !recipe.atEnd(); --count) {
        Value value;
        value.kind = static_cast<Kind>(recipe.byte() % (depth < deepest ? 5 : 4));
        if (value.kind == Kind::nested)
            value.nested = read(recipe, depth + 1);
        else if (value.kind == Kind::boolean)
            value.number = recipe.byte() % 2;
        else if (value.kind == Kind::integer)
            value.number = recipe.number();
        else
            value.text = recipe.text();
        values.push_back(value);
    }
    return values;
}

Item encode(const Values& values) {
    Item item;
    for (const Value& value : values) {
        if (value.kind == Kind::boolean)
            item.addBool(value.number != 0);
        else if (value.kind == Kind::integer)
            item.addInteger(value.number);
        else if (value.kind == Kind::text)
            item.addString(value.text);
        else if (value.kind == Kind::bytes)
            item.addBytes(value.text.data(), value.text.size());
        else
            item.addItem(encode(value.nested));
    }
    return item;
}

int signOf(int number) {
    return (number > 0) - (number < 0);
}

int compare(const Values& a, const Values& b);

int compare(const Value& a, const Value& b) {
    if (a.kind != b.kind)
        return a.kind < b.kind ? -1 : 1;
    if (a.kind == Kind::nested)
        return compare(a.nested, b.nested);
    if (a.number != b.number)
        return a.number < b.number ? -1 : 1;
    return signOf(a.text.compare(b.text));
}

int compare(const Values& a, const Values& b) {
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (const int order = compare(a[i], b[i]); order != 0)
            return order;
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

bool holds(const Item& item, const Values& values);

bool holdsNext(Item::Iterator& elements, const Value& value) {
    bool flag = false;
    long long number = 0;
    String text;
    Item inner;
    switch (value.kind) {
        case Kind::boolean:
            return elements.decodeElementAsBool(flag) && flag == (value.number != 0);
        case Kind::integer:
            return elements.decodeElementAsInteger(number) && number == value.number;
        case Kind::text:
            return elements.decodeElementAsString(text) && text.view() == value.text;
        case Kind::bytes:
            return elements.decodeElementAsBytes(inner) && inner.bytes().view() == value.text;
        case Kind::nested:
            return elements.decodeElementAsItem(inner) && holds(inner, value.nested);
    }
    return false;
}

bool holds(const Item& item, const Values& values) {
    Item::Iterator elements(item);
    return std::all_of(values.begin(), values.end(),
                       [&](const Value& value) { return holdsNext(elements, value); }) &&
           elements.atEnd();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Recipe recipe(data, size);
    const Values a = read(recipe, 0);
    const Values b = read(recipe, 0);
    const Item first = encode(a);
    const Item second = encode(b);
    fuzz::check(first.isWellFormed() && second.isWellFormed(), "what was made is well-formed");
    fuzz::check(holds(first, a) && holds(second, b), "the values come back");
    const int expected = compare(a, b);
    fuzz::check(signOf(Item::compare(first, second)) == expected, "items compare as their values do");
    fuzz::check(signOf(first.bytes().view().compare(second.bytes().view())) == expected,
                "the bytes compare as the values do");
    return 0;
}
