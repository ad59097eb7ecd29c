// Container ids (DCIDs): the container of the store that holds a segment or a record.

#pragma once

// The lowest id of a container. Those below are reserved: records are not built with segments in them, and validation
// reports a note.
inline constexpr unsigned long CR_FIRST_FREE_DCID = 64;
