#pragma once

#include <sys/types.h>

#include <QString>

/// Opens @p path as open() does, close-on-exec, and waits for nobody who may never come: a named pipe without
/// a reader is refused, later reads and writes do not block. Only a process that holds a lease on the file is
/// waited for, for a second at most and not when the service is to end. Main thread, without any lock.
/// @return descriptor, or -1 (see errno)
int open_file(const QString& path, int flags, mode_t permissions = 0);
