# The appliance's processor: 32-bit big-endian PowerPC. Libraries and headers come from Debian's cross
# packages and from the prefix that tools/powerpc-libs fills, never from the machine's own.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

# -mcpu is the compiler's default: the instructions that all 32-bit processors of the family have.
get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(BH_POWERPC_LIBS "${root}/build/powerpc-libs" CACHE PATH
    "What tools/powerpc-libs has built")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BH_POWERPC_LIBS)
# The processor's pages are 4 KiB; the linker's default, for all of its kind, is 64 KiB.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=4096")

set(CMAKE_FIND_ROOT_PATH "${BH_POWERPC_LIBS}" /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
