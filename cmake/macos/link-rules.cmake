# Modules (the bundle) link through link-bundle with ld64.lld; see toolchain.cmake.
set(CMAKE_CXX_CREATE_SHARED_MODULE "${LUMBREL_MACOS_LINK} <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CMAKE_C_CREATE_SHARED_MODULE "${CMAKE_CXX_CREATE_SHARED_MODULE}")
