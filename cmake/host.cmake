# Linux on x86-64. The compiler is the one that builds the Windows target, so that both products are
# the same machine code as far as the systems allow.
include(${CMAKE_CURRENT_LIST_DIR}/llvm.cmake)
ksomd_llvm_tool(CMAKE_C_COMPILER clang)
ksomd_llvm_tool(CMAKE_CXX_COMPILER clang++)
ksomd_llvm_tool(CMAKE_AR llvm-ar)
ksomd_llvm_tool(CMAKE_RANLIB llvm-ranlib)
ksomd_llvm_tool(CMAKE_STRIP llvm-strip)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld")
