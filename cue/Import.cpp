#include "cue/Import.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "cue/CueError.h"
#include "cue/FseqReader.h"
#include "cue/Gzip.h"
#include "cue/OlaShowReader.h"
#include "cue/Pcap.h"
#include "cue/Pcapng.h"
#include "cue/RecordingWriter.h"

namespace cue {
namespace {

// Enough for every format to be recognised by.
constexpr std::size_t kHeadSize = 64;

/// A format that can be imported.
struct Format {
  const char* name;
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
    Format{"pcap", begins_pcap, read_pcap},
    Format{"pcapng", begins_pcapng, read_pcapng},
    Format{"FSEQ", is_fseq, read_fseq},
    Format{"OLA show", is_ola_show, read_ola_show},
};

/// The first bytes of a source, and the source with these bytes still in front.
struct Peeked {
  std::vector<std::uint8_t> head;
  ByteSource source;
};

Peeked peek(const ByteSource& from) {
  std::vector<std::uint8_t> head(kHeadSize);
  std::size_t size = 0;
  while (size < head.size()) {
    const std::size_t count = from(head.data() + size, head.size() - size);
    if (count == 0) break;
    size += count;
  }
  head.resize(size);
  ByteSource all = [head, from, at = std::size_t{0}](std::uint8_t* bytes, std::size_t wanted) mutable {
    if (at == head.size()) return from(bytes, wanted);
    const std::size_t count = std::min(wanted, head.size() - at);
    memcpy(bytes, head.data() + at, count);
    at += count;
    return count;
  };
  return {std::move(head), std::move(all)};
}

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

ForeignFile open_format(const Peeked& peeked, const Input& input, const ImportOptions& options) {
  std::string names;
  for (const Format& format : kFormats) {
    if (format.recognises(peeked.head.data(), peeked.head.size()))
      return {format.name, format.open(peeked.source, input, options)};
    names += std::string(names.empty() ? "" : ", ") + format.name;
  }
  if (peeked.head.empty()) throw CueError(input.name() + ": empty");
  throw CueError(input.name() + ": not a file that can be imported (" + names + ")");
}

}  // namespace

ForeignFile open_foreign(const Input& input, const ImportOptions& options) {
  return open_foreign(input.open(), input, options);
}

ForeignFile open_foreign(const ByteSource& source, const Input& input, const ImportOptions& options) {
  const Peeked peeked = peek(source);
  if (!begins_gzip(peeked.head.data(), peeked.head.size())) return open_format(peeked, input, options);
  Gunzip gunzip(peeked.source);
  ForeignFile file = open_format(peek(gunzip.source()), input, options);
  file.reader = std::make_unique<UnpackedReader>(std::move(gunzip), std::move(file.reader));
  return file;
}

Imported import_recording(const Input& input, const ImportOptions& options, const Output& output) {
  const ForeignFile file = open_foreign(input, options);
  RecordingWriter writer(output, {input});
  ForeignDatagram datagram;
  Imported imported;
  std::int64_t first = 0;
  std::int64_t last = 0;
  while (file.reader->next(datagram)) {
    if (writer.datagrams() == 0) first = last = datagram.time;
    writer.add(datagram.data, datagram.size, datagram.time - last);
    last = datagram.time;
  }
  imported.format = file.format;
  imported.datagrams = writer.datagrams();
  imported.duration = last - first;
  imported.losses = file.reader->losses();
  imported.breaks_off = file.reader->breaks_off();
  if (imported.datagrams == 0)
    throw CueError(input.name() + ": holds nothing to import" +
                   (imported.breaks_off.empty() ? "" : "; " + imported.breaks_off));
  writer.commit();
  return imported;
}

}  // namespace cue
