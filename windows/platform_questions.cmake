# PlatformQuestions.sys, the driver that asks a Windows kernel how its routines answer. For the tests alone: no package
# takes it, so it has neither version nor PDB. It is compiled as the driver is, and calls nothing else of the kernel.

set(PLATFORM_QUESTIONS ${CMAKE_BINARY_DIR}/PlatformQuestions.sys)
file(GLOB QUESTION_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/conformance/platform/questions/*.cpp)
add_library(question_objects STATIC ${QUESTION_SOURCES})
set_target_properties(question_objects PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR} PREFIX lib SUFFIX .a)
target_compile_definitions(question_objects PRIVATE _WIN32_WINNT=0x0601 NTDDI_VERSION=0x06010000)
# Larger frames than the driver's: buffers for answers stand on the stack.
target_compile_options(question_objects PRIVATE
    -fno-exceptions -fno-rtti -Wall -Wextra -Werror -O2 -ffreestanding -fms-extensions -fno-strict-aliasing
    -fasynchronous-unwind-tables -Wframe-larger-than=3072)
target_include_directories(question_objects PRIVATE
    ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include ${CMAKE_CURRENT_SOURCE_DIR}/include)
target_include_directories(question_objects SYSTEM PRIVATE ${DDK} ${DDK}/ddk)

# The options mean what they mean for Tarnveil.sys.
add_custom_command(OUTPUT ${PLATFORM_QUESTIONS}
    COMMAND ${CMAKE_CXX_COMPILER} --target=${CMAKE_CXX_COMPILER_TARGET} -fuse-ld=lld -nostdlib
        -Wl,--subsystem,native -Wl,--entry,PlatformQuestions -Wl,--dynamicbase -Wl,--nxcompat
        -Wl,--disable-tsaware -Wl,--fatal-warnings -Wl,-Xlink=-driver -Wl,-Xlink=-integritycheck
        -Wl,-Xlink=-release -Wl,-Xlink=-Brepro
        -Wl,--whole-archive libquestion_objects.a -Wl,--no-whole-archive libfltmgr.a -lntoskrnl -o PlatformQuestions.sys
    DEPENDS question_objects $<TARGET_FILE:question_objects> ${FLTMGR}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    COMMENT "Linking PlatformQuestions.sys"
    VERBATIM)
add_custom_target(platform_questions ALL DEPENDS ${PLATFORM_QUESTIONS})
