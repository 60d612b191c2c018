#include <gtest/gtest.h>
#include <zlib.h>
#include <zstd.h>

#include <limits>
#include <tuple>

#include "cue/FseqReader.h"
#include "cue/FseqWriter.h"
#include "unit/cue/directory.h"
#include "unit/cue/errors.h"
#include "unit/cue/foreign.h"
#include "unit/cue/recordings.h"

using packets::text;
using recordings::Datagram;
using recordings::file_of;
using unit::error_of;
using unit::Foreign;
using unit::numbered_dmx;
using unit::replaced;

namespace {

constexpr std::int64_t kMs = 1'000'000;

std::string little(std::uint64_t value, unsigned size) {
  std::string bytes;
  for (unsigned i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string zstd(const std::string& plain, bool with_size) {
  std::string packed(ZSTD_compressBound(plain.size()), '\0');
  ZSTD_CCtx* const context = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, with_size ? 1 : 0);
  packed.resize(ZSTD_compress2(context, packed.data(), packed.size(), plain.data(), plain.size()));
  ZSTD_freeCCtx(context);
  return packed;
}

std::string zlib(const std::string& plain) {
  uLongf size = compressBound(plain.size());
  std::string packed(size, '\0');
  compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(plain.data()),
           plain.size());
  packed.resize(size);
  return packed;
}

/// A sequence as other programs write it.
struct Sequence {
  std::string magic = "PSEQ";
  int version = 2;
  int minor = 0;
  unsigned step = 25;
  unsigned compression = 0;
  std::vector<std::pair<unsigned, unsigned>> ranges;  // first channel, channels
  std::vector<std::pair<unsigned, unsigned>> blocks;  // first frame, bytes
  std::string variables;                              // headers before the data
  std::uint32_t channels = 0;
  std::uint32_t frames = 0;
  std::string data;

  std::string file() const {
    const std::size_t tables = version == 1 ? 28 : 32 + 8 * blocks.size() + 6 * ranges.size();
    const std::size_t size = (tables + variables.size() + 3) / 4 * 4;
    std::string bytes = magic + little(size, 2) + little(static_cast<unsigned>(minor), 1) +
                        little(static_cast<unsigned>(version), 1) + little(tables, 2) + little(channels, 4) +
                        little(frames, 4) + little(step, 1) + '\0';
    if (version == 1) {
      bytes += little(0, 4) + text("\x01\x02\0\0", 4);
    } else {
      bytes += little(compression | (blocks.size() >> 8 << 4), 1) + little(blocks.size() & 0xFF, 1) +
               little(ranges.size(), 1) + '\0' + "identify";
      for (const auto& [first, length] : blocks) bytes += little(first, 4) + little(length, 4);
      for (const auto& [first, count] : ranges) bytes += little(first, 3) + little(count, 3);
    }
    bytes += variables;
    bytes.resize(size);
    return bytes + data;
  }

  /// Puts plain frames into blocks of @p lengths frames each, with entries of length 0 between.
  void pack(const std::string& plain, const std::vector<unsigned>& lengths, unsigned how, bool plain_first) {
    compression = how;
    unsigned frame = 0;
    for (const unsigned length : lengths) {
      const std::string part = plain.substr(std::size_t{frame} * channels, std::size_t{length} * channels);
      const bool stored = plain_first && frame == 0;
      const std::string packed = stored ? part : how == 1 ? zstd(part, frame % 2 == 0) : zlib(part);
      blocks.emplace_back(frame, static_cast<unsigned>(packed.size()));
      blocks.emplace_back(0, 0);
      data += packed;
      frame += length;
    }
  }
};

/// @param portion  bytes that are read at once
Foreign read(const std::string& file, std::size_t portion = 1U << 20U) {
  return unit::read_all(*cue::open_fseq(recordings::source_of(file, portion), "show.fseq"));
}

std::string refusal(const std::string& file) {
  const std::string error = error_of([&] { read(file); });
  return error.substr(0, 11) == "show.fseq: " ? error.substr(11) : error;
}

/// 40 frames of the channels 0..1 and 512..514: levels that never repeat, then some that do.
std::string frames_of_five() {
  std::string plain;
  recordings::Chance chance(3);
  for (int i = 0; i < 100; ++i) plain += static_cast<char>(chance.below(256));
  return plain + std::string(100, 'A');
}

/// What a player sends of these frames.
std::vector<Datagram> sent_of_five(unsigned step) {
  const std::string plain = frames_of_five();
  std::vector<Datagram> sent;
  for (unsigned frame = 0; frame < 40; ++frame) {
    sent.emplace_back(numbered_dmx(plain.substr(frame * 5, 2), 0, frame % 255 + 1),
                      frame == 0 ? 0 : step * kMs);
    sent.emplace_back(numbered_dmx(plain.substr(frame * 5 + 2, 3), 1, frame % 255 + 1), 0);
  }
  return sent;
}

TEST(FseqReader, ReadsEveryCompressionWithBlocksAsTheyCome) {
  const std::vector<std::vector<unsigned>> lengths = {
      {40}, {10, 30}, {10, 1, 28, 1}, std::vector<unsigned>(40, 1)};
  for (const unsigned how : {1U, 2U}) {
    for (const auto& blocks : lengths) {
      for (const bool plain_first : {false, true}) {
        Sequence sequence;
        sequence.channels = 5;
        sequence.frames = 40;
        sequence.step = 50;
        sequence.ranges = {{0, 2}, {512, 3}};
        sequence.pack(frames_of_five(), blocks, how, plain_first && how == 2);
        const Foreign found = read(sequence.file());
        EXPECT_EQ(found.datagrams, sent_of_five(50)) << how << " with " << blocks.size() << " blocks";
        EXPECT_EQ(found.breaks_off, "");
        EXPECT_EQ(read(sequence.file(), 1).datagrams, found.datagrams) << "byte by byte";
      }
    }
  }
}

TEST(FseqReader, ReadsMoreBlocksThanAByteCounts) {
  Sequence sequence;
  sequence.minor = 1;
  sequence.channels = 1;
  sequence.frames = 1000;
  sequence.pack(std::string(1000, 'x'), std::vector<unsigned>(1000, 1), 1, false);
  const Foreign found = read(sequence.file());
  EXPECT_EQ(found.datagrams.size(), 1000U);
  EXPECT_EQ(found.datagrams[999].first, numbered_dmx("x", 0, 999 % 255 + 1));
}

TEST(FseqReader, ReadsCompressedDataWithoutATableAndPlainDataWithOne) {
  Sequence sequence;
  sequence.channels = 5;
  sequence.frames = 40;
  sequence.ranges = {{0, 2}, {512, 3}};
  sequence.data = frames_of_five();
  EXPECT_EQ(read(sequence.file()).datagrams, sent_of_five(25));
  sequence.blocks = {{0, 7}, {3, 1}};
  EXPECT_EQ(read(sequence.file()).datagrams, sent_of_five(25)) << "blocks of plain data mean nothing";
  sequence.blocks.clear();
  sequence.compression = 1;
  sequence.data = zstd(frames_of_five().substr(0, 77), false) + zstd(frames_of_five().substr(77), true);
  EXPECT_EQ(read(sequence.file()).datagrams, sent_of_five(25));
  sequence.data += "bytes behind the last frame";
  EXPECT_EQ(read(sequence.file()).datagrams, sent_of_five(25));
  EXPECT_EQ(read(sequence.file()).breaks_off, "");
  sequence.compression = 2;
  sequence.data = zlib(frames_of_five());
  EXPECT_EQ(read(sequence.file()).datagrams, sent_of_five(25));
}

TEST(FseqReader, ReadsVersion1AndItsOldName) {
  Sequence sequence;
  sequence.version = 1;
  sequence.channels = 513;
  sequence.frames = 2;
  sequence.step = 100;
  sequence.data = std::string(512, 'a') + "b" + std::string(512, 'c') + "d" + "behind the end";
  sequence.variables = little(12, 2) + "mf" + text("a\nb.mp3\0", 8) + little(0, 4);
  for (const char* const magic : {"PSEQ", "FSEQ"}) {
    sequence.magic = magic;
    const std::string file = sequence.file();
    EXPECT_TRUE(cue::is_fseq(recordings::bytes_of(file), file.size()));
    const Foreign found = read(file);
    EXPECT_EQ(found.datagrams, (std::vector<Datagram>{{numbered_dmx(std::string(512, 'a'), 0, 1), 0},
                                                      {numbered_dmx("b", 1, 1), 0},
                                                      {numbered_dmx(std::string(512, 'c'), 0, 2), 100 * kMs},
                                                      {numbered_dmx("d", 1, 2), 0}}));
    EXPECT_EQ(found.breaks_off, "");
    EXPECT_EQ(found.losses, std::vector<std::string>{"the music file \"a?b.mp3\""});
  }
  EXPECT_FALSE(cue::is_fseq(recordings::bytes_of("PSE"), 3));
}

TEST(FseqReader, PassesOverOtherVariableHeaders) {
  Sequence sequence;
  sequence.channels = 1;
  sequence.frames = 1;
  sequence.data = "x";
  const std::string producer = little(8, 2) + "sp" + text("me!\0", 4);
  const std::string music = little(10, 2) + "mf" + "a.mp3x";
  const auto losses = [&](const std::string& variables) {
    sequence.variables = variables;
    const Foreign found = read(sequence.file());
    EXPECT_EQ(found.datagrams.size(), 1U);
    return found.losses;
  };
  EXPECT_TRUE(losses(producer).empty());
  EXPECT_EQ(losses(producer + little(0, 4) + music), std::vector<std::string>{"the music file \"a.mp3x\""});
  EXPECT_TRUE(losses(little(999, 2) + "mfa.mp3").empty()) << "reaches into the data";
  EXPECT_TRUE(losses(little(4, 2) + "mf").empty());
}

TEST(FseqReader, PutsTheChannelsOfRangesIntoTheirUniverses) {
  Sequence sequence;
  sequence.ranges = {{1023, 3}, {510, 1}, {0xFFFFFF, 1}, {1, 1}};
  sequence.channels = 7;  // one more than the ranges say
  sequence.frames = 1;
  sequence.data = "abcdef?";
  std::vector<std::string> expected = {
      numbered_dmx(text("\0f", 2), 0, 1), numbered_dmx(std::string(511, '\0') + "a", 1, 1),
      numbered_dmx("bc", 2, 1), numbered_dmx(std::string(511, '\0') + "e", 32767, 1)};
  expected[0] = numbered_dmx(text("\0f", 2) + std::string(508, '\0') + "d", 0, 1);
  const Foreign found = read(sequence.file());
  std::vector<std::string> datagrams;
  for (const Datagram& datagram : found.datagrams) datagrams.push_back(datagram.first);
  EXPECT_EQ(datagrams, expected);
}

TEST(FseqReader, SaysWhereASequenceBreaksOff) {
  Sequence sequence;
  sequence.channels = 5;
  sequence.frames = 40;
  sequence.ranges = {{0, 2}, {512, 3}};
  sequence.data = frames_of_five();
  const auto broken = [](const std::string& file, std::size_t frames) {
    const Foreign found = read(file);
    EXPECT_EQ(found.datagrams.size(), 2 * frames);
    return found.breaks_off;
  };
  const std::string plain = sequence.file();
  EXPECT_EQ(broken(plain.substr(0, plain.size() - 1), 39), "ends within frame 40 of 40");
  EXPECT_EQ(broken(plain.substr(0, plain.size() - 5), 39), "ends before frame 40 of 40");
  for (const unsigned how : {1U, 2U}) {
    const std::string name = how == 1 ? "zstd" : "zlib";
    sequence.data.clear();
    sequence.blocks.clear();
    sequence.pack(frames_of_five(), {10, 30}, how, false);
    std::string packed = sequence.file();
    EXPECT_NE(broken(packed.substr(0, packed.size() - 60), 10).find("frame 11 of 40"), std::string::npos);
    if (how == 2) {
      std::string changed = packed;
      changed.back() = static_cast<char>(changed.back() + 1);
      EXPECT_EQ(broken(changed, 39), "frame 40 of 40: zlib: incorrect data check");
    }
    const std::size_t second = packed.size() - sequence.blocks[2].second;
    packed.replace(second, 4, 4, '\xEE');
    EXPECT_NE(broken(packed, 10).find("frame 11 of 40: " + name + ": "), std::string::npos);
    sequence.blocks[2].first = 12;
    EXPECT_EQ(broken(sequence.file(), 10), "ends before frame 11 of 40")
        << "less in a block than the table says";
    sequence.blocks[2].first = 7;
    EXPECT_EQ(broken(sequence.file(), 37), "ends before frame 38 of 40")
        << "more in a block than the table says";
  }
}

TEST(FseqReader, RefusesWhatIsNoSequenceThatItKnows) {
  Sequence good;
  good.channels = 1;
  good.frames = 1;
  good.data = "x";
  EXPECT_EQ(refusal(good.file()), "no error");
  EXPECT_EQ(refusal("PSE"), "not an FSEQ file");
  EXPECT_EQ(refusal("PSEQ"), "FSEQ: the header is cut off");
  EXPECT_EQ(refusal(good.file().substr(0, 31)), "FSEQ: the header is cut off");
  EXPECT_EQ(refusal(text("PSEQ\x38\0", 6) + good.file().substr(6)), "FSEQ: the header is cut off");
  const auto changed = [&](const auto& change) {
    Sequence sequence = good;
    change(sequence);
    return refusal(sequence.file());
  };
  EXPECT_EQ(changed([](Sequence& of) { of.version = 3; }), "FSEQ: version 3 is not known");
  EXPECT_EQ(changed([](Sequence& of) { of.compression = 3; }), "FSEQ: compression 3 is not known");
  EXPECT_EQ(changed([](Sequence& of) { of.channels = 0; }), "FSEQ: a frame has no channels");
  EXPECT_EQ(changed([](Sequence& of) { of.ranges = {{5, 0}}; }), "FSEQ: a frame has no channels");
  EXPECT_EQ(changed([](Sequence& of) { of.step = 0; }), "FSEQ: the step from frame to frame is 0 ms");
  EXPECT_EQ(changed([](Sequence& of) { of.channels = 0xFFFFFFFF; }),
            "FSEQ: a frame has 4294967295 channels, more than 33554432");
  EXPECT_EQ(changed([](Sequence& of) {
              of.ranges = {{0, 1}, {5, 1}};
            }),
            "FSEQ: its ranges hold more channels than a frame");
  std::string file = good.file();
  file[22] = 1;
  EXPECT_EQ(refusal(file), "FSEQ: its tables reach into the channel data");
}

TEST(FseqReader, TakesNoMemoryForAFrameThatIsNotThere) {
  Sequence sequence;
  sequence.channels = 65536 * 512;
  sequence.frames = 0xFFFFFFFF;
  sequence.data = std::string(100'000, 'x');
  EXPECT_EQ(read(sequence.file()).breaks_off, "ends within frame 1 of 4294967295");
  sequence.frames = 0;
  EXPECT_EQ(read(sequence.file()).breaks_off, "");
}

/// What export_fseq() makes of datagrams.
struct Written {
  std::string file;
  cue::ExportedFseq outcome;
};

Written write(const std::vector<Datagram>& datagrams, const cue::FseqOptions& options = {}) {
  const unit::Directory directory;
  const cue::ExportedFseq outcome =
      cue::export_fseq(directory.write("show.cue", file_of(datagrams)), replaced(directory / "out"), options);
  return {directory.content("out"), outcome};
}

/// The file with zeros in place of its identifier.
std::string without_identifier(std::string file) {
  return file.replace(24, 8, 8, '\0');
}

TEST(FseqWriter, WritesTheLookAtEachStep) {
  const Written written = write({{numbered_dmx("ab", 0, 0), 0},
                                 {numbered_dmx("cd", 0, 0), 10 * kMs},
                                 {numbered_dmx("ef", 0, 0), 15 * kMs},
                                 {numbered_dmx("gh", 0, 0), 60 * kMs}});
  EXPECT_EQ(without_identifier(written.file), "PSEQ" + little(32, 2) + text("\0\x02", 2) + little(32, 2) +
                                                  little(2, 4) + little(5, 4) + text("\x19\0", 2) +
                                                  std::string(12, '\0') + "ab" + "ef" + "ef" + "ef" + "gh");
  EXPECT_EQ(written.outcome.frames, 5U);
  EXPECT_EQ(written.outcome.channels, 2U);
  EXPECT_EQ(written.outcome.losses,
            (std::vector<std::string>{"1 ArtDmx that were replaced before the next step",
                                      "the times of 2 datagrams to up to 15.0 ms"}));
}

TEST(FseqWriter, WritesSparseRangesRoundedUpToFourBytes) {
  const Written written = write({{numbered_dmx("ab", 1, 0), 0},
                                 {numbered_dmx("c", 5, 0), 0},
                                 {numbered_dmx(std::string(512, 'x'), 2, 0), 0},
                                 {numbered_dmx("z", 3, 0), 0}});
  EXPECT_EQ(without_identifier(written.file),
            "PSEQ" + little(52, 2) + text("\0\x02", 2) + little(50, 2) + little(516, 4) + little(1, 4) +
                text("\x19\0", 2) + text("\0\0\x03\0", 4) + std::string(8, '\0') + little(512, 3) +
                little(2, 3) + little(1024, 3) + little(513, 3) + little(2560, 3) + little(1, 3) +
                text("\0\0", 2) + "ab" + std::string(512, 'x') + "z" + "c");
  EXPECT_TRUE(written.outcome.losses.empty());
}

TEST(FseqWriter, WritesVersion1WithAllChannelsFromTheFirst) {
  const Written written =
      write({{numbered_dmx("ab", 1, 0), 0}, {numbered_dmx("cd", 1, 0), 200 * kMs}}, {1, 200});
  EXPECT_EQ(written.file, "PSEQ" + little(28, 2) + text("\0\x01", 2) + little(28, 2) + little(514, 4) +
                              little(2, 4) + text("\xC8\0\0\0\0\0\x01\x02\0\0", 10) + std::string(512, '\0') +
                              "ab" + std::string(512, '\0') + "cd");
  EXPECT_EQ(written.outcome.losses,
            std::vector<std::string>{"that 512 channels of a frame were not sent (filled with 0)"});
}

TEST(FseqWriter, MergesTheNearestRangesWhenThereAreTooMany) {
  std::vector<Datagram> datagrams;
  for (unsigned i = 0; i < 256; ++i)
    datagrams.emplace_back(numbered_dmx("xy", i < 100 ? 3 * i : 3 * i - 1, 0), 0);
  const Written written = write(datagrams);
  EXPECT_EQ(static_cast<unsigned char>(written.file[22]), 255);
  EXPECT_EQ(written.outcome.channels, 256U * 2 + 1022);
  EXPECT_EQ(written.outcome.losses,
            std::vector<std::string>{"that 1022 channels of a frame were not sent (filled with 0)"});
  const Foreign back = read(written.file);
  EXPECT_EQ(back.datagrams.size(), 257U) << "and the universe in the gap that was closed";
}

TEST(FseqWriter, SaysWhatItDoesNotHold) {
  const Written written = write({{numbered_dmx("abc", 0, 1), 0},
                                 {numbered_dmx("d", 0, 2) + numbered_dmx("e", 40'000, 0), 25 * kMs},
                                 {numbered_dmx("", 7, 0), 25 * kMs},
                                 {numbered_dmx("later", 8, 0), 25 * kMs}});
  EXPECT_EQ(read(written.file).datagrams[4].first, numbered_dmx(text("d\0\0", 3), 0, 3)) << "shorter";
  EXPECT_EQ(
      written.outcome.losses,
      (std::vector<std::string>{"1 ArtDmx of universes above 32768", "1 ArtDmx without slots",
                                "changing numbers of slots in 1 universe (filled with 0)",
                                "the later begin of 3 universes (filled with 0)",
                                "the sequence numbers of 2 ArtDmx", "that 1 datagram held several ArtDmx"}));
  EXPECT_EQ(write({{numbered_dmx("e", 40'000, 0), 0}}, {1, 25}).outcome.channels, 40'000U * 512 + 1);
}

TEST(FseqWriter, RefusesWhatNoSequenceCanHold) {
  const unit::Directory directory;
  const auto error = [&](const std::vector<Datagram>& datagrams) {
    const std::string show = directory.write("show.cue", file_of(datagrams));
    return error_of([&] { cue::export_fseq(show, replaced(directory / "out"), {2, 1}); });
  };
  EXPECT_EQ(error({}), directory / "show.cue: holds no universe that an FSEQ file can hold");
  EXPECT_EQ(error({{numbered_dmx("", 0, 0), 0}}),
            directory / "show.cue: holds no universe that an FSEQ file can hold");
  EXPECT_EQ(error({{numbered_dmx("a", 32768, 0), 0}}),
            directory / "show.cue: holds no universe that an FSEQ file can hold");
  EXPECT_EQ(error({{numbered_dmx("a", 0, 0), 0}, {numbered_dmx("b", 0, 0), kLongestPause}}),
            directory /
                "show.cue: lasts 8784h00m00.000s, longer than an FSEQ file with a step of 1 ms can be; "
                "kadrel-cue info shows its pauses, and kadrel-cue cut takes a part");
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST(FseqWriter, BeginsNoFileThatTheDiskHasNoRoomFor) {
  const unit::Directory directory;
  constexpr std::int64_t kYear = std::int64_t{365} * 86400 * 1000 * kMs;
  const std::string show = directory.write("show.cue", file_of({{numbered_dmx("a", 32767, 0), 0},
                                                                {numbered_dmx("b", 32767, 1), kYear},
                                                                {numbered_dmx("c", 32767, 2), kYear},
                                                                {numbered_dmx("d", 32767, 3), kYear}}));
  const std::string error = error_of([&] { cue::export_fseq(show, replaced(directory / "out"), {1, 25}); });
  const std::string before =
      show + ": lasts 26280h00m00.000s, which makes an FSEQ file of 63488420282 MB, and ";
  EXPECT_EQ(error.substr(0, before.size()), before);
  EXPECT_NE(error.find(" MB are free; kadrel-cue info shows its pauses, and kadrel-cue cut takes a part"),
            std::string::npos);
  EXPECT_EQ(directory.names(), std::vector<std::string>{"show.cue"});
}

TEST(FseqWriter, GoesOnBehindDamageAndSaysItOnce) {
  const unit::Directory directory;
  const std::string damaged = directory.write(
      "show.cue",
      file_of({{numbered_dmx("a", 0, 0), 0}, {numbered_dmx("b", 0, 0), 25 * kMs}, {"Art-Net", kMs}}));
  EXPECT_NE(error_of([&] { cue::export_fseq(damaged, replaced(directory / "out"), {}); }), "no error");
  int damages = 0;
  const auto count = [&](const cue::RecordingReader&, const cue::Damage&) { ++damages; };
  EXPECT_EQ(cue::export_fseq(damaged, replaced(directory / "out"), {}, count).frames, 2U);
  EXPECT_EQ(damages, 1);
}

TEST(Fseq, ComesBackByteForByteWhereTheFormatHoldsAll) {
  recordings::Chance chance(11);
  for (int round = 0; round < 30; ++round) {
    const int version = 1 + round % 2;
    const int step = static_cast<int>(1 + chance.below(255));
    std::vector<unsigned> universes;
    const unsigned count = 1 + chance.below(5);
    for (unsigned i = 0, at = 0; i < count; ++i)
      universes.push_back(version == 1 ? i : at += 1 + chance.below(9));
    const std::size_t slots = version == 1 ? 512 : 1 + chance.below(512);
    std::vector<Datagram> datagrams;
    for (unsigned frame = 0, frames = 1 + chance.below(300); frame < frames; ++frame) {
      for (const unsigned universe : universes) {
        const std::string levels(slots, static_cast<char>(chance.below(256)));
        const bool begins = universe == universes.front();
        datagrams.emplace_back(numbered_dmx(levels, universe, frame % 255 + 1),
                               begins && frame > 0 ? step * kMs : 0);
      }
    }
    const Written written = write(datagrams, {version, step});
    const Foreign back = read(written.file);
    ASSERT_EQ(back.datagrams, datagrams) << "version " << version << ", step " << step;
    EXPECT_EQ(written.outcome.losses.size(), 1U) << "sequence numbers, which the import counts";
  }
}

}  // namespace
