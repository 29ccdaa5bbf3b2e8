# The native build: the driver and the hosted kernel as libraries, the programs and tests that run them. Here stands what
# all its folders have in common.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
# The AES routines that the driver calls below the EVP layer are visible in the static library only.
find_library(LIBCRYPTO_STATIC libcrypto.a REQUIRED)
set(TARNVEIL_SANITIZER "" CACHE STRING "What -fsanitize= is given, in every target")
option(TARNVEIL_COVERAGE "Count which lines and branches of the driver run" OFF)
set(TARNVEIL_IMAGE ${CMAKE_SOURCE_DIR}/build/windows/Tarnveil.sys CACHE FILEPATH "The driver image that tests read")

# Programs stand side by side, whichever folder they are made of.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
# WCHAR has 16 bits on Windows.
add_compile_options(-fshort-wchar -fno-strict-aliasing -Wall -Wextra -Werror)
# Without times in them, precompiled headers may come out of a compiler cache.
add_compile_options("SHELL:-Xclang -fno-pch-timestamp")
add_link_options(-fuse-ld=lld)
if(TARNVEIL_SANITIZER)
    add_compile_options(-fsanitize=${TARNVEIL_SANITIZER} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${TARNVEIL_SANITIZER})
elseif(NOT TARNVEIL_COVERAGE)
    # Sanitizers and counters pad every frame, so the limit is kept where frames are what they are.
    list(APPEND TARNVEIL_DRIVER_OPTIONS -Wframe-larger-than=1024)
endif()
if(TARNVEIL_COVERAGE)
    list(APPEND TARNVEIL_DRIVER_OPTIONS -fprofile-instr-generate -fcoverage-mapping)
    add_link_options(-fprofile-instr-generate)
endif()
include_directories(${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/hosted/include)

# Defines the library `NAME` from every source below the current folder. Further arguments: what it is linked with.
function(tarnveil_library NAME)
    file(GLOB_RECURSE SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    add_library(${NAME} STATIC ${SOURCES})
    target_link_libraries(${NAME} PUBLIC ${ARGN})
endfunction()

# Defines the program `NAME` from every source below the folder, which is named from the current one.
function(tarnveil_program NAME FOLDER)
    file(GLOB_RECURSE SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${FOLDER}/*.cpp)
    add_executable(${NAME} ${SOURCES})
    target_link_libraries(${NAME} PRIVATE ${ARGN})
endfunction()
