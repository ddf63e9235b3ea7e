// The fold behind __orvex_simd_reduction_final_array.
#pragma once

#include <cstdint>

extern "C" {

// As the exported fold, with the stride settled. Bad codes abort before the count is looked at.
void __orvex_reduction_combine_array(void* destination, const void* source, std::int32_t operation,
                                     std::uint32_t type, std::int32_t stride, std::uint64_t count);

}  // extern "C"
