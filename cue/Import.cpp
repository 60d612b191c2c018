#include "cue/Import.h"

#include <algorithm>
#include <array>
#include <utility>

#include "artnet/RecordingFormat.h"
#include "cue/CueError.h"
#include "cue/FseqReader.h"
#include "cue/Gzip.h"
#include "cue/OlaShowReader.h"
#include "cue/Pcap.h"
#include "cue/Pcapng.h"
#include "cue/RecordingWriter.h"
#include "cue/Text.h"

namespace cue {
namespace {

/// A format that can be imported.
struct Format {
  const char* name;
  const char* kind;  // what such a file is
  bool (*recognises)(const std::uint8_t* head, std::size_t size);

  /// The reader gets the bytes once from front to back, unpacked. One that must read twice has the input keep
  /// them.
  std::unique_ptr<ForeignReader> (*open)(ByteSource source, const Input& input, const ImportOptions& options);
};

std::unique_ptr<ForeignReader> read_pcap(ByteSource source, const Input& input,
                                         const ImportOptions& options) {
  return std::make_unique<CaptureReader>(open_pcap(std::move(source), input.name()), input.name(),
                                         options.capture);
}

std::unique_ptr<ForeignReader> read_pcapng(ByteSource source, const Input& input,
                                           const ImportOptions& options) {
  return std::make_unique<CaptureReader>(std::make_unique<PcapngReader>(std::move(source)), input.name(),
                                         options.capture);
}

/// What is chosen by protocol, port and sender has all three. @throws CueError
void refuse_capture_options(const Input& input, const CaptureOptions& wanted) {
  if (wanted.protocol || wanted.port || !wanted.senders.empty())
    throw CueError(input.name() + ": not a capture; a protocol, port or sender cannot be chosen");
}

std::unique_ptr<ForeignReader> read_fseq(ByteSource source, const Input& input,
                                         const ImportOptions& options) {
  refuse_capture_options(input, options.capture);
  return open_fseq(std::move(source), input.name());
}

std::unique_ptr<ForeignReader> read_ola_show(ByteSource source, const Input& input,
                                             const ImportOptions& options) {
  refuse_capture_options(input, options.capture);
  return open_ola_show(std::move(source), input.name());
}

constexpr std::array kFormats = {
    Format{"pcap", "a capture", begins_pcap, read_pcap},
    Format{"pcapng", "a capture", begins_pcapng, read_pcapng},
    Format{"FSEQ", "an FSEQ sequence", is_fseq, read_fseq},
    Format{"OLA show", "a show of ola_recorder", is_ola_show, read_ola_show},
};

/// A reader of unpacked bytes; what is wrong with the packed ones breaks it off too.
class UnpackedReader : public ForeignReader {
public:
  UnpackedReader(Gunzip packed, std::unique_ptr<ForeignReader> of)
      : gunzip(std::move(packed)), reader(std::move(of)) {}

  bool next(ForeignDatagram& datagram) override { return reader->next(datagram); }
  std::string breaks_off() const override {
    return gunzip.breaks_off().empty() ? reader->breaks_off() : gunzip.breaks_off();
  }
  std::vector<std::string> losses() const override { return reader->losses(); }

private:
  Gunzip gunzip;
  std::unique_ptr<ForeignReader> reader;
};

/// The format of a file that begins so; nullptr when none is known.
const Format* format_of(const std::vector<std::uint8_t>& front) {
  for (const Format& format : kFormats)
    if (format.recognises(front.data(), front.size())) return &format;
  return nullptr;
}

ForeignFile open_format(ByteSource source, const Input& input, const ImportOptions& options) {
  const std::vector<std::uint8_t> front = peek(source, kForeignFront);
  if (const Format* const format = format_of(front))
    return {format->name, format->open(std::move(source), input, options)};
  if (front.empty()) throw CueError(input.name() + ": empty");
  std::string names;
  for (const Format& format : kFormats) names += std::string(names.empty() ? "" : ", ") + format.name;
  throw CueError(input.name() + ": not a file that can be imported (" + names + ")");
}

}  // namespace

std::string foreign_kind(const std::vector<std::uint8_t>& front) {
  const Format* const format = format_of(front);
  if (format != nullptr) return std::string(format->kind) + ", see kadrel-cue import";
  if (begins_gzip(front.data(), front.size()))
    return "compressed with gzip; unpack it, or see kadrel-cue import";
  return {};
}

ByteSource open_recording(const Input& input) {
  ByteSource source = input.open();
  const std::string kind = foreign_kind(peek(source, kForeignFront));
  if (!kind.empty()) throw CueError(input.name() + ": " + kind);
  return source;
}

ForeignFile open_foreign(const Input& input, const ImportOptions& options) {
  return open_foreign(input.open(), input, options);
}

ForeignFile open_foreign(ByteSource source, const Input& input, const ImportOptions& options) {
  const std::vector<std::uint8_t> front = peek(source, kForeignFront);
  if (!begins_gzip(front.data(), front.size())) return open_format(std::move(source), input, options);
  Gunzip gunzip(std::move(source));
  ForeignFile file = open_format(gunzip.source(), input, options);
  file.reader = std::make_unique<UnpackedReader>(std::move(gunzip), std::move(file.reader));
  return file;
}

Imported import_recording(const Input& input, const ImportOptions& options, const Output& output) {
  const ForeignFile file = open_foreign(input, options);
  RecordingWriter writer(output, {input});
  ForeignDatagram datagram;
  Imported imported;
  std::int64_t last = 0;
  std::uint64_t shortened = 0;
  while (file.reader->next(datagram)) {
    if (writer.datagrams() == 0) last = datagram.time;
    const std::int64_t pause = std::min(datagram.time - last, kLongestPause);
    if (pause < datagram.time - last) ++shortened;
    writer.add(datagram.data, datagram.size, pause);
    imported.duration += pause;
    last = datagram.time;
  }
  imported.format = file.format;
  imported.datagrams = writer.datagrams();
  imported.losses = file.reader->losses();
  if (shortened > 0)
    imported.losses.push_back(counted(shortened, "pause") + " of more than 366 days shortened to that");
  imported.breaks_off = file.reader->breaks_off();
  if (imported.datagrams == 0)
    throw CueError(input.name() + ": holds nothing to import" +
                   (imported.breaks_off.empty() ? "" : "; " + imported.breaks_off));
  writer.commit();
  return imported;
}

}  // namespace cue
