# Linux on x86-64 with the other compiler, to see that the sources do not lean on one of them. The
# linker is the same as ever.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-B/usr/lib/llvm-22/bin -fuse-ld=lld")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-B/usr/lib/llvm-22/bin -fuse-ld=lld")
