#include "tools/Playback.h"

#include <gtest/gtest.h>

#include <sstream>

#include "cue/Time.h"
#include "unit/cue/directory.h"
#include "unit/cue/receiver.h"
#include "unit/cue/recordings.h"

using cue::kSecond;
using packets::dmx;
using recordings::file_of;
using unit::Receiver;

namespace {

constexpr std::int64_t kMs = 1'000'000;

TEST(Progress, ShowsPositionRemainingTimeDatagramsAndLateness) {
  cue::PlayState state;
  state.position = 12'345 * kMs;
  for (int i = 0; i < 99; ++i) state.lateness.add(kMs / 10);
  state.lateness.add(2 * kMs);
  EXPECT_EQ(kadrel_cue::progress_text(state, 90 * kSecond),
            "12.345 s  1m30.000s left  100 datagrams  late 0.10 ms (most 2.00 ms)");
  state.holding = true;
  EXPECT_EQ(kadrel_cue::progress_text(state, 0),
            "12.345 s  held  100 datagrams  late 0.10 ms (most 2.00 ms)");
}

TEST(Playback, PlaysToAPeerAndTellsItsTiming) {
  const unit::Directory directory;
  Receiver receiver("127.0.0.3");
  kadrel_cue::Playback playback;
  playback.options.file = directory.write("show.cue", file_of({{dmx("a"), 0}, {dmx("b"), 5}}));
  playback.to = {"127.0.0.3", receiver.port};
  playback.stats = true;
  playback.real_time = false;
  playback.progress = true;
  const std::atomic<bool> stop = false;
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(kadrel_cue::play(playback, stop, out, err), 0);
  EXPECT_EQ(receiver.receive(), dmx("a"));
  EXPECT_EQ(receiver.receive(), dmx("b"));
  EXPECT_EQ(out.str().rfind("{\"datagrams\": 2, \"failed\": 0, \"late_p50_ns\": ", 0), 0U) << out.str();
  EXPECT_NE(err.str().find("2 datagrams"), std::string::npos) << err.str();
}

}  // namespace
