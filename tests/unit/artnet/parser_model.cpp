#include "unit/artnet/parser_model.h"

#include <iomanip>
#include <ostream>

namespace {

constexpr std::size_t kBufferSize = 512;
const std::string kIdentifier("Art-Net\0", 8);

unsigned number(const std::string& bytes, std::size_t offset) {
  return static_cast<unsigned char>(bytes.at(offset));
}

void exchange(std::string& bytes, std::size_t offset) {
  std::swap(bytes.at(offset), bytes.at(offset + 1));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ParseRecord& record) {
  out << "code " << record.code << ", " << record.packet_count << " packets"
      << (record.running ? ", running" : "");
  for (const std::string& each : record.events) {
    const std::size_t space = each.find(' ');
    out << "\n  " << each.substr(0, space + 1) << std::hex << std::setfill('0');
    for (std::size_t i = space + 1; i < each.size(); ++i) out << std::setw(2) << number(each, i);
    out << std::dec;
  }
  return out;
}

std::string event(const char* kind, const std::string& bytes) {
  return kind + (' ' + bytes);
}

ParseRecord ParserModel::parse(const std::string& stream, const ParseOptions& options) {
  source = stream;
  wanted = options;
  record = ParseRecord();
  record.running = true;
  ending = Ending::None;
  matched = 0;
  refill();
  if (valid == 0) {
    record.code = 2;
    record.running = false;
    return record;
  }
  bool any_identifier = false;
  for (;;) {
    if (!find_identifier()) {
      refill();
      if (valid == 0) break;
      continue;
    }
    any_identifier = true;
    const std::string opcode = take(2);
    if (ending == Ending::Truncated) {
      record.code = 2;
      return record;  // still running
    }
    if (ending == Ending::BeyondBuffer) break;
    dispatch(kIdentifier + opcode);
    if (ending == Ending::BeyondBuffer) break;
    ++record.packet_count;
    if (ending == Ending::Truncated) {
      record.code = 2;
      break;
    }
    if (!record.running) break;
  }
  if (!any_identifier) record.code = 3;
  record.running = false;
  return record;
}

/// Up to 512 further bytes of the stream at the beginning of the buffer; behind them the old content stays.
void ParserModel::refill() {
  valid = source.size() < kBufferSize ? source.size() : kBufferSize;
  for (std::size_t i = 0; i < valid; ++i) buffer[i] = source[i];
  source.erase(0, valid);
  position = 0;
}

/// Looks through the whole buffer, whether its bytes are valid or old.
bool ParserModel::find_identifier() {
  while (position < kBufferSize) {
    const char byte = buffer[position];
    ++position;
    if (byte == kIdentifier[matched]) {
      ++matched;
    } else {
      matched = 0;  // this byte is not compared with the first of the identifier
    }
    if (matched == 8) {
      matched = 0;
      return true;
    }
  }
  return false;
}

/// The next @p n bytes, over the end of the buffer into its next filling. Sets `ending` when there are not as
/// many.
std::string ParserModel::take(std::size_t n) {
  const bool among_old_bytes = position > valid;
  if (among_old_bytes && position + n > kBufferSize) {
    ending = Ending::BeyondBuffer;
    return "";
  }
  std::string bytes;
  while (bytes.size() < n && (among_old_bytes || position < valid)) {
    bytes += buffer[position];
    ++position;
  }
  if (bytes.size() == n) return bytes;
  const std::size_t missing = n - bytes.size();
  refill();
  if (valid < missing) {
    ending = Ending::Truncated;
    return "";
  }
  bytes += buffer.substr(0, missing);
  position = missing;
  return bytes;
}

void ParserModel::dispatch(const std::string& header) {
  const unsigned opcode = number(header, 8) + 256 * number(header, 9);
  if (opcode == 0x2000) {
    if (!wanted.poll) return;
    const std::string body = take(4);
    if (ending == Ending::None) call("poll", header + body);
  } else if (opcode == 0x2100) {
    if (!wanted.poll_reply) return;
    if (valid < 10) {
      ending = Ending::Truncated;
      return;
    }
    const std::string body = take(valid > 239 ? 229 : valid - 10);
    if (ending != Ending::None) return;
    std::string reply = header + body;
    reply.resize(239, '\0');
    exchange(reply, 16);
    exchange(reply, 20);
    exchange(reply, 172);
    for (const std::size_t end_of_text : {43U, 107U, 171U}) reply[end_of_text] = '\0';
    call("reply", reply);
  } else if (opcode == 0x5000) {
    std::string fields = take(8);
    if (ending != Ending::None) return;
    exchange(fields, 6);
    const std::size_t length = number(fields, 6) + 256 * number(fields, 7);
    if (length > 512) {
      if (wanted.others) record.events.push_back("error 4");
      if (wanted.others && record.events.size() == wanted.stop_after) record.running = false;
      return;
    }
    const std::string slots = take(length);
    if (ending != Ending::None) return;
    std::string dmx = header + fields + slots;
    dmx.resize(530, '\0');
    if (wanted.others) call("dmx", dmx);
  } else if (opcode == 0x00FF) {
    const std::string body = take(4);
    if (ending == Ending::None && wanted.others) call("oem", header + body);
  } else if (opcode == 0x00FE) {
    const std::string body = take(8);
    if (ending == Ending::None && wanted.others) call("oem_ns", header + body);
  } else if (opcode == 0x9900) {
    const std::string body = take(8);
    if (ending != Ending::None) return;
    std::string trigger = header + body;
    trigger.resize(530, '\0');
    exchange(trigger, 10);
    exchange(trigger, 14);
    if (wanted.others) call("trigger", trigger);
  } else if (wanted.others) {
    call("unknown", header);
  }
}

void ParserModel::call(const char* kind, const std::string& bytes) {
  record.events.push_back(event(kind, bytes));
  if (record.events.size() == wanted.stop_after) record.running = false;
}
