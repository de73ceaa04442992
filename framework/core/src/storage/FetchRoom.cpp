#include "storage/FetchRoom.h"

#include <algorithm>

namespace qel::storage {

void FetchRoom::fit(std::size_t size) {
    if (size >= room_.size() || size < keptBytes)
        room_ = std::vector<unsigned char>(std::max<std::size_t>(512, size + 1));
}

}  // namespace qel::storage
