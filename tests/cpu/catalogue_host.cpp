#include <cstring>
#include <map>
#include <string>

#include "cpu/catalogue.h"
#include "platform/platform.h"

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
  static const std::map<DWORD, const char*> texts = {
      {0x80000017, "Translated: not this processor.\r\n"},
      {0x80000018, "Translated: 100%% of %s.\r\n"},
      {0x8000001B, "Translated: %d\n"},
      {0x8000001E, "\r\n"},
      {0x8000001F, "x"},
      {0x8000002C, "Translated level B\r\n"},
      {0x80000031, long_text.c_str()},
      {0x80000032, "Translated: %d%%.\r\n"},
      {0x80000039, " plus%% "}};
  const auto found = texts.find(identifier);
  return found != texts.end() ? found->second : nullptr;
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
