#include "word_colours.h"

#include <cstdio>

namespace ostrel_host {
namespace {

constexpr Colour kGreen{46, 160, 90};
constexpr Colour kAmber{235, 170, 30};
constexpr Colour kOrange{226, 106, 44};
constexpr Colour kRed{200, 40, 50};
constexpr Colour kBlue{70, 130, 190};
constexpr Colour kPaleBlue{140, 180, 215};
constexpr Colour kGrey{150, 150, 155};

bool begins(const std::string& text, const char* start) {
  return text.rfind(start, 0) == 0;
}

bool holds(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

Colour colour_of_word(const std::string& status) {
  if (status == "track_ok" || status == "teleport_ok" || status == "init_ok") return kGreen;
  if (holds(status, "_hold")) return kAmber;
  if (holds(status, "fail") || holds(status, "exception") || holds(status, "dead")) return kRed;
  if (status == "overlay_rejected") return kOrange;
  if (begins(status, "wait_")) return kBlue;
  if (begins(status, "init_") || begins(status, "update_skip_")) return kPaleBlue;
  return kGrey;
}

Colour colour_of_phase(const std::string& phase) {
  if (phase == "ready") return kGreen;
  if (phase == "failed") return kRed;
  if (phase == "waiting_alignment") return kBlue;
  return phase == "idle" ? kGrey : kPaleBlue;
}

std::string to_hex(const Colour& colour) {
  char text[16];
  std::snprintf(text, sizeof text, "#%02x%02x%02x", colour.red & 0xff, colour.green & 0xff,
                colour.blue & 0xff);
  return text;
}

}  // namespace ostrel_host
