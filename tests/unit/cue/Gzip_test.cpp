#include "cue/Gzip.h"

#include <gtest/gtest.h>

#include "unit/cue/recordings.h"

namespace {

std::string read(const cue::Gunzip& gunzip, std::size_t portion = 3) {
  const cue::ByteSource source = gunzip.source();
  std::string all;
  std::vector<std::uint8_t> bytes(portion);
  while (const std::size_t count = source(bytes.data(), bytes.size()))
    all.append(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
  return all;
}

/// "hello", compressed by gzip -n.
const std::string kHello("\x1F\x8B\x08\0\0\0\0\0\0\x03\xCBH\xCD\xC9\xC9\x07\0\x86\xA6\x10\x36\x05\0\0\0", 25);

TEST(Gunzip, UnpacksMembersOneAfterTheOther) {
  for (const std::size_t portion : {1U, 1000U}) {
    const cue::Gunzip gunzip(recordings::source_of(kHello + kHello, portion));
    EXPECT_EQ(read(gunzip), "hellohello");
    EXPECT_EQ(gunzip.breaks_off(), "");
  }
}

TEST(Gunzip, GivesWhatComesBeforeADamage) {
  std::string damaged = kHello;
  damaged[18] = 'x';  // in the checksum
  const cue::Gunzip gunzip(recordings::source_of(damaged));
  EXPECT_EQ(read(gunzip), "hello");
  EXPECT_EQ(gunzip.breaks_off(), "the compressed data is damaged");
}

TEST(Gunzip, SaysThatAFileIsCutOffAnywhere) {
  for (std::size_t size = 1; size < kHello.size(); ++size) {
    const cue::Gunzip gunzip(recordings::source_of(kHello.substr(0, size)));
    read(gunzip);
    EXPECT_EQ(gunzip.breaks_off(), "the compressed data is cut off") << size;
  }
}

TEST(Gunzip, IsRecognisedByItsFirstBytes) {
  EXPECT_TRUE(cue::begins_gzip(recordings::bytes_of(kHello), kHello.size()));
  EXPECT_FALSE(cue::begins_gzip(recordings::bytes_of(kHello), 2));
  EXPECT_FALSE(cue::begins_gzip(recordings::bytes_of("Art"), 3));
}

}  // namespace
