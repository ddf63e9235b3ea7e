#include <cstring>
#include <string>

#include "support/catalogue.h"
#include "system.h"

namespace ksomd::test {
namespace {

// The catalogue as Windows delivers its texts.
const char* text(DWORD identifier) {
  static const std::string long_text = [] {
    std::string letters;
    for (int i = 0; i < 600; ++i) {
      letters += static_cast<char>('a' + i % 26);
    }
    return letters + "\r\n";
  }();
  switch (identifier) {
    case 0x80000017:
      return "Translated: not this processor.\r\n";
    case 0x80000018:
      return "Translated: 100%% of %s.\r\n";
    case 0x8000001B:
      return "Translated: %d\n";
    case 0x8000001E:
      return "\r\n";
    case 0x8000002C:
      return "Translated level B\r\n";
    case 0x80000031:
      return long_text.c_str();
    case 0x80000039:
      return " plus%% ";
    default:
      return nullptr;
  }
}

bool holds(const char* name) {
  return std::strcmp(name, "1033/kso_msg.dll") == 0;
}

constexpr host::Catalogue english{1033, holds, text};
constexpr host::Catalogue german{1031, holds, text};

}  // namespace

void use_catalogue(bool present) {
  host::catalogue = present ? &english : &german;
}

}  // namespace ksomd::test
