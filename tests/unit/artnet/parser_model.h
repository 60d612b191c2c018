#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a parse did: its callbacks in order, as texts, and how it ended.
struct ParseRecord {
  std::vector<std::string> events;  // kind and bytes of the record
  int code = 0;                     // of the error, 0: none
  unsigned packet_count = 0;
  bool running = false;

  friend bool operator==(const ParseRecord& a, const ParseRecord& b) {
    return a.events == b.events && a.code == b.code && a.packet_count == b.packet_count &&
           a.running == b.running;
  }
  friend bool operator!=(const ParseRecord& a, const ParseRecord& b) { return !(a == b); }
  friend std::ostream& operator<<(std::ostream& out, const ParseRecord& record);
};

/// Which callbacks are set, and after which callback (counted from 1) the parse is stopped.
struct ParseOptions {
  bool poll = true;
  bool poll_reply = true;
  bool others = true;
  std::size_t stop_after = 0;  // 0: never
};

/// An event as ParseRecord holds it.
std::string event(const char* kind, const std::string& bytes);

/// The parser written down a second time, byte by byte and without regard to speed. Like the parser it keeps
/// the content of its buffer from parse to parse.
class ParserModel {
public:
  ParseRecord parse(const std::string& stream, const ParseOptions& options = {});

private:
  enum class Ending { None, Truncated, BeyondBuffer };

  void refill();
  bool find_identifier();
  std::string take(std::size_t n);
  void dispatch(const std::string& header);
  void call(const char* kind, const std::string& bytes);

  std::string buffer = std::string(512, '\0');
  std::string source;        // what is left of the stream
  std::size_t position = 0;  // next byte of the buffer
  std::size_t valid = 0;     // bytes that the last refill delivered
  std::size_t matched = 0;   // bytes of the identifier found so far
  Ending ending = Ending::None;
  ParseOptions wanted;
  ParseRecord record;
};
