#include "qelCore/Object.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "qelCore/PointerOwner.h"
#include "qelCore/Ref.h"

namespace qel {
namespace {

std::vector<std::string> names(const std::array<const char*, 16>& chain) {
    std::vector<std::string> found;
    for (const char* name : chain) {
        if (name == nullptr)
            break;
        found.emplace_back(name);
    }
    return found;
}

class Animal : public Object {
    QEL_CLASS(Animal, Object)
    explicit Animal(int* alive = nullptr) : alive_(alive) {
        if (alive_ != nullptr)
            ++*alive_;
    }
    ~Animal() override {
        if (alive_ != nullptr)
            --*alive_;
    }
    Animal(const Animal&) = default;
    Animal& operator=(const Animal&) = default;

  private:
    int* alive_;
};

class Dog : public Animal {
    QEL_CLASS(Dog, Animal)
    using Animal::Animal;
};

TEST(ClassNames, StaticAndDynamicNameTheClass) {
    const Dog dog;
    const Object& object = dog;
    EXPECT_STREQ(Dog::getStaticClassName(), "Dog");
    EXPECT_STREQ(object.getDynamicClassName(), "Dog");
    EXPECT_STREQ(Object::getStaticClassName(), "Object");
}

TEST(ClassNames, ChainNamesBasesFirstAndANullFollows) {
    const Dog dog;
    const Object& object = dog;
    EXPECT_EQ(names(Dog::getStaticClassChain()), (std::vector<std::string>{"Object", "Animal", "Dog"}));
    EXPECT_EQ(names(object.getDynamicClassChain()), names(Dog::getStaticClassChain()));
    EXPECT_EQ(Dog::getStaticClassChain()[3], nullptr);
    EXPECT_EQ(Dog::getStaticClassChain()[15], nullptr);
}

class ChainReader : public Dog {
  public:
    static int fill(std::array<const char*, 16>& chain, int index) {
        return Dog::fillClassChain(chain, index);
    }
};

TEST(ClassNames, FillingReturnsTheIndexBehindTheClass) {
    std::array<const char*, 16> chain{};
    EXPECT_EQ(ChainReader::fill(chain, 2), 5);
    EXPECT_EQ(chain[1], nullptr);
    EXPECT_STREQ(chain[2], "Object");
    EXPECT_STREQ(chain[4], "Dog");
}

TEST(ClassNames, FillingNeverWritesTheLastPlace) {
    std::array<const char*, 16> chain{};
    EXPECT_EQ(ChainReader::fill(chain, 14), 15);
    EXPECT_STREQ(chain[14], "Object");
    EXPECT_EQ(chain[15], nullptr);
    EXPECT_EQ(ChainReader::fill(chain, -1), -1);
}

// The first virtual operations in the table of virtual functions, which other modules rely on.
TEST(ClassNames, NameThenChainThenDestructorAreTheFirstVirtualOperations) {
    using NameOperation = const char* (*)(const Object*);
    const Dog dog;
    const Object* const object = &dog;
    void* const* const table = *reinterpret_cast<void* const* const*>(object);
    EXPECT_STREQ(reinterpret_cast<NameOperation>(table[0])(object), "Dog");
    using ChainOperation = std::array<const char*, 16> (*)(const Object*);
    EXPECT_STREQ(reinterpret_cast<ChainOperation>(table[1])(object)[1], "Animal");
}

TEST(ReferenceCount, CreatorHoldsTheFirst) {
    int alive = 0;
    auto* animal = new Animal(&alive);
    EXPECT_EQ(animal->getReferenceCount(), 1);
    animal->increaseReferenceCount();
    animal->decreaseReferenceCount();
    EXPECT_EQ(alive, 1);
    animal->decreaseReferenceCount();
    EXPECT_EQ(alive, 0);
}

TEST(ReferenceCount, CopyHasOneOfItsOwnAndAssignmentKeepsIts) {
    Animal first;
    first.increaseReferenceCount();
    Animal copy(first);
    EXPECT_EQ(copy.getReferenceCount(), 1);
    copy = first;
    EXPECT_EQ(copy.getReferenceCount(), 1);
    EXPECT_EQ(first.getReferenceCount(), 2);
}

TEST(ReferenceCount, ChangesFromManyThreads) {
    int alive = 0;
    auto* animal = new Animal(&alive);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([animal] {
            for (int i = 0; i < 10000; ++i) {
                animal->increaseReferenceCount();
                animal->decreaseReferenceCount();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(animal->getReferenceCount(), 1);
    animal->decreaseReferenceCount();
    EXPECT_EQ(alive, 0);
}

TEST(Ref, SharesAndGivesBack) {
    int alive = 0;
    {
        Ref<Animal> first = makeRef<Dog>(&alive);
        Ref<Object> second = first;
        EXPECT_EQ(first->getReferenceCount(), 2);
        Ref<Animal> third = std::move(first);
        // cppcheck-suppress accessMoved ; what is left of it is what is tested
        EXPECT_TRUE(first == nullptr);
        EXPECT_EQ(third->getReferenceCount(), 2);
        third = third.get() == nullptr ? Ref<Animal>() : third;
        second.reset();
        EXPECT_EQ(third->getReferenceCount(), 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST(Ref, AdoptTakesOverShareAddsReleaseHandsOut) {
    int alive = 0;
    Ref<Animal> owner = Ref<Animal>::adopt(new Animal(&alive));
    const Ref<Animal> other = Ref<Animal>::share(owner.get());
    EXPECT_EQ(owner->getReferenceCount(), 2);
    Animal* const raw = owner.release();
    EXPECT_FALSE(owner);
    raw->decreaseReferenceCount();
    EXPECT_EQ(other->getReferenceCount(), 1);
}

TEST(PointerOwner, ReleasesWhatItHeldBefore) {
    int alive = 0;
    PointerOwner owner;
    owner.own(new Animal(&alive));
    owner.own(new Dog(&alive));
    EXPECT_EQ(alive, 1);
    {
        const PointerOwner copy = owner;
        owner.release();
        EXPECT_EQ(alive, 1);
        EXPECT_STREQ(copy.get()->getDynamicClassName(), "Dog");
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(owner.get(), nullptr);
}

}  // namespace
}  // namespace qel
