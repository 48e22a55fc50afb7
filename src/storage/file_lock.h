// Marks files that are being recorded: the writer holds a lock on them, so that nobody repairs a recording
// under its hands. The system drops the lock with the descriptor, however the program ends.
//
// Threads: any. Lifetime: the lock belongs to the open file; the descriptor is borrowed.
#pragma once

namespace lm::storage {

/// True when nobody else holds it. A file system without locks counts as success: nothing can be known
/// there.
bool lockForWriting(int descriptor);

/// True when another open file has the lock; takes none.
bool isLockedByAnother(int descriptor);

}  // namespace lm::storage
