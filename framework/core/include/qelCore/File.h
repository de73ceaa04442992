#pragma once

#include "qelCore/ConstByteSpan.h"
#include "qelCore/Export.h"

namespace qel {

/// Operations on whole files. Any thread.
class QELCORE_EXPORT File {
  public:
    static const char* getStaticClassName() { return "File"; }

    /// Creates or replaces the file with exactly these bytes, in the way of `String::saveToFile`; true when
    /// all of them were written. Null and empty bytes both make an empty file.
    static bool writeFile(const char* path, ConstByteSpan bytes);
};

}  // namespace qel
