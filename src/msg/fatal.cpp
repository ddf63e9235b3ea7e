#include <cstdlib>

#include "ksomd/processor.h"
#include "msg/messages.h"

namespace message = ksomd::message;

void __libkso_fatal_processor(std::uint32_t desc) {
  // A copy, because printing overwrites the buffer of the formatted message.
  char description[ksomd::message_size];
  __libkso_print(1, message::empty_line, 0);
  __libkso_print(1, message::wrong_processor, 0);
  ksomd::copy_message(description, __libkso_format_msg(desc, 0));
  __libkso_print(1, message::allowed_processors, 1, description);
  __libkso_print(1, message::empty_line, 0);
  std::exit(1);
}

void __libkso_fatal_system(std::uint32_t advice) {
  __libkso_print(1, message::empty_line, 0);
  __libkso_print(1, message::wrong_system, 0);
  __libkso_print(1, advice, 0);
  __libkso_print(1, message::empty_line, 0);
  std::exit(1);
}

void __orvex_cpu_dispatch_fail() {
  for (;;) {
    __asm__ volatile("int3");
  }
}
