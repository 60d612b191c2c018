#include "cue/Text.h"

#include <cstdio>

namespace cue {

std::string counted(std::uint64_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string port_address_text(std::uint16_t port_address) {
  char text[24];
  snprintf(text, sizeof text, "%d/%d/%d", port_address >> 8, (port_address >> 4) & 0x0F, port_address & 0x0F);
  return text;
}

}  // namespace cue
