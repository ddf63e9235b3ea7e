// The fold behind __orvex_simd_reduction_final_array.
#pragma once

#include <cstdint>

extern "C" {

// The exported fold with a plain stride. Bad codes abort even if count is 0.
void __orvex_reduction_combine_array(void* destination, const void* source, std::int32_t operation,
                                     std::uint32_t type, std::int32_t stride, std::uint64_t count);

}  // extern "C"
