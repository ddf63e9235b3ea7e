# Linux on x86-64 with gcc and GNU ld, to see that nothing depends on clang or lld.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
