# 32-bit big-endian PowerPC: g++-powerpc-linux-gnu, and qemu-user to run what it builds.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc;-L;/usr/powerpc-linux-gnu)
# Tests and examples count in atomics of 8 bytes, which this machine has in a library. What ships has
# none, and --as-needed keeps the library out of it.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--as-needed -latomic")
