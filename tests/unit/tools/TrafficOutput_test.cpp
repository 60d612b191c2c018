#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <limits>
#include <sstream>

#include "tools/TrafficJson.h"
#include "tools/TrafficProm.h"
#include "tools/TrafficWords.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"

using kadrel_cue::replace_text_file;
using kadrel_cue::traffic_json;
using kadrel_cue::traffic_prom;

namespace {

constexpr std::int64_t kTime = 1'763'814'241'123'999'999;

cue::StreamFigures art_net_stream() {
  cue::StreamFigures stream;
  stream.universe = 0x123;
  stream.sender = 0x0A000001;
  stream.name = "Desk \"A\" \\ 1";
  stream.contested = true;
  stream.datagrams = 44;
  stream.rate = 43.5;
  stream.jitter = 0.25;
  stream.counts = true;
  stream.counting = cue::Counting::Own;
  stream.missing = 2;
  stream.disordered = 1;
  stream.slots = 3;
  stream.highest = 255;
  stream.levels = {0, 10, 255};
  stream.age = 12'345'678;
  return stream;
}

cue::StreamFigures sacn_stream() {
  cue::StreamFigures stream;
  stream.protocol = cue::Protocol::Sacn;
  stream.universe = 63998;
  stream.sender = 0xFFFEFDFC;
  for (std::uint8_t at = 0; at < stream.cid.size(); ++at) stream.cid[at] = static_cast<std::uint8_t>(17 * at);
  stream.unicast = true;
  stream.ended = true;
  stream.priority = 120;
  return stream;
}

/// The text of a recording: no sender, no counts.
cue::TrafficFigures all_figures() {
  cue::TrafficFigures figures;
  figures.streams = {art_net_stream(), sacn_stream(), {}};
  figures.streams[2].counting = cue::Counting::Chaos;
  figures.art_dmx = {100, 44};
  figures.broken = {3, 0};
  figures.streams_not_shown = 9;
  return figures;
}

TEST(TrafficWords, WriteNumbersInTheSameWayEverywhere) {
  EXPECT_EQ(kadrel_cue::ipv4_text(0xC0A80001), "192.168.0.1");
  EXPECT_EQ(kadrel_cue::net_address_text(0), "0:0:0");
  EXPECT_EQ(kadrel_cue::net_address_text(32767), "127:15:15");
  EXPECT_FALSE(kadrel_cue::net_address_text(32768));
  EXPECT_EQ(kadrel_cue::decimal_seconds(0), "0.000");
  EXPECT_EQ(kadrel_cue::decimal_seconds(kTime), "1763814241.123");
  EXPECT_EQ(kadrel_cue::decimal_seconds(-1), "-0.001");
  EXPECT_EQ(kadrel_cue::decimal_seconds(std::numeric_limits<std::int64_t>::min()), "-9223372036.855");
  EXPECT_EQ(kadrel_cue::decimal_text(0.0005, 3), "0.001");
  EXPECT_EQ(kadrel_cue::decimal_text(std::numeric_limits<double>::max(), 3).size(), 309U + 4);
}

TEST(TrafficJson, HoldsEveryFigureInOneLine) {
  EXPECT_EQ(traffic_json(all_figures(), "eth0", kTime, 5),
            R"({"time":1763814241.123,"source":"eth0","lost":5,"streams_not_shown":9,)"
            R"("packets":{"art_dmx":{"packets":100,"rate":44.000},"art_sync":{"packets":0,"rate":0.000},)"
            R"("art_poll":{"packets":0,"rate":0.000},"art_poll_reply":{"packets":0,"rate":0.000},)"
            R"("art_other":{"packets":0,"rate":0.000},"sacn_data":{"packets":0,"rate":0.000},)"
            R"("sacn_sync":{"packets":0,"rate":0.000},"sacn_discovery":{"packets":0,"rate":0.000},)"
            R"("sacn_other":{"packets":0,"rate":0.000},"broken":{"packets":3,"rate":0.000}},"streams":[)"
            R"({"protocol":"artnet","universe":292,"address":"1:2:3","sender":"10.0.0.1","cid":null,)"
            R"("name":"Desk \"A\" \\ 1","unicast":false,"contested":true,"ended":false,"priority":null,)"
            R"("datagrams":44,"rate":43.500,"jitter":0.250,"counting":"own","missing":2,"disordered":1,)"
            R"("slots":3,"highest":255,"age":0.012,"levels":[0,10,255]},)"
            R"({"protocol":"sacn","universe":63999,"address":null,"sender":"255.254.253.252",)"
            R"("cid":"00112233-4455-6677-8899-aabbccddeeff","name":null,"unicast":true,"contested":false,)"
            R"("ended":true,"priority":120,"datagrams":0,"rate":0.000,"jitter":0.000,"counting":"none",)"
            R"("missing":null,"disordered":null,"slots":0,"highest":0,"age":0.000,"levels":[]},)"
            R"({"protocol":"artnet","universe":1,"address":"0:0:0","sender":null,"cid":null,"name":null,)"
            R"("unicast":false,"contested":false,"ended":false,"priority":null,"datagrams":0,"rate":0.000,)"
            R"("jitter":0.000,"counting":"chaos","missing":null,"disordered":null,"slots":0,"highest":0,)"
            R"("age":0.000,"levels":[]}]})");
  EXPECT_NE(traffic_json({}, "a\n\xFF", 0, 0).find(R"("source":"a\n)"), std::string::npos);
}

/// Lines of a text that begin with these words, without the words.
std::string samples(const std::string& text, const std::string& begin) {
  std::string found;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end - at);
    if (line.rfind(begin, 0) == 0) found += line.substr(begin.size()) + "\n";
    at = end + 1;
  }
  return found;
}

TEST(TrafficProm, NamesEachFigureOnceAndItsSamplesInARow) {
  const std::string text = traffic_prom(all_figures(), "eth0", kTime, 5);
  EXPECT_EQ(text.substr(0, text.find("# HELP kadrel_top_streams_not")),
            "# HELP kadrel_top_time_seconds Time of these figures since 1970.\n"
            "# TYPE kadrel_top_time_seconds gauge\n"
            "kadrel_top_time_seconds{source=\"eth0\"} 1763814241.123\n"
            "# HELP kadrel_top_lost_datagrams_total Datagrams that came and were not taken in time.\n"
            "# TYPE kadrel_top_lost_datagrams_total counter\n"
            "kadrel_top_lost_datagrams_total{source=\"eth0\"} 5\n");
  EXPECT_EQ(samples(text, "kadrel_top_streams_not_shown_total"), "{source=\"eth0\"} 9\n");
  EXPECT_EQ(samples(text, "kadrel_top_packets_total{source=\"eth0\",kind=\"art_dmx\"}"), " 100\n");
  EXPECT_EQ(samples(text, "kadrel_top_packets_per_second{source=\"eth0\",kind=\"art_dmx\"}"), " 44.000\n");
  EXPECT_EQ(samples(text, "kadrel_top_stream_info"),
            "{source=\"eth0\",protocol=\"artnet\",universe=\"292\",sender=\"10.0.0.1\",address=\"1:2:3\","
            "name=\"Desk \\\"A\\\" \\\\ 1\",counting=\"own\"} 1\n"
            "{source=\"eth0\",protocol=\"sacn\",universe=\"63999\",sender=\"255.254.253.252\","
            "cid=\"00112233-4455-6677-8899-aabbccddeeff\",address=\"\",name=\"\",counting=\"none\"} 1\n"
            "{source=\"eth0\",protocol=\"artnet\",universe=\"1\",address=\"0:0:0\",name=\"\","
            "counting=\"chaos\"} 1\n");
}

TEST(TrafficProm, TellsOfEachStreamWhatIsKnown) {
  const std::string text = traffic_prom(all_figures(), "a\\b\"c\nd", kTime, 5);
  const std::string art = R"({source="a\\b\"c\nd",protocol="artnet",universe="292",sender="10.0.0.1"} )";
  const std::string sacn =
      R"({source="a\\b\"c\nd",protocol="sacn",universe="63999",sender="255.254.253.252",)"
      R"(cid="00112233-4455-6677-8899-aabbccddeeff"} )";
  const std::string file = R"({source="a\\b\"c\nd",protocol="artnet",universe="1"} )";
  const auto metric = [&](const std::string& name) { return samples(text, "kadrel_top_stream_" + name); };
  EXPECT_EQ(metric("datagrams_total"), art + "44\n" + sacn + "0\n" + file + "0\n");
  EXPECT_EQ(metric("rate_hertz"), art + "43.500\n" + sacn + "0.000\n" + file + "0.000\n");
  EXPECT_EQ(metric("jitter_seconds"), art + "0.000250\n" + sacn + "0.000000\n" + file + "0.000000\n");
  EXPECT_EQ(metric("missing"), art + "2\n");
  EXPECT_EQ(metric("disordered"), art + "1\n");
  EXPECT_EQ(metric("slots"), art + "3\n" + sacn + "0\n" + file + "0\n");
  EXPECT_EQ(metric("highest_level"), art + "255\n" + sacn + "0\n" + file + "0\n");
  EXPECT_EQ(metric("age_seconds"), art + "0.012\n" + sacn + "0.000\n" + file + "0.000\n");
  EXPECT_EQ(metric("priority"), sacn + "120\n");
  EXPECT_EQ(metric("contested"), art + "1\n" + sacn + "0\n" + file + "0\n");
  EXPECT_EQ(metric("unicast"), art + "0\n" + sacn + "1\n" + file + "0\n");
  EXPECT_EQ(metric("ended"), sacn + "1\n");
}

TEST(TrafficProm, IsUtf8WhateverTheSourceIsCalled) {
  const std::string text = traffic_prom({}, "/cues/f\xFC\"r", 0, 0);
  EXPECT_NE(text.find("kadrel_top_lost_datagrams_total{source=\"/cues/f\xEF\xBF\xBD\\\"r\"} 0\n"),
            std::string::npos)
      << text;
}

TEST(TrafficProm, ReplacesItsFileAtOnceForEverybodyToRead) {
  const unit::Directory directory;
  const std::string path = directory / "kadrel.prom";
  umask(077);
  replace_text_file(path, "old");
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  EXPECT_EQ(before.st_mode & 07777U, 0644U);
  const std::ifstream reader(path);
  replace_text_file(path, "new");
  EXPECT_EQ(directory.content("kadrel.prom"), "new");
  std::stringstream read;
  read << reader.rdbuf();
  EXPECT_EQ(read.str(), "old");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"kadrel.prom"});
}

TEST(TrafficProm, LeavesNothingOfAFileThatCannotBeWritten) {
  const unit::Directory directory;
  const std::string missing = directory / "none/kadrel.prom";
  EXPECT_EQ(unit::error_of([&] { replace_text_file(missing, "new"); }),
            missing + ": No such file or directory");
  EXPECT_EQ(unit::error_of([&] { replace_text_file(directory.path(), "new"); }),
            directory.path() + ": is no regular file");
  EXPECT_EQ(unit::error_of([&] { replace_text_file("/dev/null", "new"); }), "/dev/null: is no regular file");
  EXPECT_EQ(directory.names(), std::vector<std::string>());
}

}  // namespace
