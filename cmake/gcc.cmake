# Linux on x86-64 with the other compiler and the other linker, to see that nothing leans on one of
# them.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
