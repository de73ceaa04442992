#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "auditing/AuditSequence.h"
#include "qelCore/PacketScheme.h"

namespace qel {
namespace {

/// The shared library as a host loads it at run time.
class LoadedLibrary {
  public:
    LoadedLibrary()
        : handle_(dlopen((std::string(QEL_BINARY_DIR) + "/lib/libqelAuditing.so").c_str(),
                         RTLD_NOW | RTLD_LOCAL)) {}
    ~LoadedLibrary() {
        if (handle_ != nullptr)
            dlclose(handle_);
    }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    bool isOpen() const { return handle_ != nullptr; }
    template <class T>
    T* find(const char* symbol) const {
        return reinterpret_cast<T*>(dlsym(handle_, symbol));
    }

  private:
    void* handle_;
};

constexpr const char* dataSymbol = "_ZN3qel13AuditProtocol12AuditSession9AuditDataE";
constexpr const char* ackSymbol = "_ZN3qel13AuditProtocol12AuditSession12AuditDataAckE";
constexpr const char* interactionSymbol = "_ZN3qel13AuditSequence11InteractionEv";

TEST(LoadedLibrary, SchemesAndTheNullSequenceAreThereAfterEveryLoading) {
    for (int round = 0; round < 3; ++round) {
        const LoadedLibrary library;
        ASSERT_TRUE(library.isOpen()) << dlerror();
        PacketScheme** data = library.find<PacketScheme*>(dataSymbol);
        PacketScheme** ack = library.find<PacketScheme*>(ackSymbol);
        auto* interaction = library.find<AuditSequence&()>(interactionSymbol);
        ASSERT_NE(data, nullptr);
        ASSERT_NE(ack, nullptr);
        ASSERT_NE(interaction, nullptr);
        EXPECT_EQ((*data)->getType(), 301);
        EXPECT_EQ((*data)->getNewestVersion(), 1);
        EXPECT_EQ((*ack)->getType(), 302);
        EXPECT_TRUE(interaction().isNullSequence());
    }
}

}  // namespace
}  // namespace qel
