// The sector maintenance commands as the dispatcher runs them: save=,
// restore=, show=, wipe=, copy and compare, with their argument checks.
#pragma once

namespace dh {

class DiskSet;

// Runs the command in Options().command when it is one of save= (1),
// restore= (3), show= (4), wipe= (5), copy (17) or compare (18); any other
// command does nothing.  Called after the dispatcher's disk and partition
// checks and the confirmation.  Reads its companion arguments by name
// ("/Filename", "/Range", "/Part", "/Show", "/Sector", "/Source",
// "/Target"), refuses what is missing with the command's code, and records
// the outcome with RecordOutcome.
//
// A compare whose sector side cannot be read throws CompareReadError
// (sectors/sector_ops.h) after making 506 the run's result: the run ends
// there with "Error 99: Exception thrown", as it always has, and the exit
// value tells the failure.
void RunSectorCommand(DiskSet& disks);

}  // namespace dh
