#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/ReadyChecks.h"

struct statfs;

namespace kadrel_cue {

/// How far the test of a folder goes.
struct FolderTest {
  std::uint64_t most = std::uint64_t{16} << 20;  // bytes written; never more than an eighth of what is free
  std::chrono::milliseconds writing{2000};       // no write begins after this time
  std::chrono::milliseconds patience{8000};      // with a disk that does not answer
};

/// Looks at the space of a folder, and how quickly it takes data: a file without a name, which is never seen,
/// is written through to the disk and removed. It never waits for longer than the patience, twice.
/// @param recording  a recording runs, which a test would disturb: nothing is written
FolderLook look_at_folder(const std::string& folder, bool recording, const FolderTest& test = {});

/// What the process that waits for the disk works with. It is made by fork() beside other threads, so it may
/// not ask for memory.
struct FolderWork {
  const char* folder;
  const char* name;  // of a file in it, for a file system that has none without a name
  const std::vector<char>& bytes;
  const FolderTest& test;
  bool recording;
  int report;  // a pipe
};

/// Its work: reports the space, then the speed. @return whether the pipe took both
bool report_on_folder(const FolderWork& work);

/// Takes both reports from the other end of the pipe. Each is waited for no longer than @p test says.
void take_reports(int pipe, const FolderTest& test, FolderLook& look);

/// What an ordinary user may still write, as df(1) shows it: counted in fragments, and f_bsize may be a
/// multiple of them (FUSE).
std::uint64_t free_bytes_in(const struct statfs& status);

}  // namespace kadrel_cue
