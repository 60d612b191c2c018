#include "src/ServiceStatus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>
#include <vector>

namespace {

using Grabber = ServiceStatus::Grabber;

ServiceStatus recording(const char* file = "/srv/cues/act-2") {
  ServiceStatus status;
  status.grabber = Grabber::Records;
  status.file = QString::fromUtf8(file);
  status.universes = 64;
  status.rate = 2816;
  return status;
}

template <typename Change>
std::string text(ServiceStatus status, Change change) {
  change(status);
  return status_text(status);
}

TEST(ServiceStatus, TellsEachStateInWords) {
  const auto grabber = [](Grabber state) {
    return [state](ServiceStatus& status) { status.grabber = state; };
  };
  EXPECT_EQ(status_text({}), "off");
  EXPECT_EQ(text(recording(), grabber(Grabber::Off)), "off");
  EXPECT_EQ(text(recording(), grabber(Grabber::WaitsForChannel)),
            "armed for /srv/cues/act-2, waits for the record channel");
  EXPECT_EQ(text(recording(), grabber(Grabber::WaitsForFrame)),
            "armed for /srv/cues/act-2, waits for the first frame");
  EXPECT_EQ(status_text(recording()), "recording /srv/cues/act-2, 64 universes, 2,816/s, nothing lost");
}

TEST(ServiceStatus, TellsTheFiguresOfARecording) {
  const std::string head = "recording /srv/cues/act-2, ";
  EXPECT_EQ(text(recording(), [](ServiceStatus& status) { status.rate.reset(); }),
            head + "64 universes, nothing lost");
  EXPECT_EQ(text(recording(), [](ServiceStatus& status) { status.universes = 1; }),
            head + "1 universe, 2,816/s, nothing lost");
  EXPECT_EQ(text(recording(), [](ServiceStatus& status) { status.lost = 12; }),
            head + "64 universes, 2,816/s, 12 lost");
  EXPECT_EQ(text(recording(),
                 [](ServiceStatus& status) {
                   status.universes = 32768;
                   status.rate = 0;
                   status.lost = std::numeric_limits<quint64>::max();
                 }),
            head + "32,768 universes, 0/s, 18,446,744,073,709,551,615 lost");
}

TEST(ServiceStatus, TellsOfADiskThatTakesNothing) {
  struct Row {
    std::size_t bytes;
    const char* words;
  };
  for (const Row& row : std::vector<Row>{{0, "0 bytes"},
                                         {999, "999 bytes"},
                                         {1000, "1.0 KB"},
                                         {999999, "999.9 KB"},
                                         {1449999, "1.4 MB"},
                                         {1073741824, "1,073.7 MB"}}) {
    EXPECT_EQ(text({}, [&row](ServiceStatus& status) { status.late = row.bytes; }),
              std::string("off, ") + row.words + " wait for the disk");
  }
  EXPECT_EQ(
      text(recording(),
           [](ServiceStatus& status) {
             status.refuses = true;
             status.late = 33554432;
             status.lost = 7;
           }),
      "recording /srv/cues/act-2, 64 universes, 2,816/s, the file takes no data, 33.5 MB wait for the disk, "
      "7 lost");
}

TEST(ServiceStatus, TellsThatThePortIsNotBoundInEveryState) {
  const std::string tail = ", the UDP port is not bound: nothing is heard";
  for (const Grabber state :
       {Grabber::Off, Grabber::WaitsForChannel, Grabber::WaitsForFrame, Grabber::Records}) {
    ServiceStatus status = recording();
    status.grabber = state;
    const std::string with_port = status_text(status);
    status.has_port = false;
    EXPECT_EQ(status_text(status), with_port + tail);
  }
}

std::string with_name(const std::string& name) {
  return "recording " + name + ", 64 universes, 2,816/s, nothing lost";
}

TEST(ServiceStatus, IsOneLineWithoutControlCharactersWhateverTheName) {
  struct Row {
    const char* name;
    const char* shown;
  };
  for (const Row& row : std::vector<Row>{
           {"", ""},
           {"a b, \"c\" % =", "a b, \"c\" % ="},
           {"/cues/\xC3\x9C"
            "bung \xF0\x9F\x8E\xAC",
            "/cues/\xC3\x9C"
            "bung \xF0\x9F\x8E\xAC"},
           {"cue\nMAINPID=1\nSTOPPING=1", "cue?MAINPID=1?STOPPING=1"},
           {"a\r\tb\x1B[2Jc\x7F", "a??b?[2Jc?"},
           // The upper control characters, a line and a paragraph separator, a turn of direction.
           {"\xC2\x80\xC2\x9B\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAE", "?????"},
           // Not UTF-8: the framework has a mark for it.
           {"a\xFF"
            "b\xED\xA0\x80",
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"}}) {
    EXPECT_EQ(status_text(recording(row.name)), with_name(row.shown));
  }
  ServiceStatus halves = recording();
  halves.file = QString(QChar(0xDC00)) + QChar(0xD800);
  EXPECT_EQ(status_text(halves), with_name("\xEF\xBF\xBD\xEF\xBF\xBD"));
}

TEST(ServiceStatus, KeepsTheEndOfALongName) {
  const std::string sixty = "/" + std::string(59, 'n');
  EXPECT_EQ(status_text(recording(sixty.c_str())), with_name(sixty));
  EXPECT_EQ(status_text(recording(("/" + sixty).c_str())), with_name("..." + std::string(57, 'n')));
  // Characters are counted, not bytes.
  std::string wide;
  for (int i = 0; i < 60; ++i) wide += "\xF0\x9F\x8E\xAC";
  EXPECT_EQ(status_text(recording(wide.c_str())), with_name(wide));
  EXPECT_EQ(status_text(recording(("/" + wide).c_str())), with_name("..." + wide.substr(12)));
  EXPECT_LT(status_text(recording(std::string(1 << 20, 'x').c_str())).size(), 160U);
}

TEST(ServiceStatus, TellsOfTheEnd) {
  EXPECT_EQ(ending_text(0), "ending");
  EXPECT_EQ(ending_text(2500000), "ending, 2.5 MB wait for the disk");
}

TEST(RateMeter, GivesDatagramsInASecond) {
  using kesto::Clock;
  struct Row {
    quint64 recording;
    qint64 datagrams;
    int milliseconds;
    std::optional<qint64> rate;
  };
  const std::vector<Row> rows = {
      {1, 0, 0, std::nullopt},     {1, 2816, 1000, 2816}, {1, 2816, 2000, 0},
      {1, 5632, 4000, 1408},       {1, 5633, 4900, 1},    {2, 9, 5900, std::nullopt},
      {2, 10, 5900, std::nullopt}, {2, 20, 6900, 10},     {2, 4294967316, 7900, 4294967296},
      {3, 0, 8900, std::nullopt},
  };
  RateMeter meter;
  for (const Row& row : rows) {
    EXPECT_EQ(meter.rate(row.recording, row.datagrams,
                         Clock::time_point(std::chrono::milliseconds(row.milliseconds))),
              row.rate)
        << row.milliseconds;
  }
}

}  // namespace
