#pragma once
// Both programs start with this, before they open anything.

namespace velquin {

// A standard stream started closed (`>&-`) must stay unusable: otherwise the next file opened takes its
// number and results are written into it. Each closed one of descriptors 0–2 gets a read-only
// /dev/null, on which every write fails with EBADF.
void holdClosedStandardStreams();

}  // namespace velquin
