#include "qelCore/Object.h"

namespace qel {

Object::~Object() = default;

}  // namespace qel
