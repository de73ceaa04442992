#include "qelCore/File.h"

#include "base/FileContent.h"

namespace qel {

bool File::writeFile(const char* path, ConstByteSpan bytes) {
    return writeWholeFile(path, bytes.view());
}

}  // namespace qel
