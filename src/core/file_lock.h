// Marks files that a program is writing: it holds a lock on them, so that no one else takes them for
// abandoned or works on them under its hands. The system drops the lock with the descriptor, however the
// program ends.
//
// Threads: any. Lifetime: the lock belongs to the open file; the descriptor is borrowed.
#pragma once

#include <filesystem>

namespace lm {

/// True when no one else holds it. A file system without locks counts as success: nothing can be known
/// there.
bool lockForWriting(int descriptor);

/// True when another open file has the lock; takes none.
bool isLockedByAnother(int descriptor);

/// The same for a file that others may read: nobody who can only read it can pretend to hold that lock.
bool isLockedForWriting(int descriptor);

/// True while `path` names the open file: whoever held the lock before may have removed or renamed it.
bool standsAt(int descriptor, const std::filesystem::path& path);

}  // namespace lm
