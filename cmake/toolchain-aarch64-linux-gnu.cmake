# Cross-builds for arm64 Linux with Debian's cross g++ (g++-aarch64-linux-gnu).
# The target's libraries come from Debian's arm64 packages installed beside the
# host's (dpkg --add-architecture arm64), under /usr/lib/aarch64-linux-gnu; the
# C library and libstdc++ come from the cross compiler's own tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# The multiarch directory that find_library() and find_package() search under
# each prefix (lib/aarch64-linux-gnu); the project derives the AOSP libraries'
# directory from it too.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
