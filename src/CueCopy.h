#pragma once

#include <QString>

/// Path of a file that does not exist yet in the directory @p destpath: its name is a time-based UUID.
/// @return empty when three names in a row were taken or could not be made
QString new_cue_path(const QString& destpath);

/// Copies the ordinary file @p from to the new file @p to, with its permissions. Anything else (a device, a
/// pipe, a folder) is not copied.
///
/// @p to appears when all of the copy is on the disk; nothing is ever replaced. Until then the copy has no
/// name or, on file systems that need one, the hidden name ".NAME.kadrel-copy" in the same folder. Gives up,
/// and leaves nothing, when the service is to end (end_requested()). Only a process that is killed while the
/// copy has its hidden name leaves that.
/// @return true when @p to holds all of @p from
bool copy_cue(const QString& from, const QString& to);
