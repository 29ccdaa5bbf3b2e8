# The native build: the driver and the hosted kernel as libraries, the programs and tests that run them.

find_package(Threads REQUIRED)
# The AES routines that the driver calls below the EVP layer are visible in the static library only.
find_library(LIBCRYPTO_STATIC libcrypto.a REQUIRED)
set(TARNVEIL_SANITIZER "" CACHE STRING "What -fsanitize= is given, in every target")
option(TARNVEIL_COVERAGE "Count which lines and branches of the driver run" OFF)
set(TARNVEIL_IMAGE ${CMAKE_SOURCE_DIR}/build/windows/Tarnveil.sys CACHE FILEPATH "The driver image that tests read")

# WCHAR has 16 bits on Windows.
add_compile_options(-fshort-wchar -fno-strict-aliasing -Wall -Wextra -Werror)
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

file(GLOB_RECURSE HOSTED_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/hosted/*.cpp)
list(FILTER HOSTED_SOURCES EXCLUDE REGEX "/hosted/(road|live)/")
add_library(hosted STATIC ${HOSTED_SOURCES})
target_link_libraries(hosted PUBLIC Threads::Threads)
if(TARNVEIL_SANITIZER)
    # Halves the time that these files take. Not in the release build, which so notices a file that forgot to include
    # what it uses.
    target_precompile_headers(hosted PRIVATE
        <algorithm> <atomic> <functional> <map> <memory> <mutex> <optional> <string> <vector>)
endif()

# The live volume: programs of this machine as the hosted system's.
file(GLOB_RECURSE LIVE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/hosted/live/*.cpp)
list(FILTER LIVE_SOURCES EXCLUDE REGEX "/hosted/live/(mount|tarnhost)/")
add_library(live STATIC ${LIVE_SOURCES})
target_link_libraries(live PUBLIC hosted)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3)
file(GLOB MOUNT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/hosted/live/mount/*.cpp)
add_library(live_mount STATIC ${MOUNT_SOURCES})
target_link_libraries(live_mount PUBLIC live PkgConfig::FUSE3)

add_library(driver_native STATIC ${TARNVEIL_DRIVER_SOURCES})
target_compile_definitions(driver_native PRIVATE TARNVEIL_DRIVER_SOURCE=1)
target_compile_options(driver_native PRIVATE ${TARNVEIL_DRIVER_OPTIONS})
target_link_libraries(driver_native PUBLIC hosted ${LIBCRYPTO_STATIC} ${CMAKE_DL_LIBS})

# The structure layouts that both builds must agree on; compiled for its assertions, never linked.
add_library(abi_layout OBJECT ${CMAKE_SOURCE_DIR}/tests/conformance/abi/layout.cpp)

# Defines the program `NAME` from every source below the folder, if it has any.
function(tarnveil_program NAME FOLDER)
    file(GLOB_RECURSE SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${FOLDER}/*.cpp)
    if(SOURCES)
        add_executable(${NAME} ${SOURCES})
        target_link_libraries(${NAME} PRIVATE ${ARGN})
    endif()
endfunction()

tarnveil_program(road hosted/road driver_native hosted)
tarnveil_program(tarnhost hosted/live/tarnhost live_mount driver_native hosted)

# The rules of the package, for the program by which ./package checks what it has made, and for the tests.
file(GLOB PACKAGE_RULES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/conformance/package/rules/*.cpp)
add_library(package_rules STATIC ${PACKAGE_RULES}
    tests/conformance/image/pe_image.cpp tests/conformance/image/image_rules.cpp)
target_link_libraries(package_rules PUBLIC ${LIBCRYPTO_STATIC} ${CMAKE_DL_LIBS} Threads::Threads)
tarnveil_program(check_package tests/conformance/package/check package_rules)

# The agent, whose tests drive it from inside; of the driver it uses the cipher.
file(GLOB TARNCTL_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/agent/tarnctl/*.cpp)
list(FILTER TARNCTL_SOURCES EXCLUDE REGEX "/(main|windows_[a-z_]+)\\.cpp$")
add_library(tarnctl_core STATIC ${TARNCTL_SOURCES})
target_link_libraries(tarnctl_core PUBLIC driver_native)
add_executable(tarnctl ${CMAKE_SOURCE_DIR}/agent/tarnctl/main.cpp)
target_link_libraries(tarnctl PRIVATE tarnctl_core)

# Defines a GoogleTest program whose suites become CTest tests with the given label. `ctest -L LABEL` selects them.
function(tarnveil_test NAME FOLDER LABEL)
    tarnveil_program(${NAME} ${FOLDER} ${ARGN} GTest::gmock GTest::gtest_main)
    if(TARGET ${NAME})
        target_compile_definitions(${NAME} PRIVATE
            TARNVEIL_IMAGE="${TARNVEIL_IMAGE}" TARNVEIL_SOURCES="${CMAKE_SOURCE_DIR}")
        target_precompile_headers(${NAME} PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
        set(INCLUDE_FILE ${CMAKE_BINARY_DIR}/${NAME}_suites.cmake)
        file(GENERATE OUTPUT ${INCLUDE_FILE} CONTENT
"set(TEST_PROGRAM [[$<TARGET_FILE:${NAME}>]])
set(TEST_LABEL ${LABEL})
set(TEST_RESULTS [[${CMAKE_BINARY_DIR}/results]])
include([[${CMAKE_SOURCE_DIR}/cmake/test_suites.cmake]])
")
        set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${INCLUDE_FILE})
    endif()
endfunction()

# The release configuration is for running and measuring; its tests are built where they are run.
if(TARNVEIL_SANITIZER OR TARNVEIL_COVERAGE)
    enable_testing()
    find_package(GTest REQUIRED)
    # The upcase table is compared with ICU's.
    tarnveil_test(unit_tests tests/unit unit tarnctl_core live_mount live driver_native hosted icuuc)
    # Routines that a unit test may answer for; see tests/unit/driver/stand_in.h.
    foreach(ROUTINE FltGetFileNameInformation ZwQuerySymbolicLinkObject _Z12CTInitializeP10CacheTable
            _Z17CTGetElementCountP10CacheTablePj _Z12DecodeBase64PKwjPhPj
            _Z30RegistMonitoredChildrenProcessPK27_SYSTEM_PROCESS_INFORMATION)
        target_link_options(unit_tests PRIVATE -Wl,--wrap=${ROUTINE})
    endforeach()
    target_sources(unit_tests PRIVATE tests/scenario_drivers/native.cpp)
    # Its threads and processes are counted, so that nothing may run in it but its own code.
    add_executable(process_actor tests/actors/process_actor.cpp)
    target_compile_options(process_actor PRIVATE -fno-sanitize=all -fno-profile-instr-generate)
    target_link_options(process_actor PRIVATE -fno-sanitize=all -fno-profile-instr-generate)
    target_link_libraries(process_actor PRIVATE Threads::Threads)
    add_dependencies(unit_tests process_actor)
    target_compile_definitions(unit_tests PRIVATE TARNVEIL_PROCESS_ACTOR="$<TARGET_FILE:process_actor>")
    tarnveil_test(scenario_tests tests/scenario scenario driver_native hosted)
    target_sources(scenario_tests PRIVATE tests/scenario_drivers/native.cpp)
    if(TARNVEIL_SANITIZER MATCHES "address")
        # The same scenarios with the image that ships, which no sanitizer of another kind could look into.
        tarnveil_test(scenario_image_tests tests/scenario image_scenario hosted ${LIBCRYPTO_STATIC})
        target_sources(scenario_image_tests PRIVATE tests/scenario_drivers/shipping.cpp)
        tarnveil_test(conformance_loader tests/conformance/loader image hosted)
        # One configuration is enough: what is tested runs outside of the test program.
        tarnveil_test(conformance_wine tests/conformance/wine wine)
        target_compile_definitions(conformance_wine PRIVATE
            TARNVEIL_AGENT="${CMAKE_SOURCE_DIR}/build/windows/tarnctl.exe")
        # The counting of results, tried on a program that fails in every way.
        add_executable(outcomes_program tests/conformance/results/program/outcomes_program.cpp)
        target_link_libraries(outcomes_program PRIVATE GTest::gtest_main)
        tarnveil_test(conformance_results tests/conformance/results/test results)
        add_dependencies(conformance_results outcomes_program)
        target_compile_definitions(conformance_results PRIVATE OUTCOMES_PROGRAM="$<TARGET_FILE:outcomes_program>")
        # One source of questions, here compiled natively; windows/platform_questions.cmake makes the image of it.
        file(GLOB PLATFORM_QUESTIONS CONFIGURE_DEPENDS
            ${CMAKE_SOURCE_DIR}/tests/conformance/platform/questions/*.cpp)
        add_library(platform_questions STATIC ${PLATFORM_QUESTIONS})
        target_compile_definitions(platform_questions PRIVATE TARNVEIL_DRIVER_SOURCE=1)
        target_link_libraries(platform_questions PUBLIC hosted)
        set(TARNVEIL_QUESTIONS ${CMAKE_SOURCE_DIR}/build/windows/PlatformQuestions.sys CACHE FILEPATH
            "The driver image that asks Windows kernels")
        tarnveil_test(conformance_platform tests/conformance/platform/test platform platform_questions hosted)
        target_sources(conformance_platform PRIVATE tests/conformance/wine/wine_session.cpp)
        target_compile_definitions(conformance_platform PRIVATE TARNVEIL_QUESTIONS="${TARNVEIL_QUESTIONS}")
    endif()
    # Programs on a mounted volume.
    add_executable(random_file_program tests/live/program/random_file_program.cpp)
    add_executable(room_program tests/live/program/room_program.cpp)
    target_link_libraries(room_program PRIVATE Threads::Threads)
    tarnveil_test(live_tests tests/live/test live)
    add_dependencies(live_tests tarnhost tarnctl random_file_program room_program)
    target_compile_definitions(live_tests PRIVATE TARNHOST="$<TARGET_FILE:tarnhost>" TARNCTL="$<TARGET_FILE:tarnctl>"
        RANDOM_FILE_PROGRAM="$<TARGET_FILE:random_file_program>" ROOM_PROGRAM="$<TARGET_FILE:room_program>")
    if(TARNVEIL_SANITIZER MATCHES "address")
        # The other configurations cannot look into the image, so they need not run it.
        target_compile_definitions(live_tests PRIVATE LIVE_TESTS_WITH_IMAGE=1)
    endif()
    tarnveil_test(stress_tests tests/stress stress driver_native hosted)
    tarnveil_test(conformance_image tests/conformance/image image)
    tarnveil_test(conformance_texts tests/conformance/texts texts)
    tarnveil_test(conformance_package tests/conformance/package/test package package_rules)
endif()
