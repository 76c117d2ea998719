// The partition editing commands as the dispatcher runs them: sort,
// issorted, active, hide, inactive, unhide, del, type= and create=.
#pragma once

namespace dh {

class DiskSet;

// Runs Options().command on the current disk (every disk for del with
// disk=* part=*) and records the outcome in the run state.  Called after
// the dispatcher's selector checks and the confirmation.
void RunEditCommand(DiskSet& disks);

}  // namespace dh
