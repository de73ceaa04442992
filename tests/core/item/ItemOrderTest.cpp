#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "qelCore/Item.h"
#include "qelCore/String.h"

using qel::Item;
using qel::String;

namespace {

// What an item holds, compared element by element with no regard to its bytes.
struct Model;
using Element = std::variant<bool, long long, std::string, std::vector<unsigned char>, std::vector<Model>>;
struct Model {
    Element element;
};
using Models = std::vector<Model>;

int compareModels(const Models& a, const Models& b);

template <typename T>
int compareValues(const T& a, const T& b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

int compareText(const std::string& a, const std::string& b) {
    const auto less = [](char x, char y) {
        return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
    };
    if (std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), less))
        return -1;
    return a == b ? 0 : 1;
}

int compareElements(const Element& a, const Element& b) {
    if (a.index() != b.index())
        return a.index() < b.index() ? -1 : 1;
    switch (a.index()) {
        case 0:
            return compareValues(std::get<0>(a), std::get<0>(b));
        case 1:
            return compareValues(std::get<1>(a), std::get<1>(b));
        case 2:
            return compareText(std::get<2>(a), std::get<2>(b));
        case 3:
            return compareValues(std::get<3>(a), std::get<3>(b));
        default:
            return compareModels(std::get<4>(a), std::get<4>(b));
    }
}

int compareModels(const Models& a, const Models& b) {
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (const int order = compareElements(a[i].element, b[i].element))
            return order;
    return compareValues(a.size(), b.size());
}

Item encode(const Models& models) {
    Item out;
    for (const Model& model : models) {
        if (const auto* flag = std::get_if<bool>(&model.element))
            out.addBool(*flag);
        else if (const auto* number = std::get_if<long long>(&model.element))
            out.addInteger(*number);
        else if (const auto* text = std::get_if<std::string>(&model.element))
            out.addString(*text);
        else if (const auto* bytes = std::get_if<3>(&model.element))
            out.addBytes(bytes->data(), bytes->size());
        else
            out.addItem(encode(std::get<4>(model.element)));
    }
    return out;
}

class Generator {
  public:
    explicit Generator(unsigned seed) : random_(seed) {}

    unsigned upTo(unsigned bound) { return static_cast<unsigned>(random_() % (bound + 1)); }

    long long number() {
        const auto raw = static_cast<long long>(random_() >> upTo(63));
        const long long near[] = {0, 1, -1, 255, 256, -256, -257, INT64_MAX, INT64_MIN};
        return upTo(3) == 0 ? near[upTo(8)] : upTo(1) ? raw : -raw;
    }

    // Few different bytes, so that texts share beginnings; those that need care are among them.
    template <typename T>
    T content() {
        static constexpr unsigned char bytes[] = {0, 1, 2, 'a', 0xff};
        T out;
        for (unsigned i = upTo(4); i > 0; --i)
            out.push_back(static_cast<typename T::value_type>(bytes[upTo(4)]));
        return out;
    }

    Models models(int depth) {
        Models out;
        for (unsigned i = upTo(3); i > 0; --i)
            out.push_back({element(depth)});
        return out;
    }

  private:
    Element element(int depth) {
        switch (upTo(depth > 0 ? 4 : 3)) {
            case 0:
                return upTo(1) == 1;
            case 1:
                return number();
            case 2:
                return content<std::string>();
            case 3:
                return content<std::vector<unsigned char>>();
            default:
                return models(depth - 1);
        }
    }

    std::mt19937_64 random_;
};

int sign(int value) {
    return value < 0 ? -1 : value > 0 ? 1 : 0;
}

}  // namespace

TEST(ItemOrder, BytesSortLikeElements) {
    Generator generator(4711);
    std::vector<Models> models;
    for (int i = 0; i < 700; ++i)
        models.push_back(generator.models(3));
    std::vector<Item> items;
    for (const Models& model : models) {
        items.push_back(encode(model));
        ASSERT_TRUE(items.back().isWellFormed());
    }
    for (std::size_t a = 0; a < items.size(); ++a)
        for (std::size_t b = 0; b < items.size(); ++b)
            ASSERT_EQ(sign(Item::compare(items[a], items[b])), compareModels(models[a], models[b]))
                << items[a].asString().str() << " and " << items[b].asString().str();
}

TEST(ItemOrder, AnItemSortsBeforeItsContinuation) {
    Generator generator(1);
    for (int i = 0; i < 2000; ++i) {
        const Item item = encode(generator.models(2));
        Item longer = item;
        longer.addBool(false);
        ASSERT_LT(Item::compare(item, longer), 0);
    }
}

TEST(ItemDecoding, RandomBytesAreReadToTheirEndOrRefused) {
    Generator generator(99);
    static constexpr unsigned char codes[] = {0,    1,    2,    12,   13,   14,   0x10, 0x17,
                                              0x18, 0x19, 0x20, 0x28, 0x30, 0x38, 0xff};
    int wellFormed = 0;
    for (int i = 0; i < 200000; ++i) {
        std::vector<unsigned char> bytes(generator.upTo(12));
        for (unsigned char& byte : bytes)
            byte = codes[generator.upTo(14)];
        Item item;
        item.setPlain(bytes.data(), bytes.size());
        Item::Iterator at(item);
        Item again;
        String text;
        while (at.convertAsString(text)) {
        }
        const bool readWhole = at.atEnd();
        if (item.isWellFormed()) {
            ++wellFormed;
            ASSERT_TRUE(readWhole);
            again.addItem(item);
            ASSERT_TRUE(again.isWellFormed());
        }
        ASSERT_EQ(item.asString().str().find("malformed") == std::string::npos, item.isWellFormed())
            << item.asString().str();
        const Item trail = item.trail();
        ASSERT_LE(trail.size(), item.size());
    }
    EXPECT_GT(wellFormed, 1000);
}
