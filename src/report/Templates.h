#pragma once

#include "qelCore/String.h"

/// The fixed parts of a report page, as they stand in the files of templates/. A placeholder is an upper-case
/// name between four square brackets.
namespace qel::templates {

enum class Part { header, footer, separator, description, barchart, table };

/// A copy of one part, to be filled.
String get(Part part);

}  // namespace qel::templates
