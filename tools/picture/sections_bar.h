// A record's bytes, drawn as one bar.

#pragma once

#include "anatomy/sections.h"
#include "picture/svg.h"

namespace crrecord::tool {

// Draws each section as wide as its share of the record, with its name and size below. Sections too narrow to be seen
// have a mark.
void DrawSections(Picture& picture, std::vector<Section> const& sections, std::uint64_t recordSize);

} // namespace crrecord::tool
