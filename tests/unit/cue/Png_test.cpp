#include "cue/Png.h"

#include <gtest/gtest.h>

#include "unit/artnet/packets.h"

using packets::text;

namespace {

TEST(Png, IsAPngOfItsPixels) {
  cue::Palette palette{};
  palette[1] = {1, 2, 3};
  const std::string png = cue::make_png(3, 2, {0, 1, 0, 1, 0, 1}, palette);
  EXPECT_EQ(png.substr(0, 33),
            text("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\3\0\0\0\2\x08\x03\0\0\0\xAA\xAA\x96(", 33));
  EXPECT_EQ(png.substr(33, 14), text("\0\0\3\0PLTE\0\0\0\1\2\3", 14));
  EXPECT_EQ(png.substr(png.size() - 12), text("\0\0\0\0IEND\xae\x42\x60\x82", 12));
}

}  // namespace
