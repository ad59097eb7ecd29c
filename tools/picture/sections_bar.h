// A record's bytes as one bar.

#pragma once

#include "anatomy/sections.h"
#include "picture/svg.h"

namespace crrecord::tool {

// Every section as wide as its share of the record, with its name and size below. One that is too narrow to be seen has
// a mark at its place.
void DrawSections(Picture& picture, std::vector<Section> const& sections, std::uint64_t recordSize);

} // namespace crrecord::tool
