// Division of long integers by somebody else.
#pragma once

#include <cstdint>
#include <vector>

namespace ksomd::test {

using Words = std::vector<std::uint32_t>;  // the least significant first

// Quotient toward zero and remainder of a by b, which is not zero; of as many words, wrapped
// around.
void divide(const Words& a, const Words& b, bool is_signed, Words& quotient, Words& remainder);

}  // namespace ksomd::test
