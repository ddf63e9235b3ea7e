// The tests' message catalogue, tests/cpu/kso_msg.mc.
#pragma once

namespace ksomd::test {

// Makes this process find the catalogue, or none. To be called before the first message.
void use_catalogue(bool present);

}  // namespace ksomd::test
