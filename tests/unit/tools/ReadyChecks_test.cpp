#include "tools/ReadyChecks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

using namespace kadrel_cue;

namespace {

constexpr std::uint64_t kGb = 1'000'000'000;
constexpr double kFullBytes = 548;  // of a full ArtDmx in a recording

void expect(const Finding& finding, Level level, const std::string& text, const std::string& advice = "") {
  EXPECT_EQ(static_cast<int>(finding.level), static_cast<int>(level)) << text;
  EXPECT_EQ(finding.text, text);
  EXPECT_EQ(finding.advice, advice) << text;
}

ServiceLook running(ServiceClient::State state) {
  ServiceLook look;
  look.process.emplace();
  look.process->pid = 77;
  look.process->version = "1.5.2";
  look.state = state;
  return look;
}

TEST(ReadyService, SaysWhatItDoesAndWhichVersionItIs) {
  using State = ServiceClient::State;
  expect(check_service(running(State::Off), "1.5.2"), Level::Ok, "off; version 1.5.2, process 77");
  expect(check_service(running(State::Armed), "1.5.2"), Level::Ok, "armed; version 1.5.2, process 77");
  expect(check_service(running(State::Recording), "1.5.2"), Level::Ok,
         "recording; version 1.5.2, process 77");
  ServiceLook look = running(State::Off);
  look.process->version.clear();
  expect(check_service(look, "1.5.2"), Level::Ok, "off; version not known, process 77");
}

TEST(ReadyService, AnOldProgramThatStillRunsIsAWarning) {
  ServiceLook look = running(ServiceClient::State::Off);
  look.process->version = "1.5.1";
  expect(check_service(look, "1.5.2"), Level::Warning, "off; version 1.5.1, process 77",
         "kadrel-cue is 1.5.2; upgrade both, then systemctl --user restart kadrel");
  look.process->replaced = true;
  expect(check_service(look, "1.5.2"), Level::Warning,
         "off; version 1.5.1, process 77; its program was replaced since",
         "between two recordings: systemctl --user restart kadrel");
}

TEST(ReadyService, WithoutAServiceNothingIsReady) {
  ServiceLook look;
  look.bus_error = "no session bus: why";
  expect(check_service(look, "1"), Level::Bad, "cannot ask the session bus", "no session bus: why");
  look.bus_error.clear();
  expect(check_service(look, "1"), Level::Bad, "not running, and this bus cannot start it",
         words_about_missing_service());
  look.can_be_started = true;
  expect(check_service(look, "1"), Level::Bad, "not running; the bus can start it",
         "start it, then look again: systemctl --user start kadrel, or any call to it");
  look = running(ServiceClient::State::Off);
  look.state.reset();
  look.call_error = "no answer";
  expect(check_service(look, "1.5.2"), Level::Bad,
         "on the bus, but it does not answer; version 1.5.2, process 77",
         "no answer; systemctl --user restart kadrel");
}

PortLook::Holder holder(bool any_address, bool ipv6, pid_t pid, const std::string& name) {
  PortLook::Holder result;
  result.socket.any_address = any_address;
  result.socket.ipv6 = ipv6;
  if (pid != 0) result.owner = SocketOwner{pid, name};
  return result;
}

TEST(ReadyPort, SaysWhoHasIt) {
  PortLook look;
  look.port = 6454;
  expect(check_port(look), Level::Ok, "6454 is free");
  look.holders = {holder(false, false, 5, "one"), holder(true, true, 6, "olad")};
  expect(check_port(look), Level::Bad, "6454 is held by olad (process 6)",
         "end it (kill 6), then start kadrel");
  look.service = 77;
  expect(check_port(look), Level::Bad, "6454 is held by olad (process 6)",
         "end it (kill 6), then systemctl --user restart kadrel");
  look.holders = {holder(true, false, 0, "")};
  expect(check_port(look), Level::Bad, "6454 is held by another user's process",
         "sudo ss -ulpn 'sport = 6454' shows whose it is; end it, then systemctl --user restart kadrel");
  look.holders = {holder(false, false, 5, "one")};
  expect(check_port(look), Level::Bad, "6454 is held by one (process 5)",
         "end it (kill 5), then systemctl --user restart kadrel");
  look.holders.clear();
  expect(check_port(look), Level::Bad, "kadrel has not got 6454, nor has anybody",
         "systemctl --user restart kadrel; journalctl -t kadrel says why");
}

TEST(ReadyPort, IsKadrelsWhereItsSocketIs) {
  PortLook look;
  look.port = 6454;
  look.service = 77;
  look.holders = {holder(true, false, 77, "kadrel")};
  expect(check_port(look), Level::Ok, "kadrel has UDP port 6454");
  look.port = 7000;
  expect(check_port(look), Level::Warning, "kadrel has UDP port 7000",
         "consoles send to 6454: set KADREL_PORT=6454 in /etc/default/kadrel, restart kadrel");
  EXPECT_EQ(service_socket(look), &look.holders[0].socket);
  look.service = 0;
  EXPECT_EQ(service_socket(look), nullptr);
}

TEST(ReadyPort, IsNotCalledFreeWhereNobodyCanTell) {
  PortLook look;
  look.port = 6454;
  look.known = false;
  expect(check_port(look), Level::Warning, "the kernel does not tell who has 6454",
         "sudo mount -t proc proc /proc, then look again");
  look.service = 7;
  EXPECT_EQ(static_cast<int>(check_port(look).level), static_cast<int>(Level::Warning));
}

TEST(ReadyNetwork, SaysWhatIsMissingOfEth0) {
  NetworkLook look;
  EXPECT_EQ(check_network(look).text, "no interface eth0: consoles are told 0.0.0.0");
  look.exists = true;
  EXPECT_EQ(check_network(look).text, "eth0 is down");
  look.up = true;
  EXPECT_EQ(check_network(look).text, "eth0 has no link: the cable, or the switch");
  look.carrier = true;
  EXPECT_EQ(check_network(look).text, "eth0 has no IPv4 address: consoles are told 0.0.0.0");
  EXPECT_EQ(static_cast<int>(check_network(look).level), static_cast<int>(Level::Bad));
  for (const char* const broadcast : {"", "10.0.0.5"}) {
    look.address = "10.0.0.5";
    look.broadcast = broadcast;
    expect(check_network(look), Level::Warning,
           "eth0 10.0.0.5, no broadcast address: no node is searched for",
           "give it a netmask with room for one (not /31, /32), brd +; restart kadrel");
  }
  look.broadcast = "10.0.0.255";
  expect(check_network(look), Level::Ok, "eth0 10.0.0.5, broadcast 10.0.0.255");
}

cue::StreamFigures stream(std::uint16_t universe, std::uint32_t sender, std::uint64_t datagrams,
                          cue::Protocol protocol = cue::Protocol::ArtNet) {
  cue::StreamFigures figures;
  figures.protocol = protocol;
  figures.universe = universe;
  figures.sender = sender;
  figures.datagrams = datagrams;
  figures.slots = 512;
  return figures;
}

constexpr std::uint32_t kDesk = 0x0A4D0002;
constexpr std::uint32_t kOwn = 0x0A4D0001;

TEST(ReadyHeard, AreTheArtNetUniversesOfOthers) {
  cue::TrafficFigures figures;
  figures.streams = {stream(0, kDesk, 132), stream(0, kOwn, 132), stream(0, kDesk, 9, cue::Protocol::Sacn),
                     stream(3, kDesk, 66), stream(3, kDesk + 1, 66)};
  figures.streams[0].name = "Desk";
  figures.streams[3].contested = figures.streams[4].contested = true;
  Heard heard;
  take_figures(figures, 3, kOwn, heard);
  EXPECT_EQ(heard.universes, (std::vector<std::uint16_t>{0, 3}));
  EXPECT_EQ(heard.contested, (std::vector<std::uint16_t>{3}));
  ASSERT_EQ(heard.senders.size(), 2U);
  EXPECT_EQ(heard.senders[0].name, "Desk");
  EXPECT_DOUBLE_EQ(heard.datagrams_per_second, 88);
  EXPECT_DOUBLE_EQ(heard.bytes_per_second, 88 * kFullBytes);
  EXPECT_EQ(heard.sacn_universes, 1U);
}

TEST(ReadyHeard, AreContestedByOthersOnly) {
  cue::TrafficFigures figures;
  figures.streams = {stream(0, kDesk, 66), stream(0, kOwn, 66), stream(1, kDesk, 66)};
  for (cue::StreamFigures& one : figures.streams) one.contested = true;
  figures.streams[2].counting = cue::Counting::Two;
  Heard heard;
  take_figures(figures, 3, kOwn, heard);
  EXPECT_EQ(heard.contested, (std::vector<std::uint16_t>{1}));
}

Heard heard_of(std::vector<std::uint16_t> universes) {
  Heard heard;
  heard.seconds = 3;
  heard.universes = std::move(universes);
  heard.datagrams_per_second = 44.0 * static_cast<double>(heard.universes.size());
  heard.bytes_per_second = heard.datagrams_per_second * kFullBytes;
  return heard;
}

TEST(ReadyUniverses, AreHeardAndAnnounced) {
  expect(check_universes(heard_of({0, 1, 2, 3}), 4), Level::Ok, "4 heard in 3.0 s (1-4), 176/s; 4 announced");
  expect(check_universes(heard_of({0, 1, 2, 3}), std::nullopt), Level::Ok, "4 heard in 3.0 s (1-4), 176/s");
  expect(check_universes(heard_of({0, 18}), 2), Level::Warning,
         "2 heard in 3.0 s (1,19), 88/s; 2 announced, not 19 (0:1:2)",
         "KADREL_UNIVERSE_COUNT=19 in /etc/default/kadrel, restart kadrel");
  expect(check_universes(heard_of({65535}), 2), Level::Warning,
         "1 heard in 3.0 s (65536), 44/s; 2 announced, not 65536",
         "KADREL_UNIVERSE_COUNT=32768 in /etc/default/kadrel, restart kadrel");
}

TEST(ReadyUniverses, SayWhenThereIsNothing) {
  expect(check_universes(heard_of({}), 4), Level::Warning, "none heard in 3.0 s; 4 announced",
         "is the console on, in this network, and set to Art-Net?");
  Heard heard = heard_of({});
  heard.sacn_universes = 3;
  expect(check_universes(heard, 4), Level::Warning, "none heard in 3.0 s, 3 of E1.31; 4 announced",
         "kadrel records Art-Net: let the console send it");
  heard.error = "no right";
  heard.advice = "get it";
  expect(check_universes(heard, 4), Level::Warning, "not listened: no right; 4 announced", "get it");
  expect(check_senders(heard), Level::Ok, "not listened");
}

TEST(ReadyUniverses, SayThatNotAllWasLookedAt) {
  Heard heard = heard_of({0});
  heard.lost = 1234;
  expect(check_universes(heard, 1), Level::Warning,
         "1 heard in 3.0 s (1), 44/s, and 1,234 datagrams came too quickly; 1 announced",
         "the rates are higher than shown: end what takes the processor (top), look again");
}

TEST(ReadyUniverses, AListThatIsTooLongIsCut) {
  std::vector<std::uint16_t> odd;
  for (std::uint16_t universe = 0; universe < 200; universe += 2) odd.push_back(universe);
  expect(check_universes(heard_of(odd), 200), Level::Ok,
         "100 heard in 3.0 s (1,3,5,7,9,11,13,15,17,...), 4,400/s; 200 announced");
}

TEST(ReadySenders, AreNamedAndTwoOnAUniverseAreAWarning) {
  Heard heard = heard_of({2});
  expect(check_senders(heard_of({})), Level::Ok, "nobody heard");
  heard.senders = {{kDesk, "Desk"}};
  expect(check_senders(heard), Level::Ok, "10.77.0.2 (Desk)");
  heard.senders = {{kDesk, ""}, {kDesk + 1, "Backup"}, {kDesk + 2, ""}, {kDesk + 3, ""}};
  expect(check_senders(heard), Level::Ok, "10.77.0.2, 10.77.0.3 (Backup) and 2 more");
  heard.senders.resize(2);
  heard.contested = {2};
  expect(check_senders(heard), Level::Warning, "10.77.0.2, 10.77.0.3 (Backup); two on universe 3 (0:0:2)",
         "both are recorded, and the levels jump: silence one");
  heard.contested = {2, 3, 4};
  EXPECT_EQ(check_senders(heard).text, "10.77.0.2, 10.77.0.3 (Backup); two each on universes 3-5");
}

TEST(ReadyLoad, IsWhatWasHeardElseWhatIsAnnounced) {
  EXPECT_DOUBLE_EQ(load_of(heard_of({0, 1}), 8).datagrams_per_second, 88);
  EXPECT_TRUE(load_of(heard_of({0, 1}), 8).heard);
  EXPECT_DOUBLE_EQ(load_of(heard_of({}), 8).datagrams_per_second, 8 * 44);
  EXPECT_DOUBLE_EQ(load_of(heard_of({}), 8).bytes_per_second, 8 * 44 * kFullBytes);
  EXPECT_EQ(load_of(heard_of({}), std::nullopt).universes, 1U);
  EXPECT_FALSE(load_of(heard_of({}), 8).heard);
}

Load load_for(std::uint64_t universes) {
  return load_of(Heard{}, static_cast<int>(universes));
}

TEST(ReadyBuffer, LastsForTwoSecondsOrItIsSaid) {
  expect(check_buffer({8388608, 8388608}, load_for(64)), Level::Ok,
         "8,388,608 bytes, 2.3 s for 64 full universes");
  const std::string packaged = "sudo sysctl --system (50-kadrel.conf: 8,388,608), restart kadrel";
  expect(check_buffer({212992, 212992}, load_for(64)), Level::Warning,
         "212,992 bytes, 0.1 s for 64 full universes; 2 s take 7,208,960", packaged);
  expect(check_buffer({212992, std::nullopt}, load_for(64)), Level::Warning,
         "212,992 bytes, 0.1 s for 64 full universes; 2 s take 7,208,960", packaged);
  expect(check_buffer({212992, 8388608}, load_for(64)), Level::Warning,
         "212,992 bytes, 0.1 s for 64 full universes; 2 s take 7,208,960",
         "the system gives 8,388,608 by now: systemctl --user restart kadrel");
  expect(check_buffer({8388608, 8388608}, load_for(512)), Level::Warning,
         "8,388,608 bytes, 0.3 s for 512 full universes; 2 s take 57,671,680",
         "sudo sysctl -w net.core.rmem_default=67108864, restart kadrel");
}

TEST(ReadyBuffer, ThatDoesNotHoldAFrameIsBad) {
  expect(check_buffer({212992, 212992}, load_for(167)), Level::Bad,
         "212,992 bytes, 0.0 s for 167 full universes; one frame takes 213,760",
         "sudo sysctl -w net.core.rmem_default=33554432, restart kadrel");
  EXPECT_EQ(static_cast<int>(check_buffer({212992, 212992}, load_for(166)).level),
            static_cast<int>(Level::Warning));
}

TEST(ReadyBuffer, MayBeUnknown) {
  expect(check_buffer({std::nullopt, 8388608}, load_for(64)), Level::Ok,
         "8,388,608 bytes at the next start, 2.3 s for 64 full universes");
  expect(check_buffer({}, load_for(64)), Level::Warning,
         "the kernel does not tell the size of the receive buffer",
         "sysctl net.core.rmem_default shows it; 7,208,960 are wanted");
}

TEST(ReadyDrops, SayWhoseTheyAreAndWhenTheyCame) {
  expect(check_drops({0, 0, 0}), Level::Ok, "none at kadrel's socket, none in the system");
  expect(check_drops({0, 0, 1234}), Level::Ok, "none at kadrel's socket, 1,234 in the system");
  expect(check_drops({std::nullopt, 0, std::nullopt}), Level::Ok, "kadrel has no socket");
  expect(check_drops({5000, 0, 5000}), Level::Warning, "5,000 at kadrel's socket, 5,000 in the system",
         "recordings since may miss some (kadrel-cue info); a larger buffer helps");
  expect(check_drops({5000, 12, 5000}), Level::Bad,
         "5,000 at kadrel's socket (12 just now), 5,000 in the system",
         "kadrel gets no processor: end what takes it (top); a larger buffer helps");
}

FolderLook folder() {
  FolderLook look;
  look.folder = "/cues";
  look.answered = true;
  look.free_bytes = 100 * kGb;
  look.tested = true;
  look.written = 16'000'000;
  look.seconds = 0.1;
  return look;
}

TEST(ReadySpace, IsGivenInHours) {
  FolderLook look = folder();
  expect(check_space(look, load_for(64)), Level::Ok,
         "18.0 hours for 64 full universes, 100 GB free in /cues");
  const std::string advice = "remove or move files, or record elsewhere (--cues)";
  look.free_bytes = 20 * kGb;
  expect(check_space(look, load_for(64)), Level::Warning,
         "3.6 hours for 64 full universes, 20.0 GB free in /cues", advice);
  look.free_bytes = kGb;
  expect(check_space(look, load_for(64)), Level::Bad,
         "11 minutes for 64 full universes, 1.0 GB free in /cues", advice);
  look.free_bytes = 0;
  expect(check_space(look, load_of(heard_of({0}), 1)), Level::Bad,
         "0 minutes as heard, 0 bytes free in /cues", advice);
  look.free_bytes = 900'000 * kGb;
  expect(check_space(look, load_for(1)), Level::Ok,
         "over 1,000 hours for 1 full universe, 900 TB free in /cues");
}

TEST(ReadySpace, SaysWhyThereIsNone) {
  const std::string elsewhere = "look at the disk (dmesg), or record elsewhere (--cues)";
  FolderLook look = folder();
  look.error = EROFS;
  expect(check_space(look, load_for(1)), Level::Bad, "/cues: Read-only file system",
         "name the folder of the recordings with --cues, or mend this one");
  expect(check_speed(look, load_for(1)), Level::Ok, "not tested");
  look.error = ENOSPC;
  look.files_left = false;
  expect(check_space(look, load_for(1)), Level::Bad, "/cues: no room for the name of another file (inodes)",
         "remove files, or record elsewhere (--cues)");
  look = {};
  look.folder = "/cues";
  expect(check_space(look, load_for(1)), Level::Bad, "/cues: the disk does not answer", elsewhere);
  expect(check_speed(look, load_for(1)), Level::Ok, "not tested");
}

TEST(ReadySpace, OfFatEndsWithTheFile) {
  FolderLook look = folder();
  look.ends_at_4_gib = true;
  expect(check_space(look, load_for(64)), Level::Warning,
         "18.0 hours for 64 full universes, 100 GB free in /cues; a file on FAT ends at 4 GiB",
         "begin a new file every 46 minutes, or use another disk");
  EXPECT_EQ(static_cast<int>(check_space(look, load_for(1)).level), static_cast<int>(Level::Ok));
}

TEST(ReadySpeed, IsComparedWithWhatARecordingTakes) {
  FolderLook look = folder();
  expect(check_speed(look, load_for(64)), Level::Ok, "160 MB/s written; a recording takes 1.5 MB/s");
  const std::string advice = "end what writes to it, or record onto a quicker disk (--cues)";
  look.seconds = 4;
  expect(check_speed(look, load_for(64)), Level::Warning,
         "4.0 MB/s written; a recording takes 1.5 MB/s, which leaves little to spare", advice);
  look.seconds = 40;
  expect(check_speed(look, load_for(64)), Level::Bad,
         "400 KB/s written; a recording takes 1.5 MB/s, which is more", advice);
}

TEST(ReadySpeed, MayNotBeTested) {
  const std::string elsewhere = "look at the disk (dmesg), or record elsewhere (--cues)";
  FolderLook look = folder();
  look.write_error = EIO;
  expect(check_speed(look, load_for(1)), Level::Bad, "writing failed: Input/output error", elsewhere);
  look.write_error = 0;
  look.tested = false;
  expect(check_speed(look, load_for(1)), Level::Ok, "not tested, there is too little space");
  look.recording = true;
  expect(check_speed(look, load_for(1)), Level::Ok, "not tested, for the sake of the running recording");
  look.recording_known = false;
  expect(check_speed(look, load_for(1)), Level::Ok, "not tested, kadrel may be recording");
  look.stuck = true;
  expect(check_speed(look, load_for(1)), Level::Bad, "the disk stands still: a write did not come back",
         elsewhere);
}

TEST(ReadyPriority, SaysWhatPlaybacksAndTheServiceHave) {
  expect(check_priority({}), Level::Ok, "playbacks get real time");
  PriorityLook look;
  look.nice = -20;
  look.weight = 10000;
  expect(check_priority(look), Level::Ok, "playbacks get real time; kadrel has nice -20, weight 10000");
  look.real_time_error = EPERM;
  expect(check_priority(look), Level::Warning,
         "no real time for playbacks; kadrel has nice -20, weight 10000", kRightsAdvice);
  look.service_in_real_time = true;
  expect(check_priority(look), Level::Warning,
         "no real time for playbacks; kadrel has nice -20, weight 10000, real time",
         "a call on the bus can stop it there: end that (chrt -a -o -p 0 $(pidof kadrel))");
}

TEST(ReadyLog, HasToTakeLinesWhereTheServiceWritesThem) {
  const std::string advice = "start systemd-journald or rsyslog; or KADREL_LOG_OUTPUT=console";
  expect(check_log(LogAnswer::Takes, LogOutput::System), Level::Ok, "the system log takes lines");
  expect(check_log(LogAnswer::Missing, std::nullopt), Level::Warning, "there is no system log (/dev/log)",
         advice);
  expect(check_log(LogAnswer::Refused, LogOutput::System), Level::Warning,
         "nobody takes lines of the system log (/dev/log)", advice);
  expect(check_log(LogAnswer::Stuck, LogOutput::System), Level::Warning,
         "the system log hangs: it takes no lines", advice);
  expect(check_log(LogAnswer::Missing, LogOutput::Console), Level::Ok,
         "on kadrel's console (KADREL_LOG_OUTPUT)");
  expect(check_log(LogAnswer::Stuck, LogOutput::None), Level::Ok, "kadrel writes none (KADREL_LOG_OUTPUT)");
}

}  // namespace
