#include "storage/LmdbGuard.h"

namespace qel::storage {

thread_local LmdbGuard* LmdbGuard::innermost = nullptr;

void LmdbGuard::leave() {
    if (innermost != nullptr)
        std::longjmp(innermost->wayOut, 1);
}

}  // namespace qel::storage
