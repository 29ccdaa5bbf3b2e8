# Read by CTest, once per test program: makes one CTest test of each GoogleTest suite that the program lists, so that
# a program starts once per suite and not once per test. Set before: TEST_PROGRAM, TEST_LABEL, TEST_RESULTS.
# Each test leaves its counts in TEST_RESULTS/LABEL.SUITE.xml.

get_filename_component(PROGRAM_NAME ${TEST_PROGRAM} NAME)
set(SUITES "")
set(LISTING_FAILED TRUE)
if(EXISTS ${TEST_PROGRAM})
    execute_process(COMMAND ${TEST_PROGRAM} --gtest_list_tests
        OUTPUT_VARIABLE LISTING RESULT_VARIABLE LISTING_FAILED)
endif()
if(LISTING_FAILED)
    # A program that is missing or cannot even list its tests must not pass for one that has none.
    add_test(${TEST_LABEL}.${PROGRAM_NAME} ${TEST_PROGRAM} --gtest_list_tests)
    set_tests_properties(${TEST_LABEL}.${PROGRAM_NAME} PROPERTIES LABELS ${TEST_LABEL})
endif()

# A suite stands alone on its line and ends in a full stop, with a comment after it when its type is a parameter.
string(REGEX MATCHALL "(^|\n)[A-Za-z0-9_/]+\\." SUITES "${LISTING}")
foreach(SUITE ${SUITES})
    string(REGEX REPLACE "[\n.]" "" SUITE ${SUITE})
    if(SUITE MATCHES "(^|/)DISABLED_")
        continue()
    endif()
    set(TEST_NAME ${TEST_LABEL}.${SUITE})
    string(REPLACE "/" "_" FILE_NAME ${TEST_NAME})
    add_test(${TEST_NAME} ${TEST_PROGRAM} --gtest_filter=${SUITE}.* --gtest_brief=1
        --gtest_output=xml:${TEST_RESULTS}/${FILE_NAME}.xml)
    set_tests_properties(${TEST_NAME} PROPERTIES
        LABELS ${TEST_LABEL}
        TIMEOUT 900
        ENVIRONMENT "ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1;UBSAN_OPTIONS=print_stacktrace=1;TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
endforeach()
