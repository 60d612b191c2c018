#pragma once

#include <QString>
#include <functional>

/// Path of a new file in the directory @p destpath; its name is a time-based UUID.
/// @return empty when three names in a row exist already or could not be made
QString new_cue_path(const QString& destpath);

/// Copies the ordinary file @p from to the new file @p to, with its permissions. Anything else (a device, a
/// pipe, a folder) is not copied, nor is a file whose lease another process does not give up within a second.
///
/// @p to appears when the whole copy is on the disk, and never replaces a file. Until then the copy has no
/// name or, on file systems that need one, the hidden name ".NAME.kadrel-copy" in the same folder. Gives up,
/// and leaves nothing, when the service is to end (end_requested()). Only a killed process can leave the
/// hidden file.
/// @param between  called after each MiB, which may take a disk long
/// @return true when @p to holds all of @p from
bool copy_cue(
    const QString& from, const QString& to, const std::function<void()>& between = [] {});
