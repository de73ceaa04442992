#include "qelCore/Buffer.h"

#include "qelCore/Resources.h"

namespace qel {

bool Buffer::loadFromResource(const char* name, bool zeroTerminated) {
    const ConstByteSpan resource = resources::find(name);
    if (resource.isNull())
        return false;
    // One byte more in either case, so that the address of empty content is not null.
    Vector<unsigned char> bytes;
    bytes.reserve(resource.size() + 1);
    bytes.assign(resource.begin(), resource.end());
    if (zeroTerminated)
        bytes.push_back(0);
    bytes_ = std::move(bytes);
    size_ = resource.size();
    loaded_ = true;
    return true;
}

}  // namespace qel
